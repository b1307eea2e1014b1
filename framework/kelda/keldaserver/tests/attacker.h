#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <functional>
#include <thread>

// A misbehaving client for the hostile-client tests. Its script runs on a
// thread of its own over a plain blocking socket, so that it keeps pushing
// while the test's thread measures how the server treats everyone else.
// Every call returns within a bounded time; stop() ends the script.
class Attacker
{
public:
    explicit Attacker(quint16 port, const QByteArray &bindAddress = QByteArrayLiteral("127.0.0.1"));
    ~Attacker();
    Attacker(const Attacker &) = delete;
    Attacker &operator=(const Attacker &) = delete;

    using Script = std::function<void(Attacker &)>;
    void start(Script script);
    // Asks the script to end and waits for it.
    void stop();
    // The script has run to its end.
    bool finished() const { return m_finished; }

    // For scripts. connectNow() is true when the server accepted the
    // connection; sendAll() is true when every byte went out before a stop
    // or an error.
    bool connectNow();
    bool sendAll(const QByteArray &bytes);
    // Waits for the server to close the connection, reading and dropping
    // whatever arrives; true when it did within timeoutMs.
    bool waitForClose(int timeoutMs);
    // The next framed answer; empty when none came within timeoutMs.
    QByteArray receiveFrame(int timeoutMs);
    // Holds the connection open, doing nothing, until stopped.
    void idle();
    bool stopping() const { return m_stop; }

    static QByteArray frame(const QByteArray &payload);
    static QByteArray lengthPrefix(quint32 length);

private:
    void closeSocket();

    const quint16 m_port;
    const QByteArray m_bindAddress;
    int m_fd = -1;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_finished{false};
};
