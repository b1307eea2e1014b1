#include "groupmover.h"

#include <trace.h>

#include <QDir>
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
    if (!QDir().mkpath(order.to)) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot create %1").arg(order.to));
        return false;
    }
    const QFileInfoList entries = source.entryInfoList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
    int done = 0;
    for (const QFileInfo &entry : entries) {
        if (stop && *stop)
            return false;
        const QString target = QDir(order.to).filePath(entry.fileName());
        QFile::remove(target);
        if (!QFile::copy(entry.filePath(), target)) {
            Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot copy %1 to %2").arg(entry.filePath(), target));
            return false;
        }
        ++done;
        if (progress && done < entries.size())
            progress(order.guid, 100.0 * done / entries.size());
    }
    if (!QDir(order.from).removeRecursively())
        Q_TRACE_FAILURE(kSource, QStringLiteral("Moved, but cannot remove %1").arg(order.from));
    return true;
}

} // namespace Kelda
