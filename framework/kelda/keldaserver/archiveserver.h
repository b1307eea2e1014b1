#pragma once

#include "databaseworker.h"
#include "digestpool.h"
#include "fixitychecker.h"
#include "grouplistener.h"
#include "groupmover.h"
#include "metricsendpoint.h"
#include "parserpool.h"
#include "serveroptions.h"
#include "servermetrics.h"
#include "spoolfolder.h"
#include "storageusage.h"

#include <QElapsedTimer>
#include <QHash>
#include <QMap>
#include <QObject>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QTimer>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

namespace Kelda {

class ClientConnection;

// The archive server: accepts connections on the network thread, reads
// their requests, hands changes to the writer thread and reads to the
// reader thread, and sends the answers back on each connection in request
// order. Converters registered on a connection hear of every new group of
// their types.
//
// Whatever clients send, the network thread stays free for all of them:
// large or compressed requests are decoded on the parser threads, every
// resource a client can make the server hold has a limit (the options of
// ServerOptions), and clients that are too slow, silent or stuck are let go.
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
    // The monitoring endpoint's address, when --metrics asked for one.
    bool servesMetrics() const { return m_metricsEndpoint != nullptr; }
    QHostAddress metricsAddress() const;
    quint16 metricsPort() const;
    // For the parts of the server that report into the metrics, such as
    // fixity checks (ServerMetrics::countFixity); any thread.
    ServerMetrics &metrics() { return m_metrics; }

    // Stops accepting, carries out and commits the changes received (reads
    // not yet started are dropped), sends the answers, then closes every
    // connection.
    void shutdown();

    // Frames up to this size need no room among the pending bytes: a
    // request of an ordinary client never waits behind others' large ones.
    static constexpr quint32 SmallFrame = 64 * 1024;
    // Threads that decode large requests.
    static constexpr int ParserThreads = 2;
    // Threads that read the files of VerifyFileGroup and of AddFile when
    // they are large. A connection has one request there at a time.
    static constexpr int DigestThreads = 2;
    // Longest command name worth answering.
    static constexpr int MaxCommandLength = 128;
    // Descriptors kept free for the database, files and moves: a connection
    // that would take one of them is refused.
    static constexpr int SpareDescriptors = 32;
    // Longest wait for the database to answer a health check; beyond it
    // the database counts as down.
    static constexpr int HealthTimeoutMs = 3000;

Q_SIGNALS:
    // From a database or parser thread: results wait in the outbox.
    void outboxFilled();

private:
    // A received frame on its way to the parser, with the pending bytes it
    // holds.
    struct Frame
    {
        QByteArray payload;
        qint64 reserved = 0;
    };

    // An answer on its way to its connection: its bytes, or the spool that
    // holds a large one.
    struct Reply
    {
        QByteArray bytes;
        std::shared_ptr<AnswerSpool> spool;
    };

    struct Peer
    {
        ClientConnection *connection = nullptr;
        // Requests numbered in arrival order; answers leave in that order.
        quint64 nextSequence = 0;
        quint64 nextToSend = 0;
        // The sequences of the connection's changes at the writer.
        std::set<quint64> changes;
        QMap<quint64, Reply> waiting;
        bool converter = false;
        QVector<int> converterTypes;
        // Frames received and not yet answered (or known to get no answer).
        int underWay = 0;
        std::deque<Frame> frames;
        bool parsing = false;
        // Requests held in arrival order behind a VerifyFileGroup whose
        // files are being read, or that waits for the connection's earlier
        // changes to commit. (An AddFile whose file is large waits for its
        // reading at the writer, and what follows it waits there too.)
        std::deque<DatabaseJob> held;
        // A copy of the first held job is with the digest pool.
        bool readingFiles = false;
        qint64 parsingReserved = 0;
        bool tryExpand = true;
        // Pending bytes held by the frame being received.
        qint64 reserved = 0;
        quint32 announced = 0;
        bool awaitingRoom = false;
        QElapsedTimer lastUnreadableTrace;
        int unreadableUntraced = 0;
        // Requests not yet answered: their command and arrival, for the
        // metrics.
        struct Started
        {
            QString command;
            qint64 atNs = 0;
        };
        QHash<quint64, Started> started;
    };

    // Results handed back from other threads.
    struct Outbox
    {
        std::vector<std::pair<std::shared_ptr<std::vector<DatabaseAnswer>>, bool>> answers;
        std::vector<ParserPool::Result> parsed;
        // Health checks answered by the reader: their number and outcome.
        std::vector<std::pair<quint64, bool>> pings;
        std::vector<DatabaseJob> read; // jobs whose files the digest pool read
    };

