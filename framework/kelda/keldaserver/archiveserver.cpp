#include "archiveserver.h"

#include "clientconnection.h"
#include "commanddescriptors.h"
#include "keldaurl.h"
#include "keldaxml.h"
#include "replywriter.h"
#include "request.h"

#include <trace.h>

#include <QDir>
#include <QSet>
#include <QSslSocket>
#include <QTcpSocket>
#include <QUuid>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/keldaserver/archiveserver";

// Unreadable input and refused connections are traced at most this often.
constexpr qint64 TraceIntervalMs = 1000;
// After running out of file descriptors, accepting rests this long.
constexpr int AcceptPauseMs = 250;
constexpr int AcceptsPerTurn = 64;

int descriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return std::numeric_limits<int>::max();
    return int(std::min<rlim_t>(limit.rlim_cur, std::numeric_limits<int>::max()));
}

} // namespace

ArchiveServer::ArchiveServer(const ServerOptions &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_instanceId(QUuid::createUuid().toString(QUuid::WithoutBraces))
    , m_descriptorLimit(descriptorLimit())
{
    m_clock.start();
    connect(this, &ArchiveServer::outboxFilled, this, &ArchiveServer::drainOutbox, Qt::QueuedConnection);
    connect(&m_watch, &QTimer::timeout, this, &ArchiveServer::watchConnections);
}

ArchiveServer::~ArchiveServer()
{
    shutdown();
}

bool ArchiveServer::openSpoolFolder()
{
    m_spoolFolder = std::make_shared<SpoolFolder>(m_options.maxSpool, m_options.maxAnswer);
    return m_spoolFolder->open(m_options.spoolPath, &m_error);
}

bool ArchiveServer::openDatabase()
{
    const StorageLayout layout(m_options.basePath, m_options.nasPath, m_options.exchangePath, m_options.maxImportBytes);
    const auto delivery = [this](bool fromWriter) {
        return [this, fromWriter](std::shared_ptr<std::vector<DatabaseAnswer>> answers) {
            post([&](Outbox &outbox) { outbox.answers.emplace_back(std::move(answers), fromWriter); });
        };
    };
    const AccessRules rules(m_options.tls.identifiesClients(), m_options.admins, m_options.converters);
    // The first writer creates the tables; the others and the reader open
    // them after it.
    const int writers = m_options.database.isPostgres() ? PostgresWriters : 1;
    for (int index = 0; index < writers; ++index) {
        auto writer = std::make_unique<DatabaseWorker>(DatabaseWorker::Role::Writer, m_options.database, m_instanceId,
                                                       layout, delivery(true), [this](DatabaseJob job) {
                                                           if (m_reader)
                                                               m_reader->post(std::move(job));
                                                       });
        writer->setWriterIndex(index);
        writer->setTroubleCounters(&m_metrics.databaseErrors, &m_metrics.databaseReconnects);
        writer->setAccessRules(rules);
        // The pool starts with the services, before any client is served;
        // at shutdown it stops before the writers.
        writer->setFileReader([this](DatabaseJob job) { return m_digests && m_digests->post(std::move(job)); });
        m_writers.push_back(std::move(writer));
        if (!m_writers.back()->open()) {
            m_error = m_writers.back()->errorString();
            return false;
        }
    }
    // A writer keeps the records of refused reads: the reader writes
    // nothing.
    DatabaseWorker *recorder = m_writers.front().get();
    m_reader = std::make_unique<DatabaseWorker>(DatabaseWorker::Role::Reader, m_options.database, m_instanceId, layout,
                                                delivery(false),
                                                [recorder](DatabaseJob job) { recorder->post(std::move(job)); });
    m_reader->setTroubleCounters(&m_metrics.databaseErrors, &m_metrics.databaseReconnects);
    m_reader->setAccessRules(rules);
    m_reader->setSpoolFolder(m_spoolFolder);
    if (!m_reader->open()) {
        m_error = m_reader->errorString();
        return false;
    }
    return true;
}

void ArchiveServer::startMover()
{
    DatabaseWorker *writer = m_writers.front().get();
    m_mover = std::make_unique<GroupMover>(
        [writer](const QString &guid, double percent) {
            DatabaseJob job;
            job.kind = DatabaseJob::Kind::MoveProgress;
            job.guid = guid;
            job.percent = percent;
            writer->post(std::move(job));
        },
        [writer, metrics = &m_metrics](const QString &guid, const QString &directory, bool ok) {
            ++(ok ? metrics->movesCompleted : metrics->movesFailed);
            DatabaseJob job;
            job.kind = DatabaseJob::Kind::MoveFinished;
            job.guid = guid;
            job.directory = directory;
            job.ok = ok;
            writer->post(std::move(job));
        });
    m_mover->start();
    for (const MoveOrder &order : m_writers.front()->unfinishedMoves())
        m_mover->post(order);
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
    if (!openSpoolFolder() || !openDatabase()) {
        m_exitCode = ServerOptions::ExitStorage;
        return false;
    }
    startMover();
    if (m_options.database.isPostgres()) {
        m_listenerThread = std::make_unique<GroupListener>(
            m_options.database, m_instanceId, [this](const GroupAnnouncement &announcement) {
                // Travels like an answer for no connection: only its notice
                // is delivered.
                auto heard = std::make_shared<std::vector<DatabaseAnswer>>(1);
                heard->front().newGroups.push_back({announcement.guid, announcement.fileType, announcement.path});
                post([&](Outbox &outbox) { outbox.answers.emplace_back(std::move(heard), false); });
            });
        m_listenerThread->start();
    }
    m_parsers =
        std::make_unique<ParserPool>(ParserThreads, RequestDecoder::Limits{m_options.maxFrame, m_options.maxElements},
                                     [this](ParserPool::Result result) {
                                         post([&](Outbox &outbox) { outbox.parsed.push_back(std::move(result)); });
                                     });
    startServices();
    return listen() && serveMetrics();
}

bool ArchiveServer::serveMetrics()
{
    if (!m_options.metrics)
        return true;
    m_storageUsage = std::make_unique<StorageUsage>(
        std::vector<std::pair<QString, QString>>{{QStringLiteral("base"), m_options.basePath},
                                                 {QStringLiteral("nas"), m_options.nasPath},
                                                 {QStringLiteral("exchange"), m_options.exchangePath}});
    m_storageUsage->refresh();
    m_metricsEndpoint =
        std::make_unique<MetricsEndpoint>([this] { return renderMetrics(); },
                                          [this](std::function<void(bool)> done) { checkHealth(done); });
    if (!m_metricsEndpoint->listen(m_options.metricsHost, m_options.metricsPort, &m_error)) {
        m_metricsEndpoint.reset();
        m_exitCode = ServerOptions::ExitUnavailable;
        return false;
    }
    return true;
}

QHostAddress ArchiveServer::metricsAddress() const
{
    return m_metricsEndpoint ? m_metricsEndpoint->address() : QHostAddress();
}

quint16 ArchiveServer::metricsPort() const
{
    return m_metricsEndpoint ? m_metricsEndpoint->port() : 0;
}

void ArchiveServer::checkHealth(const std::function<void(bool)> &done)
{
    if (!m_reader || m_stopping) {
        done(false);
        return;
    }
    m_healthWaiting.push_back(done);
    if (m_pingUnderWay != 0)
        return;
    const quint64 ping = m_pingUnderWay = ++m_lastPing;
    QTimer::singleShot(HealthTimeoutMs, this, [this, ping] { healthKnown(ping, false); });
    DatabaseJob job;
    job.kind = DatabaseJob::Kind::Ping;
    job.pinged = [this, ping](bool up) { post([&](Outbox &outbox) { outbox.pings.emplace_back(ping, up); }); };
    m_reader->postFirst(std::move(job));
}

void ArchiveServer::healthKnown(quint64 ping, bool up)
{
    // Answered already, by the reader or by the timeout.
    if (ping != m_pingUnderWay)
        return;
    m_pingUnderWay = 0;
    m_databaseUp = up;
    for (const auto &done : std::exchange(m_healthWaiting, {}))
        done(up);
}

QByteArray ArchiveServer::renderMetrics()
{
    // The scrape shows what the last looks found and starts the next ones:
    // nothing here waits for the database or a file system.
    if (m_pingUnderWay == 0)
        checkHealth([](bool) {});
    m_storageUsage->refresh();
    ServerMetrics::Gauges gauges;
    gauges.connections = m_peers.size();
    for (const Peer &peer : qAsConst(m_peers))
        gauges.backlogBytes += peer.connection->gate()->backlog();
    gauges.pendingBytes = m_pendingBytes;
    gauges.databaseUp = m_databaseUp;
    gauges.storage = m_storageUsage->latest();
    return m_metrics.render(gauges);
}

void ArchiveServer::startServices()
{
    const StorageLayout layout(m_options.basePath, m_options.nasPath, m_options.exchangePath, m_options.maxImportBytes);
    m_digests =
        std::make_unique<DigestPool>(DigestThreads, m_options.database, m_instanceId, layout, [this](DatabaseJob job) {
            if (job.returnsRead)
                writerFor(job.origin.connectionId).post(std::move(job));
            else
                post([&](Outbox &outbox) { outbox.read.push_back(std::move(job)); });
        });
    if (m_options.verifyIntervalHours <= 0)
        return;
    FixityChecker::Settings settings;
    settings.intervalMs = std::max<qint64>(1, qint64(m_options.verifyIntervalHours * 3600 * 1000));
    settings.bytesPerSecond = qint64(m_options.verifyRateMBps * ServerOptions::MB);
    DatabaseWorker *writer = m_writers.front().get();
    // Counted for the metrics on the writer's thread; the counters are atomic.
    const FixityChecker::Observer observer = [this](FileCheck::State state) {
        if (state == FileCheck::State::Ok)
            m_metrics.countFixity(ServerMetrics::FixityResult::Ok);
        else if (state == FileCheck::State::Mismatch)
            m_metrics.countFixity(ServerMetrics::FixityResult::Mismatch);
        else if (state == FileCheck::State::Missing)
            m_metrics.countFixity(ServerMetrics::FixityResult::Missing);
    };
    m_fixity = std::make_unique<FixityChecker>(
        m_options.database, m_instanceId, layout, settings, [writer](DatabaseJob job) { writer->post(std::move(job)); },
        observer);
    m_fixity->start();
}

bool ArchiveServer::listen()
{
    if (!m_listener.listen(m_options.host, m_options.port)) {
        m_error = QStringLiteral("Cannot listen on %1:%2: %3")
                      .arg(m_options.host.toString())
                      .arg(m_options.port)
                      .arg(m_listener.errorString());
        m_exitCode = ServerOptions::ExitUnavailable;
        return false;
    }
    m_listener.pauseAccepting();
    m_acceptNotifier = new QSocketNotifier(m_listener.socketDescriptor(), QSocketNotifier::Read, this);
    connect(m_acceptNotifier, &QSocketNotifier::activated, this, &ArchiveServer::acceptConnections);
    // Checked often enough that a limit of a second is kept to within a
    // quarter of it.
    const int shortest = std::min(m_options.frameTimeoutSeconds, m_options.idleTimeoutSeconds) * 1000;
    m_watch.start(std::clamp(shortest / 4, 50, 1000));
    return true;
}

void ArchiveServer::shutdown()
{
    m_stopping = true;
    m_metricsEndpoint.reset();
    m_healthWaiting.clear();
    m_watch.stop();
    if (m_acceptNotifier) {
        m_acceptNotifier->setEnabled(false);
        delete m_acceptNotifier;
        m_acceptNotifier = nullptr;
    }
    if (m_listener.isListening())
        m_listener.close();
    if (m_parsers)
        m_parsers->stopAndWait();
    if (m_fixity)
        m_fixity->stopAndWait();
    // Requests whose files were being read are answered (as not read) by
    // the writers below.
    if (m_digests) {
        m_digests->stopAndWait();
        drainOutbox();
    }
    if (m_listenerThread) {
        m_listenerThread->stop();
        m_listenerThread->wait();
        m_listenerThread.reset();
    }
    if (m_mover) {
        m_mover->stopAndWait();
        m_mover.reset();
    }
    // The writer hands its last reads to the reader: stop it first. Reads
    // are dropped, so that however many wait, the server stops promptly.
    if (m_reader)
        m_reader->abandonReads();
    for (auto &writer : m_writers)
        writer->finishAndWait();
    if (m_reader)
        m_reader->finishAndWait();
    // Their last answers wait in the outbox; send them before the
    // connections close.
    drainOutbox();
    m_writers.clear();
    m_reader.reset();
    m_parsers.reset();
    // Its results may have waited in a writer's queue until now.
    m_fixity.reset();
    m_digests.reset();
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
    // A bounded number per turn, so that a storm of connections does not
    // starve the clients already served.
    for (int i = 0; i < AcceptsPerTurn && m_acceptNotifier && m_acceptNotifier->isEnabled(); ++i) {
        const int descriptor =
            ::accept4(int(m_listener.socketDescriptor()), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (descriptor >= 0) {
            serveConnection(descriptor);
            continue;
        }
        switch (errno) {
        case EINTR:
        case ECONNABORTED:
            continue;
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
            restAccepting(QString::fromLocal8Bit(std::strerror(errno)));
            return;
        default:
            // EAGAIN: nothing more waits.
            return;
        }
    }
}

void ArchiveServer::restAccepting(const QString &why)
{
    // The connection stays queued; try again in a moment rather than at
    // once, which would only fail again.
    traceRefused(
        QStringLiteral("Cannot take a connection now (%1); accepting rests for %2 ms").arg(why).arg(AcceptPauseMs));
    m_acceptNotifier->setEnabled(false);
    QTimer::singleShot(AcceptPauseMs, this, [this] {
        if (m_acceptNotifier && !m_stopping)
            m_acceptNotifier->setEnabled(true);
    });
}

void ArchiveServer::serveConnection(qintptr descriptor)
{
    QTcpSocket *socket = m_options.tls.isEnabled() ? new QSslSocket : new QTcpSocket;
    if (!socket->setSocketDescriptor(descriptor)) {
        ::close(int(descriptor));
        delete socket;
        return;
    }
    if (!m_options.allow.admits(socket->peerAddress())) {
        traceRefused(
            QStringLiteral("Refused client %1: its address is not allowed (--allow %2)")
                .arg(socket->peerAddress().toString(), m_options.allow.blocks().join(QLatin1String(", --allow "))));
        socket->abort();
        delete socket;
        return;
    }
    auto *connection =
        new ClientConnection(m_nextConnectionId++, socket,
                             ClientConnection::Limits{m_options.maxFrame, m_options.maxBacklog}, &m_options.tls, this);
    if (!admitConnection(connection)) {
        connection->close();
        connection->deleteLater();
        return;
    }
    Peer &peer = m_peers[connection->id()];
    peer.connection = connection;
    ++m_connectionsPerAddress[connection->peerAddress()];
    connect(connection, &ClientConnection::frameAnnounced, this, &ArchiveServer::onFrameAnnounced);
    connect(connection, &ClientConnection::frameReceived, this, &ArchiveServer::onFrameReceived);
    connect(connection, &ClientConnection::drained, this, &ArchiveServer::onDrained);
    connect(connection, &ClientConnection::closed, this, &ArchiveServer::onClosed);
}

bool ArchiveServer::admitConnection(ClientConnection *connection)
{
    if (m_stopping)
        return false;
    if (connection->descriptor() >= m_descriptorLimit - SpareDescriptors) {
        restAccepting(QStringLiteral("refused client %1, descriptors run short").arg(connection->peer()));
        return false;
    }
    if (m_peers.size() >= m_options.maxConnections) {
        traceRefused(QStringLiteral("Refused client %1: %2 connections are open, the most allowed")
                         .arg(connection->peer())
                         .arg(m_peers.size()));
        return false;
    }
    const int fromAddress = m_connectionsPerAddress.value(connection->peerAddress());
    if (fromAddress >= m_options.maxConnectionsPerAddress) {
        traceRefused(QStringLiteral("Refused client %1: %2 connections from its address are open, the most allowed")
                         .arg(connection->peer())
                         .arg(fromAddress));
        return false;
    }
    return true;
}

void ArchiveServer::traceRefused(const QString &text)
{
    if (m_lastRefusalTrace.isValid() && m_lastRefusalTrace.elapsed() < TraceIntervalMs) {
        ++m_refusalsUntraced;
        return;
    }
    Q_TRACE_FAILURE(kSource,
                    m_refusalsUntraced == 0
                        ? text
                        : QStringLiteral("%1 (and %2 more refusals not traced)").arg(text).arg(m_refusalsUntraced));
    m_refusalsUntraced = 0;
    m_lastRefusalTrace.start();
}

void ArchiveServer::onFrameAnnounced(ClientConnection *connection, quint32 length)
{
    auto peer = m_peers.find(connection->id());
    if (peer == m_peers.end())
        return;
    if (length <= SmallFrame) {
        connection->admitFrame();
        return;
    }
    peer->announced = length;
    peer->awaitingRoom = true;
    m_waitingForRoom.push_back(connection->id());
    admitWaiting();
}

void ArchiveServer::admitWaiting()
{
    while (!m_waitingForRoom.empty()) {
        const auto peer = m_peers.find(m_waitingForRoom.front());
        if (peer == m_peers.end() || !peer->awaitingRoom) {
            m_waitingForRoom.pop_front();
            continue;
        }
        // A frame larger than the whole limit still goes through alone.
        const qint64 length = peer->announced;
        if (m_pendingBytes > 0 && m_pendingBytes + length > m_options.maxPending)
            return;
        m_waitingForRoom.pop_front();
        m_pendingBytes += length;
        peer->reserved = length;
        peer->awaitingRoom = false;
        peer->connection->admitFrame();
    }
}

void ArchiveServer::releasePending(qint64 bytes)
{
    if (bytes <= 0)
        return;
    m_pendingBytes -= bytes;
    admitWaiting();
}

void ArchiveServer::onFrameReceived(ClientConnection *connection, const QByteArray &payload)
{
    auto peer = m_peers.find(connection->id());
    if (peer == m_peers.end())
        return;
    peer->frames.push_back({payload, peer->reserved});
    peer->reserved = 0;
    ++peer->underWay;
    updateHold(*peer);
    decodeNext(*peer);
}

void ArchiveServer::decodeNext(Peer &peer)
{
    // One payload of a connection at a time, so that its requests keep
    // their order; cheap ones are read right here.
    while (!peer.parsing && !peer.frames.empty()) {
        Frame frame = std::move(peer.frames.front());
        peer.frames.pop_front();
        if (RequestDecoder::isCostly(frame.payload, peer.tryExpand)) {
            peer.parsing = true;
            peer.parsingReserved = frame.reserved;
            m_parsers->post({peer.connection->id(), std::move(frame.payload), peer.tryExpand});
            return;
        }
        releasePending(frame.reserved);
        onDecoded(peer,
                  RequestDecoder::decode(frame.payload, peer.tryExpand, {m_options.maxFrame, m_options.maxElements}));
        if (peer.connection->isClosed())
            return;
    }
}

void ArchiveServer::onDecoded(Peer &peer, RequestDecoder::Decoded decoded)
{
    if (decoded.plain)
        peer.tryExpand = false;
    if (decoded.tooLarge) {
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("Client %1 sent a message that expands beyond %2 bytes; closing its "
                                       "connection")
                            .arg(peer.connection->peer())
                            .arg(m_options.maxFrame));
        peer.connection->close();
        return;
    }
    RequestReader::Result &read = decoded.read;
    if (!read.ok) {
        onUnreadable(peer, read);
        return;
    }
    if (read.request.command == Tag::ConvertFileGroupReply) {
        // The converter's answer to our ConvertFileGroup: nothing waits for it.
        const qint64 error = read.request.number(Tag::Error, KE_UnknownError);
        if (error != KE_NoError)
            Q_TRACE_FAILURE(kSource,
                            QStringLiteral("Converter %1 failed on file group %2: %3 (%4)")
                                .arg(peer.connection->peer(), read.request.text(Tag::Guid),
                                     read.request.text(Tag::ErrorString))
                                .arg(error));
        finishUnanswered(peer);
        return;
    }
    Q_TRACE_DETAIL(
        kSource,
        QStringLiteral("%1 from %2 (%3)").arg(read.request.command, peer.connection->peer(), read.request.requestId));
    dispatch(peer, std::move(read.request));
}

void ArchiveServer::onUnreadable(Peer &peer, const RequestReader::Result &read)
{
    if (peer.lastUnreadableTrace.isValid() && peer.lastUnreadableTrace.elapsed() < TraceIntervalMs) {
        ++peer.unreadableUntraced;
    } else {
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("Unreadable request from %1: %2%3")
                            .arg(peer.connection->peer(), read.error,
                                 peer.unreadableUntraced == 0
                                     ? QString()
                                     : QStringLiteral(" (and %1 more not traced)").arg(peer.unreadableUntraced)));
        peer.unreadableUntraced = 0;
        peer.lastUnreadableTrace.start();
    }
    const QString &command = read.request.command;
    // Whatever names its command can be answered; the converter's own
    // answer never is.
    if (command.isEmpty() || command.size() > MaxCommandLength || command == Tag::ConvertFileGroupReply) {
        finishUnanswered(peer);
        return;
    }
    answer(peer, startRequest(peer, command),
           {ReplyWriter::status(command, read.request.requestId, KE_SoapParsingError, read.error), nullptr});
}

