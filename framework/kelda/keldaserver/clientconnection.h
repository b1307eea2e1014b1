#pragma once

#include "connectiongate.h"
#include "framereader.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QString>

#include <deque>
#include <memory>

class QSslError;
class QSslSocket;
class QTcpSocket;

namespace Kelda {

class AnswerSpool;
class ServerTls;

// One client's TCP connection: collects its frames and writes its answers.
//
// Nothing a client does makes it hold more than its share: Qt's read buffer
// is bounded, so bytes not yet wanted stay in the socket; a frame's payload
// is read only after the owner admitted its announced length; reading pauses
// while the owner holds the connection (too many requests under way) or
// while answers pile up unread (the backlog). Writing never blocks, and a
// spooled answer goes to the socket a piece at a time as the client takes
// it, so that the connection holds little of it in memory.
class ClientConnection : public QObject
{
    Q_OBJECT

public:
    struct Limits
    {
        quint32 maxFrame = 0;
        qint64 maxBacklog = 0;
    };

    // With tls, the socket is a QSslSocket; nothing is read before its
    // handshake is done.
    ClientConnection(quint64 id, QTcpSocket *socket, const Limits &limits, const ServerTls *tls,
                     QObject *parent = nullptr);
    ~ClientConnection() override;

    quint64 id() const { return m_id; }
    // "address:port", for traces.
    QString peer() const { return m_peer; }
    // The client's address alone, as requests and limits count it.
    QString peerAddress() const { return m_peerAddress; }
    // The address the client reached the server at.
    QString localAddress() const { return m_localAddress; }
    qintptr descriptor() const;
    // The user the client's certificate names; empty without one.
    QString certificateUser() const { return m_certificateUser; }
    // How long a TLS handshake has been under way; -1 when none is.
    qint64 handshakeFor() const;
    const std::shared_ptr<ConnectionGate> &gate() const { return m_gate; }

    // Frames the answer with its length and queues it on the socket.
    void send(const QByteArray &document);
    // The same for an answer in a spool, which is let go once sent or once
    // the connection closes.
    void send(std::shared_ptr<AnswerSpool> spool);
    // Lets the frame announced by frameAnnounced() be read.
    void admitFrame();
    // While held, no further frame is read.
    void setHeld(bool held);
    // Reads on: the backlog may have shrunk since the last look.
    void resumeReading();
    // Writes what the socket can take now, without waiting.
    void flush();
    // Aborts the connection; closed() follows once.
    void close();
    bool isClosed() const { return m_closed; }

    // For the owner's watch over slow, silent and stuck clients, in ms.
    qint64 idleFor() const { return m_sinceReceived.elapsed(); }
    // How long the frame being received has been under way while this
    // server was reading; -1 when no frame is under way.
    qint64 frameUnderWayFor() const;
    // How long answers above the backlog limit have waited without a byte
    // taken by the client; -1 when the backlog is within the limit.
    qint64 stalledFor() const;
    bool hasUnsentAnswers() const { return m_gate->unsent.load(std::memory_order_relaxed) > 0; }

    // Frames taken from one connection before others get their turn.
    static constexpr int FramesPerTurn = 16;
    // Bytes Qt may buffer from the socket ahead of the frame reader.
    static constexpr qint64 ReadBufferSize = 64 * 1024;
    // Below this many unsent bytes in the socket, the next piece of a
    // spooled answer (as large) is read from disk.
    static constexpr qint64 SpoolFeedBytes = 256 * 1024;

Q_SIGNALS:
    // Direct connections: the owner answers admitFrame() now or later.
    void frameAnnounced(Kelda::ClientConnection *connection, quint32 length);
    void frameReceived(Kelda::ClientConnection *connection, const QByteArray &payload);
    // The backlog fell below half the limit again.
    void drained(Kelda::ClientConnection *connection);
    void closed(Kelda::ClientConnection *connection);

private:
    void startEncryption(const ServerTls &tls);
    void onEncrypted();
    void onSslErrors(const QList<QSslError> &errors);
    void onSocketError();
    void readFrames();
    void scheduleRead();
    bool mayRead() const;
    void onBytesWritten();
    void updateUnsent();
    void writeFramed(const QByteArray &document);
    void writeLength(qint64 length);
    // Hands queued answers to the socket while it holds few bytes.
    void feed();
    // Bytes the socket holds unsent, encrypted ones included.
    qint64 socketBacklog() const;
    void dropQueued();

    // An answer waiting behind a spooled one that is being sent.
    struct Queued
    {
        QByteArray document;
        std::shared_ptr<AnswerSpool> spool;
        bool started = false;
    };

    const quint64 m_id;
    QTcpSocket *m_socket;
    QSslSocket *m_secure = nullptr;
    const std::shared_ptr<ConnectionGate> m_gate;
    std::deque<Queued> m_queue;
    // Bytes of m_queue not yet handed to the socket, length prefixes
    // included.
    qint64 m_queuedBytes = 0;
    FrameReader m_reader;
    QString m_peerAddress;
    QString m_peer;
    QString m_localAddress;
    QElapsedTimer m_sinceReceived;
    QElapsedTimer m_frameUnderWay;
    QElapsedTimer m_sinceWritten;
    QElapsedTimer m_handshake;
    QString m_certificateUser;
    bool m_identifiesClients = false;
    bool m_backlogged = false;
    bool m_held = false;
    bool m_inRead = false;
    bool m_readScheduled = false;
    bool m_announced = false;
    bool m_closed = false;
};

} // namespace Kelda
