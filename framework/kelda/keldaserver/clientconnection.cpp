#include "clientconnection.h"

#include "xmlseparator.h"

#include <trace.h>

#include <QHostAddress>
#include <QTcpSocket>

namespace Kelda {

namespace {
const char kSource[] = "framework/kelda/keldaserver/clientconnection";
}

ClientConnection::ClientConnection(quint64 id, QTcpSocket *socket, quint32 maxFrame, QObject *parent)
    : QObject(parent)
    , m_id(id)
    , m_socket(socket)
    , m_framer(new XmlSeparator(socket, XmlSeparator::LittleEndianMode, this))
    , m_peer(QStringLiteral("%1:%2").arg(socket->peerAddress().toString()).arg(socket->peerPort()))
{
    socket->setParent(this);
    // Answers are small and each one is awaited: never hold one back.
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    m_framer->setMaxFrameLength(maxFrame);
    connect(m_framer, &XmlSeparator::xmlReceived, this,
            [this](const QByteArray &message) { emit messageReceived(this, message); });
    connect(m_framer, &XmlSeparator::frameTooLarge, this, &ClientConnection::onFrameTooLarge);
    connect(socket, &QTcpSocket::bytesWritten, this, &ClientConnection::onBytesWritten);
    connect(socket, &QTcpSocket::disconnected, this, [this] {
        if (!m_closed) {
            m_closed = true;
            emit closed(this);
        }
    });
    Q_TRACE_DETAIL(kSource, QStringLiteral("Client %1 connected").arg(m_peer));
}

ClientConnection::~ClientConnection() = default;

QString ClientConnection::localAddress() const
{
    return m_socket->localAddress().toString();
}

void ClientConnection::send(const QByteArray &document)
{
    if (m_closed || m_socket->state() != QAbstractSocket::ConnectedState)
        return;
    m_framer->sendXml(document);
    if (!m_backlogged && m_socket->bytesToWrite() > MaxBacklog) {
        m_backlogged = true;
        Q_TRACE_DETAIL(kSource, QStringLiteral("Client %1 reads too slowly; pausing its requests").arg(m_peer));
        updateReading();
    }
}

void ClientConnection::setHoldingRequests(bool hold)
{
    m_holding = hold;
    updateReading();
}

void ClientConnection::onBytesWritten()
{
    if (m_backlogged && m_socket->bytesToWrite() < MaxBacklog / 2) {
        m_backlogged = false;
        updateReading();
    }
}

void ClientConnection::updateReading()
{
    const bool read = !m_backlogged && !m_holding;
    if (read == m_reading || m_closed)
        return;
    m_reading = read;
    if (read)
        m_framer->resume();
    else
        m_framer->pause();
}

void ClientConnection::onFrameTooLarge(quint64 announced)
{
    Q_TRACE_FAILURE(kSource, QStringLiteral("Client %1 announced a message of %2 bytes, over the limit; closing "
                                            "its connection")
                                 .arg(m_peer)
                                 .arg(announced));
    close();
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
    m_socket->abort();
    emit closed(this);
}

} // namespace Kelda
