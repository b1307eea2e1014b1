#pragma once

#include "keldaxml.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QXmlStreamWriter>

// The QueryFileGroups answer that the benchmark programs read: groups with
// every field set, as a server writes them.
namespace QueryReply {

// The request id the answer carries; 36 characters, like every request id.
inline QString RequestId()
{
    return QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e");
}

inline QString TwoDigits(int value)
{
    return QStringLiteral("%1").arg(value, 2, 10, QLatin1Char('0'));
}

// A time stamp that differs from group to group: second i after a start.
inline QString DistinctTime(int i, int startYear)
{
    const QDateTime start(QDate(startYear, 1, 1), QTime(0, 0));
    return start.addSecs(qint64(i) * 37).toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
}

inline void WriteField(QXmlStreamWriter &writer, QLatin1String name, const QString &value)
{
    writer.writeTextElement(Kelda::Tag::m(name), value);
}

// Creation and modification times differ for every group. Backup and life
// cycle times are shared by the groups of one day, as batches of one backup
// or one retention rule would share them, unless distinct is set.
inline QByteArray Make(int groups, bool distinct)
{
    using namespace Kelda;
    QByteArray bytes;
    QXmlStreamWriter writer(&bytes);
    writer.writeStartDocument();
    writer.writeNamespace(Ns::Envelope, Ns::PrefixS);
    writer.writeStartElement(Tag::s(Tag::Envelope));
    writer.writeStartElement(Tag::s(Tag::Header));
    writer.writeTextElement(Tag::s(Tag::Version), Ns::SoapVersion);
    writer.writeTextElement(Tag::s(Tag::RequestId), RequestId());
    writer.writeEndElement();
    writer.writeStartElement(Tag::s(Tag::Body));
    writer.writeStartElement(Tag::m(Tag::QueryFileGroupsReply));
    writer.writeNamespace(Ns::Message, Ns::PrefixM);
    for (int i = 0; i < groups; ++i) {
        const QString day = QStringLiteral("2021-%1-%2").arg(TwoDigits(i / 28 % 12 + 1), TwoDigits(i % 28 + 1));
        writer.writeStartElement(Tag::m(Tag::FileGroup));
        WriteField(writer, Tag::Guid, QStringLiteral("6f1c2b7e-3d4a-4c5b-8e9f-%1").arg(i, 12, 10, QLatin1Char('0')));
        WriteField(writer, Tag::FileGroupName, QStringLiteral("Recording %1").arg(i));
        WriteField(writer, Tag::FileType, QString::number(i % 23));
        WriteField(writer, Tag::LocationState, QString::number(i % 14));
        WriteField(writer, Tag::BackupTime, distinct ? DistinctTime(i, 2022) : day + QStringLiteral(" 23:30:00"));
        WriteField(writer, Tag::CreationTime, DistinctTime(i, 2019));
        WriteField(writer, Tag::ModificationTime, DistinctTime(i, 2020));
        WriteField(writer, Tag::LifeCycle,
                   distinct ? DistinctTime(i, 2030)
                            : QString(day).replace(0, 4, QStringLiteral("2031")) + QStringLiteral(" 00:00:00"));
        WriteField(writer, Tag::Comment, QStringLiteral("comment & remarks %1").arg(i));
        WriteField(writer, Tag::Creator, QStringLiteral("operator"));
        WriteField(writer, Tag::Detail, QStringLiteral("detail"));
        WriteField(writer, Tag::TeamMembership, QStringLiteral("team a"));
        WriteField(writer, Tag::Version, QStringLiteral("1.%1").arg(i % 10));
        WriteField(writer, Tag::ReservedStorage, QString::number(i % 1000));
        WriteField(writer, Tag::ReferenceCounter, QString::number(i % 5));
        writer.writeStartElement(Tag::m(Tag::Files));
        writer.writeEndElement();
        writer.writeEndElement();
    }
    WriteField(writer, Tag::Error, QStringLiteral("0"));
    writer.writeEndDocument();
    return bytes;
}

} // namespace QueryReply
