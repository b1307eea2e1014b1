#include "attacker.h"

#include <QDeadlineTimer>
#include <QtEndian>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace {
// Blocking calls wake this often to look at the stop flag.
constexpr int SliceMs = 50;
} // namespace

Attacker::Attacker(quint16 port, const QByteArray &bindAddress)
    : m_port(port)
    , m_bindAddress(bindAddress)
{ }

Attacker::~Attacker()
{
    stop();
}

void Attacker::start(Script script)
{
    m_thread = std::thread([this, script = std::move(script)] {
        script(*this);
        m_finished = true;
    });
}

void Attacker::stop()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
    closeSocket();
}

void Attacker::closeSocket()
{
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

bool Attacker::connectNow()
{
    closeSocket();
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0)
        return false;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    inet_pton(AF_INET, m_bindAddress.constData(), &local.sin_addr);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(m_port);
    inet_pton(AF_INET, "127.0.0.1", &server.sin_addr);
    const timeval slice{0, SliceMs * 1000};
    setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &slice, sizeof slice);
    return ::bind(m_fd, reinterpret_cast<sockaddr *>(&local), sizeof local) == 0 &&
        ::connect(m_fd, reinterpret_cast<sockaddr *>(&server), sizeof server) == 0;
}

bool Attacker::sendAll(const QByteArray &bytes)
{
    qsizetype sent = 0;
    while (sent < bytes.size() && !m_stop) {
        const ssize_t n = ::send(m_fd, bytes.constData() + sent, size_t(bytes.size() - sent), MSG_NOSIGNAL);
        if (n > 0)
            sent += n;
        else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            return false;
    }
    return sent == bytes.size();
}

bool Attacker::waitForClose(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    char sink[65536];
    while (!deadline.hasExpired() && !m_stop) {
        pollfd ready{m_fd, POLLIN, 0};
        if (::poll(&ready, 1, SliceMs) <= 0)
            continue;
        const ssize_t n = ::recv(m_fd, sink, sizeof sink, 0);
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN))
            return true;
    }
    return false;
}

QByteArray Attacker::receiveFrame(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    QByteArray input;
    char chunk[65536];
    while (!deadline.hasExpired() && !m_stop) {
        if (input.size() >= 4) {
            const quint32 length = qFromLittleEndian<quint32>(input.constData());
            if (quint32(input.size()) >= length + 4)
                return input.mid(4, int(length));
        }
        pollfd ready{m_fd, POLLIN, 0};
        if (::poll(&ready, 1, SliceMs) <= 0)
            continue;
        const ssize_t n = ::recv(m_fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            return QByteArray();
        input.append(chunk, int(n));
    }
    return QByteArray();
}

void Attacker::idle()
{
    while (!m_stop)
        ::poll(nullptr, 0, SliceMs);
}

QByteArray Attacker::lengthPrefix(quint32 length)
{
    QByteArray bytes(4, '\0');
    qToLittleEndian<quint32>(length, bytes.data());
    return bytes;
}

QByteArray Attacker::frame(const QByteArray &payload)
{
    return lengthPrefix(quint32(payload.size())) + payload;
}
