#include "keldaclient.h"

#include "asynchandler.h"
#include "cfgcenter.h"
#include "clientconfig.h"
#include "commanddescriptors.h"
#include "commandrequest.h"
#include "filequery.h"
#include "keldaxml.h"
#include "keldaclient_p.h"
#include "replysignals.h"
#include "trace.h"
#include "transporttimings.h"
#include "translationcenter.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QTimer>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/keldaclient/src/keldaclient";
const QString kCatalogue = QStringLiteral("KeldaClient");

// The catalogue lives as long as the library: registered when it is loaded
// (again once an application object exists, if it did not yet), unregistered
// when it is unloaded.
struct CatalogueRegistration
{
    CatalogueRegistration() { TranslationCenter::Instance()->Register(kCatalogue); }
    ~CatalogueRegistration() { TranslationCenter::Instance()->Unregister(kCatalogue); }
};
const CatalogueRegistration s_catalogueRegistration;

QString qualified(const char *operation)
{
    return QStringLiteral("KeldaClient::") + QLatin1String(operation);
}

QString joinedForTrace(const QStringList &items)
{
    QString text;
    for (const QString &item : items)
        text += QStringLiteral("%1 ;").arg(item);
    return text;
}

// The part of a path after its last separator: the platform's, else "/".
QString fileNameOf(const QString &filePath)
{
    int cut = filePath.lastIndexOf(QDir::separator());
    if (cut < 0)
        cut = filePath.lastIndexOf(QLatin1Char('/'));
    return cut < 0 ? filePath : filePath.mid(cut + 1);
}

} // namespace

} // namespace Kelda

static void registerKeldaClientCatalogue()
{
    TranslationCenter::Instance()->Register(Kelda::kCatalogue);
}
Q_COREAPP_STARTUP_FUNCTION(registerKeldaClientCatalogue)

namespace Kelda {

// ---------------------------------------------------------------- private part

KeldaClientPrivate::KeldaClientPrivate(KeldaClient *owner)
    : m_owner(owner)
{
    // Every client shares this copy, so that the host and port a constructor
    // sets reach every later reader.
    static ClientConfig config;
    ClientConfig::s_shared.store(&config);
    static const bool registered = [] {
        qRegisterMetaType<Kelda::FileGroupData>("Kelda::FileGroupData");
        qRegisterMetaType<Kelda::FileType>("FileType");
        qRegisterMetaType<Kelda::FileType>("Kelda::FileType");
        return true;
    }();
    Q_UNUSED(registered)
}

void KeldaClientPrivate::StopSender()
{
    m_thread.Stop();
    m_sender = nullptr;
}

void KeldaClientPrivate::StartSender(QString application, const QString &user, const QString &teamMembership)
{
    if (!m_explicitServer && !KeldaClient::IsKeldaAvailable())
        return;
    if (application.isEmpty())
        application = CfgCenter::GetAppName();

    ClientConfig *config = ClientConfig::s_shared.load();
    m_sender = new CommandSender(config->GetServerHost(), config->GetXmlPort(), application, user, teamMembership);
    m_sender->SetMaxFrameLength(config->GetMaxFrameSize());
    m_sender->SetTls(ClientTls::current());

    KeldaClient *q = m_owner;
    // Queued to the client's thread, as a connection to a slot of q would be.
    QObject::connect(m_sender, &CommandSender::connected, q, [this](QString a_basePath) { SlotConnected(a_basePath); });
    QObject::connect(m_sender, &CommandSender::disconnected, q, [this] { SlotDisconnected(); });
    ReplySignals::ConnectRelays(m_sender, q);

    m_thread.Start(m_sender);
    QMetaObject::invokeMethod(m_sender, "start");
}

bool KeldaClientPrivate::CheckPreconditions(const QString &operation) const
{
    if (!KeldaClient::IsKeldaAvailable()) {
        Q_TRACE_DETAIL(kSource, operation + QStringLiteral(": no kelda available"));
        return false;
    }
    if (!m_sender || !m_sender->CheckIsConnected()) {
        Q_TRACE_DETAIL(kSource, operation + QStringLiteral(": no commandsender available"));
        return false;
    }
    return true;
}

template <typename Send>
QString KeldaClientPrivate::Async(const QString &operation, const QString &startArguments, Send send)
{
    if (!CheckPreconditions(operation))
        return QString();
    Q_TRACE_DETAIL(kSource, operation + QStringLiteral(": Start (%1)").arg(startArguments));
    const QString requestId = send();
    Q_TRACE_DETAIL(kSource, operation + QStringLiteral(": End (%1)").arg(m_sender->GetLastError()));
    return requestId;
}

template <typename Send>
bool KeldaClientPrivate::Blocking(const QString &operation, const QString &startArguments, Send send,
                                  CommandSender::ReplyValues &values, bool textResult)
{
    if (!CheckPreconditions(operation))
        return false;
    Q_TRACE_DETAIL(kSource, operation + QStringLiteral(": Start (%1)").arg(startArguments));
    // The waiter listens before the request leaves, so that a reply faster
    // than this thread is still recognised.
    AsyncHandler waiter(m_sender, TransportTimings::ReplyTimeLimitMs());
    const QString requestId = send();
    const bool handled = waiter.Wait(requestId);
    if (handled)
        values = m_sender->TakeReplyValues(requestId);
    else
        Q_TRACE_DETAIL(kSource, operation + QStringLiteral(": AsyncHandler failed"));
    Q_TRACE_DETAIL(
        kSource,
        operation +
            QStringLiteral(": End (%1)").arg(textResult ? values.text : QString::number(m_sender->GetLastError())));
    return handled;
}

// ---------------------------------------------------------------- construction

KeldaClient::KeldaClient()
    : QObject(nullptr)
    , d(new KeldaClientPrivate(this))
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::KeldaClient: Start"));
    d->StartSender(QString(), QString(), QString());
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::KeldaClient: End"));
}

