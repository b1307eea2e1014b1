#include "commandsendersocket.h"

#include "transporttimings.h"
#include "xmlseparator.h"

#include "cfgcenter.h"
#include "icfg.h"
#include "threadhandover.h"
#include "trace.h"

#include <QDate>
#include <QDateTime>
#include <QDir>
#include <QHostAddress>
#include <QSslError>
#include <QSslSocket>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>

#include <memory>
#include <new>

namespace Kelda {

namespace {

const char kTraceSource[] = "framework/kelda/keldaclient/src/commandsendersocket";

const QLatin1String kDataFolderKey("SulvaDataDir");
const QLatin1String kLoggingFolder("Logging");
const QLatin1String kLogMarkerFile("logkeldamessages.txt");

// Below the data folder whatever it is, even empty: an empty folder puts the
// log in the root's Logging folder rather than below the working directory.
QString loggingPath(const QString &dataFolder, const QString &fileName)
{
    return QDir::cleanPath(dataFolder + QDir::separator() + kLoggingFolder + QDir::separator() + fileName);
}

QString messageLogFileName()
{
    // The date of construction, not of the write: one file collects the day's
    // traffic of one socket, and keeps growing past midnight.
    return QStringLiteral("%1_%2_keldamessages.txt")
        .arg(QDate::currentDate().toString(QStringLiteral("yyyyMMdd")))
        .arg(quint64(reinterpret_cast<quintptr>(QThread::currentThreadId())));
}

QString addressText(const QHostAddress &address)
{
    return address.isNull() ? QString() : address.toString();
}

} // namespace

CommandSenderSocket::CommandSenderSocket(const QString &host, quint16 port, const ClientTls &tls)
    : m_sHost(host)
    , m_uPort(port)
    , m_tls(tls)
{
    setUpMessageLog();
    if (isSecure()) {
        QString error;
        m_bTlsUsable = m_tls.makeConfiguration(&m_sslConfiguration, &error);
        if (!m_bTlsUsable)
            Q_TRACE_FAILURE(kTraceSource, QStringLiteral("CommandSenderSocket: TLS cannot be used: %1").arg(error));
    }
    // Queued, so that the first attempt runs on the thread the owner moves
    // this object to before that thread's event loop turns.
    QMetaObject::invokeMethod(this, &CommandSenderSocket::sl_connect, Qt::QueuedConnection);
}

CommandSenderSocket::~CommandSenderSocket()
{
    // Deleted on its thread after the sender stopped it: what the sender did
    // before comes first.
    ThreadHandOver::acquire(this);
    if (m_messageLog.isOpen())
        m_messageLog.close();
    if (m_pReconnectTimer)
        m_pReconnectTimer->stop();
}

QString CommandSenderSocket::GetHost() const
{
    return m_sHost;
}

quint16 CommandSenderSocket::GetPort() const
{
    return m_uPort;
}

QString CommandSenderSocket::GetLocalAddress() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_sLocalAddress;
}

QString CommandSenderSocket::GetPeerAddress() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_sPeerAddress;
}

bool CommandSenderSocket::IsConnected() const
{
    return m_bConnected.load();
}

bool CommandSenderSocket::CheckIsConnected() const
{
    return m_bConnected.load() && m_pFramer.load() != nullptr;
}

void CommandSenderSocket::SetMaxFrameLength(quint32 bytes)
{
    m_uMaxFrameLength.store(bytes);
}

void CommandSenderSocket::PartRead(qint64 bytes)
{
    m_parts.PartRead(bytes);
}

