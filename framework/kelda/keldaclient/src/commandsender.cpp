#include "commandsender.h"

#include "commandsendersocket.h"
#include "keldaerror.h"
#include "replyparser.h"
#include "requestmessages.h"
#include "threadhandover.h"
#include "trace.h"

#include <QMetaMethod>
#include <QTimer>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/keldaclient/src/commandsender";
constexpr int kConnectionCheckMs = 180000;
// Values of replies that no blocking call took (asynchronous calls, late
// replies after a timeout) are dropped oldest first beyond this many.
constexpr int kMaxKeptReplies = 256;

QString boolText(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

} // namespace

CommandSender::CommandSender(const QString &host, quint16 port, const QString &application, const QString &user,
                             const QString &teamMembership)
    : m_application(application)
    , m_user(user)
    , m_teamMembership(teamMembership)
    , m_host(host)
    , m_port(port)
{
}

CommandSender::~CommandSender()
{
    // Deleted on its own thread after its owner stopped it (see
    // WorkerThread): what the owner did before comes first.
    ThreadHandOver::acquire(this);
    if (m_connectionCheckTimer)
        m_connectionCheckTimer->stop();
    // Nothing reaches the socket from here on; it goes with its thread.
    m_socket.storeRelease(nullptr);
}

void CommandSender::start()
{
    // A second start replaces the socket; the thread deletes the old one.
    m_socket.storeRelease(nullptr);
    ClientTls tls;
    {
        const std::lock_guard<std::mutex> lock(m_tlsMutex);
        tls = m_tls;
    }
    auto *socket = new CommandSenderSocket(m_host, m_port, tls);
    socket->SetMaxFrameLength(m_maxFrameLength.load());
    connect(socket, &CommandSenderSocket::si_newMessage, this, &CommandSender::SlotHandleXmlReply);
    connect(socket, &CommandSenderSocket::si_connected, this, &CommandSender::SlotConnected);
    connect(socket, &CommandSenderSocket::si_disconnected, this, &CommandSender::SlotDisconnected);
    m_socketThread.Start(socket);
    m_socket.storeRelease(socket);

    if (!m_connectionCheckTimer) {
        m_connectionCheckTimer = new QTimer(this);
        m_connectionCheckTimer->setInterval(kConnectionCheckMs);
        connect(m_connectionCheckTimer, &QTimer::timeout, this, &CommandSender::SlotCheckConnection);
    }
    m_connectionCheckTimer->start();
}

QString CommandSender::Send(const KeldaClientSOAPMessage &message)
{
    // Through the meta-object rather than a lambda: Qt copies the bytes into
    // the queued call itself, so the hand-over to the socket thread is wholly
    // Qt's, where thread checkers can be told to trust it, instead of
    // lambda captures written here and read there by our own code.
    static const QMetaMethod sendMessage = CommandSenderSocket::staticMetaObject.method(
        CommandSenderSocket::staticMetaObject.indexOfSlot("sl_sendMessage(QByteArray)"));
    const QByteArray bytes = message.ToXml();
    if (CommandSenderSocket *socket = m_socket.loadAcquire())
        sendMessage.invoke(socket, Qt::QueuedConnection, Q_ARG(QByteArray, bytes));
    return message.GetRequestId();
}

QString CommandSender::GetClientKey()
{
    if (CommandSenderSocket *socket = m_socket.loadAcquire()) {
        const QString address = socket->GetLocalAddress();
        if (!address.isEmpty())
            m_localAddress = address;
    }
    return QStringLiteral("%1|%2|%3").arg(m_localAddress, m_application, m_user);
}

QString CommandSender::CreateFileGroup(const QString &guid, const QString &version, const QDateTime &lifeCycle,
                                       const QString &detail, const QString &comment, FileType fileType,
                                       quint64 reservedStorage, const QString &fileGroupName, const QString &path)
{
    CreateFileGroupMessage message;
    message.SetGroupGuid(guid);
    message.SetFileGroupVersion(version);
    message.SetLifeCycle(lifeCycle);
    message.SetDetail(detail);
    message.SetComment(comment);
    message.SetFileType(fileType);
    message.SetReservedStorage(reservedStorage);
    message.SetFileGroupName(fileGroupName);
    message.SetPath(path);
    message.SetTeamMembership(m_teamMembership);
    message.SetUserName(m_user);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::CreateFG: guid='%1' group='%2' path='%3' detail='%4' "
                                           "comment='%5' user='%6' type='%7'")
                                .arg(guid, fileGroupName, path, detail, comment, m_user,
                                     QString::number(int(fileType))));
    return Send(message);
}