void ArchiveServer::dispatch(Peer &peer, Request request)
{
    if (!ArchiveEngine::isKnown(request.command)) {
        answer(peer, startRequest(peer, request.command), {ArchiveEngine::unknownCommandReply(request), nullptr});
        return;
    }
    DatabaseJob job;
    job.origin.connectionId = peer.connection->id();
    job.origin.sequence = startRequest(peer, request.command);
    job.origin.localAddress = peer.connection->localAddress();
    job.origin.peerAddress = peer.connection->peerAddress();
    job.origin.certificateUser = peer.connection->certificateUser();
    job.gate = peer.connection->gate();
    job.readOnly = ArchiveEngine::isReadOnly(request.command);
    job.request = std::move(request);
    route(peer, std::move(job));
}

bool ArchiveServer::readsFiles(const DatabaseJob &job) const
{
    return m_digests && DigestPool::readsFilesFor(job.request.command);
}

void ArchiveServer::route(Peer &peer, DatabaseJob job)
{
    if (peer.held.empty() && !readsFiles(job)) {
        toDatabase(peer, std::move(job));
        return;
    }
    peer.held.push_back(std::move(job));
    releaseWaiting(peer);
}

void ArchiveServer::onRead(DatabaseJob job)
{
    const auto peer = m_peers.find(job.origin.connectionId);
    if (peer == m_peers.end())
        return;
    // It was the first held job; its copy there goes.
    peer->held.pop_front();
    peer->readingFiles = false;
    toDatabase(*peer, std::move(job));
    releaseWaiting(*peer);
}

