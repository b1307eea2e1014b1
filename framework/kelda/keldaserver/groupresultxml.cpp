#include "groupresultxml.h"

#include "keldaxml.h"
#include "localtimetext.h"
#include "replywriter.h"

namespace Kelda {

namespace {

QByteArray qualified(QLatin1String name)
{
    return Tag::m(name).toLatin1();
}

} // namespace

QByteArray GroupResultXml::fixedPart(const FileGroupData &data)
{
    static const QByteArray guid = qualified(Tag::Guid);
    static const QByteArray name = qualified(Tag::FileGroupName);
    static const QByteArray type = qualified(Tag::FileType);
    static const QByteArray reserved = qualified(Tag::ReservedStorage);
    static const std::pair<QByteArray, QString (FileGroupData::*)() const> texts[] = {
        {qualified(Tag::Comment), &FileGroupData::getComment},
        {qualified(Tag::Creator), &FileGroupData::getCreator},
        {qualified(Tag::Detail), &FileGroupData::getDetail},
        {qualified(Tag::TeamMembership), &FileGroupData::getTeamMembership},
        {qualified(Tag::Version), &FileGroupData::getVersion}};
    QByteArray out;
    ReplyWriter::appendTextElement(out, guid, data.getGuid());
    ReplyWriter::appendTextElement(out, name, data.getFileGroupName());
    ReplyWriter::appendPlainElement(out, type, QByteArray::number(data.getFileType()));
    for (const auto &text : texts) {
        const QString value = (data.*text.second)();
        if (!value.isEmpty())
            ReplyWriter::appendTextElement(out, text.first, value);
    }
    ReplyWriter::appendPlainElement(out, reserved, QByteArray::number(qMax(0, data.getReservedStorage())));
    return out;
}

void GroupResultXml::append(QByteArray &out, const SearchRow &row)
{
    static const QByteArray open = '<' + qualified(Tag::FileGroup) + '>';
    static const QByteArray close = "</" + qualified(Tag::FileGroup) + '>';
    static const QByteArray location = qualified(Tag::LocationState);
    static const std::pair<SearchRow::Column, QByteArray> times[] = {{SearchRow::Backup, qualified(Tag::BackupTime)},
                                                                     {SearchRow::Creation,
                                                                      qualified(Tag::CreationTime)},
                                                                     {SearchRow::Modification,
                                                                      qualified(Tag::ModificationTime)},
                                                                     {SearchRow::LifeCycle, qualified(Tag::LifeCycle)}};
    static const QByteArray references = qualified(Tag::ReferenceCounter);

    out += open;
    // The client reads the children in any order, so the changing ones
    // follow the fixed part.
    out += row.bytes(SearchRow::FixedXml);
    const qint64 state = row.number(SearchRow::Location);
    if (state > LS_Undefined)
        ReplyWriter::appendPlainElement(out, location, QByteArray::number(state));
    for (const auto &time : times) {
        if (!row.isNull(time.first))
            ReplyWriter::appendPlainElement(out, time.second, localTimeText(row.number(time.first)));
    }
    ReplyWriter::appendPlainElement(out, references,
                                    QByteArray::number(qMax<qint64>(0, row.number(SearchRow::References))));
    out += close;
}

} // namespace Kelda