KeldaClient::KeldaClient(const QString &host, quint16 port)
    : QObject(nullptr)
    , d(new KeldaClientPrivate(this))
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::KeldaClient: Start"));
    if (!host.isEmpty())
        ClientConfig::s_shared.load()->SetServerHost(host);
    if (port != 0)
        ClientConfig::s_shared.load()->SetXmlPort(port);
    d->StartSender(QString(), QString(), QString());
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::KeldaClient: End"));
}

KeldaClient::KeldaClient(const QString &host, quint16 port, const QString &application, const QString &user,
                         const QString &teamMembership)
    : QObject(nullptr)
    , d(new KeldaClientPrivate(this))
{
    Q_TRACE_DETAIL(kSource,
                   QStringLiteral("KeldaClient::KeldaClient: Start (%1, %2)").arg(host, QString::number(port)));
    ClientConfig *config = ClientConfig::s_shared.load();
    config->SetServerHost(host);
    config->SetXmlPort(port);
    config->SetAvailable(true);
    d->m_explicitServer = true;
    d->StartSender(application, user, teamMembership);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::KeldaClient: End"));
}

KeldaClient::~KeldaClient()
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::~KeldaClient: Start"));
    d->StopSender();
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::~KeldaClient: End"));
}

QString KeldaClient::CreateGuid()
{
    return Kelda::CreateGuid();
}

// ---------------------------------------------------------------- state

bool KeldaClient::IsConnected() const
{
    return IsKeldaAvailable() && d->m_sender && d->m_sender->IsConnected() && d->m_connected.load();
}

bool KeldaClient::WaitForConnected(int msecs)
{
    if (IsConnected())
        return true;
    if (!d->m_sender)
        return false;
    QEventLoop loop;
    connect(this, &KeldaClient::connected, &loop, &QEventLoop::quit);
    QTimer timer;
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    if (msecs >= 0)
        timer.start(msecs);
    // The caller waits for the server, not for the user: clicks meanwhile
    // could start what needs the connection.
    loop.exec(QEventLoop::ExcludeUserInputEvents);
    return IsConnected();
}

