#pragma once

#include "asynchandler.h"
#include "clienttls.h"
#include "filegroupdata.h"
#include "filetype.h"
#include "workerthread.h"
#include "xmlseparator.h"

#include <QAtomicPointer>
#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QQueue>
#include <QString>
#include <QStringList>
#include <QVector>

#include <atomic>
#include <memory>
#include <mutex>

class QTimer;

namespace Kelda {

class CommandRequest;
class CommandSenderSocket;
class FileQuery;
class ReplyStream;
struct ParsedReply;

// The worker between the client object and the command socket. Send() runs on
// the caller's thread: it completes the request, hands its bytes to the
// socket thread by a queued call and returns the request id. Replies are
// parsed on this object's own thread ("commandSenderThread"), a query answer
// part by part while it arrives, emitted as the reply signals their
// descriptors name and then announced with si_requestHandled.
class CommandSender : public QObject
{
    Q_OBJECT

public:
    CommandSender(const QString &host, quint16 port, const QString &application, const QString &user,
                  const QString &teamMembership);
    ~CommandSender() override;

    // The one way out for every request: fills in the fields its descriptor
    // takes from this sender (user, team membership, application, lock
    // identity), traces its send trace and hands its bytes to the socket
    // thread. Returns the request id.
    QString Send(CommandRequest request);

    // Typed wrappers over Send() for the client object's operations; each
    // returns the request id of the message it sent.
    QString CreateFileGroup(const QString &guid, const QString &version, const QDateTime &lifeCycle,
                            const QString &detail, const QString &comment, FileType fileType, quint64 reservedStorage,
                            const QString &fileGroupName, const QString &path);
    QString CreateTovinFileGroup(const QString &guid, const QString &subsystem, const QString &tovinId,
                                 const QString &recordId, const QString &version, const QString &detail,
                                 const QString &comment, FileType fileType, const QString &path);
    QString AddFile(const QString &guid, const QString &fileName, int fileId);
    QString DeleteFile(const QString &guid, int fileId);
    QString RequestFile(const QString &guid, int fileId, bool writeLock);
    QString CloseFile(const QString &guid, int fileId);
    QString MoveToNas(const QString &guid);
    QString AddReference(const QString &guid);
    QString RemoveReference(const QString &guid);
    QString RemoveAllReferences(const QString &guid);
    QString QueryMetaData(const QString &guid, const QString &application);
    QString GetApplicationList();
    QString GetUserList();
    QString GetFileList(const QString &guid);
    QString QueryFileGroups(const FileQuery &query);
    QString GetBasePath();
    QString ExportArchive(const QStringList &guids, const QString &target);
    QString ImportArchive(const QStringList &paths);
    QString RegisterConverter(const QString &converterId, const QVector<FileType> &fileTypes);
    QString ConvertFileGroupReply(const QString &guid, int error, const QString &errorString);
    QString DeleteFileGroup(const QString &guid, bool shallowDelete);
    QString QueryLocationStateProgress(const QString &guid);
    QString CheckFileGroupExists(const QString &guid);
    QString GetRemoteStorageLocation(const QString &guid, int fileId);
    QString GetTovinFilegroupGuid(const QString &tovinId, const QString &recordId);

    // The connection test made before every operation: sets the last error to
    // 0 or to 43 ("Client is not connected to server").
    bool CheckIsConnected();
    bool IsConnected() const { return m_connected.load(); }

    // "local address|application|user": the lock identity of RequestFile and
    // CloseFile.
    QString GetClientKey();

    QString GetHost() const { return m_host; }
    quint16 GetPort() const { return m_port; }
    int GetLastError() const { return m_lastError.load(); }

    // The value a blocking call reads once its wait has returned: the text
    // result (path, file id, ...), the list and the count of the reply with
    // this request id. Each is handed out once.
    struct ReplyValues
    {
        QString text;
        QStringList list;
        int count = 0;
    };
    ReplyValues TakeReplyValues(const QString &requestId);

    // The blocking calls waiting for replies of this sender. They hear of
    // every handled request and every disconnection directly from this
    // sender's thread, after the reply's values are stored.
    RequestWaiters &Waiters() { return m_waiters; }

