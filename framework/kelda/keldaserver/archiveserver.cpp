#include "archiveserver.h"

#include "clientconnection.h"
#include "keldaurl.h"
#include "keldaxml.h"
#include "replywriter.h"
#include "request.h"

#include <trace.h>

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
    , m_instanceId(QUuid::createUuid().toString(QUuid::WithoutBraces))
{
    connect(&m_listener, &QTcpServer::newConnection, this, &ArchiveServer::acceptConnections);
    connect(this, &ArchiveServer::answersReady, this, &ArchiveServer::deliverPosted, Qt::QueuedConnection);
}

ArchiveServer::~ArchiveServer()
{
    shutdown();
}

bool ArchiveServer::openDatabase()
{
    const StorageLayout layout(m_options.basePath, m_options.nasPath, m_options.exchangePath,
                               m_options.maxImportBytes);
    const auto delivery = [this](bool fromWriter) {
        return [this, fromWriter](Answers answers) { postAnswers(std::move(answers), fromWriter); };
    };
    // The writer creates the tables; the reader opens them after it.
    m_writer = std::make_unique<DatabaseWorker>(DatabaseWorker::Role::Writer, m_options.database, m_instanceId, layout,
                                                delivery(true), [this](DatabaseJob job) {
                                                    if (m_reader)
                                                        m_reader->post(std::move(job));
                                                });
    if (!m_writer->open()) {
        m_error = m_writer->errorString();
        return false;
    }
    m_reader = std::make_unique<DatabaseWorker>(DatabaseWorker::Role::Reader, m_options.database, m_instanceId,
                                                layout, delivery(false));
    if (!m_reader->open()) {
        m_error = m_reader->errorString();
        return false;
    }
    return true;
}

bool ArchiveServer::start()
{
    QStringList folders{m_options.basePath, m_options.nasPath, m_options.exchangePath};
    if (!m_options.database.isPostgres())
        folders.append(QFileInfo(m_options.database.file).absolutePath());
    for (const QString &folder : qAsConst(folders)) {
        if (!QDir().mkpath(folder)) {
            m_error = QStringLiteral("Cannot create the folder %1").arg(folder);
            m_exitCode = ServerOptions::ExitStorage;
            return false;
        }
    }
    if (!openDatabase()) {
        m_exitCode = ServerOptions::ExitStorage;
        return false;
    }
    DatabaseWorker *writer = m_writer.get();
    m_mover = std::make_unique<GroupMover>(
        [writer](const QString &guid, double percent) {
            DatabaseJob job;
            job.kind = DatabaseJob::Kind::MoveProgress;
            job.guid = guid;
            job.percent = percent;
            writer->post(std::move(job));
        },
        [writer](const QString &guid, const QString &directory, bool ok) {
            DatabaseJob job;
            job.kind = DatabaseJob::Kind::MoveFinished;
            job.guid = guid;
            job.directory = directory;
            job.ok = ok;
            writer->post(std::move(job));
        });
    m_mover->start();
    for (const MoveOrder &order : m_writer->unfinishedMoves())
        m_mover->post(order);
    if (m_options.database.isPostgres()) {
        m_listenerThread = std::make_unique<GroupListener>(
            m_options.database, m_instanceId, [this](const GroupAnnouncement &announcement) {
                // Travels like an answer for no connection: only its notice
                // is delivered.
                auto heard = std::make_shared<std::vector<DatabaseAnswer>>(1);
                heard->front().newGroups.push_back({announcement.guid, announcement.fileType, announcement.path});
                postAnswers(std::move(heard), false);
            });
        m_listenerThread->start();
    }

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
    if (m_listenerThread) {
        m_listenerThread->stop();
        m_listenerThread->wait();
        m_listenerThread.reset();
    }
    if (m_mover) {
        m_mover->stopAndWait();
        m_mover.reset();
    }
    // The writer hands its last reads to the reader: stop it first.
    for (auto *worker : {&m_writer, &m_reader}) {
        if (*worker)
            (*worker)->finishAndWait();
    }
    // Their last answers wait in the outbox; send them before the
    // connections close.
    deliverPosted();
    m_writer.reset();
    m_reader.reset();
    const auto peers = m_peers;
    m_peers.clear();
    for (const Peer &peer : peers) {
        peer.connection->disconnect(this);
        peer.connection->flush();
        peer.connection->close();
        peer.connection->deleteLater();
    }
}

void ArchiveServer::acceptConnections()
{
    while (QTcpSocket *socket = m_listener.nextPendingConnection()) {
        auto *connection = new ClientConnection(m_nextConnectionId++, socket, m_options.maxFrame, this);
        m_peers[connection->id()].connection = connection;
        connect(connection, &ClientConnection::messageReceived, this, &ArchiveServer::onMessage);
        connect(connection, &ClientConnection::closed, this, &ArchiveServer::onClosed);
    }
}

