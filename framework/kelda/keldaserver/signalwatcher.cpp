#include "signalwatcher.h"

#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Kelda {

namespace {

int g_pipe[2] = {-1, -1};

extern "C" void onSignal(int signalNumber)
{
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    const ssize_t written = ::write(g_pipe[0], &byte, 1);
    (void)written;
}

} // namespace

SignalWatcher::SignalWatcher(QObject *parent)
    : QObject(parent)
{
    if (g_pipe[0] >= 0 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_pipe) != 0)
        return;
    ::fcntl(g_pipe[0], F_SETFL, O_NONBLOCK);
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    if (::sigaction(SIGINT, &action, nullptr) != 0 || ::sigaction(SIGTERM, &action, nullptr) != 0 ||
        ::sigaction(SIGHUP, &action, nullptr) != 0)
        return;
    m_notifier = new QSocketNotifier(g_pipe[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &SignalWatcher::readSignal);
}

SignalWatcher::~SignalWatcher()
{
    if (!m_notifier)
        return;
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
    ::signal(SIGHUP, SIG_DFL);
    delete m_notifier;
    ::close(g_pipe[0]);
    ::close(g_pipe[1]);
    g_pipe[0] = g_pipe[1] = -1;
}

void SignalWatcher::readSignal()
{
    unsigned char byte = 0;
    if (::read(g_pipe[1], &byte, 1) != 1)
        return;
    if (byte == SIGHUP)
        emit reopenRequested();
    else
        emit terminationRequested(int(byte));
}

} // namespace Kelda
