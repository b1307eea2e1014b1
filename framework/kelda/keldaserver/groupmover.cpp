#include "groupmover.h"

#include <trace.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>

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
    stop();
    wait();
}

void GroupMover::post(const MoveOrder &order)
{
    QMutexLocker lock(&m_mutex);
    m_queue.push_back(order);
    m_wake.wakeOne();
}

void GroupMover::stop()
{
    QMutexLocker lock(&m_mutex);
    m_stopping = true;
    m_wake.wakeOne();
}

void GroupMover::run()
{
    for (;;) {
        MoveOrder order;
        {
            QMutexLocker lock(&m_mutex);
            while (m_queue.empty() && !m_stopping)
                m_wake.wait(&m_mutex);
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
