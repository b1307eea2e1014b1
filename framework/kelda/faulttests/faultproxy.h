#pragma once

#include <QByteArray>
#include <QObject>
#include <QThread>

#include <atomic>
#include <functional>
#include <memory>

class FaultProxyWorker;
class ThreadRunner;

// A loopback proxy for tests that sits between a client and a server and
// misbehaves on request. It runs on its own thread, so that it keeps
// forwarding while the test's thread is inside a blocking call.
//
// Client to server traffic is read as length-prefixed frames; faults are
// armed for the next frame a client sends (the next request) and then apply
// to what the server answers, until they are changed.
class FaultProxy
{
public:
    enum class Fault {
        None,
        // Every byte towards the client in its own write, one per event-loop turn.
        SliceBytes,
        // Everything towards the client held back for `amount` ms.
        Delay,
        // The connection closed after `amount` more bytes towards the client.
        CutAfter,
        // The connection reset (RST) instead of the first byte of the answer.
        Reset,
        // Nothing more towards the client; the connection stays open.
        HoldSilent
    };

    explicit FaultProxy(quint16 upstreamPort);
    ~FaultProxy();
    FaultProxy(const FaultProxy &) = delete;
    FaultProxy &operator=(const FaultProxy &) = delete;

    // Where clients connect (127.0.0.1); 0 when the proxy could not listen.
    quint16 port() const { return m_port; }
    // Where later connections go, e.g. a restarted server.
    void setUpstreamPort(quint16 port);

    // From the next request on.
    void setFault(Fault fault, int amount = 0);

    // The next request is not forwarded: the client receives these bytes
    // instead, then the connection is closed when closeAfter is set.
    void answerNextRequestWith(const QByteArray &bytes, bool closeAfter);

    // Every answer frame on the connection of the next request is replaced by
    // what this returns for its payload and its position on that connection
    // (a whole frame, length prefix included).
    using Rewrite = std::function<QByteArray(const QByteArray &payload, int index)>;
    void rewriteAnswers(Rewrite rewrite);

    // Runs on the proxy's thread when the next request has arrived, before
    // anything else happens to it.
    void onNextRequest(std::function<void()> hook);

    // Connections accepted so far.
    int connectionCount() const { return m_connections.load(); }

private:
    QThread m_thread;
    FaultProxyWorker *m_worker = nullptr;
    // Lives on m_thread; deleted here once that has ended.
    std::unique_ptr<ThreadRunner> m_runner;
    quint16 m_port = 0;
    std::atomic<int> m_connections{0};
};
