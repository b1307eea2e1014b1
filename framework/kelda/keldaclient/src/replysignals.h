#pragma once

#include <QMetaMethod>

namespace Kelda {

class CommandSender;
class KeldaClient;
struct ParsedReply;
enum class ReplyKind : int;

// The signals that the command descriptors name, looked up once by name in
// the meta-objects of the sender and the client. A name that matches no
// signal, or a signal whose parameters are not those of the result it is to
// carry, is traced once and never emitted.
namespace ReplySignals {

// The sender's signal for replies of kind; invalid when there is none.
QMetaMethod SenderSignal(ReplyKind kind);
// The client's signal that relays it; invalid when there is none, or when
// its parameters differ from the sender's.
QMetaMethod ClientSignal(ReplyKind kind);

// Emits the reply's result through its sender signal, on the caller's
// thread.
void Emit(CommandSender *sender, const ParsedReply &reply);

// Connects each sender signal to the client signal that relays it; the
// relay runs on the client's thread.
void ConnectRelays(CommandSender *sender, KeldaClient *client);

} // namespace ReplySignals

} // namespace Kelda
