#include "keldafile.h"

#include "keldaclient.h"
#include "keldaurl.h"
#include "trace.h"

#include <QDateTime>
#include <QDir>
#include <QMutex>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/keldaclient/src/keldafile";

const QString kNotConnected = QStringLiteral("KeldaClient not connected but available");
const QString kNoClient = QStringLiteral("KeldaClient was not given to KeldaFile");

QString cleanLocalName(const QString &name)
{
    return QDir::toNativeSeparators(QDir::cleanPath(name));
}

// "a.bin" stays whole, "a.b.c" becomes "b.c": only the last two sections of
// a dotted name are kept.
QString fileGroupNameOf(const QString &fileName)
{
    if (!fileName.contains(QLatin1Char('.')))
        return fileName;
    return fileName.section(QLatin1Char('.'), -2);
}

} // namespace

class KeldaFilePrivate
{
public:
    KeldaFilePrivate(KeldaFile *q, KeldaClient *client, unsigned int fileId = 0)
        : m_uFileId(fileId)
        , m_pClient(client)
        , q_ptr(q)
    { }

    void CreateInArchive(const QString &name, unsigned int lifeCycleDays, const QString &version, const QString &detail,
                         const QString &comment, FileType fileType, quint64 reservedStorage);
    bool CopyIntoGroup(const QString &groupPath, const QString &fileName);

    bool IsServerReachable() const { return KeldaClient::IsKeldaAvailable() && m_pClient && m_pClient->IsConnected(); }

    void TakeClientError() { m_lastError = m_pClient->GetError(); }

    QString m_sGuid;
    unsigned int m_uFileId;
    QString m_sLocalName;
    QString m_sPendingAddRequest;
    bool m_bCreatedGroup = false;
    KeldaError m_lastError = KE_NoError;
    KeldaClient *m_pClient;
    QMutex m_mutex;

    KeldaFile *const q_ptr;
    Q_DECLARE_PUBLIC(KeldaFile)
};

KeldaFile::KeldaFile(KeldaClient *client)
    : d(new KeldaFilePrivate(this, client))
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile: Default"));
}

KeldaFile::KeldaFile(KeldaClient *client, const QString &name, const QString &version, unsigned int &lifeCycleDays,
                     const QString &detail, const QString &comment, FileType fileType, quint64 reservedStorage)
    : d(new KeldaFilePrivate(this, client))
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile: Start ("));
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile:   Name: %1").arg(name));
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile:   Version: %1").arg(version));
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile:   LifeCycleDays: %1").arg(lifeCycleDays));
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile:   Detail: %1").arg(detail));
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile:   Comment: %1").arg(comment));
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile:   FileType: %1").arg(int(fileType)));
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile:   ReserverStorage: %1").arg(reservedStorage));
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile: Start )"));

    if (d->IsServerReachable()) {
        d->CreateInArchive(name, lifeCycleDays, version, detail, comment, fileType, reservedStorage);
    } else if (!KeldaClient::IsKeldaAvailable()) {
        d->m_sLocalName = cleanLocalName(name);
        setFileName(d->m_sLocalName);
    } else if (d->m_pClient) {
        Q_TRACE_FAILURE(kSource, kNotConnected);
    } else {
        Q_TRACE_FAILURE(kSource, kNoClient);
    }

    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile: End"));
}

KeldaFile::KeldaFile(KeldaClient *client, const QString &nameOrGuid, unsigned int fileId)
    : d(new KeldaFilePrivate(this, client, fileId))
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile: Start ("));
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile:   Name: %1").arg(nameOrGuid));
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile:   FileId: %1").arg(fileId));
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile: Start )"));

    // Archived files are numbered from 1, so id 0 can only mean a local path.
    if (!KeldaClient::IsKeldaAvailable() || fileId == 0) {
        d->m_sLocalName = cleanLocalName(nameOrGuid);
        setFileName(d->m_sLocalName);
    } else {
        d->m_sGuid = nameOrGuid;
    }

    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::KeldaFile: End"));
}

KeldaFile::~KeldaFile()
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::~KeldaFile: Start"));
    // A group this object made is handed over to network storage; the lock
    // of an open file is only released by close().
    if (KeldaClient::IsKeldaAvailable() && d->m_bCreatedGroup) {
        if (d->m_pClient) {
            d->m_pClient->MoveToNas(d->m_sGuid);
            d->TakeClientError();
            if (d->m_lastError != KE_NoError)
                Q_TRACE_FAILURE(kSource,
                                QStringLiteral("KeldaFile::~KeldaFile: %1").arg(KeldaErrorString::Get(d->m_lastError)));
        } else {
            Q_TRACE_FAILURE(kSource, kNoClient);
        }
    }
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::~KeldaFile: End"));
}

