#pragma once

#include "databaselocation.h"
#include "databaseworker.h"
#include "filecheck.h"
#include "storagelayout.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace Kelda {

class ArchiveStore;

// Re-reads every archived file once per interval, in the background and
// below a rate of bytes per second, and has each result recorded with its
// time. The files read longest ago (never read first) come first, and each
// result is committed before the next file is chosen, so a check cut short
// by a stop resumes after a restart with the files it had not reached. A
// mismatch or a missing file is traced as a failure where it is recorded.
class FixityChecker
{
public:
    // Hands a RecordReadings job to the thread that commits changes.
    using Record = std::function<void(DatabaseJob)>;
    // Told each recorded result, on the thread that committed it.
    using Observer = std::function<void(FileCheck::State)>;

    struct Settings
    {
        qint64 intervalMs = 0;
        qint64 bytesPerSecond = 0; // 0: no limit
    };

    FixityChecker(const DatabaseLocation &database, const QString &instanceId, const StorageLayout &layout,
                  const Settings &settings, Record record, Observer observer);
    ~FixityChecker();
    FixityChecker(const FixityChecker &) = delete;
    FixityChecker &operator=(const FixityChecker &) = delete;

    void start();
    // Cuts the file being read short (it is not recorded) and ends the
    // thread.
    void stopAndWait();

    // Files chosen at a time.
    static constexpr int BatchFiles = 16;
    // With nothing due, the next look comes after at most this long.
    static constexpr qint64 IdleLookMs = 60 * 1000;
    // Longest wait for a result to be committed before moving on.
    static constexpr qint64 RecordWaitMs = 30 * 1000;
    // Pause before trying a database that could not be opened again.
    static constexpr qint64 RetryMs = 5 * 1000;

private:
    void serve();
    // Reads and records the due files; false when none was due.
    bool checkDueFiles(ArchiveStore &store);
    FileReading read(const DueFile &file, ReadPace &pace) const;
    void recordAndWait(const FileReading &reading);
    // Waits up to ms unless stopped; false once stopped.
    bool pause(qint64 ms);

    const DatabaseLocation m_database;
    const QString m_instanceId;
    const StorageLayout m_layout;
    const Settings m_settings;
    const Record m_record;
    const Observer m_observer;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    quint64 m_recordedCount = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace Kelda
