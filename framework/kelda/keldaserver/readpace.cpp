#include "readpace.h"

#include <chrono>
#include <thread>

namespace Kelda {

namespace {
constexpr qint64 NsPerSecond = 1000000000;
// A stop is noticed within this.
constexpr qint64 SliceNs = 50 * 1000 * 1000;
} // namespace

ReadPace::ReadPace(qint64 bytesPerSecond)
    : m_bytesPerSecond(bytesPerSecond)
{
    m_clock.start();
}

void ReadPace::consumed(qint64 bytes, const std::atomic<bool> *stop)
{
    if (m_bytesPerSecond <= 0)
        return;
    const qint64 now = m_clock.nsecsElapsed();
    // Credit from idle time is capped, so that a long pause does not buy a
    // burst at full speed.
    if (now - m_budgetStartNs - m_bytes * NsPerSecond / m_bytesPerSecond > NsPerSecond) {
        m_budgetStartNs = now - NsPerSecond;
        m_bytes = 0;
    }
    m_bytes += bytes;
    const qint64 due = m_budgetStartNs + m_bytes * NsPerSecond / m_bytesPerSecond;
    for (qint64 wait = due - m_clock.nsecsElapsed(); wait > 0 && !(stop && *stop); wait = due - m_clock.nsecsElapsed())
        std::this_thread::sleep_for(std::chrono::nanoseconds(std::min(wait, SliceNs)));
}

} // namespace Kelda