QString CommandSender::CreateTovinFileGroup(const QString &guid, const QString &subsystem, const QString &tovinId,
                                            const QString &recordId, const QString &version, const QString &detail,
                                            const QString &comment, FileType fileType, const QString &path)
{
    CreateTovinFileGroupMessage message;
    message.SetGuid(guid);
    message.SetSubSystemName(subsystem);
    message.SetTovinId(tovinId);
    message.SetRecordId(recordId);
    message.SetFileGroupVersion(version);
    message.SetDetail(detail);
    message.SetComment(comment);
    message.SetFileType(fileType);
    message.SetPath(path);
    message.SetTeamMembership(m_teamMembership);
    message.SetUserName(m_user);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::CreateTovinFG: guid='%1' tovin='%2' record='%3' detail='%4' "
                                           "comment='%5' user='%6' subsystem='%7' type='%8' filepath='%9'")
                                .arg(guid, tovinId, recordId, detail, comment, m_user, subsystem,
                                     QString::number(int(fileType)), path));
    return Send(message);
}

QString CommandSender::AddFile(const QString &guid, const QString &fileName, int fileId)
{
    AddFileMessage message;
    message.SetGuid(guid);
    message.SetFileName(fileName);
    message.SetFileId(fileId);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::AddFile: guid='%1' fileid='%2' filename='%3'")
                                .arg(guid, QString::number(fileId), fileName));
    return Send(message);
}

QString CommandSender::DeleteFile(const QString &guid, int fileId)
{
    DeleteFileMessage message;
    message.SetGuid(guid);
    message.SetFileId(fileId);
    Q_TRACE_DETAIL(kSource,
                   QStringLiteral("KeldaClient::DeleteFile: guid='%1' fileid='%2'").arg(guid, QString::number(fileId)));
    return Send(message);
}

QString CommandSender::RequestFile(const QString &guid, int fileId, bool writeLock)
{
    RequestFileMessage message;
    message.SetGuid(guid);
    message.SetFileId(fileId);
    message.SetWriteLock(writeLock);
    const QString lockIdentity = GetClientKey();
    message.SetUserName(lockIdentity);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::RequestFile: guid='%1' fileid='%2' lock='%3' lockid='%4'")
                                .arg(guid, QString::number(fileId), boolText(writeLock), lockIdentity));
    return Send(message);
}

QString CommandSender::CloseFile(const QString &guid, int fileId)
{
    CloseFileMessage message;
    message.SetGuid(guid);
    message.SetUserName(GetClientKey());
    // The id only reaches the trace: the server closes by lock identity.
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::CloseFile: guid='%1' fileid='%2'")
                                .arg(guid, QString::number(fileId)));
    return Send(message);
}

QString CommandSender::MoveToNas(const QString &guid)
{
    MoveToNasMessage message;
    message.SetGuid(guid);
    message.SetUserName(m_user);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::MoveToNas: guid='%1' user='%2'").arg(guid, m_user));
    return Send(message);
}

QString CommandSender::AddReference(const QString &guid)
{
    AddReferenceMessage message;
    message.SetGuid(guid);
    message.SetApplication(m_application);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::AddRef: guid='%1' app='%2'").arg(guid, m_application));
    return Send(message);
}

QString CommandSender::RemoveReference(const QString &guid)
{
    RemoveReferenceMessage message;
    message.SetGuid(guid);
    message.SetApplication(m_application);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::RemoveReference: guid='%1'").arg(guid));
    return Send(message);
}

QString CommandSender::RemoveAllReferences(const QString &guid)
{
    RemoveAllReferencesMessage message;
    message.SetGuid(guid);
    message.SetApplication(m_application);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::RemoveAllReferences: guid='%1'").arg(guid));
    return Send(message);
}

