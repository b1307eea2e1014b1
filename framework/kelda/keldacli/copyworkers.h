#pragma once

#include "filecopy.h"

#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

class QObject;

namespace KeldaCli {

// Threads that copy files, so that copies overlap one another and the
// server's round trips while the calling thread keeps talking to the
// server. Work goes in and results come out under one standard mutex;
// after each result the workers invoke `drainMethod` of `receiver`, queued,
// and that slot collects what is done with takeFinished().
class CopyWorkers
{
public:
    struct Job
    {
        int index = 0;
        QString from;
        QString to;
        CopyMode mode = CopyMode::Durable;
        // Whether to hash the copy as it is written.
        bool digest = false;
    };
    struct Finished
    {
        int index = 0;
        // Empty on success.
        QString error;
        // The copy's SHA-256 in hex, when the job asked for it.
        QByteArray digest;
    };

    CopyWorkers(int threads, QObject *receiver, const char *drainMethod);
    // Waits for the copies under way; jobs not yet started are dropped.
    ~CopyWorkers();

    CopyWorkers(const CopyWorkers &) = delete;
    CopyWorkers &operator=(const CopyWorkers &) = delete;

    void add(Job job);
    std::vector<Finished> takeFinished();
    // Bytes written so far by all copies, for a progress display.
    qint64 copiedBytes() const { return m_copied; }

private:
    void work();

    QObject *m_receiver;
    const char *m_drainMethod;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Job> m_jobs;
    std::vector<Finished> m_finished;
    bool m_stopping = false;
    std::atomic<qint64> m_copied{0};
    std::vector<std::thread> m_threads;
};

} // namespace KeldaCli
