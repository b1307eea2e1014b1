#include "scriptedpeer.h"

#include "keldaxml.h"

#include <QMutexLocker>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QXmlStreamReader>
#include <QtEndian>

using namespace Kelda;

class PeerServer : public QObject
{
    Q_OBJECT

public:
    explicit PeerServer(ScriptedPeer *peer)
        : m_peer(peer)
    {
    }

public slots:
    quint16 listen()
    {
        m_server = new QTcpServer(this);
        connect(m_server, &QTcpServer::newConnection, this, &PeerServer::accept);
        return m_server->listen(QHostAddress::LocalHost, 0) ? m_server->serverPort() : 0;
    }

    void write(const QByteArray &bytes)
    {
        for (QTcpSocket *socket : qAsConst(m_sockets))
            socket->write(bytes);
    }

    void dropAll()
    {
        const auto sockets = m_sockets;
        for (QTcpSocket *socket : sockets)
            socket->abort();
    }

    void shutdown()
    {
        dropAll();
        delete m_server;
        m_server = nullptr;
    }

private:
    void accept()
    {
        while (QTcpSocket *socket = m_server->nextPendingConnection()) {
            m_sockets.append(socket);
            m_buffers.insert(socket, QByteArray());
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
                m_sockets.removeAll(socket);
                m_buffers.remove(socket);
                socket->deleteLater();
                {
                    QMutexLocker lock(&m_peer->m_mutex);
                    --m_peer->m_connections;
                }
                emit m_peer->clientDisconnected();
            });
            {
                QMutexLocker lock(&m_peer->m_mutex);
                ++m_peer->m_connections;
            }
            emit m_peer->clientConnected();
        }
    }

    void read(QTcpSocket *socket)
    {
        QByteArray &buffer = m_buffers[socket];
        buffer += socket->readAll();
        while (buffer.size() >= 4) {
            const quint32 length = qFromLittleEndian<quint32>(buffer.constData());
            if (quint32(buffer.size()) - 4 < length)
                return;
            handle(socket, buffer.mid(4, int(length)));
            buffer.remove(0, int(length) + 4);
        }
    }

    void handle(QTcpSocket *socket, const QByteArray &document)
    {
        const ScriptedPeer::Request request = parse(document);
        m_peer->record(request);
        int delay;
        bool disconnect;
        {
            QMutexLocker lock(&m_peer->m_mutex);
            delay = m_peer->m_replyDelay;
            disconnect = m_peer->m_disconnectOn.contains(request.command);
        }
        QPointer<QTcpSocket> target(socket);
        if (disconnect) {
            QTimer::singleShot(delay, this, [target] {
                if (target)
                    target->abort();
            });
            return;
        }
        const QByteArray reply = m_peer->answerFor(request);
        if (reply.isEmpty())
            return;
        QTimer::singleShot(delay, this, [target, reply] {
            if (target)
                target->write(ScriptedPeer::frame(reply));
        });
    }

    static ScriptedPeer::Request parse(const QByteArray &document)
    {
        ScriptedPeer::Request request;
        request.document = document;
        QXmlStreamReader reader(document);
        bool inBody = false;
        while (!reader.atEnd() && request.command.isEmpty()) {
            if (reader.readNext() != QXmlStreamReader::StartElement)
                continue;
            if (reader.name() == Tag::RequestId)
                request.requestId = reader.readElementText();
            else if (reader.name() == Tag::Body)
                inBody = true;
            else if (inBody)
                request.command = reader.name().toString();
        }
        return request;
    }

    ScriptedPeer *m_peer;
    QTcpServer *m_server = nullptr;
    QList<QTcpSocket *> m_sockets;
    QMap<QTcpSocket *, QByteArray> m_buffers;
};

ScriptedPeer::ScriptedPeer(QObject *parent)
    : QObject(parent)
    , m_basePath(QStringLiteral("/tmp"))
{
    m_thread.setObjectName(QStringLiteral("ScriptedPeerThread"));
    m_server = new PeerServer(this);
    m_server->moveToThread(&m_thread);
    m_thread.start();
    QMetaObject::invokeMethod(m_server, &PeerServer::listen, Qt::BlockingQueuedConnection, &m_port);
}

