#include "transporttimings.h"

#include <atomic>

namespace Kelda {

namespace {

constexpr int kReconnectIntervalMs = 5000;
constexpr unsigned long kThreadStopWaitMs = 1000;
constexpr unsigned int kReplyTimeLimitMs = 60000;

std::atomic<int> s_reconnectIntervalMs{kReconnectIntervalMs};
std::atomic<unsigned long> s_threadStopWaitMs{kThreadStopWaitMs};
std::atomic<unsigned int> s_replyTimeLimitMs{kReplyTimeLimitMs};

} // namespace

int TransportTimings::ReconnectIntervalMs()
{
    return s_reconnectIntervalMs.load();
}

void TransportTimings::SetReconnectIntervalMs(int ms)
{
    s_reconnectIntervalMs.store(ms);
}

unsigned long TransportTimings::ThreadStopWaitMs()
{
    return s_threadStopWaitMs.load();
}

void TransportTimings::SetThreadStopWaitMs(unsigned long ms)
{
    s_threadStopWaitMs.store(ms);
}

unsigned int TransportTimings::ReplyTimeLimitMs()
{
    return s_replyTimeLimitMs.load();
}

void TransportTimings::SetReplyTimeLimitMs(unsigned int ms)
{
    s_replyTimeLimitMs.store(ms);
}

} // namespace Kelda
