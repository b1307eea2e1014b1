#pragma once

#include <QElapsedTimer>
#include <QtGlobal>

#include <atomic>

namespace Kelda {

// Keeps a background reader below a rate of bytes per second, so that the
// archive's own checks never crowd out its clients' reads. After each chunk
// the reader waits for as long as the rate asks; the wait ends early when
// its stop flag is set. Idle time earns at most a second of credit.
class ReadPace
{
public:
    // 0 means no limit.
    explicit ReadPace(qint64 bytesPerSecond);

    void consumed(qint64 bytes, const std::atomic<bool> *stop);

private:
    const qint64 m_bytesPerSecond;
    QElapsedTimer m_clock;
    qint64 m_budgetStartNs = 0;
    qint64 m_bytes = 0;
};

} // namespace Kelda
