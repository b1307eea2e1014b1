#pragma once

#include "constlist.h"
#include "expectedelements.h"
#include "keldaxml.h"

#include <QLatin1String>
#include <QtGlobal>

#include <cstddef>
#include <initializer_list>

// What one command is on the wire and to each end, as a compile-time value:
// the request and its fields, the reply and the children read from it, the
// result they make, the signals that carry it and the texts traced on the
// way. commanddescriptors.h holds one per command; the client's sending,
// dispatch, reading and relaying and the server's dispatch are made from
// them, and the functions at the end of this header check them while the
// tree builds.
namespace Kelda {

// A command's position in the client's dispatch order (commanddescriptors.h).
enum class ReplyKind : int;

// Who starts an exchange and who answers it.
enum class Exchange : quint8 {
    Command, // the client sends the request, the server answers with the reply
    ServerRequest, // the server sends the reply element; the client answers with the request, unanswered
    ServerNotice, // the server sends the reply element; nobody answers
    Unread, // the reply element is recognised and not read
};

// What a command does to the archive's records. Readers run beside changes.
enum class Effect : quint8 {
    None, // not a command the server carries out
    Reads, // reads records only (it may still write files, as exporting does)
    Changes, // changes records
};

// What a reply is read into; replyparser.h has the result types.
enum class ResultKind : quint8 {
    None, // nothing: the reply is recognised, not read
    Status, // Error and ErrorString alone
    Text, // the first value, as text
    List, // the values in arrival order, wrappers passed
    Table, // the groups of a query as text rows, headers first
    FileId, // a file id
    CreatedGroup, // the GUID and path of a new group
    BasePath, // the base path; the first of a connection announces it
    MetaData, // one group record, read by the record's own reader
    LocationStateProgress, // a location state and a progress
    Exists, // whether a group exists
    RemoteStorageLocation, // an address and a URL
    ConvertRequest, // the server asks for a conversion: GUID, file type, path
    CopyProgress, // a progress
    Records, // records of named fields, each field in its own column
};

// How a request field is written.
enum class FieldShape : quint8 {
    Text, // <m:Name>text</m:Name>
    Number, // a signed decimal; 0 when unset
    Unsigned, // an unsigned decimal; 0 when unset
    Flag, // "true" or "false"; false when unset
    Time, // UTC, "yyyy-MM-dd hh:mm:ss.zzz"; empty when unset
    Repeated, // one <m:Name> per value; nothing for no value
    List, // <m:Name> holding one <m:Item> per value; an empty-element tag for none
    TimeRange, // <m:Name> holding <m:Min> and <m:Max>, both times
};

// Where the value of a request field comes from.
enum class FieldSource : quint8 {
    Caller, // set on the request by name
    Guid, // the request's GUID
    Application, // the request's application, as its caller set it
    ClientApplication, // the request's application, which the sender sets to the client's
    User, // the client's user, set by the sender
    Team, // the client's team membership, set by the sender
    LockIdentity, // "address|application|user", set by the sender
    Fixed, // always the descriptor's text; what the caller set reaches only the trace
};

struct RequestField
{
    QLatin1String name;
    FieldShape shape = FieldShape::Text;
    FieldSource source = FieldSource::Caller;
    // FieldShape::List: the element of each value.
    QLatin1String item;
    // FieldSource::Fixed: the text written.
    QLatin1String fixed;
};

// The fields of a request, in the order the server reads them.
using RequestFields = ConstList<RequestField, 16>;
// The fields whose values fill a trace's %1, %2, ... in that order.
using TraceFields = ConstList<QLatin1String, 9>;

namespace Field {

constexpr RequestField Text(QLatin1String name, FieldSource source = FieldSource::Caller)
{
    return RequestField{name, FieldShape::Text, source, {}, {}};
}

constexpr RequestField Number(QLatin1String name)
{
    return RequestField{name, FieldShape::Number, FieldSource::Caller, {}, {}};
}

constexpr RequestField Unsigned(QLatin1String name)
{
    return RequestField{name, FieldShape::Unsigned, FieldSource::Caller, {}, {}};
}

constexpr RequestField Flag(QLatin1String name)
{
    return RequestField{name, FieldShape::Flag, FieldSource::Caller, {}, {}};
}

constexpr RequestField Time(QLatin1String name)
{
    return RequestField{name, FieldShape::Time, FieldSource::Caller, {}, {}};
}

constexpr RequestField Repeated(QLatin1String name)
{
    return RequestField{name, FieldShape::Repeated, FieldSource::Caller, {}, {}};
}

constexpr RequestField List(QLatin1String name, QLatin1String item)
{
    return RequestField{name, FieldShape::List, FieldSource::Caller, item, {}};
}

constexpr RequestField TimeRange(QLatin1String name)
{
    return RequestField{name, FieldShape::TimeRange, FieldSource::Caller, {}, {}};
}

template <std::size_t N> constexpr RequestField Fixed(QLatin1String name, const char (&text)[N])
{
    return RequestField{name, FieldShape::Text, FieldSource::Fixed, {}, Latin1Literal(text)};
}

// m:Guid holding the request's GUID, as most commands send it.
constexpr RequestField Guid = Text(Tag::Guid, FieldSource::Guid);

} // namespace Field

// One command. Built with Describe() and the functions that follow it, each
// of which returns the descriptor with one part filled in.
struct CommandDescriptor
{
    ReplyKind kind{};
    Exchange exchange = Exchange::Command;
    Effect effect = Effect::None;