KeldaError KeldaClient::GetError() const
{
    if (!IsKeldaAvailable() || !d->m_sender)
        return KE_NoError;
    return static_cast<KeldaError>(d->m_sender->GetLastError());
}

QString KeldaClient::GetErrorString() const
{
    return KeldaErrorString::Get(GetError());
}

QString KeldaClient::GetHost() const
{
    return d->m_sender ? d->m_sender->GetHost() : QString();
}

quint16 KeldaClient::GetPort() const
{
    return d->m_sender ? d->m_sender->GetPort() : 0;
}

QString KeldaClient::getBasePath() const
{
    return d->m_basePath;
}

void KeldaClient::SetUser(const QString &user)
{
    if (IsKeldaAvailable() && d->m_sender)
        d->m_sender->SetUser(user);
}

void KeldaClient::SetApplication(const QString &application)
{
    if (IsKeldaAvailable() && d->m_sender)
        d->m_sender->SetApplication(application);
}

void KeldaClient::SetTeamMembership(const QString &teamMembership)
{
    if (IsKeldaAvailable() && d->m_sender)
        d->m_sender->SetTeamMembership(teamMembership);
}

void KeldaClient::Reconnect()
{ }

void KeldaClientPrivate::SlotConnected(QString a_basePath)
{
    m_connected.store(true);
    m_basePath = a_basePath;
    if (a_basePath.isEmpty() || !QDir(a_basePath).exists())
        Q_TRACE_FAILURE(kSource, QStringLiteral("Directory does not exist: ") + a_basePath);
    emit m_owner->connected();
}

void KeldaClientPrivate::SlotDisconnected()
{
    m_connected.store(false);
    emit m_owner->disconnected();
}

void KeldaClientPrivate::EmitCreateFileGroupSg(QString a_sGuid, QString a_sPath)
{
    emit m_owner->CreateFileGroupSg(a_sGuid, a_sPath);
}

void KeldaClientPrivate::EmitAddFileSg(QString a_sRequestId, unsigned int a_fileId)
{
    emit m_owner->AddFileSg(a_sRequestId, a_fileId);
}

// ---------------------------------------------------------------- file groups

QString KeldaClient::CreateFileGroup(const QString &version, const QDateTime &lifecycle, const QString &detail,
                                     const QString &comment, FileType fileType, quint64 reservedStorage,
                                     const QString &fileGroupName, QString &localPath, QString guid)
{
    return d->CreateFileGroupHelper(true, version, lifecycle, detail, comment, fileType, reservedStorage, fileGroupName,
                                    localPath, guid);
}

QString KeldaClient::CreateFileGroupAsync(const QString &version, const QDateTime &lifecycle, const QString &detail,
                                          const QString &comment, FileType fileType, quint64 reservedStorage,
                                          const QString &fileGroupName, QString &localPath, QString guid)
{
    return d->CreateFileGroupHelper(false, version, lifecycle, detail, comment, fileType, reservedStorage,
                                    fileGroupName, localPath, guid);
}

