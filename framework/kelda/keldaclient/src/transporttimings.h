#pragma once

#include "keldaclientglobal.h"

namespace Kelda {

// The waits of the transport and of the client's blocking calls.
//
// Internal and not installed: production never changes them. The test
// suite shortens them so that a test of a reconnection, an abandoned thread
// or a call that runs into its limit does not sit through the real interval.
// A change applies to what starts waiting afterwards (the next reconnect
// timer, the next stop, the next blocking call); it is safe from any thread.
class KELDACLIENT_EXPORT TransportTimings
{
public:
    // Between connection attempts after a failure: 5000 ms.
    static int ReconnectIntervalMs();
    static void SetReconnectIntervalMs(int ms);

    // How long a client or a command sender waits for its worker thread to
    // end before it abandons it: 1000 ms.
    static unsigned long ThreadStopWaitMs();
    static void SetThreadStopWaitMs(unsigned long ms);

    // The longest wait of a blocking call for its reply: 60000 ms.
    static unsigned int ReplyTimeLimitMs();
    static void SetReplyTimeLimitMs(unsigned int ms);
};

} // namespace Kelda
