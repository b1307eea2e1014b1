#include "commandsender.h"

#include "commandsendersocket.h"
#include "keldaerror.h"
#include "replyparser.h"
#include "replysignals.h"
#include "replystream.h"
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

} // namespace

CommandSender::CommandSender(const QString &host, quint16 port, const QString &application, const QString &user,
                             const QString &teamMembership)
    : m_application(application)
    , m_user(user)
    , m_teamMembership(teamMembership)
    , m_host(host)
    , m_port(port)
    , m_stream(std::make_unique<ReplyStream>())
{ }

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
    connect(socket, &CommandSenderSocket::si_messagePart, this, &CommandSender::SlotHandleMessagePart);
    connect(socket, &CommandSenderSocket::si_partedMessage, this, &CommandSender::SlotHandlePartedMessage);
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

QString CommandSender::Send(CommandRequest request)
{
    FillIdentity(request);
    if (!request.Command().sendTrace.isEmpty())
        Q_TRACE_DETAIL(kSource, request.SendTrace());
    // Through the meta-object rather than a lambda: Qt copies the bytes into
    // the queued call itself, so the hand-over to the socket thread is wholly
    // Qt's, where thread checkers can be told to trust it, instead of
    // lambda captures written here and read there by our own code.
    static const QMetaMethod sendMessage = CommandSenderSocket::staticMetaObject.method(
        CommandSenderSocket::staticMetaObject.indexOfSlot("sl_sendMessage(QByteArray)"));
    const QByteArray bytes = request.ToXml();
    if (CommandSenderSocket *socket = m_socket.loadAcquire())
        sendMessage.invoke(socket, Qt::QueuedConnection, Q_ARG(QByteArray, bytes));
    return request.GetRequestId();
}

void CommandSender::FillIdentity(CommandRequest &request)
{
    for (const RequestField &field : request.Command().fields) {
        switch (field.source) {
        case FieldSource::ClientApplication:
            request.SetText(field.name, m_application);
            break;
        case FieldSource::User:
            request.SetText(field.name, m_user);
            break;
        case FieldSource::Team:
            request.SetText(field.name, m_teamMembership);
            break;
        case FieldSource::LockIdentity:
            request.SetText(field.name, GetClientKey());
            break;
        default:
            break;
        }
    }
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
    CreateFileGroupMessage request;
    request.SetGroupGuid(guid);
    request.SetFileGroupVersion(version);
    request.SetLifeCycle(lifeCycle);
    request.SetDetail(detail);
    request.SetComment(comment);
    request.SetFileType(fileType);
    request.SetReservedStorage(reservedStorage);
    request.SetFileGroupName(fileGroupName);
    request.SetPath(path);
    return Send(request);
}

QString CommandSender::CreateTovinFileGroup(const QString &guid, const QString &subsystem, const QString &tovinId,
                                            const QString &recordId, const QString &version, const QString &detail,
                                            const QString &comment, FileType fileType, const QString &path)
{
    CreateTovinFileGroupMessage request;
    request.SetGuid(guid);
    request.SetSubSystemName(subsystem);
    request.SetTovinId(tovinId);
    request.SetRecordId(recordId);
    request.SetFileGroupVersion(version);
    request.SetDetail(detail);
    request.SetComment(comment);
    request.SetFileType(fileType);
    request.SetPath(path);
    return Send(request);
}

QString CommandSender::AddFile(const QString &guid, const QString &fileName, int fileId)
{
    return Send(CommandRequest(ReplyKind::AddFile)
                    .SetText(Tag::Guid, guid)
                    .SetText(Tag::FileName, fileName)
                    .SetNumber(Tag::FileId, fileId));
}

QString CommandSender::DeleteFile(const QString &guid, int fileId)
{
    return Send(CommandRequest(ReplyKind::DeleteFile).SetText(Tag::Guid, guid).SetNumber(Tag::FileId, fileId));
}

QString CommandSender::RequestFile(const QString &guid, int fileId, bool writeLock)
{
    return Send(CommandRequest(ReplyKind::RequestFile)
                    .SetText(Tag::Guid, guid)
                    .SetNumber(Tag::FileId, fileId)
                    .SetFlag(Tag::WriteLock, writeLock));
}

QString CommandSender::CloseFile(const QString &guid, int fileId)
{
    return Send(CommandRequest(ReplyKind::CloseFile).SetText(Tag::Guid, guid).SetNumber(Tag::FileId, fileId));
}

QString CommandSender::MoveToNas(const QString &guid)
{
    return Send(CommandRequest(ReplyKind::MoveToNas).SetText(Tag::Guid, guid));
}

QString CommandSender::AddReference(const QString &guid)
{
    return Send(CommandRequest(ReplyKind::AddReference).SetText(Tag::Guid, guid));
}

QString CommandSender::RemoveReference(const QString &guid)
{
    return Send(CommandRequest(ReplyKind::RemoveReference).SetText(Tag::Guid, guid));
}

QString CommandSender::RemoveAllReferences(const QString &guid)
{
    return Send(CommandRequest(ReplyKind::RemoveAllReferences).SetText(Tag::Guid, guid));
}

QString CommandSender::QueryMetaData(const QString &guid, const QString &application)
{
    return Send(
        CommandRequest(ReplyKind::QueryMetaData).SetText(Tag::Guid, guid).SetText(Tag::Application, application));
}

QString CommandSender::GetApplicationList()
{
    return Send(CommandRequest(ReplyKind::GetApplicationList));
}

QString CommandSender::GetUserList()
{
    return Send(CommandRequest(ReplyKind::GetUserList));
}

QString CommandSender::GetFileList(const QString &guid)
{
    return Send(CommandRequest(ReplyKind::GetFileList).SetText(Tag::Guid, guid));
}