void CommandSenderSocket::sl_sendMessage(const QByteArray &message)
{
    XmlSeparator *framer = m_pFramer.load();
    if (!framer || m_bAwaitingReply) {
        m_sendQueue.push_back(message);
        return;
    }
    if (!framer->sendXml(message)) {
        // A socket closed by a plain disconnection takes nothing. Awaiting a
        // reply to a request that never left would block every later one,
        // so the request waits at the front for the next connection.
        m_sendQueue.push_front(message);
        return;
    }
    m_bAwaitingReply = true;
    // Written now rather than when the event loop next polls the socket:
    // the request is on the wire one poll earlier.
    if (m_pSocket)
        m_pSocket->flush();
    if (m_bMessageLogOn)
        writeLogEntry(Direction::Sent, message);
}

void CommandSenderSocket::sl_handleNewMessage(const QByteArray &message)
{
    const bool parted = m_parts.HasParts();
    m_parts.Reset();
    if (m_bMessageLogOn)
        writeLogEntry(Direction::Received, message);
    m_bAwaitingReply = false;
    // Only an arriving message serves the queue. Requests queued while there
    // was no connection wait for the next reply, even after reconnecting.
    if (!m_sendQueue.empty() && m_pFramer.load()) {
        const QByteArray next = m_sendQueue.front();
        m_sendQueue.pop_front();
        sl_sendMessage(next);
    }
    if (parted)
        emit si_partedMessage(message);
    else
        emit si_newMessage(message);
}

void CommandSenderSocket::sl_handlePayloadArriving(const QByteArray &received)
{
    qint64 offset = 0;
    for (QByteArray part = m_parts.TakePart(received, &offset); !part.isEmpty();
         part = m_parts.TakePart(received, &offset))
        emit si_messagePart(part, offset);
}

void CommandSenderSocket::sl_handleXmlError(const QString &errorText)
{
    // The framer has stopped reading; recovery is the sender's decision.
    Q_TRACE_DETAIL(kTraceSource, QStringLiteral("CommandSenderSocket: XML Error: %1").arg(errorText));
}

void CommandSenderSocket::sl_handleFrameTooLarge(quint64 length)
{
    Q_TRACE_FAILURE(kTraceSource,
                    QStringLiteral("CommandSenderSocket: message of %1 bytes from %2 exceeds the limit of %3 bytes; "
                                   "closing the connection")
                        .arg(length)
                        .arg(GetPeerAddress())
                        .arg(m_uMaxFrameLength.load()));
    // Not from inside the framer's own signal: dropping the connection
    // deletes it.
    QMetaObject::invokeMethod(this, &CommandSenderSocket::sl_dropConnection, Qt::QueuedConnection);
}

void CommandSenderSocket::sl_dropConnection()
{
    // Reported as a disconnection, so that waiting calls end at once and the
    // reconnect timer starts; the socket is reused by the next attempt.
    deleteFramer();
    if (m_pSocket)
        m_pSocket->abort();
}

void CommandSenderSocket::sl_connect()
{
    if (!m_pReconnectTimer) {
        m_pReconnectTimer = new QTimer(this);
        m_pReconnectTimer->setInterval(TransportTimings::ReconnectIntervalMs());
        connect(m_pReconnectTimer, &QTimer::timeout, this, &CommandSenderSocket::sl_connect);
    }
    m_pReconnectTimer->stop();

    // A socket left by a plain disconnection is reused.
    if (!m_pSocket)
        m_pSocket = createSocket();
    if (!m_pSocket) {
        Q_TRACE_FAILURE(kTraceSource,
                        QStringLiteral("CommandSender::SlotConnect: Could not create socket for %1, %2!!! ")
                            .arg(m_sHost)
                            .arg(m_uPort));
        return;
    }

    if (isSecure()) {
        // Without its files a TLS client must not fall back to plain TCP.
        if (!m_bTlsUsable) {
            startReconnectTimer();
            return;
        }
        auto *secure = static_cast<QSslSocket *>(m_pSocket);
        secure->setSslConfiguration(m_sslConfiguration);
        secure->connectToHostEncrypted(m_sHost, m_uPort, QIODevice::ReadWrite, QAbstractSocket::AnyIPProtocol);
    } else {
        m_pSocket->connectToHost(m_sHost, m_uPort, QIODevice::ReadWrite, QAbstractSocket::AnyIPProtocol);
    }
    if (!m_pSocket) {
        // An error reported from inside connectToHost has closed the socket.
        Q_TRACE_FAILURE(kTraceSource,
                        QStringLiteral("Probably you're trying to connect to the wrong host (%1) and port (%2)")
                            .arg(m_sHost)
                            .arg(m_uPort));
        return;
    }
    m_pSocket->setReadBufferSize(0);

    deleteFramer();
    auto *framer = new XmlSeparator(m_pSocket, XmlSeparator::LittleEndianMode, m_pSocket);
    framer->setMaxFrameLength(m_uMaxFrameLength.load());
    connect(framer, &XmlSeparator::xmlReceived, this, &CommandSenderSocket::sl_handleNewMessage);
    connect(framer, &XmlSeparator::errorOccured, this, &CommandSenderSocket::sl_handleXmlError);
    connect(framer, &XmlSeparator::frameTooLarge, this, &CommandSenderSocket::sl_handleFrameTooLarge);
    connect(framer, &XmlSeparator::payloadArriving, this, &CommandSenderSocket::sl_handlePayloadArriving,
            Qt::DirectConnection);
    m_pFramer.store(framer);
}

