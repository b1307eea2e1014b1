#pragma once

#include "databaseworker.h"
#include "grouplistener.h"
#include "groupmover.h"
#include "serveroptions.h"

#include <QHash>
#include <QMap>
#include <QObject>
#include <QTcpServer>

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace Kelda {

class ClientConnection;

// The archive server: accepts connections on the network thread, reads
// their requests, hands changes to the writer thread and reads to the
// reader thread, and sends the answers back on each connection in request
// order. Converters registered on a connection hear of every new group of
// their types.
class ArchiveServer : public QObject
{
    Q_OBJECT

public:
    explicit ArchiveServer(const ServerOptions &options, QObject *parent = nullptr);
    ~ArchiveServer() override;

    // Creates the folders, opens the database and listens; on failure
    // errorString() tells why and exitCode() which exit code fits.
    bool start();
    QString errorString() const { return m_error; }
    int exitCode() const { return m_exitCode; }
    QHostAddress address() const { return m_listener.serverAddress(); }
    quint16 port() const { return m_listener.serverPort(); }

    // Stops accepting, carries out and commits what was received, sends
    // the answers, then closes every connection.
    void shutdown();

Q_SIGNALS:
    // From a database thread: answers wait in the outbox.
    void answersReady();

private:
    // Answers may come back from two threads out of order; each waits here
    // until those of the connection's earlier requests have been sent.
    struct Peer
    {
        ClientConnection *connection = nullptr;
        quint64 nextSequence = 0;
        quint64 nextToSend = 0;
        int changesUnderWay = 0;
        QMap<quint64, QByteArray> waiting;
        bool converter = false;
        QVector<int> converterTypes;
    };

    bool openDatabase();
    void acceptConnections();
    void onMessage(ClientConnection *connection, const QByteArray &message);
    void onClosed(ClientConnection *connection);
    using Answers = std::shared_ptr<std::vector<DatabaseAnswer>>;
    // On a database thread.
    void postAnswers(Answers answers, bool fromWriter);
    void deliverPosted();
    void deliver(const Answers &answers, bool fromWriter);
    void answer(Peer &peer, quint64 sequence, const QByteArray &reply);

    // Requests one connection may have under way before it is read no
    // further: a flood of requests waits in its own socket, not in memory.
    static constexpr quint64 MaxUnderWay = 4096;
    void notifyConverters(const NewGroupNotice &notice);

    ServerOptions m_options;
    QTcpServer m_listener;
    std::unique_ptr<DatabaseWorker> m_writer;
    std::unique_ptr<DatabaseWorker> m_reader;
    std::unique_ptr<GroupMover> m_mover;
    std::unique_ptr<GroupListener> m_listenerThread;
    // Names this process among the servers sharing a database.
    QString m_instanceId;
    // Answers on their way from the database threads to this one. Handed
    // over under a standard mutex, which thread checkers see, rather than
    // inside a queued call, which they cannot.
    std::mutex m_outboxMutex;
    std::vector<std::pair<Answers, bool>> m_outbox;
    QHash<quint64, Peer> m_peers;
    quint64 m_nextConnectionId = 1;
    QString m_error;
    int m_exitCode = ServerOptions::ExitOk;
};

} // namespace Kelda
