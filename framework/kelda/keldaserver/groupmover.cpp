#include "groupmover.h"

#include <trace.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

namespace Kelda {

namespace {
const char kSource[] = "framework/kelda/keldaserver/groupmover";
}

GroupMover::GroupMover(Progress progress, Finished finished)
    : m_progress(std::move(progress))
    , m_finished(std::move(finished))
{
    setObjectName(QStringLiteral("moverThread"));
}

GroupMover::~GroupMover()
{
    stopAndWait();
}

void GroupMover::post(const MoveOrder &order)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.push_back(order);
    }
    m_wake.notify_one();
}

void GroupMover::stop()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_one();
}

void GroupMover::stopAndWait()
{
    stop();
    wait();
    // run() ends holding the mutex for a moment: taking it here as well
    // orders the thread's last writes before what follows for thread
    // checkers, which cannot see inside QThread::wait().
    const std::lock_guard<std::mutex> lock(m_mutex);
}

void GroupMover::run()
{
    serve();
    const std::lock_guard<std::mutex> lock(m_mutex);
}

void GroupMover::serve()
{
    for (;;) {
        MoveOrder order;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return !m_queue.empty() || m_stopping; });
            if (m_stopping)
                return;
            order = m_queue.front();
            m_queue.pop_front();
        }
        const bool ok = moveDirectory(order, m_progress, &m_stopping);
        if (m_stopping)
            return;
        m_finished(order.guid, order.to, ok);
    }
}

bool GroupMover::moveDirectory(const MoveOrder &order, const Progress &progress, const std::atomic<bool> *stop)
{
    const QDir source(order.from);
    if (!source.exists())
        return QDir(order.to).exists();
    // Everything below the directory travels, not only the archived files.
    QStringList files;
    QDirIterator it(order.from, QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext())
        files.append(source.relativeFilePath(it.next()));
    if (!QDir().mkpath(order.to)) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot create %1").arg(order.to));
        return false;
    }
    const QDir target(order.to);
    int done = 0;
    for (const QString &file : qAsConst(files)) {
        if (stop && *stop)
            return false;
        const QString from = source.filePath(file);
        const QString to = target.filePath(file);
        QDir().mkpath(QFileInfo(to).absolutePath());
        QFile::remove(to);
        if (!QFile::copy(from, to)) {
            Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot copy %1 to %2").arg(from, to));
            // The group stays where it is, whole; the partial copy goes.
            QDir(order.to).removeRecursively();
            return false;
        }
        ++done;
        if (progress && done < files.size())
            progress(order.guid, 100.0 * done / files.size());
    }
    if (!QDir(order.from).removeRecursively())
        Q_TRACE_FAILURE(kSource, QStringLiteral("Moved, but cannot remove %1").arg(order.from));
    return true;
}

} // namespace Kelda
