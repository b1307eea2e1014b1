#include "scriptedpeer.h"

#include "keldaxml.h"
#include "threadrunner.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QXmlStreamReader>
#include <QtEndian>

using namespace Kelda;

namespace {

QByteArray frame(const QByteArray &payload)
{
    QByteArray bytes(4, '\0');
    qToLittleEndian<quint32>(quint32(payload.size()), bytes.data());
    return bytes + payload;
}

ScriptedPeer::Request parse(const QByteArray &document)
{
    ScriptedPeer::Request request{QString(), QString(), document};
    QXmlStreamReader reader(document);
    bool inBody = false;
    while (!reader.atEnd() && request.command.isEmpty()) {
        if (reader.readNext() != QXmlStreamReader::StartElement)
            continue;
        if (reader.name() == Tag::RequestId)
            request.requestId = reader.readElementText();
        else if (inBody)
            request.command = reader.name().toString();
        inBody = inBody || reader.name() == Tag::Body;
    }
    return request;
}

} // namespace

class PeerServer : public QObject
{
public:
    explicit PeerServer(ScriptedPeer *peer)
        : m_peer(peer)
        , m_server(this)
    { }

    quint16 listen()
    {
        connect(&m_server, &QTcpServer::newConnection, this, &PeerServer::accept);
        return m_server.listen(QHostAddress::LocalHost, 0) ? m_server.serverPort() : 0;
    }

    void write(const QByteArray &bytes)
    {
        for (QTcpSocket *socket : m_server.findChildren<QTcpSocket *>())
            socket->write(bytes);
    }

    void shutdown()
    {
        for (QTcpSocket *socket : m_server.findChildren<QTcpSocket *>())
            socket->abort();
        m_server.close();
    }

private:
    void accept()
    {
        while (QTcpSocket *socket = m_server.nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
                m_buffers.remove(socket);
                socket->deleteLater();
                changeConnections(-1);
            });
            changeConnections(+1);
        }
    }

    void changeConnections(int delta)
    {
        const std::lock_guard<std::mutex> lock(m_peer->m_mutex);
        m_peer->m_connections += delta;
    }

    void read(QTcpSocket *socket)
    {
        QByteArray &buffer = m_buffers[socket];
        buffer += socket->readAll();
        while (buffer.size() >= 4) {
            const quint32 length = qFromLittleEndian<quint32>(buffer.constData());
            if (quint32(buffer.size()) - 4 < length)
                return;
            handle(socket, parse(buffer.mid(4, int(length))));
            buffer.remove(0, int(length) + 4);
        }
    }

    void handle(QTcpSocket *socket, const ScriptedPeer::Request &request)
    {
        ScriptedPeer::Answer answer;
        QString basePath;
        bool disconnect;
        QByteArray raw;
        {
            const std::lock_guard<std::mutex> lock(m_peer->m_mutex);
            m_peer->m_requests.append(request);
            answer = m_peer->m_answers.value(request.command);
            basePath = m_peer->m_basePath;
            disconnect = m_peer->m_disconnectOn.contains(request.command);
            raw = m_peer->m_rawReplies.value(request.command);
        }
        if (!raw.isEmpty()) {
            socket->write(raw);
            return;
        }
        if (disconnect) {
            // Not from inside read(), which still uses the socket's buffer.
            QMetaObject::invokeMethod(socket, &QTcpSocket::abort, Qt::QueuedConnection);
            return;
        }
        QByteArray reply;
        if (answer)
            reply = answer(request);
        else if (request.command == Tag::GetBasePath)
            reply = ScriptedPeer::replyDocument(request.requestId, Tag::GetBasePathReply,
                                                QStringLiteral("<m:Path>%1</m:Path>").arg(basePath.toHtmlEscaped()));
        else
            reply = ScriptedPeer::replyDocument(request.requestId, request.command + QLatin1String("Reply"),
                                                QStringLiteral("<m:Error>0</m:Error>"));
        if (!reply.isEmpty())
            socket->write(frame(reply));
    }

    ScriptedPeer *m_peer;
    // A child, so that it moves to the peer's thread with this object.
    QTcpServer m_server;
    QMap<QTcpSocket *, QByteArray> m_buffers;
};

ScriptedPeer::ScriptedPeer()
    : m_runner(new ThreadRunner)
    , m_server(new PeerServer(this))
{
    m_thread.setObjectName(QStringLiteral("ScriptedPeerThread"));
    m_runner->moveToThread(&m_thread);
    m_server->moveToThread(&m_thread);
    m_thread.start();
    m_runner->run([this] { m_port = m_server->listen(); });
}

ScriptedPeer::~ScriptedPeer()
{
    m_runner->run([this] {
        m_server->shutdown();
        delete m_server;
    });
    m_thread.quit();
    m_thread.wait();
    delete m_runner;
    // The thread touched this object only under the mutex: taking it orders
    // that before the members go.
    const std::lock_guard<std::mutex> lock(m_mutex);
}

void ScriptedPeer::setBasePath(const QString &path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_basePath = path;
}

void ScriptedPeer::setAnswer(const QString &command, Answer answer)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_answers.insert(command, std::move(answer));
}

void ScriptedPeer::setReplyChildren(const QString &command, const QString &children)
{
    setAnswer(command, [command, children](const Request &request) {
        return replyDocument(request.requestId, command + QLatin1String("Reply"), children);
    });
}

void ScriptedPeer::setDisconnectOn(const QString &command)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_disconnectOn.append(command);
}

void ScriptedPeer::setRawReply(const QString &command, const QByteArray &bytes)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (bytes.isEmpty())
        m_rawReplies.remove(command);
    else
        m_rawReplies.insert(command, bytes);
}

QList<ScriptedPeer::Request> ScriptedPeer::requests(const QString &command) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    QList<Request> matching;
    for (const Request &request : m_requests) {
        if (request.command == command)
            matching.append(request);
    }
    return matching;
}

int ScriptedPeer::connectionCount() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_connections;
}

void ScriptedPeer::send(const QByteArray &document)
{
    m_runner->run([this, document] { m_server->write(frame(document)); });
}

QByteArray ScriptedPeer::replyDocument(const QString &requestId, const QString &element, const QString &children,
                                       bool withHeader)
{
    QString text =
        QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?><s:Envelope xmlns:s=\"%1\">").arg(Ns::Envelope);
    if (withHeader)
        text += QStringLiteral("<s:Header><s:Version>1.0</s:Version><s:RequestId>%1</s:RequestId></s:Header>")
                    .arg(requestId);
    text += QStringLiteral("<s:Body><m:%1 xmlns:m=\"%2\">%3</m:%1></s:Body></s:Envelope>\n")
                .arg(element, Ns::Message, children);
    return text.toUtf8();
}
