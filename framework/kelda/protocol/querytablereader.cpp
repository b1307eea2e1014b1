#include "querytablereader.h"

#include "filegroupcolumns.h"
#include "keldaxml.h"

#include <utility>

namespace Kelda {

namespace {

// The children of a query reply's m:FileGroup, and where each sits.
constexpr const ExpectedElements &FileGroupRecord = Descriptor(ReplyKind::QueryFileGroups).record;

constexpr int PositionInGroup(QLatin1String name)
{
    return IndexOfStart(FileGroupRecord, name);
}

// Reads one m:FileGroup of a query reply. m:Files is passed unread: a Files
// element with children fails the reply at its first child.
FileGroupData ReadFileGroup(QXmlStreamReader &reader, ElementText &value, ReplyTimes &times)
{
    FileGroupData group;
    for (int index = ReadNextExpected(reader, FileGroupRecord, Ns::Message); index != 0;
         index = ReadNextExpected(reader, FileGroupRecord, Ns::Message)) {
        switch (index) {
        case PositionInGroup(Tag::Guid):
            group.setGuid(reader.readElementText());
            break;
        case PositionInGroup(Tag::FileGroupName):
            group.setFileGroupName(reader.readElementText());
            break;
        case PositionInGroup(Tag::FileType):
            group.setFileType(static_cast<FileType>(value.ReadInt(reader)));
            break;
        case PositionInGroup(Tag::LocationState):
            group.setLocationState(static_cast<LocationState>(value.ReadInt(reader)));
            break;
        case PositionInGroup(Tag::BackupTime):
            group.setBackupTime(times.Read(value.Read(reader), FileGroupColumn::BackupTime));
            break;
        case PositionInGroup(Tag::CreationTime):
            group.setCreationTime(times.Read(value.Read(reader), FileGroupColumn::CreationTime));
            break;
        case PositionInGroup(Tag::ModificationTime):
            group.setModificationTime(times.Read(value.Read(reader), FileGroupColumn::ModificationTime));
            break;
        case PositionInGroup(Tag::LifeCycle):
            group.setLifeCycle(times.Read(value.Read(reader), FileGroupColumn::LifeCycle));
            break;
        case PositionInGroup(Tag::Comment):
            group.setComment(reader.readElementText());
            break;
        case PositionInGroup(Tag::Creator):
            group.setCreator(reader.readElementText());
            break;
        case PositionInGroup(Tag::Detail):
            group.setDetail(reader.readElementText());
            break;
        case PositionInGroup(Tag::TeamMembership):
            group.setTeamMembership(reader.readElementText());
            break;
        case PositionInGroup(Tag::Version):
            group.setVersion(reader.readElementText());
            break;
        case PositionInGroup(Tag::ReservedStorage):
            group.setReservedStorage(value.ReadInt(reader));
            break;
        case PositionInGroup(Tag::ReferenceCounter):
            group.setReferenceCounter(value.ReadInt(reader));
            break;
        default:
            break; // Files
        }
    }
    return group;
}

} // namespace

QueryTableReader::QueryTableReader(const CommandDescriptor &command, const QString &requestId)
    : m_command(command)
    , m_groupIndex(IndexOfStart(command.children, command.record.At(0).name))
    , m_errorIndex(command.children.Size() - 2)
{
    m_result.requestId = requestId;
    FileGroupData::GetHeaders(m_result.table);
    m_result.columnCount = m_result.table.size();
}

void QueryTableReader::ReadChild(QXmlStreamReader &reader, int index)
{
    if (index == m_groupIndex)
        ReadGroup(reader);
    else if (index == m_errorIndex)
        m_result.error = m_value.ReadInt(reader);
    else
        m_result.errorString = reader.readElementText();
}

void QueryTableReader::ReadAll(QXmlStreamReader &reader)
{
    for (int index = ReadNextExpected(reader, Children(), Ns::Message); index != 0;
         index = ReadNextExpected(reader, Children(), Ns::Message))
        ReadChild(reader, index);
}

void QueryTableReader::Finish(ParsedReply &out)
{
    out.lastError = CompleteStatus(m_result.error, m_result.errorString, m_command.errorTrace);
    out.result = std::move(m_result);
}

// The table grows group by group; a failure anywhere drops all of it.
void QueryTableReader::ReadGroup(QXmlStreamReader &reader)
{
    const FileGroupData group = ReadFileGroup(reader, m_value, m_times);
    const int row = m_result.table.size();
    group.ToStringList(m_result.table);
    m_times.FillRow(m_result.table, row);
}

} // namespace Kelda