QString KeldaClientPrivate::CreateFileGroupHelper(bool wait, const QString &version, const QDateTime &lifecycle,
                                                  const QString &detail, const QString &comment, FileType fileType,
                                                  quint64 reservedStorage, const QString &fileGroupName,
                                                  QString &localPath, QString guid)
{
    const QString operation = qualified("CreateFileGroupHelper");
    if (guid.isEmpty())
        guid = Kelda::CreateGuid();
    if (!CheckPreconditions(operation))
        return QString();
    Q_TRACE_DETAIL(kSource,
                   QStringLiteral("KeldaClient::CreateFileGroupHelper: Start (GUID: %1, Version: %2, "
                                  "Lifecycle: %3, Detail: %4, Comment: %5, Filetype: %6, "
                                  "ReservedStorage: %7, Filegroupname: %8, LocalPath: %9)")
                       .arg(guid, version, lifecycle.toString(QStringLiteral("dd.MM.yyyy hh.mm.ss")), detail, comment,
                            QString::number(int(fileType)), QString::number(reservedStorage), fileGroupName,
                            localPath));
    localPath = CreatePath(m_basePath, guid, fileGroupName);
    QDir().mkpath(localPath);

    bool success = true;
    auto send = [&] {
        return m_sender->CreateFileGroup(guid, version, lifecycle, detail, comment, fileType, reservedStorage,
                                         fileGroupName, localPath);
    };
    if (!wait) {
        send();
    } else {
        AsyncHandler waiter(m_sender, TransportTimings::ReplyTimeLimitMs());
        const QString requestId = send();
        if (!waiter.Wait(requestId)) {
            Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::CreateFileGroupHelper: AsyncHandler failed"));
            success = false;
        } else if (m_sender->GetLastError() != KE_NoError) {
            Q_TRACE_DETAIL(
                kSource,
                QStringLiteral("KeldaClient::CreateFileGroupHelper: error (%1)").arg(m_sender->GetLastError()));
            success = false;
        }
        m_sender->TakeReplyValues(requestId);
    }
    Q_TRACE_DETAIL(kSource,
                   QStringLiteral("KeldaClient::CreateFileGroupHelper: End (%1)").arg(m_sender->GetLastError()));
    return success ? guid : QString();
}

QString KeldaClient::CreateTovinFileGroupAsync(const QString &subsystem, const QString &tovinId,
                                               const QString &recordId, const QString &version, const QString &detail,
                                               const QString &comment, FileType fileType, QString &localPath,
                                               QString guid)
{
    const QString operation = qualified("CreateTovinFileGroupHelper");
    if (guid.isEmpty())
        guid = CreateGuid();
    if (!d->CheckPreconditions(operation))
        return QString();
    Q_TRACE_DETAIL(kSource,
                   QStringLiteral("KeldaClient::CreateTovinFileGroupHelper: Start (Subsystem: %1, "
                                  "TovinId: %2, RecordId: %3)")
                       .arg(subsystem, tovinId, recordId));
    localPath = QDir::toNativeSeparators(QDir::cleanPath(CreatePath(getBasePath(), guid, recordId)) + QLatin1Char('/'));
    QDir().mkpath(localPath);
    d->m_sender->CreateTovinFileGroup(guid, subsystem, tovinId, recordId, version, detail, comment, fileType,
                                      localPath);
    Q_TRACE_DETAIL(
        kSource, QStringLiteral("KeldaClient::CreateTovinFileGroupHelper: End (%1)").arg(d->m_sender->GetLastError()));
    return guid;
}

QString KeldaClient::CreateTovinFileGroupAsync(const QString &tovinId, const QString &recordId, const QString &version,
                                               const QString &detail, const QString &comment, FileType fileType,
                                               QString &localPath, QString guid)
{
    return CreateTovinFileGroupAsync(QStringLiteral("IpAddress"), tovinId, recordId, version, detail, comment, fileType,
                                     localPath, guid);
}

QString KeldaClient::DeleteFileGroupAsync(const QString &guid)
{
    return d->Async(qualified("DeleteFileGroupAsync"), guid, [&] { return d->m_sender->DeleteFileGroup(guid, false); });
}

QString KeldaClient::MoveToNas(const QString &guid)
{
    return d->Async(qualified("MoveToNas"), guid, [&] { return d->m_sender->MoveToNas(guid); });
}

QString KeldaClient::MoveToNas(const KeldaUrl &url)
{
    return url.isKeldaUrl() ? MoveToNas(url.toKeldaGuid()) : QString();
}

