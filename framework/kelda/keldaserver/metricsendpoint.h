#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QTcpServer>

#include <functional>

class QTcpSocket;

namespace Kelda {

// The server's monitoring port: GET /metrics answers the Prometheus text,
// GET /healthz 200 while the database answers and 503 when it does not.
// Nothing else: other methods, paths and malformed requests are refused
// with their status and the connection closed. Every connection is short:
// one request of at most 4 KiB within 5 seconds, and at most 16 at once.
class MetricsEndpoint : public QObject
{
    Q_OBJECT

public:
    using Render = std::function<QByteArray()>;
    // Asks the database and calls back, on this thread, with the answer.
    using HealthCheck = std::function<void(std::function<void(bool)>)>;

    MetricsEndpoint(Render render, HealthCheck health, QObject *parent = nullptr);

    bool listen(const QHostAddress &address, quint16 port, QString *error);
    quint16 port() const { return m_server.serverPort(); }
    QHostAddress address() const { return m_server.serverAddress(); }

    static constexpr int MaxConnections = 16;
    static constexpr int RequestTimeoutMs = 5000;

private:
    void accept();
    void serve(QTcpSocket *socket);
    void respond(QTcpSocket *socket, int status, const QByteArray &body,
                 const QByteArray &contentType = QByteArrayLiteral("text/plain; charset=utf-8"));

    Render m_render;
    HealthCheck m_health;
    QTcpServer m_server;
    int m_open = 0;
};

} // namespace Kelda