QString CommandSender::QueryMetaData(const QString &guid, const QString &application)
{
    QueryMetaDataMessage message;
    message.SetGuid(guid);
    message.SetApplication(application);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::QueryMetaData: guid='%1' app='%2'").arg(guid, application));
    return Send(message);
}

QString CommandSender::GetApplicationList()
{
    return Send(GetApplicationListMessage());
}

QString CommandSender::GetUserList()
{
    return Send(GetUserListMessage());
}

QString CommandSender::GetFileList(const QString &guid)
{
    GetFileListMessage message;
    message.SetGuid(guid);
    return Send(message);
}

QString CommandSender::QueryFileGroups(const FileQuery &query)
{
    QueryFileGroupsMessage message;
    message.SetQuery(query);
    return Send(message);
}

QString CommandSender::GetBasePath()
{
    return Send(GetBasePathMessage());
}

QString CommandSender::ExportArchive(const QStringList &guids, const QString &target)
{
    ExportArchiveMessage message;
    message.SetGuids(guids);
    message.SetPath(target);
    return Send(message);
}

QString CommandSender::ImportArchive(const QStringList &paths)
{
    ImportArchiveMessage message;
    message.SetPaths(paths);
    return Send(message);
}

QString CommandSender::RegisterConverter(const QString &converterId, const QVector<FileType> &fileTypes)
{
    RegisterConverterMessage message;
    message.SetConverterId(converterId);
    message.SetFileTypes(fileTypes);
    return Send(message);
}

QString CommandSender::ConvertFileGroupReply(const QString &guid, int error, const QString &errorString)
{
    ConvertFileGroupReplyMessage message;
    message.SetGuid(guid);
    message.SetError(error);
    message.SetErrorString(errorString);
    return Send(message);
}

QString CommandSender::DeleteFileGroup(const QString &guid, bool shallowDelete)
{
    DeleteFileGroupMessage message;
    message.SetGuid(guid);
    message.SetShallowDelete(shallowDelete);
    Q_TRACE_DETAIL(kSource,
                   QStringLiteral("KeldaClient::DeleteFG: guid='%1' shallow='%2'").arg(guid, boolText(shallowDelete)));
    return Send(message);
}

QString CommandSender::QueryLocationStateProgress(const QString &guid)
{
    QueryLocationStateProgressMessage message;
    message.SetGuid(guid);
    return Send(message);
}

QString CommandSender::CheckFileGroupExists(const QString &guid)
{
    CheckFileGroupExistsMessage message;
    message.SetGuid(guid);
    return Send(message);
}

QString CommandSender::GetRemoteStorageLocation(const QString &guid, int fileId)
{
    GetRemoteStorageLocationMessage message;
    message.SetGuid(guid);
    message.SetFileId(fileId);
    return Send(message);
}

QString CommandSender::GetTovinFilegroupGuid(const QString &tovinId, const QString &recordId)
{
    GetTovinFilegroupGuidMessage message;
    message.SetTovinId(tovinId);
    message.SetRecordId(recordId);
    Q_TRACE_DETAIL(kSource, QStringLiteral("KeldaClient::SendGetTovinFilegroupGuidAsync: tovin id='%1' recordId='%2'")
                                .arg(tovinId, recordId));
    return Send(message);
}

bool CommandSender::CheckIsConnected()
{
    CommandSenderSocket *socket = m_socket.loadAcquire();
    if (socket && socket->CheckIsConnected() && m_connected.load()) {
        m_lastError.store(KE_NoError);
        return true;
    }
    m_lastError.store(KE_NotConnected);
    Q_TRACE_DETAIL(kSource,
                   QStringLiteral("CommandSender::CheckIsConnected: %1").arg(KeldaErrorString::Get(KE_NotConnected)));
    return false;
}

CommandSender::ReplyValues CommandSender::TakeReplyValues(const QString &requestId)
{
    const std::lock_guard<std::mutex> lock(m_replyMutex);
    m_replyOrder.removeOne(requestId);
    return m_replyValues.take(requestId);
}