    bool openSpoolFolder();
    bool openDatabase();
    void startMover();
    bool listen();
    bool serveMetrics();
    // Asks the reader whether the database answers; done is called on this
    // thread within HealthTimeoutMs.
    void checkHealth(const std::function<void(bool)> &done);
    void healthKnown(quint64 ping, bool up);
    QByteArray renderMetrics();
    void acceptConnections();
    void serveConnection(qintptr descriptor);
    bool admitConnection(ClientConnection *connection);
    void restAccepting(const QString &why);
    void onFrameAnnounced(ClientConnection *connection, quint32 length);
    void onFrameReceived(ClientConnection *connection, const QByteArray &payload);
    void onClosed(ClientConnection *connection);
    void onDrained(ClientConnection *connection);
    void admitWaiting();
    void releasePending(qint64 bytes);
    void decodeNext(Peer &peer);
    void onDecoded(Peer &peer, RequestDecoder::Decoded decoded);
    void onUnreadable(Peer &peer, const RequestReader::Result &read);
    void dispatch(Peer &peer, Request request);
    // Sends a job on its way: to the digest pool first when its files are
    // to be read, then to a writer or the reader.
    void route(Peer &peer, DatabaseJob job);
    bool readsFiles(const DatabaseJob &job) const;
    void toDatabase(Peer &peer, DatabaseJob job);
    void onRead(DatabaseJob job);
    // Sends on, in order, the held jobs that need nothing more, and starts
    // the reading the first one waits for.
    void releaseWaiting(Peer &peer);
    void startServices();
    void finishUnanswered(Peer &peer);
    void updateHold(Peer &peer);
    void wakeHeldReads(const std::shared_ptr<ConnectionGate> &gate);
    void watchConnections();
    void traceRefused(const QString &text);

    void post(const std::function<void(Outbox &)> &fill);
    void drainOutbox();
    void deliver(const std::shared_ptr<std::vector<DatabaseAnswer>> &answers, bool fromWriter);
    void answer(Peer &peer, quint64 sequence, Reply reply);
    void sendInOrder(Peer &peer, const Reply &reply);
    // Numbers a request of the peer and notes when it arrived.
    quint64 startRequest(Peer &peer, const QString &command);
    static int replyCode(const Reply &reply);
    void notifyConverters(const NewGroupNotice &notice);
    DatabaseWorker &writerFor(quint64 connectionId);

    // Writing connections to a shared database.
    static constexpr int PostgresWriters = 4;

    ServerOptions m_options;
    // Binds and listens; the connections are taken by this server's own
    // accept loop, which rests instead of spinning when descriptors run out.
    QTcpServer m_listener;
    QSocketNotifier *m_acceptNotifier = nullptr;
    QTimer m_watch;
    // One on SQLite, which has one writer at a time. A shared database
    // takes changes from several connections at once and flushes their
    // commits together, while one connection waits for each of its commits
    // in turn: there each writer carries out the changes of a share of the
    // client connections, in their order, and the first also the moves.
    std::vector<std::unique_ptr<DatabaseWorker>> m_writers;
    std::unique_ptr<DatabaseWorker> m_reader;
    std::shared_ptr<SpoolFolder> m_spoolFolder;
    std::unique_ptr<GroupMover> m_mover;
    std::unique_ptr<GroupListener> m_listenerThread;
    std::unique_ptr<ParserPool> m_parsers;
    std::unique_ptr<DigestPool> m_digests;
    std::unique_ptr<FixityChecker> m_fixity;
    // Names this process among the servers sharing a database.
    QString m_instanceId;
    // Open files this process may have.
    int m_descriptorLimit;
    // Results on their way from the other threads to this one. Handed over
    // under a standard mutex, which thread checkers see, rather than inside
    // a queued call, which they cannot.
    std::mutex m_outboxMutex;
    Outbox m_outbox;
    QHash<quint64, Peer> m_peers;
    QHash<QString, int> m_connectionsPerAddress;
    quint64 m_nextConnectionId = 1;
    // Bytes of large frames being received or waiting to be decoded, and the
    // connections waiting for room among them, first come first served.
    qint64 m_pendingBytes = 0;
    std::deque<quint64> m_waitingForRoom;
    // Refused connections are traced at most once a second.
    QElapsedTimer m_lastRefusalTrace;
    int m_refusalsUntraced = 0;
    bool m_stopping = false;
    ServerMetrics m_metrics;
    std::unique_ptr<StorageUsage> m_storageUsage;
    std::unique_ptr<MetricsEndpoint> m_metricsEndpoint;
    // Health checks share one look at the database: its number (0 while
    // none is under way) and who waits for it.
    quint64 m_pingUnderWay = 0;
    quint64 m_lastPing = 0;
    std::vector<std::function<void(bool)>> m_healthWaiting;
    bool m_databaseUp = true;
    QElapsedTimer m_clock;
    QString m_error;
    int m_exitCode = ServerOptions::ExitOk;
};

} // namespace Kelda