void ArchiveServer::releaseWaiting(Peer &peer)
{
    // Without the pool (it is gone at shutdown) a job is sent on unread,
    // and the handler refuses it as such.
    while (!peer.held.empty() && !peer.readingFiles) {
        DatabaseJob &front = peer.held.front();
        if (readsFiles(front)) {
            // The connection's earlier changes may add or remove files.
            if (!peer.changes.empty())
                return;
            if (m_digests->post(front)) {
                peer.readingFiles = true;
                return;
            }
        }
        toDatabase(peer, std::move(front));
        peer.held.pop_front();
    }
}

void ArchiveServer::toDatabase(Peer &peer, DatabaseJob job)
{
    // A read may overtake nothing of its own connection: while a change of
    // it is under way, the writer hands the read on after its commit.
    if (job.readOnly && peer.changes.empty()) {
        m_reader->post(std::move(job));
        return;
    }
    if (!job.readOnly)
        peer.changes.insert(job.origin.sequence);
    writerFor(job.origin.connectionId).post(std::move(job));
}

DatabaseWorker &ArchiveServer::writerFor(quint64 connectionId)
{
    // Always the same one: a connection's changes stay in order, and its
    // reads wait for them there.
    return *m_writers.at(connectionId % m_writers.size());
}

void ArchiveServer::finishUnanswered(Peer &peer)
{
    --peer.underWay;
    updateHold(peer);
}