void ArchiveServer::onMessage(ClientConnection *connection, const QByteArray &message)
{
    auto peer = m_peers.find(connection->id());
    if (!m_writer || peer == m_peers.end())
        return;
    RequestReader::Result read = RequestReader::read(message);
    if (!read.ok) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Unreadable request from %1: %2").arg(connection->peer(), read.error));
        // Without a command there is no reply element to name: the client
        // would not recognise any answer.
        if (!read.request.command.isEmpty() && read.request.command != Tag::ConvertFileGroupReply)
            answer(*peer, peer->nextSequence++,
                   ReplyWriter::status(read.request.command, read.request.requestId, KE_SoapParsingError, read.error));
        return;
    }
    Q_TRACE_DETAIL(kSource, QStringLiteral("%1 from %2 (%3)")
                                .arg(read.request.command, connection->peer(), read.request.requestId));
    if (read.request.command == Tag::ConvertFileGroupReply) {
        // The converter's answer to our ConvertFileGroup: nothing waits for it.
        const qint64 error = read.request.number(Tag::Error, KE_UnknownError);
        if (error != KE_NoError)
            Q_TRACE_FAILURE(kSource, QStringLiteral("Converter %1 failed on file group %2: %3 (%4)")
                                         .arg(connection->peer(), read.request.text(Tag::Guid),
                                              read.request.text(Tag::ErrorString))
                                         .arg(error));
        return;
    }
    DatabaseJob job;
    job.origin.connectionId = connection->id();
    job.origin.sequence = peer->nextSequence++;
    job.origin.localAddress = connection->localAddress();
    job.readOnly = ArchiveEngine::isReadOnly(read.request.command);
    job.request = std::move(read.request);
    if (peer->nextSequence - peer->nextToSend >= MaxUnderWay)
        connection->setHoldingRequests(true);
    // A read may overtake nothing of its own connection: while a change of
    // it is under way, the writer hands the read on after its commit.
    if (job.readOnly && peer->changesUnderWay == 0) {
        m_reader->post(std::move(job));
        return;
    }
    if (!job.readOnly)
        ++peer->changesUnderWay;
    m_writer->post(std::move(job));
}

void ArchiveServer::onClosed(ClientConnection *connection)
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("Client %1 disconnected").arg(connection->peer()));
    // Locks stay: they belong to the lock identity, which may come back on
    // another connection.
    m_peers.remove(connection->id());
    connection->deleteLater();
}

void ArchiveServer::postAnswers(Answers answers, bool fromWriter)
{
    bool first = false;
    {
        const std::lock_guard<std::mutex> lock(m_outboxMutex);
        first = m_outbox.empty();
        m_outbox.emplace_back(std::move(answers), fromWriter);
    }
    // One wake-up per batch of deliveries: the first to arrive in an empty
    // outbox asks for it, the rest ride along.
    if (first)
        emit answersReady();
}

void ArchiveServer::deliverPosted()
{
    std::vector<std::pair<Answers, bool>> posted;
    {
        const std::lock_guard<std::mutex> lock(m_outboxMutex);
        posted.swap(m_outbox);
    }
    for (const auto &delivery : posted)
        deliver(delivery.first, delivery.second);
}

void ArchiveServer::deliver(const Answers &answers, bool fromWriter)
{
    for (const DatabaseAnswer &done : *answers) {
        for (const NewGroupNotice &notice : done.newGroups)
            notifyConverters(notice);
        if (m_mover) {
            for (const MoveOrder &order : done.moves)
                m_mover->post(order);
        }
        auto peer = m_peers.find(done.connectionId);
        if (done.connectionId == 0 || peer == m_peers.end())
            continue;
        if (fromWriter)
            --peer->changesUnderWay;
        if (done.registersConverter) {
            peer->converter = true;
            peer->converterTypes = done.converterTypes;
        }
        answer(*peer, done.sequence, done.reply);
    }
}

void ArchiveServer::answer(Peer &peer, quint64 sequence, const QByteArray &reply)
{
    if (sequence != peer.nextToSend) {
        peer.waiting.insert(sequence, reply);
        return;
    }
    peer.connection->send(reply);
    ++peer.nextToSend;
    for (auto it = peer.waiting.begin(); it != peer.waiting.end() && it.key() == peer.nextToSend;
         it = peer.waiting.erase(it)) {
        peer.connection->send(it.value());
        ++peer.nextToSend;
    }
    if (peer.nextSequence - peer.nextToSend < MaxUnderWay / 2)
        peer.connection->setHoldingRequests(false);
}

void ArchiveServer::notifyConverters(const NewGroupNotice &notice)
{
    for (const Peer &peer : qAsConst(m_peers)) {
        if (!peer.converter || !peer.converterTypes.contains(notice.fileType))
            continue;
        ReplyWriter writer(Tag::ConvertFileGroup, CreateGuid());
        writer.writeText(Tag::Guid, notice.guid);
        writer.writeNumber(Tag::FileType, notice.fileType);
        writer.writeText(Tag::Path, notice.path);
        peer.connection->send(writer.finish());
    }
}

} // namespace Kelda
