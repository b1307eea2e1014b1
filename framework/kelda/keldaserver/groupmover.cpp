#include "groupmover.h"

#include "filedigest.h"

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
    FileDigest::releaseThreadState();
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
    const ConfinedDirectory target =
        ConfinedDirectory::open(order.targetRoot, order.to, ConfinedDirectory::Creation::CreateMissing, &error);
    if (!target.isOpen()) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot move file group %1: %2").arg(order.guid, error));
        return false;
    }
    // A run cut short after its copies may have removed the source already.
    const ConfinedDirectory source =
        ConfinedDirectory::open(order.sourceRoot, order.from, ConfinedDirectory::Creation::Existing, &error);
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
        const bool carried =
            carryFile(source, target, file, order.digests.value(file), ReadControl{stop, nullptr}, &fresh, &error);
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
                           const QByteArray &recorded, const ReadControl &control, bool *copied, QString *error)
{
    const ConfinedDirectory::Kind kind = source.isOpen() ? source.kindOf(name) : ConfinedDirectory::Kind::Missing;
    if (kind == ConfinedDirectory::Kind::Missing) {
        // Sources go only once every copy is in place and checked: a
        // missing source was carried by an earlier run. Its copy must still
        // be the recorded file.
        if (target.kindOf(name) != ConfinedDirectory::Kind::Regular) {
            *error = QStringLiteral("%1 is missing from %2").arg(name, source.path());
            return false;
        }
        const std::optional<ConfinedDirectory::Digest> copy = target.digestFile(name, error, control);
        return copy && copyMatches(target, name, *copy, recorded, control, error);
    }
    // A copy left by a run that was cut short is made again.
    ConfinedDirectory::Digest read;
    if (!source.checkRegularFile(name, error) || !target.removeFile(name, error) ||
        !source.copyFileTo(name, target, error, &read, control))
        return false;
    *copied = true;
    return copyMatches(target, name, read, recorded, control, error);
}

bool GroupMover::copyMatches(const ConfinedDirectory &target, const QString &name,
                             const ConfinedDirectory::Digest &read, const QByteArray &recorded,
                             const ReadControl &control, QString *error)
{
    // What was read must be what was added, and what landed on the network
    // storage must be what was read: only then may a source go.
    if (!recorded.isEmpty() && read.sha256 != recorded) {
        *error = QStringLiteral("%1 no longer matches its recorded digest (%2, read %3)")
                     .arg(name, FileDigest::hex(recorded), FileDigest::hex(read.sha256));
        return false;
    }
    const std::optional<ConfinedDirectory::Digest> copy = target.digestFile(name, error, control);
    if (!copy)
        return false;
    if (copy->sha256 != read.sha256) {
        *error = QStringLiteral("the copy of %1 in %2 differs from its source (%3, copy %4)")
                     .arg(name, target.path(), FileDigest::hex(read.sha256), FileDigest::hex(copy->sha256));
        return false;
    }
    return true;
}

} // namespace Kelda