void KeldaClient::MoveToNasSync(const QString &guid)
{
    if (!d->CheckPreconditions(qualified("MoveToNasSync")))
        return;
    AsyncHandler waiter(d->m_sender, TransportTimings::ReplyTimeLimitMs());
    const QString requestId = MoveToNas(guid);
    // The connection dropped between the two checks: nothing was sent, and
    // the wait could only run into its time limit.
    if (requestId.isEmpty())
        return;
    // The failure trace names QueryFiles; kept so that existing log filters
    // keep matching.
    if (!waiter.Wait(requestId))
        Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::QueryFiles: AsyncHandler failed"));
}

// ---------------------------------------------------------------- files

unsigned int KeldaClient::AddFile(const QString &filePath, const QString &guid)
{
    const QString operation = qualified("AddFileHelper");
    const QString fileName = fileNameOf(filePath);
    if (!d->CheckPreconditions(operation))
        return 0;
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::AddFileHelper: Start (%1, %2)").arg(filePath, guid));
    QString fileId;
    AsyncHandler waiter(d->m_sender, TransportTimings::ReplyTimeLimitMs());
    const QString requestId = d->m_sender->AddFile(guid, fileName, 0);
    if (!waiter.Wait(requestId)) {
        Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::AddFileHelper: AsyncHandler failed"));
    } else if (d->m_sender->GetLastError() != KE_NoError) {
        Q_TRACE_DETAIL(kSource,
                       QStringLiteral("KeldaClient::AddFileHelper: error (%1)").arg(d->m_sender->GetLastError()));
    } else {
        fileId = d->m_sender->TakeReplyValues(requestId).text;
    }
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::AddFileHelper: End (%1)").arg(d->m_sender->GetLastError()));
    return fileId.toUInt(nullptr, 10);
}

QString KeldaClient::AddFileAsync(const QString &filePath, const QString &guid, int fileId)
{
    const QString fileName = fileNameOf(filePath);
    return d->Async(qualified("AddFileHelper"), QStringLiteral("%1, %2").arg(filePath, guid),
                    [&] { return d->m_sender->AddFile(guid, fileName, fileId); });
}

QString KeldaClient::RequestFile(unsigned int fileId, const QString &guid, LockState lock)
{
    CommandSender::ReplyValues values;
    if (!d->Blocking(
            qualified("RequestFile"), QStringLiteral("%1, %2").arg(fileId).arg(guid),
            [&] { return d->m_sender->RequestFile(guid, int(fileId), lock == LOCK_Write); }, values, true))
        return QString();
    return values.text;
}

QString KeldaClient::RequestFile(const KeldaUrl &url, LockState lock)
{
    if (!url.isKeldaUrl())
        return QString();
    // A URL without file id means the group's first file.
    return RequestFile(url.hasKeldaFileId() ? url.toKeldaFileId() : 1u, url.toKeldaGuid(), lock);
}

QString KeldaClient::RequestFileAsync(unsigned int fileId, const QString &guid, LockState lock)
{
    return d->Async(qualified("RequestFileAsync"), QStringLiteral("%1, %2").arg(fileId).arg(guid),
                    [&] { return d->m_sender->RequestFile(guid, int(fileId), lock == LOCK_Write); });
}

QString KeldaClient::RequestFileAsync(const KeldaUrl &url, LockState lock)
{
    if (!url.isKeldaUrl())
        return QString();
    return RequestFileAsync(url.hasKeldaFileId() ? url.toKeldaFileId() : 1u, url.toKeldaGuid(), lock);
}

void KeldaClient::CloseFile(unsigned int fileId, const QString &guid)
{
    d->Async(qualified("CloseFile"), QStringLiteral("%1, %2").arg(fileId).arg(guid),
             [&] { return d->m_sender->CloseFile(guid, int(fileId)); });
}

void KeldaClient::CloseFile(const KeldaUrl &url)
{
    if (url.isKeldaUrl())
        CloseFile(url.toKeldaFileId(), url.toKeldaGuid());
}

QString KeldaClient::DeleteFileName(unsigned int fileId, const QString &guid)
{
    const QString operation = qualified("DeleteFile");
    if (!d->CheckPreconditions(operation))
        return QString();
    // Only a Start trace: the reply reports the outcome.
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::DeleteFile: Start (%1, %2)").arg(fileId).arg(guid));
    return d->m_sender->DeleteFile(guid, int(fileId));
}

