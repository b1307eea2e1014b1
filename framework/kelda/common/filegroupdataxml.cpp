#include "filegroupdata.h"
#include "filegroupdata_p.h"

#include "keldaxml.h"

#include <trace.h>

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

// The record as the XML element "m:FileGroup", in replies and in description
// files.
namespace Kelda {

namespace {

const char *const kSource = FileGroupDataPrivate::TraceSource;

void writeTextElement(QXmlStreamWriter &writer, QLatin1String name, const QString &text)
{
    writer.writeTextElement(Tag::m(name), text);
}

void writeOptionalText(QXmlStreamWriter &writer, QLatin1String name, const QString &text)
{
    if (!text.isEmpty())
        writeTextElement(writer, name, text);
}

void writeOptionalTime(QXmlStreamWriter &writer, QLatin1String name, const QDateTime &time)
{
    if (time.isValid())
        writeTextElement(writer, name, FileGroupDataPrivate::formatTime(time));
}

void writeOptionalCount(QXmlStreamWriter &writer, QLatin1String name, qint32 value)
{
    if (value >= 0)
        writeTextElement(writer, name, QString::number(value));
}

bool isMessageStart(const QXmlStreamReader &reader)
{
    return reader.isStartElement() && reader.namespaceUri() == Ns::Message;
}

} // namespace

void FileGroupData::WriteStartElement(QXmlStreamWriter &writer) const
{
    writer.writeStartElement(Tag::m(Tag::FileGroup));
}

void FileGroupData::WriteEndElement(QXmlStreamWriter &writer) const
{
    writer.writeEndElement();
}

// Path and LockCount stay local: the server keeps its own.
void FileGroupData::ToHtml(QXmlStreamWriter &writer, bool withElement, bool withNamespace) const
{
    if (withElement)
        WriteStartElement(writer);
    if (withNamespace)
        writer.writeNamespace(Ns::Message, Ns::PrefixM);
    writeTextElement(writer, Tag::Guid, d->guid);
    writeTextElement(writer, Tag::FileGroupName, d->fileGroupName);
    writeTextElement(writer, Tag::FileType, QString::number(d->fileType));
    if (d->locationState > LS_Undefined)
        writeTextElement(writer, Tag::LocationState, QString::number(d->locationState));
    writeOptionalTime(writer, Tag::BackupTime, d->backupTime);
    writeOptionalTime(writer, Tag::CreationTime, d->creationTime);
    writeOptionalTime(writer, Tag::ModificationTime, d->modificationTime);
    writeOptionalTime(writer, Tag::LifeCycle, d->lifeCycle);
    writeOptionalText(writer, Tag::Comment, d->comment);
    writeOptionalText(writer, Tag::Creator, d->creator);
    writeOptionalText(writer, Tag::Detail, d->detail);
    writeOptionalText(writer, Tag::TeamMembership, d->teamMembership);
    writeOptionalText(writer, Tag::Version, d->version);
    writeOptionalCount(writer, Tag::ReservedStorage, d->reservedStorage);
    writeOptionalCount(writer, Tag::ReferenceCounter, d->referenceCounter);
    writer.writeStartElement(Tag::m(Tag::Files));
    for (const FileEntry &file : d->files) {
        writer.writeStartElement(Tag::m(Tag::File));
        writeTextElement(writer, Tag::FileId, QString::number(file.second));
        writeTextElement(writer, Tag::FileName, file.first);
        writer.writeEndElement();
    }
    writer.writeEndElement();
    if (withElement)
        WriteEndElement(writer);
}

KeldaError FileGroupData::FromHtml(QXmlStreamReader &reader)
{
    KeldaError result = KE_NoError;
    // The caller may have stopped on a start element already: look at the
    // current token before moving on.
    while (!reader.atEnd() && !reader.hasError()) {
        if (isMessageStart(reader))
            d->readElement(reader, result);
        reader.readNext();
    }
    if (reader.hasError()) {
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("Could not read Xml file for import of filegroup. "
                                       "XmlStreamReader error: %1")
                            .arg(reader.errorString()));
        result = KE_ReadXmlFileFailed;
    }
    return result;
}

void FileGroupDataPrivate::readElement(QXmlStreamReader &reader, KeldaError &result)
{
    const QStringRef name = reader.name();
    if (name == Tag::Files) {
        readFiles(reader);
    } else if (name == Tag::Guid) {
        guid = reader.readElementText();
    } else if (name == Tag::FileGroupName) {
        fileGroupName = reader.readElementText();
    } else if (name == Tag::FileType) {
        const int value = reader.readElementText().toInt();
        if (value > FT_Last) {
            Q_TRACE_FAILURE(kSource, QStringLiteral("Unkown file type \"%1\" read").arg(value));
            result = KE_ReadXmlFileFailed;
        } else {
            fileType = FileType(value);
        }
    } else if (name == Tag::LocationState) {
        const int value = reader.readElementText().toInt();
        if (value > LS_Last) {
            Q_TRACE_FAILURE(kSource, QStringLiteral("Unkown location state \"%1\" read").arg(value));
            result = KE_ReadXmlFileFailed;
        } else {
            locationState = LocationState(value);
        }
    } else if (name == Tag::BackupTime) {
        backupTime = parseTime(reader.readElementText());
    } else if (name == Tag::CreationTime) {
        creationTime = parseTime(reader.readElementText());
    } else if (name == Tag::ModificationTime) {
        modificationTime = parseTime(reader.readElementText());
    } else if (name == Tag::LifeCycle) {
        lifeCycle = parseTime(reader.readElementText());
    } else if (name == Tag::Comment) {
        comment = reader.readElementText();
    } else if (name == Tag::Creator) {
        creator = reader.readElementText();
    } else if (name == Tag::Detail) {
        detail = reader.readElementText();
    } else if (name == Tag::TeamMembership) {
        teamMembership = reader.readElementText();
    } else if (name == Tag::Version) {
        version = reader.readElementText();
    } else if (name == Tag::ReservedStorage) {
        reservedStorage = reader.readElementText().toInt();
    } else if (name == Tag::ReferenceCounter) {
        referenceCounter = reader.readElementText().toInt();
    } else if (name == Tag::Error) {
        result = KeldaError(reader.readElementText().toInt());
    }
}

// A File element lacking FileId or FileName repeats the previous file's
// value: the current name and id are deliberately not reset between files.
void FileGroupDataPrivate::readFiles(QXmlStreamReader &reader)
{
    QString name;
    int id = 0;
    int depth = 0;
    while (!reader.atEnd() && !reader.hasError()) {
        reader.readNext();
        if (reader.isStartElement()) {
            if (reader.namespaceUri() == Ns::Message && reader.name() == Tag::FileId)
                id = reader.readElementText().toInt();
            else if (reader.namespaceUri() == Ns::Message && reader.name() == Tag::FileName)
                name = reader.readElementText();
            else
                ++depth;
        } else if (reader.isEndElement()) {
            if (depth == 0)
                return;
            --depth;
            if (reader.namespaceUri() == Ns::Message && reader.name() == Tag::File)
                files.emplace_back(name, id);
        }
    }
}

} // namespace Kelda