void KeldaFilePrivate::CreateInArchive(const QString &name, unsigned int lifeCycleDays, const QString &version,
                                       const QString &detail, const QString &comment, FileType fileType,
                                       quint64 reservedStorage)
{
    if (!q_ptr->IsFileName(name)) {
        m_sGuid = name;
        return;
    }
    m_sLocalName = cleanLocalName(name);
    q_func()->setFileName(m_sLocalName);
    const QDateTime lifecycle = QDateTime::currentDateTime().addDays(lifeCycleDays);

    // The local name is native, so its directory parts are split at the
    // platform's separator.
    const QString fileName = m_sLocalName.section(QDir::separator(), -1);
    QString localPath = m_sLocalName.section(QDir::separator(), 0, -2);

    m_sGuid = m_pClient->CreateFileGroup(version, lifecycle, detail, comment, fileType, reservedStorage,
                                         fileGroupNameOf(fileName), localPath, QString());
    TakeClientError();
    if (m_sGuid.isEmpty() || m_lastError != KE_NoError) {
        // A call that got no reply, in time or at all, leaves the client's
        // error as it was.
        if (m_lastError == KE_NoError)
            m_lastError = KE_ReplyTimeout;
        m_sGuid.clear();
        Q_TRACE_FAILURE(kSource, QStringLiteral("KeldaFile::KeldaFile: %1").arg(KeldaErrorString::Get(m_lastError)));
        return;
    }
    m_bCreatedGroup = true;

    // The server archives what lies in the group's directory: the bytes must
    // be there before the file is announced.
    if (!CopyIntoGroup(localPath, fileName))
        return;

    m_uFileId = m_pClient->AddFile(fileName, m_sGuid);
    TakeClientError();
    if (m_lastError != KE_NoError)
        Q_TRACE_FAILURE(kSource, QStringLiteral("KeldaFile::KeldaFile: %1").arg(KeldaErrorString::Get(m_lastError)));

    // Fires after every successful add; reported, never enforced.
    if (ErrorHandler::Instance()->IsEnabled(ErrorHandler::Failure) && m_uFileId != 0)
        _Q_assert("(m_uFileId == 0)", kSource, __LINE__);
}

bool KeldaFilePrivate::CopyIntoGroup(const QString &groupPath, const QString &fileName)
{
    const QString target = QDir(groupPath).filePath(fileName);
    QFile::remove(target);
    if (QFile::copy(m_sLocalName, target))
        return true;
    m_lastError = KE_AddFileFailed;
    Q_TRACE_FAILURE(kSource,
                    QStringLiteral("KeldaFile::KeldaFile: cannot copy %1 to %2: %3")
                        .arg(m_sLocalName, target, KeldaErrorString::Get(m_lastError)));
    return false;
}

bool KeldaFile::open(QIODevice::OpenMode mode)
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::open:  Start (%1)").arg(int(mode)));
    if (d->IsServerReachable()) {
        if (d->m_sLocalName.isEmpty()) {
            if (d->m_sGuid.isEmpty())
                return false;
            const LockState lock = mode.testFlag(QIODevice::WriteOnly) ? LOCK_Write : LOCK_Read;
            const QString path = d->m_pClient->RequestFile(d->m_uFileId, d->m_sGuid, lock);
            d->TakeClientError();
            if (d->m_lastError != KE_NoError) {
                Q_TRACE_FAILURE(kSource,
                                QStringLiteral("KeldaFile::open: %1").arg(KeldaErrorString::Get(d->m_lastError)));
                return false;
            }
            d->m_sLocalName = path;
            setFileName(path);
        }
    } else if (KeldaClient::IsKeldaAvailable() && d->m_sLocalName.isEmpty()) {
        Q_TRACE_FAILURE(kSource, d->m_pClient ? kNotConnected : kNoClient);
        return false;
    }
    const bool opened = QFile::open(mode);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::open: End"));
    return opened;
}

void KeldaFile::close()
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::close: Start"));
    QFileDevice::close();
    // Sent whenever a server is configured, also for a file that was never
    // requested: the server, not this object, knows which locks are held.
    if (KeldaClient::IsKeldaAvailable() && d->m_pClient) {
        d->m_pClient->CloseFile(d->m_uFileId, d->m_sGuid);
        d->TakeClientError();
        if (d->m_lastError != KE_NoError)
            Q_TRACE_FAILURE(kSource, QStringLiteral("KeldaFile::close: %1").arg(KeldaErrorString::Get(d->m_lastError)));
    }
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaFile::close: End"));
}

KeldaError KeldaFile::GetError() const
{
    return d->m_lastError;
}

QString KeldaFile::GetErrorString() const
{
    return KeldaErrorString::Get(d->m_lastError);
}

unsigned int KeldaFile::GetFileId()
{
    return d->m_uFileId;
}

QString KeldaFile::GetGuid()
{
    return d->m_sGuid;
}

QString KeldaFile::GetName()
{
    if (d->m_sGuid.isEmpty())
        return d->m_sLocalName;
    return KeldaUrl::fromKeldaIds(d->m_sGuid, d->m_uFileId).toString();
}

bool KeldaFile::IsEmpty() const
{
    return d->m_sGuid.isEmpty() && d->m_sLocalName.isEmpty();
}

void KeldaFile::handleAddFileSignal(const QString &requestId, unsigned int fileId)
{
    if (requestId != d->m_sPendingAddRequest)
        return;
    d->m_uFileId = fileId;
    emit fileSuccessfullyAdded(fileId);
}

bool KeldaFile::IsFileName(const QString &s) const
{
    return s.contains(QLatin1Char('.')) || s.contains(QLatin1Char('/')) || s.contains(QLatin1Char('\\'));
}

} // namespace Kelda
