#include "copyworkers.h"

#include <QMetaObject>
#include <QObject>

namespace KeldaCli {

CopyWorkers::CopyWorkers(int threads, QObject *receiver, const char *drainMethod)
    : m_receiver(receiver)
    , m_drainMethod(drainMethod)
{
    for (int i = 0; i < threads; ++i)
        m_threads.emplace_back([this] { work(); });
}

CopyWorkers::~CopyWorkers()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_jobs.clear();
    }
    m_wake.notify_all();
    for (std::thread &thread : m_threads)
        thread.join();
}

void CopyWorkers::add(Job job)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_one();
}

std::vector<CopyWorkers::Finished> CopyWorkers::takeFinished()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Finished> finished;
    finished.swap(m_finished);
    return finished;
}

void CopyWorkers::work()
{
    QByteArray buffer;
    for (;;) {
        Job job;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return m_stopping || !m_jobs.empty(); });
            if (m_stopping)
                return;
            job = std::move(m_jobs.front());
            m_jobs.pop_front();
        }
        Finished finished{job.index, QString(), QByteArray()};
        finished.error =
            copyFile(job.from, job.to, job.mode, buffer, m_copied, job.digest ? &finished.digest : nullptr);
        bool first = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            first = m_finished.empty();
            m_finished.push_back(std::move(finished));
        }
        // One wake-up until the receiver has taken what is there. By name and
        // without arguments: the result itself travels under the mutex above,
        // where the thread checker sees the hand-over.
        if (first)
            QMetaObject::invokeMethod(m_receiver, m_drainMethod, Qt::QueuedConnection);
    }
}

} // namespace KeldaCli