void ArchiveServer::updateHold(Peer &peer)
{
    peer.connection->setHeld(peer.underWay >= m_options.maxInFlight);
}

void ArchiveServer::onClosed(ClientConnection *connection)
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("Client %1 disconnected").arg(connection->peer()));
    // Locks stay: they belong to the lock identity, which may come back on
    // another connection. Its queued work is dropped by the gate.
    const auto peer = m_peers.find(connection->id());
    if (peer != m_peers.end()) {
        qint64 held = peer->reserved + peer->parsingReserved;
        for (const Frame &frame : peer->frames)
            held += frame.reserved;
        m_peers.erase(peer);
        const QString address = connection->peerAddress();
        if (--m_connectionsPerAddress[address] <= 0)
            m_connectionsPerAddress.remove(address);
        releasePending(held);
    }
    wakeHeldReads(connection->gate());
    connection->deleteLater();
}

void ArchiveServer::onDrained(ClientConnection *connection)
{
    wakeHeldReads(connection->gate());
}

void ArchiveServer::wakeHeldReads(const std::shared_ptr<ConnectionGate> &gate)
{
    if (m_reader && gate->held.exchange(false)) {
        DatabaseJob wake;
        wake.kind = DatabaseJob::Kind::Wake;
        m_reader->post(std::move(wake));
    }
}