QString CommandSender::QueryFileGroups(const FileQuery &query)
{
    QueryFileGroupsMessage request;
    request.SetQuery(query);
    return Send(request);
}

QString CommandSender::GetBasePath()
{
    return Send(CommandRequest(ReplyKind::GetBasePath));
}

QString CommandSender::ExportArchive(const QStringList &guids, const QString &target)
{
    return Send(CommandRequest(ReplyKind::ExportArchive).SetTexts(Tag::Guid, guids).SetText(Tag::Path, target));
}

QString CommandSender::ImportArchive(const QStringList &paths)
{
    return Send(CommandRequest(ReplyKind::ImportArchive).SetTexts(Tag::Path, paths));
}

QString CommandSender::RegisterConverter(const QString &converterId, const QVector<FileType> &fileTypes)
{
    RegisterConverterMessage request;
    request.SetConverterId(converterId);
    request.SetFileTypes(fileTypes);
    return Send(request);
}

QString CommandSender::ConvertFileGroupReply(const QString &guid, int error, const QString &errorString)
{
    return Send(CommandRequest(ReplyKind::ConvertFileGroup)
                    .SetText(Tag::Guid, guid)
                    .SetNumber(Tag::Error, error)
                    .SetText(Tag::ErrorString, errorString));
}

QString CommandSender::DeleteFileGroup(const QString &guid, bool shallowDelete)
{
    return Send(
        CommandRequest(ReplyKind::DeleteFileGroup).SetText(Tag::Guid, guid).SetFlag(Tag::ShallowDelete, shallowDelete));
}

QString CommandSender::QueryLocationStateProgress(const QString &guid)
{
    return Send(CommandRequest(ReplyKind::QueryLocationStateProgress).SetText(Tag::Guid, guid));
}

QString CommandSender::CheckFileGroupExists(const QString &guid)
{
    return Send(CommandRequest(ReplyKind::CheckFileGroupExists).SetText(Tag::Guid, guid));
}

QString CommandSender::GetRemoteStorageLocation(const QString &guid, int fileId)
{
    return Send(
        CommandRequest(ReplyKind::GetRemoteStorageLocation).SetText(Tag::Guid, guid).SetNumber(Tag::FileId, fileId));
}

QString CommandSender::GetTovinFilegroupGuid(const QString &tovinId, const QString &recordId)
{
    GetTovinFilegroupGuidMessage request;
    request.SetTovinId(tovinId);
    request.SetRecordId(recordId);
    return Send(request);
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
    m_stream->Reset();
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
    m_stream->Reset();
    HandleReply(ParseReplyMessage(message));
}

void CommandSender::SlotHandleMessagePart(const QByteArray &part, qint64 offset)
{
    m_stream->Feed(part, offset);
    if (CommandSenderSocket *socket = m_socket.loadAcquire())
        socket->PartRead(part.size());
}

void CommandSender::SlotHandlePartedMessage(const QByteArray &message)
{
    HandleReply(m_stream->Finish(message));
}

void CommandSender::HandleReply(const ParsedReply &parsed)
{
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
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("CommandSender::SlotHandleXmlReply: Unknown command: %1")
                            .arg(int(ReplyKind::QueryDiskSpace)));
    emit si_requestHandled(parsed.requestId);
}

void CommandSender::SlotHandleXmlError(QString a_error, bool a_bRecoverable)
{
    CommandSenderSocket *socket = m_socket.loadAcquire();
    const QString peer = socket ? socket->GetPeerAddress() : QString();
    Q_TRACE_FAILURE(kSource,
                    QStringLiteral("CommandSender::HandleXmlError: XML parse error from ") + peer +
                        QStringLiteral(" :") + a_error);
    // The connection is deliberately left as it is, whatever the text says.
    if (!a_bRecoverable)
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral(
                            "CommandSender::HandleXmlError: Cannot recover from error. Closing connection."));
}

void CommandSender::HandleBasePath(const QString &path)
{
    // Only the first base path reply of a connection announces it, even one
    // that reports an error: the server answered.
    if (!m_connected.exchange(true))
        emit connected(path);
}

namespace {

template <class... Handlers> struct Overloaded : Handlers...
{
    using Handlers::operator()...;
};
template <class... Handlers> Overloaded(Handlers...) -> Overloaded<Handlers...>;

} // namespace

// What a blocking call reads once its wait is over.
void CommandSender::StoreReplyValues(const ParsedReply &reply)
{
    const auto store = [&](ReplyValues values) { StoreReplyValues(reply.requestId, std::move(values)); };
    std::visit(Overloaded{
                   [&](const TextResult &r) {
                       store({r.text, {}, 0});
                   },
                   [&](const ListResult &r) {
                       store({QString(), r.list, 0});
                   },
                   [&](const TableResult &r) {
                       store({QString(), r.table, r.columnCount});
                   },
                   // Blocking callers read the id as its decimal text.
                   [&](const FileIdResult &r) {
                       store({QStringLiteral("%1").arg(r.fileId), {}, 0});
                   },
                   [&](const CreatedGroupResult &r) {
                       store({r.path, {}, 0});
                   },
                   [&](const RecordsResult &r) {
                       store({QString(), r.values, r.fieldCount});
                   },
                   [](const auto &) {},
               },
               reply.result);
}

// The base path is the connection's handshake; every other result goes out
// with the signal its descriptor names.
void CommandSender::EmitReply(const ParsedReply &reply)
{
    if (const auto *basePath = std::get_if<BasePathResult>(&reply.result))
        HandleBasePath(basePath->path);
    else
        ReplySignals::Emit(this, reply);
}

} // namespace Kelda
