#include "clientconnection.h"

#include <trace.h>

#include "answerspool.h"
#include "servertls.h"

#include <QHostAddress>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTimer>
#include <QtEndian>

namespace Kelda {

namespace {
const char kSource[] = "framework/kelda/keldaserver/clientconnection";
}

ClientConnection::ClientConnection(quint64 id, QTcpSocket *socket, const Limits &limits, const ServerTls *tls,
                                   QObject *parent)
    : QObject(parent)
    , m_id(id)
    , m_socket(socket)
    , m_gate(std::make_shared<ConnectionGate>(limits.maxBacklog))
    , m_reader(limits.maxFrame)
    , m_peerAddress(socket->peerAddress().toString())
    , m_peer(QStringLiteral("%1:%2").arg(m_peerAddress).arg(socket->peerPort()))
    , m_localAddress(socket->localAddress().toString())
{
    socket->setParent(this);
    socket->setReadBufferSize(ReadBufferSize);
    // Answers are small and each one is awaited: never hold one back.
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    m_sinceReceived.start();
    m_sinceWritten.start();
    connect(socket, &QTcpSocket::readyRead, this, [this] {
        m_sinceReceived.start();
        readFrames();
    });
    connect(socket, &QTcpSocket::bytesWritten, this, &ClientConnection::onBytesWritten);
    connect(socket, &QTcpSocket::disconnected, this, [this] {
        if (!m_closed) {
            m_closed = true;
            m_gate->closed = true;
            dropQueued();
            emit closed(this);
        }
    });
    Q_TRACE_DETAIL(kSource, QStringLiteral("Client %1 connected").arg(m_peer));
    if (tls && tls->isEnabled())
        startEncryption(*tls);
}

void ClientConnection::startEncryption(const ServerTls &tls)
{
    auto *secure = qobject_cast<QSslSocket *>(m_socket);
    if (!secure) {
        close();
        return;
    }
    m_secure = secure;
    m_identifiesClients = tls.identifiesClients();
    m_handshake.start();
    // Encrypting moves the bytes into a buffer of their own: the socket
    // drains only once those are written.
    connect(secure, &QSslSocket::encryptedBytesWritten, this, &ClientConnection::onBytesWritten);
    secure->setSslConfiguration(tls.configuration());
    connect(secure, &QSslSocket::encrypted, this, &ClientConnection::onEncrypted);
    connect(secure, qOverload<const QList<QSslError> &>(&QSslSocket::sslErrors), this, &ClientConnection::onSslErrors);
    connect(secure, &QAbstractSocket::errorOccurred, this, &ClientConnection::onSocketError);
    secure->startServerEncryption();
}

void ClientConnection::onEncrypted()
{
    m_handshake.invalidate();
    auto *secure = qobject_cast<QSslSocket *>(m_socket);
    if (m_identifiesClients) {
        m_certificateUser = ServerTls::userOf(secure->peerCertificate());
        if (m_certificateUser.isEmpty()) {
            Q_TRACE_FAILURE(kSource,
                            QStringLiteral("Client %1 shows a certificate without a common name; closing "
                                           "its connection")
                                .arg(m_peer));
            close();
            return;
        }
    }
    Q_TRACE_DETAIL(kSource,
                   QStringLiteral("Client %1 is encrypted%2")
                       .arg(m_peer,
                            m_certificateUser.isEmpty() ? QString() : QStringLiteral(" as %1").arg(m_certificateUser)));
    resumeReading();
}

void ClientConnection::onSslErrors(const QList<QSslError> &errors)
{
    QStringList reasons;
    for (const QSslError &error : errors)
        reasons.append(error.errorString());
    Q_TRACE_FAILURE(kSource,
                    QStringLiteral("Client %1 refused: its certificate does not verify: %2")
                        .arg(m_peer, reasons.join(QLatin1String("; "))));
    close();
}

void ClientConnection::onSocketError()
{
    if (!m_handshake.isValid() || m_closed)
        return;
    Q_TRACE_FAILURE(kSource,
                    QStringLiteral("TLS handshake with client %1 failed: %2").arg(m_peer, m_socket->errorString()));
    close();
}

qint64 ClientConnection::handshakeFor() const
{
    return m_handshake.isValid() ? m_handshake.elapsed() : -1;
}

ClientConnection::~ClientConnection() = default;

qintptr ClientConnection::descriptor() const
{
    return m_socket->socketDescriptor();
}

void ClientConnection::send(const QByteArray &document)
{
    if (m_closed || m_socket->state() != QAbstractSocket::ConnectedState)
        return;
    if (m_queue.empty()) {
        writeFramed(document);
    } else {
        m_queue.push_back({document, nullptr});
        m_queuedBytes += sizeof(quint32) + document.size();
    }
    updateUnsent();
}

void ClientConnection::send(std::shared_ptr<AnswerSpool> spool)
{
    if (m_closed || m_socket->state() != QAbstractSocket::ConnectedState)
        return;
    m_queuedBytes += sizeof(quint32) + spool->remaining();
    m_queue.push_back({QByteArray(), std::move(spool)});
    feed();
}

void ClientConnection::writeFramed(const QByteArray &document)
{
    writeLength(document.size());
    m_socket->write(document);
}

void ClientConnection::writeLength(qint64 length)
{
    uchar prefix[sizeof(quint32)];
    qToLittleEndian<quint32>(quint32(length), prefix);
    if (!socketBacklog())
        m_sinceWritten.start();
    m_socket->write(reinterpret_cast<const char *>(prefix), sizeof prefix);
}

void ClientConnection::feed()
{
    while (!m_queue.empty() && socketBacklog() < SpoolFeedBytes) {
        Queued &next = m_queue.front();
        if (!next.spool) {
            m_queuedBytes -= sizeof(quint32) + next.document.size();
            writeFramed(next.document);
            m_queue.pop_front();
            continue;
        }
        if (!next.started) {
            writeLength(next.spool->size());
            m_queuedBytes -= sizeof(quint32);
            next.started = true;
        }
        const QByteArray piece = next.spool->read(SpoolFeedBytes);
        if (piece.isEmpty()) {
            // Half an answer cannot be taken back: the client must start
            // over on a new connection.
            Q_TRACE_FAILURE(
                kSource,
                QStringLiteral("%1; closing the connection of client %2").arg(next.spool->errorString(), m_peer));
            close();
            return;
        }
        m_socket->write(piece);
        m_queuedBytes -= piece.size();
        if (next.spool->remaining() == 0)
            m_queue.pop_front();
    }
    updateUnsent();
}

qint64 ClientConnection::socketBacklog() const
{
    return m_socket->bytesToWrite() + (m_secure ? m_secure->encryptedBytesToWrite() : 0);
}

void ClientConnection::dropQueued()
{
    m_queue.clear();
    m_queuedBytes = 0;
}

void ClientConnection::updateUnsent()
{
    m_gate->unsent.store(socketBacklog() + m_queuedBytes, std::memory_order_relaxed);
    if (!m_backlogged && m_gate->overBacklog()) {
        m_backlogged = true;
        m_sinceWritten.start();
        Q_TRACE_DETAIL(kSource, QStringLiteral("Client %1 reads too slowly; pausing its requests").arg(m_peer));
    }
}

void ClientConnection::onBytesWritten()
{
    m_sinceWritten.start();
    feed();
    if (m_backlogged && m_gate->backlog() < m_gate->maxBacklog / 2) {
        m_backlogged = false;
        emit drained(this);
        resumeReading();
    }
}

void ClientConnection::admitFrame()
{
    if (!m_reader.awaitsAdmission())
        return;
    m_reader.admit();
    m_frameUnderWay.start();
    resumeReading();
}

void ClientConnection::setHeld(bool held)
{
    if (held == m_held)
        return;
    m_held = held;
    if (!held)
        resumeReading();
}

void ClientConnection::resumeReading()
{
    // What Qt buffered before the pause raises no further readyRead.
    if (mayRead())
        scheduleRead();
}

bool ClientConnection::mayRead() const
{
    return !m_closed && !m_held && !m_handshake.isValid() && !m_reader.awaitsAdmission() && !m_gate->overBacklog();
}

void ClientConnection::scheduleRead()
{
    if (m_readScheduled)
        return;
    m_readScheduled = true;
    QTimer::singleShot(0, this, [this] {
        m_readScheduled = false;
        readFrames();
    });
}

qint64 ClientConnection::frameUnderWayFor() const
{
    // Time the server itself kept the frame waiting does not count.
    if (!m_reader.inFrame() || m_reader.awaitsAdmission() || !mayRead())
        return -1;
    return m_frameUnderWay.isValid() ? m_frameUnderWay.elapsed() : -1;
}

qint64 ClientConnection::stalledFor() const
{
    return m_backlogged ? m_sinceWritten.elapsed() : -1;
}

void ClientConnection::readFrames()
{
    if (m_inRead)
        return;
    m_inRead = true;
    int frames = 0;
    while (mayRead()) {
        const bool wasInFrame = m_reader.inFrame();
        const FrameReader::Step step = m_reader.read(*m_socket);
        if (!wasInFrame && m_reader.inFrame())
            m_frameUnderWay.start();
        if (step == FrameReader::Step::NeedData)
            break;
        if (step == FrameReader::Step::TooLarge) {
            Q_TRACE_FAILURE(kSource,
                            QStringLiteral("Client %1 announced a message of %2 bytes, over the limit; "
                                           "closing its connection")
                                .arg(m_peer)
                                .arg(m_reader.announcedLength()));
            close();
            break;
        }
        if (step == FrameReader::Step::Announced) {
            // The owner admits at once or once there is room; reading
            // goes on from admitFrame().
            emit frameAnnounced(this, m_reader.announcedLength());
            continue;
        }
        emit frameReceived(this, m_reader.takeFrame());
        if (++frames == FramesPerTurn) {
            scheduleRead();
            break;
        }
    }
    m_inRead = false;
}

void ClientConnection::flush()
{
    m_socket->flush();
}

void ClientConnection::close()
{
    if (m_closed)
        return;
    m_closed = true;
    m_gate->closed = true;
    dropQueued();
    m_socket->abort();
    emit closed(this);
}

} // namespace Kelda