void CommandSenderSocket::sl_connected()
{
    m_bConnected.store(true);
    m_iLastSocketError = -2;
    updateAddresses();
    emit si_connected();
}

void CommandSenderSocket::sl_disconnected()
{
    m_bConnected.store(false);
    m_bAwaitingReply = false;
    startReconnectTimer();
    emit si_disconnected();
}

void CommandSenderSocket::sl_handleTcpError(QAbstractSocket::SocketError)
{
    // Each reconnection attempt repeats the error of the last one; only a
    // change is worth a trace line.
    if (m_pSocket && m_pSocket->error() != m_iLastSocketError) {
        m_iLastSocketError = m_pSocket->error();
        Q_TRACE_FAILURE(kTraceSource,
                        QStringLiteral("CommandSender::HandleTcpError: %1").arg(m_pSocket->errorString()));
    }
    m_bAwaitingReply = false;
    closeConnection();
    startReconnectTimer();
}

void CommandSenderSocket::sl_stateChanged(QAbstractSocket::SocketState state)
{
    // Over TLS the connection is made once the handshake is.
    const bool secured = !isSecure() || (m_pSocket && static_cast<QSslSocket *>(m_pSocket)->isEncrypted());
    m_bConnected.store(m_pSocket && m_pSocket->isValid() && state == QAbstractSocket::ConnectedState && secured);
    updateAddresses();
}

void CommandSenderSocket::sl_handleSslErrors(const QList<QSslError> &errors)
{
    QStringList reasons;
    for (const QSslError &error : errors)
        reasons.append(error.errorString());
    Q_TRACE_FAILURE(kTraceSource,
                    QStringLiteral("CommandSenderSocket: the server %1:%2 is not trusted: %3")
                        .arg(m_sHost)
                        .arg(m_uPort)
                        .arg(reasons.join(QLatin1String("; "))));
    // The error that follows the refused handshake closes the connection
    // and starts the reconnect timer as for any failure.
}

QTcpSocket *CommandSenderSocket::createSocket()
{
    QTcpSocket *socket = isSecure() ? new (std::nothrow) QSslSocket(this) : new (std::nothrow) QTcpSocket(this);
    if (!socket)
        return nullptr;
    if (isSecure()) {
        auto *secure = static_cast<QSslSocket *>(socket);
        connect(secure, &QSslSocket::encrypted, this, &CommandSenderSocket::sl_connected);
        connect(secure, qOverload<const QList<QSslError> &>(&QSslSocket::sslErrors), this,
                &CommandSenderSocket::sl_handleSslErrors);
    } else {
        connect(socket, &QTcpSocket::connected, this, &CommandSenderSocket::sl_connected);
    }
    connect(socket, &QTcpSocket::disconnected, this, &CommandSenderSocket::sl_disconnected);
    connect(socket, &QTcpSocket::errorOccurred, this, &CommandSenderSocket::sl_handleTcpError);
    connect(socket, &QTcpSocket::stateChanged, this, &CommandSenderSocket::sl_stateChanged);
    return socket;
}