void ArchiveServer::watchConnections()
{
    const qint64 frameLimit = qint64(m_options.frameTimeoutSeconds) * 1000;
    const qint64 idleLimit = qint64(m_options.idleTimeoutSeconds) * 1000;
    std::vector<ClientConnection *> expired;
    for (const Peer &peer : qAsConst(m_peers)) {
        ClientConnection *connection = peer.connection;
        QString why;
        if (connection->handshakeFor() > frameLimit)
            why = QStringLiteral("took more than %1 s for its TLS handshake").arg(m_options.frameTimeoutSeconds);
        else if (connection->frameUnderWayFor() > frameLimit)
            why = QStringLiteral("took more than %1 s to send a message").arg(m_options.frameTimeoutSeconds);
        else if (connection->stalledFor() > frameLimit)
            why = QStringLiteral("read none of its waiting answers for %1 s").arg(m_options.frameTimeoutSeconds);
        else if (connection->idleFor() > idleLimit && peer.underWay == 0 && !connection->hasUnsentAnswers())
            why = QStringLiteral("sent nothing for %1 s").arg(m_options.idleTimeoutSeconds);
        if (why.isEmpty())
            continue;
        Q_TRACE_FAILURE(kSource, QStringLiteral("Client %1 %2; closing its connection").arg(connection->peer(), why));
        expired.push_back(connection);
    }
    for (ClientConnection *connection : expired)
        connection->close();
}