ScriptedPeer::~ScriptedPeer()
{
    QMetaObject::invokeMethod(m_server, &PeerServer::shutdown, Qt::BlockingQueuedConnection);
    m_thread.quit();
    m_thread.wait();
    delete m_server;
}

void ScriptedPeer::setReplyDelay(int ms)
{
    QMutexLocker lock(&m_mutex);
    m_replyDelay = ms;
}

void ScriptedPeer::setBasePath(const QString &path)
{
    QMutexLocker lock(&m_mutex);
    m_basePath = path;
}

void ScriptedPeer::setAnswer(const QString &command, Answer answer)
{
    QMutexLocker lock(&m_mutex);
    m_answers.insert(command, std::move(answer));
}

void ScriptedPeer::setReplyChildren(const QString &command, const QString &children)
{
    setAnswer(command, [command, children](const Request &request) {
        return replyDocument(request.requestId, command + QLatin1String("Reply"), children);
    });
}

void ScriptedPeer::setSilent(const QString &command)
{
    setAnswer(command, [](const Request &) { return QByteArray(); });
}

void ScriptedPeer::setDisconnectOn(const QString &command)
{
    QMutexLocker lock(&m_mutex);
    m_disconnectOn.append(command);
}

QList<ScriptedPeer::Request> ScriptedPeer::requests() const
{
    QMutexLocker lock(&m_mutex);
    return m_requests;
}

QList<ScriptedPeer::Request> ScriptedPeer::requests(const QString &command) const
{
    QList<Request> matching;
    for (const Request &request : requests()) {
        if (request.command == command)
            matching.append(request);
    }
    return matching;
}

int ScriptedPeer::connectionCount() const
{
    QMutexLocker lock(&m_mutex);
    return m_connections;
}

void ScriptedPeer::send(const QByteArray &document)
{
    sendRaw(frame(document));
}

void ScriptedPeer::sendRaw(const QByteArray &bytes)
{
    QMetaObject::invokeMethod(m_server, [this, bytes] { m_server->write(bytes); }, Qt::BlockingQueuedConnection);
}

void ScriptedPeer::dropConnections()
{
    QMetaObject::invokeMethod(m_server, &PeerServer::dropAll, Qt::BlockingQueuedConnection);
}

QByteArray ScriptedPeer::frame(const QByteArray &payload)
{
    QByteArray bytes(4, '\0');
    qToLittleEndian<quint32>(quint32(payload.size()), bytes.data());
    return bytes + payload;
}

QByteArray ScriptedPeer::replyDocument(const QString &requestId, const QString &element, const QString &children,
                                       bool withHeader)
{
    QString text = QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?><s:Envelope xmlns:s=\"%1\">")
                       .arg(Ns::Envelope);
    if (withHeader)
        text += QStringLiteral("<s:Header><s:Version>1.0</s:Version><s:RequestId>%1</s:RequestId></s:Header>")
                    .arg(requestId);
    text += QStringLiteral("<s:Body><m:%1 xmlns:m=\"%2\">%3</m:%1></s:Body></s:Envelope>\n")
                .arg(element, Ns::Message, children);
    return text.toUtf8();
}

QByteArray ScriptedPeer::answerFor(const Request &request)
{
    Answer answer;
    QString basePath;
    {
        QMutexLocker lock(&m_mutex);
        answer = m_answers.value(request.command);
        basePath = m_basePath;
    }
    if (answer)
        return answer(request);
    const QString reply = request.command + QLatin1String("Reply");
    if (request.command == Tag::GetBasePath)
        return replyDocument(request.requestId, reply,
                             QStringLiteral("<m:Path>%1</m:Path><m:Error>0</m:Error>").arg(basePath.toHtmlEscaped()));
    return replyDocument(request.requestId, reply, QStringLiteral("<m:Error>0</m:Error>"));
}

void ScriptedPeer::record(const Request &request)
{
    {
        QMutexLocker lock(&m_mutex);
        m_requests.append(request);
    }
    emit requestReceived(request.command, request.requestId);
}

#include "scriptedpeer.moc"