QString KeldaClient::DeleteFileName(const KeldaUrl &url)
{
    return url.isKeldaUrl() ? DeleteFileName(url.toKeldaFileId(), url.toKeldaGuid()) : QString();
}

QStringList KeldaClient::GetFileList(const QString &guid)
{
    CommandSender::ReplyValues values;
    if (!d->Blocking(
            qualified("GetFileList"), guid, [&] { return d->m_sender->GetFileList(guid); }, values))
        return QStringList();
    return values.list;
}

QStringList KeldaClient::GetFileList(const KeldaUrl &url)
{
    return url.isKeldaUrl() ? GetFileList(url.toKeldaGuid()) : QStringList();
}

QString KeldaClient::GetFileListAsync(const QString &guid)
{
    return d->Async(qualified("GetFileListAsync"), guid, [&] { return d->m_sender->GetFileList(guid); });
}

bool KeldaClient::IsValidURL(const KeldaUrl &url)
{
    if (!url.isKeldaUrl())
        return false;
    const QStringList files = GetFileList(url);
    if (IsKeldaAvailable() && GetError() != KE_NoError)
        return false;
    if (!url.hasKeldaFileId())
        return true;
    return files.contains(QString::number(url.toKeldaFileId()));
}

// ---------------------------------------------------------------- references

void KeldaClient::AddReference(const QString &guid)
{
    d->Async(qualified("AddReference"), guid, [&] { return d->m_sender->AddReference(guid); });
}

void KeldaClient::AddReference(const KeldaUrl &url)
{
    if (url.isKeldaUrl())
        AddReference(url.toKeldaGuid());
}

void KeldaClient::RemoveReference(const QString &guid)
{
    d->Async(qualified("RemoveReference"), guid, [&] { return d->m_sender->RemoveReference(guid); });
}

void KeldaClient::RemoveReference(const KeldaUrl &url)
{
    if (url.isKeldaUrl())
        RemoveReference(url.toKeldaGuid());
}

void KeldaClient::RemoveAllReferences(const QString &guid)
{
    d->Async(qualified("RemoveAllReferences"), guid, [&] { return d->m_sender->RemoveAllReferences(guid); });
}

void KeldaClient::RemoveAllReferences(const KeldaUrl &url)
{
    if (url.isKeldaUrl())
        RemoveAllReferences(url.toKeldaGuid());
}

// ---------------------------------------------------------------- lists and queries

QStringList KeldaClient::GetApplicationList()
{
    CommandSender::ReplyValues values;
    if (!d->Blocking(
            qualified("GetApplicationList"), QString(), [&] { return d->m_sender->GetApplicationList(); }, values))
        return QStringList();
    return values.list;
}

QString KeldaClient::GetApplicationListAsync()
{
    return d->Async(qualified("GetApplicationListAsync"), QString(), [&] { return d->m_sender->GetApplicationList(); });
}

QStringList KeldaClient::GetUserList()
{
    CommandSender::ReplyValues values;
    if (!d->Blocking(
            qualified("GetUserList"), QString(), [&] { return d->m_sender->GetUserList(); }, values))
        return QStringList();
    return values.list;
}

QString KeldaClient::GetUserListAsync()
{
    return d->Async(qualified("GetUserListAsync"), QString(), [&] { return d->m_sender->GetUserList(); });
}

QStringList KeldaClient::QueryFiles(const FileQuery &query, unsigned int &count)
{
    CommandSender::ReplyValues values;
    if (!d->Blocking(
            qualified("QueryFiles"), QString(), [&] { return d->m_sender->QueryFileGroups(query); }, values))
        return QStringList();
    count = unsigned(values.count);
    return values.list;
}

