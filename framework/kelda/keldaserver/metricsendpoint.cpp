#include "metricsendpoint.h"

#include "httprequestreader.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

#include <memory>

namespace Kelda {

namespace {

QByteArray reason(int status)
{
    switch (status) {
    case 200:
        return QByteArrayLiteral("OK");
    case 400:
        return QByteArrayLiteral("Bad Request");
    case 404:
        return QByteArrayLiteral("Not Found");
    case 405:
        return QByteArrayLiteral("Method Not Allowed");
    case 431:
        return QByteArrayLiteral("Request Header Fields Too Large");
    case 503:
        return QByteArrayLiteral("Service Unavailable");
    case 505:
        return QByteArrayLiteral("HTTP Version Not Supported");
    default:
        return QByteArrayLiteral("Error");
    }
}

} // namespace

MetricsEndpoint::MetricsEndpoint(Render render, HealthCheck health, QObject *parent)
    : QObject(parent)
    , m_render(std::move(render))
    , m_health(std::move(health))
{
    connect(&m_server, &QTcpServer::newConnection, this, &MetricsEndpoint::accept);
}

bool MetricsEndpoint::listen(const QHostAddress &address, quint16 port, QString *error)
{
    if (m_server.listen(address, port))
        return true;
    *error = QStringLiteral("Cannot serve metrics on %1:%2: %3")
                 .arg(address.toString())
                 .arg(port)
                 .arg(m_server.errorString());
    return false;
}

void MetricsEndpoint::accept()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        if (m_open >= MaxConnections) {
            socket->abort();
            socket->deleteLater();
            continue;
        }
        ++m_open;
        serve(socket);
    }
}

void MetricsEndpoint::serve(QTcpSocket *socket)
{
    socket->setParent(this);
    socket->setReadBufferSize(HttpRequestReader::MaxHeadBytes + 1);
    auto reader = std::make_shared<HttpRequestReader>();
    auto *timeout = new QTimer(socket);
    timeout->setSingleShot(true);
    connect(timeout, &QTimer::timeout, socket, &QTcpSocket::abort);
    timeout->start(RequestTimeoutMs);
    connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
        --m_open;
        socket->deleteLater();
    });
    connect(socket, &QTcpSocket::readyRead, this, [this, socket, reader] {
        if (reader->state() != HttpRequestReader::State::NeedMore)
            return;
        switch (reader->feed(socket->readAll())) {
        case HttpRequestReader::State::NeedMore:
            return;
        case HttpRequestReader::State::Refused:
            respond(socket, reader->status(), reason(reader->status()) + '\n');
            return;
        case HttpRequestReader::State::Complete:
            break;
        }
        if (reader->path() == "/metrics") {
            respond(socket, 200, m_render(), QByteArrayLiteral("text/plain; version=0.0.4; charset=utf-8"));
        } else if (reader->path() == "/healthz") {
            QPointer<QTcpSocket> alive(socket);
            m_health([this, alive](bool up) {
                if (alive)
                    respond(alive, up ? 200 : 503,
                            up ? QByteArrayLiteral("ok\n") : QByteArrayLiteral("database unreachable\n"));
            });
        } else {
            respond(socket, 404, reason(404) + '\n');
        }
    });
}

void MetricsEndpoint::respond(QTcpSocket *socket, int status, const QByteArray &body, const QByteArray &contentType)
{
    QByteArray response = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reason(status) +
        "\r\nContent-Type: " + contentType + "\r\nContent-Length: " + QByteArray::number(body.size()) +
        "\r\nConnection: close\r\n";
    if (status == 405)
        response += "Allow: GET\r\n";
    response += "\r\n" + body;
    socket->write(response);
    socket->disconnectFromHost();
}

} // namespace Kelda