    // The element the client sends and its children, in the order written.
    QLatin1String request;
    RequestFields fields;
    // Traced by the sender before the request leaves, when routine detail
    // is traced; %1, %2, ... are the texts of traceFields.
    QLatin1String sendTrace;
    TraceFields traceFields;

    // The body element that arrives and the children read from it; position
    // 0 is its end tag, and where the reply has them Error and ErrorString
    // come last.
    QLatin1String reply;
    ExpectedElements children;
    ResultKind result = ResultKind::None;
    // ResultKind::Table and Records: one record's children, position 0 the
    // record's end tag.
    ExpectedElements record;
    // Traced when the reply reports an error: %1 the text, %2 the code.
    QLatin1String errorTrace;

    // The sender's signal that carries the result, and the client's signal
    // that relays it to the application (none: not relayed).
    QLatin1String senderSignal;
    QLatin1String clientSignal;

    constexpr CommandDescriptor Sends(QLatin1String element, std::initializer_list<RequestField> list) const
    {
        CommandDescriptor next = *this;
        next.request = element;
        next.fields = RequestFields(list);
        return next;
    }

    template <std::size_t N>
    constexpr CommandDescriptor Traced(const char (&format)[N], std::initializer_list<QLatin1String> names) const
    {
        CommandDescriptor next = *this;
        next.sendTrace = Latin1Literal(format);
        next.traceFields = TraceFields(names);
        return next;
    }

    // The children that a reply of this result reads: its end tag goes
    // first and, for a result with a status, Error and ErrorString last.
    constexpr CommandDescriptor Receives(QLatin1String element, std::initializer_list<ExpectedElements::Entry> list,
                                         ResultKind kind) const;

    constexpr CommandDescriptor Record(QLatin1String element, std::initializer_list<ExpectedElements::Entry> list) const
    {
        CommandDescriptor next = *this;
        next.record = ExpectedElements{EndOf(element)};
        for (const ExpectedElements::Entry &entry : list)
            next.record.Append(entry);
        return next;
    }

    template <std::size_t N> constexpr CommandDescriptor FailureTraced(const char (&format)[N]) const
    {
        CommandDescriptor next = *this;
        next.errorTrace = Latin1Literal(format);
        return next;
    }

    template <std::size_t N> constexpr CommandDescriptor Signals(const char (&sender)[N]) const
    {
        CommandDescriptor next = *this;
        next.senderSignal = Latin1Literal(sender);
        return next;
    }