void ArchiveServer::post(const std::function<void(Outbox &)> &fill)
{
    bool first = false;
    {
        const std::lock_guard<std::mutex> lock(m_outboxMutex);
        first = m_outbox.answers.empty() && m_outbox.parsed.empty() && m_outbox.pings.empty() && m_outbox.read.empty();
        fill(m_outbox);
    }
    // One wake-up per batch of deliveries: the first to arrive in an empty
    // outbox asks for it, the rest ride along.
    if (first)
        emit outboxFilled();
}

void ArchiveServer::drainOutbox()
{
    Outbox posted;
    {
        const std::lock_guard<std::mutex> lock(m_outboxMutex);
        std::swap(posted, m_outbox);
    }
    for (auto &parsed : posted.parsed) {
        const auto peer = m_peers.find(parsed.connectionId);
        if (peer == m_peers.end())
            continue;
        peer->parsing = false;
        releasePending(std::exchange(peer->parsingReserved, 0));
        onDecoded(*peer, std::move(parsed.decoded));
        // The peer may be gone now: look it up again.
        const auto still = m_peers.find(parsed.connectionId);
        if (still != m_peers.end() && !m_stopping)
            decodeNext(*still);
    }
    for (DatabaseJob &job : posted.read)
        onRead(std::move(job));
    for (const auto &delivery : posted.answers)
        deliver(delivery.first, delivery.second);
    for (const auto &ping : posted.pings)
        healthKnown(ping.first, ping.second);
}

