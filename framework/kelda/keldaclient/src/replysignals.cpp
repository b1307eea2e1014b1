#include "replysignals.h"

#include "commandsender.h"
#include "keldaclient.h"
#include "replyparser.h"
#include "trace.h"

#include <array>
#include <tuple>
#include <variant>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/keldaclient/src/commandsender";

using Signals = std::array<QMetaMethod, CommandCount>;

QMetaMethod SignalNamed(const QMetaObject &object, QLatin1String name)
{
    if (name.isEmpty())
        return QMetaMethod();
    const QByteArray wanted(name.data(), name.size());
    for (int i = object.methodOffset(); i < object.methodCount(); ++i) {
        const QMetaMethod method = object.method(i);
        if (method.methodType() == QMetaMethod::Signal && method.name() == wanted)
            return method;
    }
    Q_TRACE_FAILURE(kSource, QStringLiteral("%1 has no signal %2").arg(QLatin1String(object.className()), name));
    return QMetaMethod();
}

// A result's values, in the order of its signal's parameters.
auto Arguments(const StatusResult &r)
{
    return std::tie(r.requestId, r.error, r.errorString);
}
auto Arguments(const TextResult &r)
{
    return std::tie(r.requestId, r.text, r.error, r.errorString);
}
auto Arguments(const ListResult &r)
{
    return std::tie(r.requestId, r.list, r.error, r.errorString);
}
auto Arguments(const TableResult &r)
{
    return std::tie(r.requestId, r.table, r.columnCount, r.error, r.errorString);
}
auto Arguments(const FileIdResult &r)
{
    return std::tie(r.requestId, r.fileId);
}
auto Arguments(const CreatedGroupResult &r)
{
    return std::tie(r.guid, r.path);
}
auto Arguments(const MetaDataResult &r)
{
    return std::tie(r.requestId, r.metaData, r.error, r.errorString);
}
auto Arguments(const LocationStateProgressResult &r)
{
    return std::tie(r.requestId, r.locationState, r.progress, r.error, r.errorString);
}
auto Arguments(const ExistsResult &r)
{
    return std::tie(r.requestId, r.exists, r.error, r.errorString);
}
auto Arguments(const RemoteStorageLocationResult &r)
{
    return std::tie(r.requestId, r.remoteIp, r.attachmentUrl, r.error, r.errorString);
}
auto Arguments(const ConvertRequestResult &r)
{
    return std::tie(r.guid, r.fileType, r.path);
}
auto Arguments(const CopyProgressResult &r)
{
    return std::tie(r.requestId, r.progress);
}
auto Arguments(const RecordsResult &r)
{
    return std::tie(r.requestId, r.values, r.fieldCount, r.error, r.errorString);
}

template <typename... Values> bool Accepts(const QMetaMethod &signal, const std::tuple<const Values &...> &)
{
    const int types[] = {qMetaTypeId<Values>()...};
    if (signal.parameterCount() != int(sizeof...(Values)))
        return false;
    for (int i = 0; i < signal.parameterCount(); ++i) {
        if (signal.parameterType(i) != types[i])
            return false;
    }
    return true;
}

template <typename... Values>
void Invoke(QObject *sender, const QMetaMethod &signal, const std::tuple<const Values &...> &values)
{
    std::apply(
        [&](const Values &...value) {
            signal.invoke(sender, Qt::DirectConnection,
                          QArgument<Values>(QMetaType::typeName(qMetaTypeId<Values>()), value)...);
        },
        values);
}

// A signal the descriptor names but the sender lacks was traced when it was
// looked up.
template <typename Result> void EmitResult(CommandSender *sender, const QMetaMethod &signal, const Result &result)
{
    const auto values = Arguments(result);
    if (!signal.isValid())
        return;
    if (Accepts(signal, values))
        Invoke(sender, signal, values);
    else
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("The signal %1 does not take the values of its reply")
                            .arg(QLatin1String(signal.methodSignature())));
}

// Nothing to emit: the reply is not read, or the sender handled it itself.
void EmitResult(CommandSender *, const QMetaMethod &, std::monostate)
{ }
void EmitResult(CommandSender *, const QMetaMethod &, const BasePathResult &)
{ }

bool SameParameters(const QMetaMethod &a, const QMetaMethod &b)
{
    if (a.parameterCount() != b.parameterCount())
        return false;
    for (int i = 0; i < a.parameterCount(); ++i) {
        if (a.parameterType(i) != b.parameterType(i))
            return false;
    }
    return true;
}

// Built on first use. QMetaMethod has nothing to destroy, so a sender thread
// still emitting while the process exits finds them intact.
const Signals &SenderSignals()
{
    static const Signals senderSignals = [] {
        Signals found;
        for (const CommandDescriptor &command : CommandDescriptors)
            found[int(command.kind)] = SignalNamed(CommandSender::staticMetaObject, command.senderSignal);
        return found;
    }();
    return senderSignals;
}

const Signals &ClientSignals()
{
    static const Signals clientSignals = [] {
        Signals found;
        for (const CommandDescriptor &command : CommandDescriptors) {
            const QMetaMethod relay = SignalNamed(KeldaClient::staticMetaObject, command.clientSignal);
            const QMetaMethod source = SenderSignals()[int(command.kind)];
            if (relay.isValid() && SameParameters(relay, source))
                found[int(command.kind)] = relay;
            else if (relay.isValid())
                Q_TRACE_FAILURE(kSource,
                                QStringLiteral("The signal %1 cannot relay %2")
                                    .arg(QLatin1String(relay.methodSignature()),
                                         QLatin1String(source.methodSignature())));
        }
        return found;
    }();
    return clientSignals;
}

bool IsListed(ReplyKind kind)
{
    return int(kind) >= 0 && int(kind) < CommandCount;
}

} // namespace

namespace ReplySignals {

QMetaMethod SenderSignal(ReplyKind kind)
{
    return IsListed(kind) ? SenderSignals()[int(kind)] : QMetaMethod();
}

QMetaMethod ClientSignal(ReplyKind kind)
{
    return IsListed(kind) ? ClientSignals()[int(kind)] : QMetaMethod();
}

void Emit(CommandSender *sender, const ParsedReply &reply)
{
    const QMetaMethod signal = SenderSignal(reply.Kind());
    std::visit([&](const auto &result) { EmitResult(sender, signal, result); }, reply.result);
}

void ConnectRelays(CommandSender *sender, KeldaClient *client)
{
    for (const CommandDescriptor &command : CommandDescriptors) {
        const QMetaMethod relay = ClientSignal(command.kind);
        if (relay.isValid())
            QObject::connect(sender, SenderSignal(command.kind), client, relay);
    }
}

} // namespace ReplySignals

} // namespace Kelda