void CommandSender::StoreReplyValues(const QString &requestId, ReplyValues values)
{
    if (requestId.isEmpty())
        return;
    const std::lock_guard<std::mutex> lock(m_replyMutex);
    if (!m_replyValues.contains(requestId))
        m_replyOrder.enqueue(requestId);
    m_replyValues.insert(requestId, std::move(values));
    while (m_replyOrder.size() > kMaxKeptReplies)
        m_replyValues.remove(m_replyOrder.dequeue());
}

void CommandSender::SetApplication(const QString &application)
{
    m_application = application;
}

void CommandSender::SetUser(const QString &user)
{
    m_user = user;
}

void CommandSender::SetTeamMembership(const QString &teamMembership)
{
    m_teamMembership = teamMembership;
}

void CommandSender::SetTls(const ClientTls &tls)
{
    const std::lock_guard<std::mutex> lock(m_tlsMutex);
    m_tls = tls;
}

void CommandSender::SetMaxFrameLength(quint32 bytes)
{
    m_maxFrameLength.store(bytes);
}

void CommandSender::SlotConnected()
{
    // The handshake: the first base path reply of a connection marks it as
    // connected. No connection test here, the flag is not set yet.
    GetBasePath();
}

void CommandSender::SlotDisconnected()
{
    m_connected.store(false);
    emit disconnected();
    m_waiters.Disconnected();
}

void CommandSender::SlotCheckConnection()
{
    CommandSenderSocket *socket = m_socket.loadAcquire();
    if (socket && socket->IsConnected())
        GetBasePath();
}

void CommandSender::SlotHandleXmlReply(const QByteArray &message)
{
    const ParsedReply parsed = ParseReplyMessage(message);
    if (!parsed.IsValid()) {
        SlotHandleXmlError(parsed.error, true);
        return;
    }
    if (parsed.lastError)
        m_lastError.store(*parsed.lastError);
    const bool known = parsed.Kind() != ReplyKind::QueryDiskSpace;
    // A blocking caller is woken as soon as its values are in place; the
    // signals it does not wait for follow.
    if (known)
        StoreReplyValues(parsed);
    m_waiters.RequestHandled(parsed.requestId);
    if (known)
        EmitReply(parsed);
    else
        Q_TRACE_FAILURE(kSource, QStringLiteral("CommandSender::SlotHandleXmlReply: Unknown command: %1")
                                     .arg(int(ReplyKind::QueryDiskSpace)));
    emit si_requestHandled(parsed.requestId);
}

void CommandSender::SlotHandleXmlError(QString a_error, bool a_bRecoverable)
{
    CommandSenderSocket *socket = m_socket.loadAcquire();
    const QString peer = socket ? socket->GetPeerAddress() : QString();
    Q_TRACE_FAILURE(kSource, QStringLiteral("CommandSender::HandleXmlError: XML parse error from ") + peer
                                 + QStringLiteral(" :") + a_error);
    // The connection is deliberately left as it is, whatever the text says.
    if (!a_bRecoverable)
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("CommandSender::HandleXmlError: Cannot recover from error. Closing connection."));
}

void CommandSender::HandleBasePath(const QString &path)
{
    // Only the first base path reply of a connection announces it, even one
    // that reports an error: the server answered.
    if (!m_connected.exchange(true))
        emit connected(path);
}

namespace {

using StatusSignal = void (CommandSender::*)(QString, int, QString);
using TextSignal = void (CommandSender::*)(QString, QString, int, QString);
using ListSignal = void (CommandSender::*)(QString, QStringList, int, QString);

// The replies that share a result shape, told apart by their kind.
StatusSignal StatusSignalOf(ReplyKind kind)
{
    switch (kind) {
    case ReplyKind::DeleteFile: return &CommandSender::deleteFileReply;
    case ReplyKind::CloseFile: return &CommandSender::closeFileReply;
    case ReplyKind::MoveToNas: return &CommandSender::moveToNasReply;
    case ReplyKind::AddReference: return &CommandSender::addReferenceReply;
    case ReplyKind::RemoveReference: return &CommandSender::removeReferenceReply;
    case ReplyKind::RemoveAllReferences: return &CommandSender::removeAllReferenceReply;
    case ReplyKind::ExportArchive: return &CommandSender::exportArchiveReply;
    case ReplyKind::ImportArchive: return &CommandSender::importArchiveReply;
    case ReplyKind::RegisterConverter: return &CommandSender::registerConverterReply;
    case ReplyKind::DeleteFileGroup: return &CommandSender::deleteFileGroupReply;
    default: return nullptr;
    }
}

TextSignal TextSignalOf(ReplyKind kind)
{
    switch (kind) {
    case ReplyKind::RequestFile: return &CommandSender::requestFileReply;
    case ReplyKind::CreateTovinFileGroup: return &CommandSender::createTovinFileGroupReply;
    case ReplyKind::GetTovinFilegroupGuid: return &CommandSender::getTovinFilegroupGuidReply;
    default: return nullptr;
    }
}

ListSignal ListSignalOf(ReplyKind kind)
{
    switch (kind) {
    case ReplyKind::GetApplicationList: return &CommandSender::getApplicationListReply;
    case ReplyKind::GetFileList: return &CommandSender::getFileListReply;
    case ReplyKind::GetUserList: return &CommandSender::getUserListReply;
    default: return nullptr;
    }
}

template <class... Handlers>
struct Overloaded : Handlers...
{
    using Handlers::operator()...;
};
template <class... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;

} // namespace

