#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

class QTcpSocket;
class XmlSeparator;

namespace Kelda {

// One client's TCP connection: frames its messages, hands them on and
// writes replies. Writing never blocks; when a client stops reading its
// replies, its reading is paused until the backlog drains, so that it can
// neither stall nor flood the server.
class ClientConnection : public QObject
{
    Q_OBJECT

public:
    ClientConnection(quint64 id, QTcpSocket *socket, quint32 maxFrame, QObject *parent = nullptr);
    ~ClientConnection() override;

    quint64 id() const { return m_id; }
    QString peer() const { return m_peer; }
    QString localAddress() const;

    void send(const QByteArray &document);
    // Stops taking requests from the client while it has too many under
    // way; the socket keeps them until reading resumes.
    void setHoldingRequests(bool hold);
    // Writes what the socket can take now, without waiting.
    void flush();
    void close();

    // Unsent reply bytes above which reading from the client pauses.
    static constexpr qint64 MaxBacklog = 64 * 1024 * 1024;

Q_SIGNALS:
    void messageReceived(Kelda::ClientConnection *connection, const QByteArray &message);
    void closed(Kelda::ClientConnection *connection);

private:
    void onBytesWritten();
    void updateReading();
    void onFrameTooLarge(quint64 announced);

    const quint64 m_id;
    QTcpSocket *m_socket;
    XmlSeparator *m_framer;
    QString m_peer;
    bool m_backlogged = false;
    bool m_holding = false;
    bool m_reading = true;
    bool m_closed = false;
};

} // namespace Kelda
