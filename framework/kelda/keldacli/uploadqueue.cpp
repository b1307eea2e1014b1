#include "uploadqueue.h"

#include "clisession.h"
#include "commandsupport.h"

#include "keldaclient.h"

#include <QDir>
#include <QFile>

using namespace Kelda;

namespace KeldaCli {

UploadQueue::UploadQueue(Session &session, int jobs, std::vector<Item> items, qint64 totalBytes)
    : TransferQueue(session, QStringLiteral("put"), jobs, int(items.size()), totalBytes)
    , m_items(std::move(items))
{
    connect(&session.client(), &KeldaClient::AddFileSg, this, &UploadQueue::added);
}

void UploadQueue::begin(int index)
{
    copy(index, m_items[size_t(index)].source, target(index), CopyMode::Durable);
}

void UploadQueue::copied(int index, const QString &error, const QByteArray &)
{
    if (!error.isEmpty()) {
        fail(index, ExitLocalFile, error);
        return;
    }
    request(index);
}

QString UploadQueue::send(int index)
{
    const Item &item = m_items[size_t(index)];
    const QString requestId = session().client().AddFileAsync(target(index), item.guid, int(item.fileId));
    if (requestId.isEmpty()) {
        removeCopy(index);
        fail(index, ExitUnreachable, KeldaErrorString::Get(KE_NotConnected));
        return QString();
    }
    return requestId;
}

void UploadQueue::added(const QString &requestId, unsigned int fileId)
{
    const int index = answered(requestId);
    if (index < 0)
        return;
    if (fileId == 0) {
        // The signal carries no code; the client's last error is the best
        // guess, as other replies may have come in between.
        const KeldaError error = session().client().GetError();
        removeCopy(index);
        fail(index, ExitServerError, serverErrorText(error != KE_NoError ? error : KE_AddFileFailed));
        return;
    }
    m_items[size_t(index)].fileId = fileId;
    succeed(index);
}

void UploadQueue::report(int index)
{
    const Item &item = m_items[size_t(index)];
    const QString url = KeldaUrl::fromKeldaIds(item.guid, item.fileId).toString();
    session().out() << url << '\n';
    session().out().flush();
    session().detail(
        QStringLiteral("stored %1 as %2 (%3, %4 ms)").arg(item.source, url, sizeText(item.size)).arg(elapsedMs(index)));
}

// An item whose AddFile went out may be in the archive: its copy stays, so
// that the archive never lists a file it does not have.
void UploadQueue::abandon(int index)
{
    if (!awaitsAnswer(index))
        removeCopy(index);
}

QString UploadQueue::describe(int index) const
{
    return m_items[size_t(index)].source;
}

QString UploadQueue::target(int index) const
{
    const Item &item = m_items[size_t(index)];
    return QDir(item.directory).filePath(item.name);
}

void UploadQueue::removeCopy(int index)
{
    QFile::remove(target(index));
}

} // namespace KeldaCli
