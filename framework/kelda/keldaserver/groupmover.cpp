#include "groupmover.h"

#include <trace.h>

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
        const bool ok = moveGroup(order, m_progress, &m_stopping);
        if (m_stopping)
            return;
        m_finished(order.guid, order.to, ok);
    }
}

bool GroupMover::moveGroup(const MoveOrder &order, const Progress &progress, const std::atomic<bool> *stop)
{
    QString error;
    const ConfinedDirectory target
        = ConfinedDirectory::open(order.targetRoot, order.to, ConfinedDirectory::Creation::CreateMissing, &error);
    if (!target.isOpen()) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot move file group %1: %2").arg(order.guid, error));
        return false;
    }
    // A run cut short after its copies may have removed the source already.
    const ConfinedDirectory source
        = ConfinedDirectory::open(order.sourceRoot, order.from, ConfinedDirectory::Creation::Existing, &error);
    if (!source.isOpen() && !source.wasMissing()) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot move file group %1: %2").arg(order.guid, error));
        return false;
    }
    QStringList copied;
    int done = 0;
    for (const QString &file : order.files) {
        if (stop && *stop)
            return false;
        bool fresh = false;
        const bool carried = carryFile(source, target, file, &fresh, &error);
        if (fresh)
            copied.append(file);
        if (!carried) {
            Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot move file group %1: %2").arg(order.guid, error));
            // The group stays where it is, whole; this run's copies go.
            for (const QString &name : qAsConst(copied))
                target.removeFile(name, nullptr);
            ConfinedDirectory::removeEmptyTree(order.targetRoot, order.to);
            return false;
        }
        ++done;
        if (progress && done < order.files.size())
            progress(order.guid, 100.0 * done / order.files.size());
    }
    if (source.isOpen()) {
        for (const QString &file : order.files) {
            if (!source.removeFile(file, &error))
                Q_TRACE_FAILURE(kSource, QStringLiteral("Moved, but cannot remove the source: %1").arg(error));
        }
        ConfinedDirectory::removeEmptyTree(order.sourceRoot, order.from);
    }
    return true;
}

bool GroupMover::carryFile(const ConfinedDirectory &source, const ConfinedDirectory &target, const QString &name,
                           bool *copied, QString *error)
{
    const ConfinedDirectory::Kind kind
        = source.isOpen() ? source.kindOf(name) : ConfinedDirectory::Kind::Missing;
    if (kind == ConfinedDirectory::Kind::Missing) {
        // Sources go only once every copy is in place: a missing source
        // was carried by an earlier run.
        if (target.kindOf(name) == ConfinedDirectory::Kind::Regular)
            return true;
        *error = QStringLiteral("%1 is missing from %2").arg(name, source.path());
        return false;
    }
    // A copy left by a run that was cut short is made again.
    if (!source.checkRegularFile(name, error) || !target.removeFile(name, error)
        || !source.copyFileTo(name, target, error))
        return false;
    *copied = true;
    return copyMatches(source, target, name, error);
}

bool GroupMover::copyMatches(const ConfinedDirectory &source, const ConfinedDirectory &target, const QString &name,
                             QString *error)
{
    // Every copy is checked here before any source is removed; a
    // comparison of digests belongs here as well.
    const std::optional<qint64> sourceSize = source.regularFileSize(name, error);
    const std::optional<qint64> targetSize = target.regularFileSize(name, error);
    if (!sourceSize || !targetSize)
        return false;
    if (*sourceSize != *targetSize) {
        *error = QStringLiteral("the copy of %1 holds %2 bytes instead of %3")
                     .arg(name)
                     .arg(*targetSize)
                     .arg(*sourceSize);
        return false;
    }
    return true;
}

} // namespace Kelda
