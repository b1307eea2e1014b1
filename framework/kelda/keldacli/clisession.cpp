#include "clisession.h"

#include "configuredserver.h"
#include "keldaclient.h"
#include "loginname.h"

#include "cfgcenter.h"

#include <QTimer>

#include <cstdio>

#include <unistd.h>

using namespace Kelda;

namespace KeldaCli {

QString serverErrorText(int error, const QString &serverText)
{
    const QString text = KeldaErrorString::Get(KeldaError(error)).trimmed();
    QString message = text;
    // The client's own reply texts often repeat the code's text already.
    if (!serverText.trimmed().isEmpty() && !serverText.contains(text))
        message += QStringLiteral(": ") + serverText.trimmed();
    return message + QStringLiteral(" (error %1)").arg(error);
}

ConnectionSettings defaultConnectionSettings()
{
    ConnectionSettings settings;
    const ConfiguredServer server = ConfiguredServer::Read();
    settings.host = server.host;
    settings.port = server.port;
    settings.application = CfgCenter::GetAppName();
    settings.user = LoginName();
    return settings;
}

Session::Session(const QString &command, const ConnectionSettings &settings)
    : m_command(command)
    , m_settings(settings)
    , m_out(stdout)
{ }

Session::~Session()
{
    m_out.flush();
}

ExitCode Session::connect()
{
    m_settings.tls.Apply();
    m_client = std::make_unique<KeldaClient>(m_settings.host, m_settings.port, m_settings.application, m_settings.user,
                                             m_settings.team);
    if (m_client->WaitForConnected(m_settings.connectTimeoutMs))
        return ExitOk;
    return fail(ExitUnreachable,
                QStringLiteral("cannot reach the archive server at %1:%2 within %3 ms "
                               "(is it running? see --host, --port, --connect-timeout)")
                    .arg(m_settings.host)
                    .arg(m_settings.port)
                    .arg(m_settings.connectTimeoutMs));
}

void Session::writeOut(const QByteArray &bytes)
{
    m_out.flush();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

ExitCode Session::fail(ExitCode code, const QString &message)
{
    m_out.flush();
    std::fprintf(stderr, "kelda: %s: %s\n", qPrintable(m_command), qPrintable(message));
    return code;
}

ExitCode Session::serverError(int error, const QString &serverText)
{
    return fail(ExitServerError, serverErrorText(error, serverText));
}

ExitCode Session::blockingFailure()
{
    if (m_client->GetError() != KE_NoError)
        return serverError(m_client->GetError());
    if (!m_client->IsConnected())
        return fail(ExitUnreachable, KeldaErrorString::Get(KE_NotConnected));
    return fail(ExitTimeout, KeldaErrorString::Get(KE_ReplyTimeout));
}

ExitCode Session::waitResult(ExitCode code)
{
    if (code == ExitUnreachable)
        return fail(code, KeldaErrorString::Get(KE_NotConnected));
    if (code == ExitTimeout)
        return fail(code, KeldaErrorString::Get(KE_ReplyTimeout));
    return code;
}

Progress Session::progress(const QString &label) const
{
    return Progress(label, stderr, m_verbosity != Verbosity::Quiet);
}

void Session::inform(const QString &line) const
{
    if (m_verbosity == Verbosity::Verbose || (m_verbosity == Verbosity::Normal && isatty(fileno(stderr)) == 1))
        std::fprintf(stderr, "%s\n", qPrintable(line));
}

void Session::detail(const QString &line) const
{
    if (m_verbosity == Verbosity::Verbose)
        std::fprintf(stderr, "%s\n", qPrintable(line));
}

ReplyWait::ReplyWait(KeldaClient &client)
{
    connect(&client, &KeldaClient::disconnected, this, [this] {
        m_lost = true;
        m_loop.quit();
    });
}

void ReplyWait::finish()
{
    m_done = true;
    m_loop.quit();
}

ExitCode ReplyWait::exec(int timeoutMs)
{
    if (!m_done && !m_lost) {
        QTimer timer;
        timer.setSingleShot(true);
        connect(&timer, &QTimer::timeout, &m_loop, &QEventLoop::quit);
        timer.start(timeoutMs);
        m_loop.exec();
    }
    if (m_done)
        return ExitOk;
    return m_lost ? ExitUnreachable : ExitTimeout;
}

void pause(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

} // namespace KeldaCli
