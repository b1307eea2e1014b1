#include "downloadqueue.h"

#include "clisession.h"
#include "commandsupport.h"

#include "keldaclient.h"

#include <QDir>
#include <QFileInfo>

using namespace Kelda;

namespace KeldaCli {

DownloadQueue::DownloadQueue(Session &session, int jobs, const QString &guid, std::vector<Item> items)
    : TransferQueue(session, QStringLiteral("get"), jobs, int(items.size()), 0)
    , m_guid(guid)
    , m_items(std::move(items))
{
    connect(&session.client(), &KeldaClient::RequestFileSg, this, &DownloadQueue::granted);
}

void DownloadQueue::begin(int index)
{
    fetch(index);
}

// The read lock is the group's: once one request has granted it and named
// the group's directory, the other files are read from there without a
// request of their own, each a lock change the server would have to commit.
// A file not found there is asked for after all.
void DownloadQueue::fetch(int index)
{
    if (m_lockPending) {
        m_held.push_back(index);
        return;
    }
    const Item &item = m_items[size_t(index)];
    const QString local = m_directory.isEmpty() ? QString() : QDir(m_directory).filePath(item.name);
    if (!local.isEmpty() && QFileInfo(local).isFile()) {
        copy(index, local, item.destination, CopyMode::Plain, !item.digest.isEmpty());
        return;
    }
    m_lockPending = m_directory.isEmpty();
    request(index);
}

QString DownloadQueue::send(int index)
{
    const QString requestId = session().client().RequestFileAsync(m_items[size_t(index)].fileId, m_guid, LOCK_Read);
    if (requestId.isEmpty()) {
        m_lockPending = false;
        fail(index, ExitUnreachable, KeldaErrorString::Get(KE_NotConnected));
        return QString();
    }
    m_requested = true;
    return requestId;
}

void DownloadQueue::granted(const QString &requestId, const QString &path, int error, const QString &text)
{
    const int index = answered(requestId);
    if (index < 0)
        return;
    m_lockPending = false;
    if (error != KE_NoError || path.isEmpty()) {
        fail(index, ExitServerError, serverErrorText(error != KE_NoError ? error : KE_OpenFileFailed, text));
    } else {
        if (m_directory.isEmpty())
            m_directory = QFileInfo(path).path();
        const Item &item = m_items[size_t(index)];
        copy(index, path, item.destination, CopyMode::Plain, !item.digest.isEmpty());
    }
    releaseHeld();
}

void DownloadQueue::releaseHeld()
{
    std::vector<int> held;
    held.swap(m_held);
    for (int index : held)
        fetch(index);
}

void DownloadQueue::copied(int index, const QString &error, const QByteArray &digest)
{
    if (!error.isEmpty()) {
        fail(index, ExitLocalFile, error);
        return;
    }
    const Item &item = m_items[size_t(index)];
    if (!item.digest.isEmpty() && digest != item.digest.toLatin1()) {
        QFile::remove(item.destination);
        fail(index, ExitDigestMismatch, digestMismatchText(item.digest, digest));
        return;
    }
    m_bytes += QFileInfo(item.destination).size();
    succeed(index);
}

void DownloadQueue::report(int index)
{
    const Item &item = m_items[size_t(index)];
    session().detail(QStringLiteral("fetched %1 to %2 (%3, %4 ms)")
                         .arg(KeldaUrl::fromKeldaIds(m_guid, item.fileId).toString(), item.destination,
                              sizeText(QFileInfo(item.destination).size()))
                         .arg(elapsedMs(index)));
}

// A copy cut short leaves nothing behind (see copyFile), and an unanswered
// request leaves at most the group's lock, which the caller gives back.
void DownloadQueue::abandon(int)
{ }

QString DownloadQueue::describe(int index) const
{
    return KeldaUrl::fromKeldaIds(m_guid, m_items[size_t(index)].fileId).toString();
}

} // namespace KeldaCli
