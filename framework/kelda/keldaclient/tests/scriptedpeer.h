#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QThread>

#include <atomic>
#include <functional>
#include <mutex>

class PeerServer;
class ThreadRunner;

// An archive server stand-in for tests: listens on 127.0.0.1, frames messages
// with a 4-byte little-endian length (independently of the library's framer),
// records every request and answers each one as the test scripted it. It runs
// on a thread of its own, so it keeps answering while the test's thread is
// blocked in a synchronous client call.
class ScriptedPeer : public QObject
{
    Q_OBJECT

public:
    struct Request
    {
        QString command; // local name of the body's command element
        QString requestId; // text of s:RequestId
        QByteArray document;
    };
    // The complete reply document for a request; empty to stay silent.
    using Answer = std::function<QByteArray(const Request &)>;

    ScriptedPeer();
    ~ScriptedPeer() override;

    quint16 port() const { return m_port; }
    void setBasePath(const QString &path);
    // Unscripted commands get "<m:CommandReply>" with Error 0; GetBasePath
    // gets the base path.
    void setAnswer(const QString &command, Answer answer);
    void setReplyChildren(const QString &command, const QString &children);
    // Drops the connection instead of answering.
    void setDisconnectOn(const QString &command);
    // Answers with these bytes as they are, with no frame around them; empty
    // bytes go back to the scripted answer.
    void setRawReply(const QString &command, const QByteArray &bytes);

    QList<Request> requests(const QString &command) const;
    int connectionCount() const;
    // Sends a document to every connected client.
    void send(const QByteArray &document);

    static QByteArray replyDocument(const QString &requestId, const QString &element, const QString &children,
                                    bool withHeader = true);

private:
    friend class PeerServer;

    mutable std::mutex m_mutex;
    QMap<QString, Answer> m_answers;
    QStringList m_disconnectOn;
    QMap<QString, QByteArray> m_rawReplies;
    QList<Request> m_requests;
    QString m_basePath = QStringLiteral("/tmp");
    int m_connections = 0;

    QThread m_thread;
    // Both live on m_thread; the server is deleted there.
    ThreadRunner *m_runner;
    PeerServer *m_server;
    quint16 m_port = 0;
};