QString KeldaClient::QueryFilesAsync(const FileQuery &query, unsigned int &count)
{
    // The table's width is fixed by the record's columns; the rows follow
    // with queryFileGroupsSg.
    QStringList headers;
    FileGroupData::GetHeaders(headers);
    count = unsigned(headers.size());
    return d->Async(qualified("QueryFilesAsync"), QString(), [&] { return d->m_sender->QueryFileGroups(query); });
}

QString KeldaClient::QueryMetaDataAsync(const QString &guid, const QString &application)
{
    return d->Async(qualified("QueryMetaDataAsync"), QStringLiteral("%1, %2").arg(guid, application),
                    [&] { return d->m_sender->QueryMetaData(guid, application); });
}

QString KeldaClient::ExportArchiveAsync(const QStringList &guids, const QString &target)
{
    return d->Async(qualified("ExportArchiveAsync"), joinedForTrace(guids) + QStringLiteral(", ") + target,
                    [&] { return d->m_sender->ExportArchive(guids, target); });
}

QString KeldaClient::ImportArchiveAsync(const QStringList &items)
{
    return d->Async(qualified("ImportArchiveAsync"), joinedForTrace(items),
                    [&] { return d->m_sender->ImportArchive(items); });
}

QString KeldaClient::GetRemoteStorageLocationAsync(const QString &guidOrUrl)
{
    KeldaUrl url(guidOrUrl);
    if (!url.isKeldaUrl())
        url = KeldaUrl::fromKeldaGuid(guidOrUrl);
    return d->Async(qualified("GetRemoteStorageLocationAsync"), guidOrUrl,
                    [&] { return d->m_sender->GetRemoteStorageLocation(url.toKeldaGuid(), int(url.toKeldaFileId())); });
}

QString KeldaClient::GetTovinFilegroupGuidAsync(const QString &guid, const QString &fileId)
{
    return d->Async(qualified("GetTovinFilegroupGuidAsync"), QStringLiteral("%1, %2").arg(guid, fileId),
                    [&] { return d->m_sender->GetTovinFilegroupGuid(guid, fileId); });
}

QStringList KeldaClient::GetFileChecksums(const QString &guid)
{
    CommandSender::ReplyValues values;
    if (!d->Blocking(
            qualified("GetFileChecksums"), guid,
            [&] { return d->m_sender->Send(CommandRequest(ReplyKind::GetFileChecksums).SetText(Tag::Guid, guid)); },
            values))
        return QStringList();
    return values.list;
}

QString KeldaClient::GetFileChecksumsAsync(const QString &guid)
{
    return d->Async(qualified("GetFileChecksumsAsync"), guid, [&] {
        return d->m_sender->Send(CommandRequest(ReplyKind::GetFileChecksums).SetText(Tag::Guid, guid));
    });
}

QStringList KeldaClient::VerifyFileGroup(const QString &guid)
{
    CommandSender::ReplyValues values;
    if (!d->Blocking(
            qualified("VerifyFileGroup"), guid,
            [&] { return d->m_sender->Send(CommandRequest(ReplyKind::VerifyFileGroup).SetText(Tag::Guid, guid)); },
            values))
        return QStringList();
    return values.list;
}

QString KeldaClient::VerifyFileGroupAsync(const QString &guid)
{
    return d->Async(qualified("VerifyFileGroupAsync"), guid, [&] {
        return d->m_sender->Send(CommandRequest(ReplyKind::VerifyFileGroup).SetText(Tag::Guid, guid));
    });
}

QString KeldaClient::QueryLocationStateProgress(const QString &guid)
{
    return d->Async(qualified("QueryLocationStateProgress"), guid,
                    [&] { return d->m_sender->QueryLocationStateProgress(guid); });
}

QString KeldaClient::CheckFileGroupExists(const QString &guid)
{
    return d->Async(qualified("CheckFileGroupExists"), guid, [&] { return d->m_sender->CheckFileGroupExists(guid); });
}

} // namespace Kelda

// The private slots are called by the meta-object code, which needs the
// private class.
#include "moc_keldaclient.cpp"