    template <std::size_t N, std::size_t M>
    constexpr CommandDescriptor Signals(const char (&sender)[N], const char (&client)[M]) const
    {
        CommandDescriptor next = Signals(sender);
        next.clientSignal = Latin1Literal(client);
        return next;
    }
};

constexpr CommandDescriptor Describe(ReplyKind kind, Exchange exchange, Effect effect = Effect::None)
{
    CommandDescriptor descriptor;
    descriptor.kind = kind;
    descriptor.exchange = exchange;
    descriptor.effect = effect;
    return descriptor;
}

// ---------------------------------------------------------------- reading a descriptor

constexpr bool SameName(QLatin1String a, QLatin1String b)
{
    if (a.size() != b.size())
        return false;
    for (int i = 0; i < a.size(); ++i) {
        if (a.data()[i] != b.data()[i])
            return false;
    }
    return true;
}

constexpr bool SameEntry(const ExpectedElements::Entry &a, const ExpectedElements::Entry &b)
{
    return a.isEnd == b.isEnd && SameName(a.name, b.name);
}

// Position of the start tag of name in list; -1 when it has none.
constexpr int IndexOfStart(const ExpectedElements &list, QLatin1String name)
{
    for (int i = 0; i < list.Size(); ++i) {
        if (!list.At(i).isEnd && SameName(list.At(i).name, name))
            return i;
    }
    return -1;
}

constexpr bool HasStatus(ResultKind kind)
{
    return kind != ResultKind::None && kind != ResultKind::MetaData && kind != ResultKind::ConvertRequest;
}

constexpr CommandDescriptor CommandDescriptor::Receives(QLatin1String element,
                                                        std::initializer_list<ExpectedElements::Entry> list,
                                                        ResultKind kind) const
{
    CommandDescriptor next = *this;
    next.reply = element;
    next.result = kind;
    next.children = ExpectedElements();
    if (kind == ResultKind::None || kind == ResultKind::MetaData)
        return next;
    next.children.Append(EndOf(element));
    for (const ExpectedElements::Entry &entry : list)
        next.children.Append(entry);
    if (HasStatus(kind)) {
        next.children.Append(Tag::Error);
        next.children.Append(Tag::ErrorString);
    }
    return next;
}

// The results made of the texts of the reply's first children.
constexpr bool IsMadeOfValues(ResultKind kind)
{
    switch (kind) {
    case ResultKind::Status:
    case ResultKind::Text:
    case ResultKind::FileId:
    case ResultKind::CreatedGroup:
    case ResultKind::BasePath:
    case ResultKind::LocationStateProgress:
    case ResultKind::Exists:
    case ResultKind::RemoteStorageLocation:
    case ResultKind::ConvertRequest:
    case ResultKind::CopyProgress:
        return true;
    default:
        return false;
    }
}

// The texts such a result is made of; for Text the first is the value and
// any more are read and dropped.
constexpr int ValuesNeeded(ResultKind kind)
{
    switch (kind) {
    case ResultKind::Text:
    case ResultKind::FileId:
    case ResultKind::BasePath:
    case ResultKind::Exists:
    case ResultKind::CopyProgress:
        return 1;
    case ResultKind::CreatedGroup:
    case ResultKind::LocationStateProgress:
    case ResultKind::RemoteStorageLocation:
        return 2;
    case ResultKind::ConvertRequest:
        return 3;
    default:
        return 0;
    }
}

// The most texts a reply made of values holds.
constexpr int MaxReplyValues = 3;

// The children before Error and ErrorString, after the end tag.
constexpr int ValueCount(const CommandDescriptor &command)
{
    return command.children.Size() - 1 - (HasStatus(command.result) ? 2 : 0);
}

// A List entry that opens an element whose end the list also names only
// wraps the values.
constexpr bool IsWrapper(const ExpectedElements &list, int index)
{
    for (const ExpectedElements::Entry &entry : list) {
        if (entry.isEnd && SameName(entry.name, list.At(index).name))
            return true;
    }
    return false;
}

// Position of a List reply's first (last) value: the start tags that are
// neither wrappers nor Error and ErrorString. -1 when there is none.
constexpr int FirstListValue(const ExpectedElements &list)
{
    for (int i = 1; i < list.Size() - 2; ++i) {
        if (!list.At(i).isEnd && !IsWrapper(list, i))
            return i;
    }
    return -1;
}

constexpr int LastListValue(const ExpectedElements &list)
{
    for (int i = list.Size() - 3; i > 0; --i) {
        if (!list.At(i).isEnd && !IsWrapper(list, i))
            return i;
    }
    return -1;
}

// The column of a record's field in a Records result; -1 when the record
// has no such field.
constexpr int RecordColumn(const CommandDescriptor &command, QLatin1String field)
{
    const int index = IndexOfStart(command.record, field);
    return index < 1 ? -1 : index - 1;
}

constexpr bool EmitsSignal(ResultKind kind)
{
    return kind != ResultKind::None && kind != ResultKind::BasePath;
}

// "Name" + "Reply".
constexpr bool IsReplyTo(QLatin1String reply, QLatin1String request)
{
    constexpr QLatin1String suffix = Latin1Literal("Reply");
    if (request.isEmpty() || reply.size() != request.size() + suffix.size())
        return false;
    return SameName(QLatin1String(reply.data(), request.size()), request) &&
        SameName(QLatin1String(reply.data() + request.size(), suffix.size()), suffix);
}

// The number of a trace's placeholders when they are exactly %1 to %n,
// each used; -1 otherwise. Single digits only, as in every trace.
constexpr int PlaceholderCount(QLatin1String format)
{
    bool used[10] = {};
    int highest = 0;
    for (int i = 0; i + 1 < format.size(); ++i) {
        const char c = format.data()[i + 1];
        if (format.data()[i] != '%' || c < '0' || c > '9')
            continue;
        if (c == '0' || (i + 2 < format.size() && format.data()[i + 2] >= '0' && format.data()[i + 2] <= '9'))
            return -1;
        used[c - '0'] = true;
        highest = c - '0' > highest ? c - '0' : highest;
    }
    for (int n = 1; n <= highest; ++n) {
        if (!used[n])
            return -1;
    }
    return highest;
}

constexpr int IndexOfField(const CommandDescriptor &command, QLatin1String name)
{
    for (int i = 0; i < command.fields.Size(); ++i) {
        if (SameName(command.fields.At(i).name, name))
            return i;
    }
    return -1;
}

// ---------------------------------------------------------------- checks run while building

constexpr bool HasDuplicates(const ExpectedElements &list)
{
    for (int i = 0; i < list.Size(); ++i) {
        for (int j = i + 1; j < list.Size(); ++j) {
            if (SameEntry(list.At(i), list.At(j)))
                return true;
        }
    }
    return false;
}

constexpr bool FieldsComplete(const CommandDescriptor &command)
{
    if (command.request.isEmpty() && !command.fields.IsEmpty())
        return false;
    for (int i = 0; i < command.fields.Size(); ++i) {
        const RequestField &field = command.fields.At(i);
        if (field.name.isEmpty() || IndexOfField(command, field.name) != i)
            return false;
        if ((field.shape == FieldShape::List) != !field.item.isEmpty())
            return false;
        if ((field.source == FieldSource::Fixed) != !field.fixed.isEmpty())
            return false;
    }
    return true;
}

constexpr bool SendTraceComplete(const CommandDescriptor &command)
{
    if (command.sendTrace.isEmpty())
        return command.traceFields.IsEmpty();
    if (PlaceholderCount(command.sendTrace) != command.traceFields.Size())
        return false;
    for (QLatin1String name : command.traceFields) {
        if (IndexOfField(command, name) < 0)
            return false;
    }
    return true;
}

constexpr bool ExchangeComplete(const CommandDescriptor &command)
{
    switch (command.exchange) {
    case Exchange::Command:
        return IsReplyTo(command.reply, command.request) && command.effect != Effect::None &&
            command.result != ResultKind::None;
    case Exchange::ServerRequest:
        return !command.request.isEmpty() && command.effect == Effect::None;
    case Exchange::ServerNotice:
        return command.request.isEmpty() && command.effect == Effect::None;
    case Exchange::Unread:
        return command.request.isEmpty() && command.effect == Effect::None && command.result == ResultKind::None;
    }
    return false;
}

constexpr bool ChildrenComplete(const CommandDescriptor &command)
{
    const ExpectedElements &children = command.children;
    const ResultKind kind = command.result;
    if (kind == ResultKind::None || kind == ResultKind::MetaData)
        return children.IsEmpty();
    if (children.IsEmpty() || !SameEntry(children.At(0), EndOf(command.reply)) || HasDuplicates(children))
        return false;
    if (HasStatus(kind)) {
        const int size = children.Size();
        if (size < 3 || !SameEntry(children.At(size - 2), Tag::Error) ||
            !SameEntry(children.At(size - 1), Tag::ErrorString))
            return false;
    }
    if (IsMadeOfValues(kind)) {
        const int count = ValueCount(command);
        const bool enough = kind == ResultKind::Text ? count >= 1 : count == ValuesNeeded(kind);
        if (!enough || count > MaxReplyValues)
            return false;
        for (int i = 1; i <= count; ++i) {
            if (children.At(i).isEnd)
                return false;
        }
    }
    if (kind == ResultKind::List && FirstListValue(children) < 0)
        return false;
    return true;
}

constexpr bool RecordComplete(const CommandDescriptor &command)
{
    if (command.result != ResultKind::Table && command.result != ResultKind::Records)
        return command.record.IsEmpty();
    return command.record.Size() > 1 && command.record.At(0).isEnd && !HasDuplicates(command.record) &&
        IndexOfStart(command.children, command.record.At(0).name) > 0;
}

constexpr bool TracesAndSignalsComplete(const CommandDescriptor &command)
{
    if (HasStatus(command.result) != !command.errorTrace.isEmpty())
        return false;
    if (!command.errorTrace.isEmpty() && PlaceholderCount(command.errorTrace) != 2)
        return false;
    if (EmitsSignal(command.result) == command.senderSignal.isEmpty())
        return false;
    return command.clientSignal.isEmpty() || !command.senderSignal.isEmpty();
}

// Everything a descriptor of its exchange and result needs is there, and
// nothing that it cannot use.
constexpr bool IsComplete(const CommandDescriptor &command)
{
    return !command.reply.isEmpty() && ExchangeComplete(command) && FieldsComplete(command) &&
        SendTraceComplete(command) && ChildrenComplete(command) && RecordComplete(command) &&
        TracesAndSignalsComplete(command);
}

// The first entry that is not at the position of its kind; -1 when none.
template <std::size_t N> constexpr int FirstOutOfOrder(const CommandDescriptor (&table)[N])
{
    for (std::size_t i = 0; i < N; ++i) {
        if (static_cast<std::size_t>(table[i].kind) != i)
            return int(i);
    }
    return -1;
}

template <std::size_t N> constexpr int FirstIncomplete(const CommandDescriptor (&table)[N])
{
    for (std::size_t i = 0; i < N; ++i) {
        if (!IsComplete(table[i]))
            return int(i);
    }
    return -1;
}

// The first entry whose request or reply element an earlier entry names
// too; -1 when none.
template <std::size_t N> constexpr int FirstDuplicateElement(const CommandDescriptor (&table)[N])
{
    for (std::size_t i = 0; i < N; ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            const bool sameRequest = !table[i].request.isEmpty() && SameName(table[i].request, table[j].request);
            if (sameRequest || SameName(table[i].reply, table[j].reply))
                return int(i);
        }
    }
    return -1;
}

// Whether rows, each naming a kind, name every command the server carries
// out exactly once and nothing else.
template <typename Row, std::size_t R, std::size_t N>
constexpr bool OneRowPerCommand(const Row (&rows)[R], const CommandDescriptor (&table)[N])
{
    for (const CommandDescriptor &command : table) {
        int count = 0;
        for (const Row &row : rows)
            count += row.kind == command.kind ? 1 : 0;
        if (count != (command.exchange == Exchange::Command ? 1 : 0))
            return false;
    }
    for (const Row &row : rows) {
        if (static_cast<std::size_t>(row.kind) >= N)
            return false;
    }
    return true;
}

} // namespace Kelda