void ArchiveServer::deliver(const std::shared_ptr<std::vector<DatabaseAnswer>> &answers, bool fromWriter)
{
    for (const DatabaseAnswer &done : *answers) {
        for (const NewGroupNotice &notice : done.newGroups)
            notifyConverters(notice);
        if (m_mover) {
            for (const MoveOrder &order : done.moves) {
                m_mover->post(order);
                ++m_metrics.movesStarted;
            }
        }
        auto peer = m_peers.find(done.connectionId);
        if (done.connectionId == 0 || peer == m_peers.end())
            continue;
        if (fromWriter)
            peer->changes.erase(done.sequence);
        else
            peer->connection->gate()->built -= done.size();
        if (done.registersConverter) {
            peer->converter = true;
            peer->converterTypes = done.converterTypes;
        }
        answer(*peer, done.sequence, {done.reply, done.spool});
        // The first held job may have waited for this commit.
        if (fromWriter)
            releaseWaiting(*peer);
    }
}

void ArchiveServer::answer(Peer &peer, quint64 sequence, Reply reply)
{
    if (sequence != peer.nextToSend) {
        peer.waiting.insert(sequence, std::move(reply));
        return;
    }
    sendInOrder(peer, reply);
    for (auto it = peer.waiting.begin(); it != peer.waiting.end() && it.key() == peer.nextToSend;
         it = peer.waiting.erase(it))
        sendInOrder(peer, it.value());
    updateHold(peer);
}