    // Identity strings that go into later requests; set from the client's
    // thread before operations are issued.
    void SetApplication(const QString &application);
    void SetUser(const QString &user);
    void SetTeamMembership(const QString &teamMembership);
    // The longest message accepted from the server; set before start().
    void SetMaxFrameLength(quint32 bytes);
    // TLS for the connection; set before start().
    void SetTls(const ClientTls &tls);

signals:
    void connected(QString a_basePath);
    void disconnected();
    void createFileGroupReply(QString a_sGuid, QString a_sPath);
    void createTovinFileGroupReply(QString a_sRequestId, QString a_sGuid, int a_iError, QString a_sErrorString);
    void addFileReply(QString a_sRequestId, unsigned int a_fileId);
    void deleteFileReply(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void requestFileReply(QString a_sRequestId, QString a_sPath, int a_iError, QString a_sErrorString);
    void closeFileReply(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void moveToNasReply(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void addReferenceReply(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void removeReferenceReply(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void removeAllReferenceReply(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void getApplicationListReply(QString a_sRequestId, QStringList a_list, int a_iError, QString a_sErrorString);
    void getFileListReply(QString a_sRequestId, QStringList a_list, int a_iError, QString a_sErrorString);
    void getUserListReply(QString a_sRequestId, QStringList a_list, int a_iError, QString a_sErrorString);
    void queryFileGroupsReply(QString a_sRequestId, QStringList a_table, int a_iColumns, int a_iError,
                              QString a_sErrorString);
    void copyForeignFileGroupProgess(QString a_sRequestId, float a_fProgress);
    void exportArchiveReply(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void importArchiveReply(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void registerConverterReply(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void convertFileGroupRequested(QString a_sGuid, Kelda::FileType a_fileType, QString a_sPath);
    void queryMetaDataReply(QString a_sRequestId, Kelda::FileGroupData a_metaData, int a_iError,
                            QString a_sErrorString);
    void deleteFileGroupReply(QString a_sRequestId, int a_iError, QString a_sErrorString);
    void queryLocationStateProgressReply(QString a_sRequestId, int a_iLocationState, double a_dProgress, int a_iError,
                                         QString a_sErrorString);
    void checkFileGroupExistsReply(QString a_sRequestId, bool a_bExists, int a_iError, QString a_sErrorString);
    void getRemoteStorageLocationReply(QString a_sRequestId, QString a_sRemoteIp, QString a_sRemoteUrl, int a_iError,
                                       QString a_sErrorString);
    void getTovinFilegroupGuidReply(QString a_sRequestId, QString a_sGuid, int a_iError, QString a_sErrorString);
    void getFileChecksumsReply(QString a_sRequestId, QStringList a_records, int a_iFields, int a_iError,
                               QString a_sErrorString);
    void verifyFileGroupReply(QString a_sRequestId, QStringList a_records, int a_iFields, int a_iError,
                              QString a_sErrorString);
    void si_requestHandled(const QString &a_sRequestId);

public slots:
    void start();
    void SlotConnected();
    void SlotDisconnected();
    void SlotHandleXmlReply(const QByteArray &message);
    // A message read while it arrives: its first bytes part by part, then
    // the whole (see CommandSenderSocket::si_messagePart).
    void SlotHandleMessagePart(const QByteArray &part, qint64 offset);
    void SlotHandlePartedMessage(const QByteArray &message);
    void SlotHandleXmlError(QString a_error, bool a_bRecoverable = false);
    void SlotCheckConnection();

private:
    void FillIdentity(CommandRequest &request);
    void HandleReply(const ParsedReply &parsed);
    void StoreReplyValues(const QString &requestId, ReplyValues values);
    void StoreReplyValues(const ParsedReply &reply);
    void EmitReply(const ParsedReply &reply);
    void HandleBasePath(const QString &path);

    // Identity strings: application, user, team membership. Written by the
    // client's thread before use; read by the same thread's send functions.
    QString m_application;
    QString m_user;
    QString m_teamMembership;
    const QString m_host;
    const quint16 m_port;
    QString m_localAddress;
    std::atomic<int> m_lastError{0};

    RequestWaiters m_waiters;
    mutable std::mutex m_replyMutex;
    QHash<QString, ReplyValues> m_replyValues;
    QQueue<QString> m_replyOrder;

    std::atomic<bool> m_connected{false};
    std::atomic<quint32> m_maxFrameLength{XmlSeparator::DefaultMaxFrameLength};
    // The message whose parts are arriving; used on this object's thread.
    const std::unique_ptr<ReplyStream> m_stream;
    // Written by the client's thread before start() reads it on this one.
    std::mutex m_tlsMutex;
    ClientTls m_tls;
    QTimer *m_connectionCheckTimer = nullptr;
    QAtomicPointer<CommandSenderSocket> m_socket;
    // Runs the socket and deletes it. Last, so that it stops first.
    WorkerThread m_socketThread{QStringLiteral("commandSocketThread")};
};

} // namespace Kelda