// What a blocking call reads once its wait is over.
void CommandSender::StoreReplyValues(const ParsedReply &reply)
{
    const auto store = [&](ReplyValues values) { StoreReplyValues(reply.requestId, std::move(values)); };
    std::visit(Overloaded{
                   [&](const TextResult &r) { store({r.text, {}, 0}); },
                   [&](const ListResult &r) { store({QString(), r.list, 0}); },
                   [&](const TableResult &r) { store({QString(), r.table, r.columnCount}); },
                   // Blocking callers read the id as its decimal text.
                   [&](const FileIdResult &r) { store({QStringLiteral("%1").arg(r.fileId), {}, 0}); },
                   [&](const CreatedGroupResult &r) { store({r.path, {}, 0}); },
                   [](const auto &) {},
               },
               reply.result);
}

// Every result type but the three shared ones belongs to one reply, so the
// type alone picks the signal.
void CommandSender::EmitReply(const ParsedReply &reply)
{
    const ReplyKind kind = reply.Kind();
    std::visit(Overloaded{
                   [](std::monostate) {},
                   [&](const StatusResult &r) {
                       if (const StatusSignal signal = StatusSignalOf(kind))
                           emit(this->*signal)(r.requestId, r.error, r.errorString);
                   },
                   [&](const TextResult &r) {
                       if (const TextSignal signal = TextSignalOf(kind))
                           emit(this->*signal)(r.requestId, r.text, r.error, r.errorString);
                   },
                   [&](const ListResult &r) {
                       if (const ListSignal signal = ListSignalOf(kind))
                           emit(this->*signal)(r.requestId, r.list, r.error, r.errorString);
                   },
                   [&](const TableResult &r) {
                       emit queryFileGroupsReply(r.requestId, r.table, r.columnCount, r.error, r.errorString);
                   },
                   [&](const FileIdResult &r) {
                       emit addFileReply(r.requestId, r.fileId);
                   },
                   [&](const CreatedGroupResult &r) {
                       emit createFileGroupReply(r.guid, r.path);
                   },
                   [&](const BasePathResult &r) { HandleBasePath(r.path); },
                   [&](const MetaDataResult &r) {
                       emit queryMetaDataReply(r.requestId, r.metaData, r.error, r.errorString);
                   },
                   [&](const LocationStateProgressResult &r) {
                       emit queryLocationStateProgressReply(r.requestId, r.locationState, r.progress, r.error,
                                                            r.errorString);
                   },
                   [&](const ExistsResult &r) {
                       emit checkFileGroupExistsReply(r.requestId, r.exists, r.error, r.errorString);
                   },
                   [&](const RemoteStorageLocationResult &r) {
                       emit getRemoteStorageLocationReply(r.requestId, r.remoteIp, r.attachmentUrl, r.error,
                                                          r.errorString);
                   },
                   [&](const ConvertRequestResult &r) { emit convertFileGroupRequested(r.guid, r.fileType, r.path); },
                   [&](const CopyProgressResult &r) { emit copyForeignFileGroupProgess(r.requestId, r.progress); },
               },
               reply.result);
}

} // namespace Kelda
