#pragma once

#include <QAbstractSocket>
#include <QByteArray>
#include <QFile>
#include <QObject>
#include <QSslConfiguration>
#include <QString>

#include "clienttls.h"
#include "replyparts.h"
#include "xmlseparator.h"

#include <atomic>
#include <deque>
#include <mutex>

class QSslError;
class QTcpSocket;
class QTimer;

namespace Kelda {

// Owns the one TCP connection to the archive server.
//
// Connects on its own and reconnects every 5000 ms after a failure, frames
// traffic with a little-endian length-prefixed XmlSeparator, hands a query
// answer on in parts while it arrives (ReplyParts), keeps at most
// one request on the wire (later ones wait in a queue that is served when a
// message arrives) and, when the marker file <data folder>/Logging/
// logkeldamessages.txt exists, logs every message sent and received.
//
// Lives on the socket thread: every slot runs there and is reached from
// other threads by queued calls only. The plain queries may be called from
// any thread.
class CommandSenderSocket : public QObject
{
    Q_OBJECT

public:
    // With tls enabled, the connection is TLS: it counts as made once the
    // handshake verified the server against the authority.
    CommandSenderSocket(const QString &host, quint16 port, const ClientTls &tls = ClientTls());
    ~CommandSenderSocket() override;

    QString GetHost() const;
    quint16 GetPort() const;
    // The socket's addresses as text; empty while not known.
    QString GetLocalAddress() const;
    QString GetPeerAddress() const;
    // The socket reports the connected state.
    bool IsConnected() const;
    // Connected and able to send: the test made before a request is issued.
    bool CheckIsConnected() const;

    // The longest message taken from the server; a longer one closes the
    // connection, which is then made again as after any failure. Applies
    // from the next connection attempt.
    void SetMaxFrameLength(quint32 bytes);
    // The receiver of si_messagePart has read that many bytes of parts.
    // Thread-safe.
    void PartRead(qint64 bytes);

Q_SIGNALS:
    void si_newMessage(const QByteArray &message);
    // The first bytes of a message still arriving, from offset on; offset 0
    // starts a message. Its last part is followed by si_partedMessage, or,
    // when the connection is lost first, by no message at all.
    void si_messagePart(const QByteArray &part, qint64 offset);
    // A message some of whose first bytes came as parts, whole.
    void si_partedMessage(const QByteArray &message);
    void si_connected();
    void si_disconnected();

public Q_SLOTS:
    void sl_sendMessage(const QByteArray &message);

private Q_SLOTS:
    void sl_handleNewMessage(const QByteArray &message);
    void sl_handlePayloadArriving(const QByteArray &received);
    void sl_handleXmlError(const QString &errorText);
    void sl_handleFrameTooLarge(quint64 length);
    void sl_dropConnection();
    void sl_connect();
    void sl_connected();
    void sl_disconnected();
    void sl_handleTcpError(QAbstractSocket::SocketError error);
    void sl_stateChanged(QAbstractSocket::SocketState state);
    void sl_handleSslErrors(const QList<QSslError> &errors);

private:
    enum class Direction { Sent, Received };

    QTcpSocket *createSocket();
    bool isSecure() const { return m_tls.isEnabled(); }
    void setUpMessageLog();
    void writeLogEntry(Direction direction, const QByteArray &message);
    void writeLogPiece(const QString &text);
    void closeConnection();
    void startReconnectTimer();
    void deleteFramer();
    void updateAddresses();
    QString liveLocalAddress() const;
    QString livePeerAddress() const;

    std::deque<QByteArray> m_sendQueue;
    bool m_bAwaitingReply = false;
    std::atomic<XmlSeparator *> m_pFramer{nullptr};
    ReplyParts m_parts;
    QTcpSocket *m_pSocket = nullptr;
    int m_iLastSocketError = -2;
    std::atomic<bool> m_bConnected{false};
    std::atomic<quint32> m_uMaxFrameLength{XmlSeparator::DefaultMaxFrameLength};
    QTimer *m_pReconnectTimer = nullptr;
    bool m_bMessageLogOn = false;
    QFile m_messageLog;
    // Guards the address texts, which other threads read.
    mutable std::mutex m_mutex;
    const QString m_sHost;
    const quint16 m_uPort;
    const ClientTls m_tls;
    // Made once from the files; a TLS client without it cannot connect.
    QSslConfiguration m_sslConfiguration;
    bool m_bTlsUsable = false;
    QString m_sLocalAddress;
    QString m_sPeerAddress;
};

} // namespace Kelda
