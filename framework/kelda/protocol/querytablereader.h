#pragma once

#include "elementtext.h"
#include "replyparser.h"
#include "replytimes.h"

namespace Kelda {

// The body of a QueryFileGroups reply: the result table grows group by group
// while the reader is passed over the reply's children one at a time, so
// that the children can be read as their bytes arrive (ReplyStream) or all
// at once (ParseReplyMessage), with the same result.
class QueryTableReader
{
public:
    QueryTableReader(const CommandDescriptor &command, const QString &requestId);

    // The names the reply's children are read against, position 0 its end tag.
    const ExpectedElements &Children() const { return m_command.children; }

    // Reads the child at whose start tag (index in Children(), not 0) the
    // reader stands. Throws ReplyProtocolError.
    void ReadChild(QXmlStreamReader &reader, int index);
    // Reads every child up to the reply's end tag. Throws ReplyProtocolError.
    void ReadAll(QXmlStreamReader &reader);

    // Hands out the result, with the code to store, once the end tag is read.
    void Finish(ParsedReply &out);

private:
    void ReadGroup(QXmlStreamReader &reader);

    const CommandDescriptor &m_command;
    const int m_groupIndex;
    const int m_errorIndex;
    TableResult m_result;
    ElementText m_value;
    ReplyTimes m_times;
};

} // namespace Kelda