void CommandSenderSocket::setUpMessageLog()
{
    const std::unique_ptr<ICfg> adminCfg(CfgCenter::GetAdminCfg(CfgCenter::ViewAdmin));
    const QString dataFolder = adminCfg ? adminCfg->GetString(kDataFolderKey, QString()) : QString();
    if (!QFile::exists(loggingPath(dataFolder, kLogMarkerFile)))
        return;

    m_bMessageLogOn = true;
    m_messageLog.setFileName(loggingPath(dataFolder, messageLogFileName()));
    if (!m_messageLog.open(QIODevice::WriteOnly | QIODevice::Append))
        Q_TRACE_DETAIL(kTraceSource, QStringLiteral("Could not open kelda message log"));
}

void CommandSenderSocket::writeLogEntry(Direction direction, const QByteArray &message)
{
    if (!m_messageLog.isOpen() || !m_messageLog.isWritable())
        return;
    const QString timeStamp = QDateTime::currentDateTime().toString(QStringLiteral("dd.MM.yyyy T hh:mm:ss.zzz"));
    const QString local = liveLocalAddress();
    const QString peer = livePeerAddress();
    const QString header = direction == Direction::Sent
        ? QStringLiteral("\n\n%1: TX ('%2' -> '%3')\n").arg(timeStamp, local, peer)
        : QStringLiteral("\n\n%1: RX ('%2' -> '%3')\n").arg(timeStamp, peer, local);
    writeLogPiece(header);
    writeLogPiece(QString::fromUtf8(message));
}

void CommandSenderSocket::writeLogPiece(const QString &text)
{
    m_messageLog.write(text.toLatin1());
    m_messageLog.flush();
}

void CommandSenderSocket::closeConnection()
{
    deleteFramer();
    if (m_pSocket) {
        QTcpSocket *socket = m_pSocket;
        if (socket->isValid())
            socket->disconnectFromHost();
        // The socket's own signals stay connected until it is gone, so that
        // the disconnection above is still reported.
        disconnect(this, nullptr, socket, nullptr);
        socket->deleteLater();
        m_pSocket = nullptr;
    }
    updateAddresses();
}

void CommandSenderSocket::startReconnectTimer()
{
    if (m_pReconnectTimer)
        m_pReconnectTimer->start();
    else
        Q_TRACE_DETAIL(kTraceSource, QStringLiteral("CommandSenderSocket: no reconnect timer!"));
}

void CommandSenderSocket::deleteFramer()
{
    m_parts.Reset();
    XmlSeparator *framer = m_pFramer.exchange(nullptr);
    if (!framer)
        return;
    disconnect(this, nullptr, framer, nullptr);
    delete framer;
}

void CommandSenderSocket::updateAddresses()
{
    const bool known = m_pSocket && m_pSocket->isValid();
    const QString local = known ? addressText(m_pSocket->localAddress()) : QString();
    const QString peer = known ? addressText(m_pSocket->peerAddress()) : QString();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sLocalAddress = local;
    m_sPeerAddress = peer;
}

QString CommandSenderSocket::liveLocalAddress() const
{
    if (!m_pSocket || m_pSocket->state() != QAbstractSocket::ConnectedState)
        return QString();
    return m_pSocket->localAddress().toString();
}

QString CommandSenderSocket::livePeerAddress() const
{
    if (!m_pSocket || m_pSocket->state() != QAbstractSocket::ConnectedState)
        return QString();
    return m_pSocket->peerAddress().toString();
}

} // namespace Kelda
