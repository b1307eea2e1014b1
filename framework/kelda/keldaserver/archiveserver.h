#pragma once

#include "databaseworker.h"
#include "groupmover.h"
#include "serveroptions.h"

#include <QHash>
#include <QObject>
#include <QTcpServer>

#include <memory>

namespace Kelda {

class ClientConnection;

// The archive server: accepts connections on the network thread, reads
// their requests and hands them to the database thread, and sends the
// answers back on each connection in request order. Converters registered
// on a connection hear of every new group of their types.
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

    // Stops accepting, carries out and commits what was received, then
    // closes every connection.
    void shutdown();

private:
    void acceptConnections();
    void onMessage(ClientConnection *connection, const QByteArray &message);
    void onClosed(ClientConnection *connection);
    void deliver(const std::shared_ptr<std::vector<DatabaseAnswer>> &answers);
    void notifyConverters(const NewGroupNotice &notice);

    ServerOptions m_options;
    QTcpServer m_listener;
    std::unique_ptr<DatabaseWorker> m_database;
    std::unique_ptr<GroupMover> m_mover;
    QHash<quint64, ClientConnection *> m_connections;
    QHash<quint64, QVector<int>> m_converters;
    quint64 m_nextConnectionId = 1;
    QString m_error;
    int m_exitCode = ServerOptions::ExitOk;
};

} // namespace Kelda
