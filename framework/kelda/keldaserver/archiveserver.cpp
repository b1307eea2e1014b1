#include "archiveserver.h"

#include "clientconnection.h"
#include "keldaurl.h"
#include "keldaxml.h"
#include "replywriter.h"
#include "request.h"

#include <trace.h>

#include <QCoreApplication>
#include <QDir>
#include <QTcpSocket>
#include <QUuid>

namespace Kelda {

namespace {
const char kSource[] = "framework/kelda/keldaserver/archiveserver";
}

ArchiveServer::ArchiveServer(const ServerOptions &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
{
    connect(&m_listener, &QTcpServer::newConnection, this, &ArchiveServer::acceptConnections);
}

ArchiveServer::~ArchiveServer()
{
    shutdown();
}

bool ArchiveServer::start()
{
    for (const QString &folder : {m_options.basePath, m_options.nasPath, QFileInfo(m_options.databaseFile).absolutePath()}) {
        if (!QDir().mkpath(folder)) {
            m_error = QStringLiteral("Cannot create the folder %1").arg(folder);
            m_exitCode = ServerOptions::ExitStorage;
            return false;
        }
    }
    const StorageLayout layout(m_options.basePath, m_options.nasPath);
    m_database = std::make_unique<DatabaseWorker>(
        m_options.databaseFile, layout, [this](std::shared_ptr<std::vector<DatabaseAnswer>> answers) {
            QMetaObject::invokeMethod(this, [this, answers] { deliver(answers); }, Qt::QueuedConnection);
        });
    if (!m_database->open()) {
        m_error = m_database->errorString();
        m_exitCode = ServerOptions::ExitStorage;
        m_database.reset();
        return false;
    }
    DatabaseWorker *database = m_database.get();
    m_mover = std::make_unique<GroupMover>(
        [database](const QString &guid, double percent) {
            DatabaseJob job;
            job.kind = DatabaseJob::Kind::MoveProgress;
            job.guid = guid;
            job.percent = percent;
            database->post(std::move(job));
        },
        [database](const QString &guid, const QString &directory, bool ok) {
            DatabaseJob job;
            job.kind = DatabaseJob::Kind::MoveFinished;
            job.guid = guid;
            job.directory = directory;
            job.ok = ok;
            database->post(std::move(job));
        });
    m_mover->start();
    for (const MoveOrder &order : m_database->unfinishedMoves())
        m_mover->post(order);

    if (!m_listener.listen(m_options.host, m_options.port)) {
        m_error = QStringLiteral("Cannot listen on %1:%2: %3")
                      .arg(m_options.host.toString())
                      .arg(m_options.port)
                      .arg(m_listener.errorString());
        m_exitCode = ServerOptions::ExitUnavailable;
        return false;
    }
    return true;
}

void ArchiveServer::shutdown()
{
    if (m_listener.isListening())
        m_listener.close();
    if (m_mover) {
        m_mover->stop();
        m_mover->wait();
        m_mover.reset();
    }
    if (m_database) {
        m_database->finish();
        m_database->wait();
        m_database.reset();
        // The last batch's answers are queued to this thread; send them
        // before the connections close.
        QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    }
    const auto connections = m_connections;
    m_connections.clear();
    for (ClientConnection *connection : connections) {
        connection->disconnect(this);
        connection->flush();
        connection->close();
        connection->deleteLater();
    }
    m_converters.clear();
}

void ArchiveServer::acceptConnections()
{
    while (QTcpSocket *socket = m_listener.nextPendingConnection()) {
        auto *connection = new ClientConnection(m_nextConnectionId++, socket, m_options.maxFrame, this);
        m_connections.insert(connection->id(), connection);
        connect(connection, &ClientConnection::messageReceived, this, &ArchiveServer::onMessage);
        connect(connection, &ClientConnection::closed, this, &ArchiveServer::onClosed);
    }
}

void ArchiveServer::onMessage(ClientConnection *connection, const QByteArray &message)
{
    if (!m_database)
        return;
    RequestReader::Result read = RequestReader::read(message);
    DatabaseJob job;
    job.origin.connectionId = connection->id();
    job.origin.localAddress = connection->localAddress();
    if (read.ok) {
        Q_TRACE_DETAIL(kSource, QStringLiteral("%1 from %2 (%3)")
                                    .arg(read.request.command, connection->peer(), read.request.requestId));
        job.request = std::move(read.request);
        m_database->post(std::move(job));
        return;
    }
    Q_TRACE_FAILURE(kSource, QStringLiteral("Unreadable request from %1: %2").arg(connection->peer(), read.error));
    // Without a command there is no reply element to name: the client
    // would not recognise any answer.
    if (read.request.command.isEmpty() || read.request.command == Tag::ConvertFileGroupReply)
        return;
    job.kind = DatabaseJob::Kind::Prepared;
    job.preparedReply = ReplyWriter::status(read.request.command, read.request.requestId, KE_SoapParsingError,
                                            read.error);
    m_database->post(std::move(job));
}

void ArchiveServer::onClosed(ClientConnection *connection)
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("Client %1 disconnected").arg(connection->peer()));
    // Locks stay: they belong to the lock identity, which may come back on
    // another connection.
    m_connections.remove(connection->id());
    m_converters.remove(connection->id());
    connection->deleteLater();
}

void ArchiveServer::deliver(const std::shared_ptr<std::vector<DatabaseAnswer>> &answers)
{
    for (const DatabaseAnswer &answer : *answers) {
        ClientConnection *connection = m_connections.value(answer.connectionId);
        if (answer.registersConverter && connection)
            m_converters.insert(answer.connectionId, answer.converterTypes);
        if (connection && !answer.reply.isEmpty())
            connection->send(answer.reply);
        for (const NewGroupNotice &notice : answer.newGroups)
            notifyConverters(notice);
        if (m_mover) {
            for (const MoveOrder &order : answer.moves)
                m_mover->post(order);
        }
    }
}

void ArchiveServer::notifyConverters(const NewGroupNotice &notice)
{
    for (auto it = m_converters.cbegin(); it != m_converters.cend(); ++it) {
        if (!it.value().contains(notice.fileType))
            continue;
        ClientConnection *connection = m_connections.value(it.key());
        if (!connection)
            continue;
        ReplyWriter writer(Tag::ConvertFileGroup, CreateGuid());
        writer.writeText(Tag::Guid, notice.guid);
        writer.writeNumber(Tag::FileType, notice.fileType);
        writer.writeText(Tag::Path, notice.path);
        connection->send(writer.finish());
    }
}

} // namespace Kelda
