#pragma once

#include <QByteArray>
#include <QMap>
#include <QPair>
#include <QString>

#include <array>
#include <atomic>
#include <vector>

namespace Kelda {

// What a server has done since it started, for monitoring: requests by
// command and result, their latencies, moves, fixity checks, database
// trouble. Counters that the network thread keeps are plain; those that
// other threads bump are atomics. render() writes the Prometheus text
// format; gauges that are read at that moment come in as its arguments.
class ServerMetrics
{
public:
    // Upper bounds of the latency buckets, in seconds.
    static constexpr std::array<double, 14> LatencyBuckets{0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                           0.1,    0.25,  0.5,    1,     2.5,  5,     10};

    // Network thread.
    void requestAnswered(const QString &command, int code, qint64 nanoseconds);

    // Any thread.
    std::atomic<quint64> databaseErrors{0};
    std::atomic<quint64> databaseReconnects{0};
    std::atomic<quint64> movesStarted{0};
    std::atomic<quint64> movesCompleted{0};
    std::atomic<quint64> movesFailed{0};
    std::atomic<quint64> fixityOk{0};
    std::atomic<quint64> fixityMismatch{0};
    std::atomic<quint64> fixityMissing{0};

    // What a re-read of a stored file found.
    enum class FixityResult { Ok, Mismatch, Missing };
    // Any thread.
    void countFixity(FixityResult result);

    // Read at the moment of the scrape.
    struct Gauges
    {
        int connections = 0;
        qint64 backlogBytes = 0;
        qint64 pendingBytes = 0;
        bool databaseUp = true;
        // Each storage folder: its name in the archive ("base", "nas",
        // "exchange"), the bytes its file system holds and has free.
        struct Storage
        {
            QString name;
            qint64 usedBytes = -1;
            qint64 freeBytes = -1;
        };
        std::vector<Storage> storage;
    };
    QByteArray render(const Gauges &gauges) const;

    // The bytes the file system holding path uses and has free; -1 when
    // it cannot be asked.
    static QPair<qint64, qint64> fileSystemBytes(const QString &path);

private:
    struct Latency
    {
        std::array<quint64, LatencyBuckets.size()> buckets{};
        quint64 count = 0;
        double sum = 0;
    };
    QMap<QPair<QString, int>, quint64> m_requests;
    QMap<QString, Latency> m_latencies;
};

} // namespace Kelda