void ArchiveServer::sendInOrder(Peer &peer, const Reply &reply)
{
    if (reply.spool)
        peer.connection->send(reply.spool);
    else
        peer.connection->send(reply.bytes);
    const auto started = peer.started.find(peer.nextToSend);
    if (started != peer.started.end()) {
        m_metrics.requestAnswered(started->command, replyCode(reply), m_clock.nsecsElapsed() - started->atNs);
        peer.started.erase(started);
    }
    ++peer.nextToSend;
    --peer.underWay;
}

int ArchiveServer::replyCode(const Reply &reply)
{
    // Only a query that succeeded keeps its spool; one that failed is
    // answered with its status alone.
    if (reply.spool)
        return KE_NoError;
    // The status closes every reply this server writes: look from the end.
    static const QByteArray open = '<' + Tag::m(Tag::Error).toLatin1() + '>';
    const int at = reply.bytes.lastIndexOf(open);
    if (at < 0)
        return -1;
    const int from = at + open.size();
    return reply.bytes.mid(from, reply.bytes.indexOf('<', from) - from).toInt();
}

quint64 ArchiveServer::startRequest(Peer &peer, const QString &command)
{
    const quint64 sequence = peer.nextSequence++;
    // Commands are named by clients: only those of the protocol get a
    // label of their own, so that no client can grow the metrics.
    static const QString unknown = QStringLiteral("unknown");
    peer.started.insert(sequence, {FindCommand(command) ? command : unknown, m_clock.nsecsElapsed()});
    return sequence;
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
