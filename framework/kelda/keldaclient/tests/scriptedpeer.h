#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QThread>

#include <functional>

class PeerServer;

// An archive server stand-in for tests: listens on 127.0.0.1, frames messages
// with a 4-byte little-endian length (independently of the library's framer),
// records every request and answers each one as the test scripted it.
//
// The peer runs on a thread of its own, so it keeps answering while the
// test's thread is blocked in a synchronous client call.
class ScriptedPeer : public QObject
{
    Q_OBJECT

public:
    struct Request
    {
        QString command;   // local name of the body's command element
        QString requestId; // text of s:RequestId
        QByteArray document;
    };
    // Returns the complete reply document for a request, or an empty array to
    // stay silent.
    using Answer = std::function<QByteArray(const Request &)>;

    explicit ScriptedPeer(QObject *parent = nullptr);
    ~ScriptedPeer() override;

    quint16 port() const { return m_port; }

    // Every answer is sent this many milliseconds after its request arrived.
    void setReplyDelay(int ms);
    void setBasePath(const QString &path);
    // Scripted answers; a command without one gets "<m:CommandReply>" with
    // Error 0, and GetBasePath gets the base path.
    void setAnswer(const QString &command, Answer answer);
    // Shorthand: a reply to the same request id holding these children.
    void setReplyChildren(const QString &command, const QString &children);
    void setSilent(const QString &command);
    // Drops the connection, after the reply delay, instead of answering.
    void setDisconnectOn(const QString &command);

    QList<Request> requests() const;
    QList<Request> requests(const QString &command) const;
    int connectionCount() const;

    // Sends a document to every connected client.
    void send(const QByteArray &document);
    // Sends raw bytes (already framed or deliberately broken).
    void sendRaw(const QByteArray &bytes);
    void dropConnections();

    static QByteArray frame(const QByteArray &payload);
    static QByteArray replyDocument(const QString &requestId, const QString &element, const QString &children,
                                    bool withHeader = true);

signals:
    void requestReceived(const QString &command, const QString &requestId);
    void clientConnected();
    void clientDisconnected();

private:
    friend class PeerServer;
    QByteArray answerFor(const Request &request);
    void record(const Request &request);

    mutable QMutex m_mutex;
    QMap<QString, Answer> m_answers;
    QStringList m_disconnectOn;
    QList<Request> m_requests;
    QString m_basePath;
    int m_replyDelay = 20;
    int m_connections = 0;

    QThread m_thread;
    PeerServer *m_server = nullptr;
    quint16 m_port = 0;
};
