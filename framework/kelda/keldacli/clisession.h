#pragma once

#include "exitcode.h"
#include "progress.h"
#include "verbosity.h"

#include "keldaerror.h"
#include "tlsoptions.h"

#include <QEventLoop>
#include <QObject>
#include <QString>
#include <QTextStream>

#include <memory>

namespace Kelda {
class KeldaClient;
}

namespace KeldaCli {

// Where and as whom `kelda` talks to the archive.
struct ConnectionSettings
{
    QString host;
    quint16 port = 0;
    QString application;
    QString user;
    QString team;
    int connectTimeoutMs = 5000;
    Kelda::TlsOptions tls;
};

// The defaults of the global options: host and port from the configuration,
// the program's name as application, the login name as user.
ConnectionSettings defaultConnectionSettings();

// The text of a server's error code, the server's own text when it says
// more, and the number.
QString serverErrorText(int error, const QString &serverText = QString());

// One run of a subcommand: its name for messages, the output streams and,
// once connect() succeeded, the client.
class Session
{
public:
    Session(const QString &command, const ConnectionSettings &settings);
    ~Session();

    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // Waits at most the connect timeout for the server's handshake.
    ExitCode connect();
    Kelda::KeldaClient &client() { return *m_client; }
    const ConnectionSettings &settings() const { return m_settings; }

    QTextStream &out() { return m_out; }
    void writeOut(const QByteArray &bytes);

    // "kelda: <command>: <message>" on stderr; returns `code`.
    ExitCode fail(ExitCode code, const QString &message);
    // A server error: the text of the code, the server's own text when it
    // says more, and the number.
    ExitCode serverError(int error, const QString &serverText = QString());
    // After a blocking call returned nothing: the client's last error, a
    // lost connection, or a reply that never came.
    ExitCode blockingFailure();
    // Reports what ReplyWait::exec returned, unless it is ExitOk.
    ExitCode waitResult(ExitCode code);

    void setVerbosity(Verbosity verbosity) { m_verbosity = verbosity; }
    Verbosity verbosity() const { return m_verbosity; }
    // A progress display that stays off with --quiet.
    Progress progress(const QString &label) const;
    // A summary line on stderr: on a terminal, and always with --verbose.
    void inform(const QString &line) const;
    // A line on stderr with --verbose only.
    void detail(const QString &line) const;

private:
    QString m_command;
    ConnectionSettings m_settings;
    Verbosity m_verbosity = Verbosity::Normal;
    std::unique_ptr<Kelda::KeldaClient> m_client;
    QTextStream m_out;
};

// Waits in an event loop for one reply signal. Connect the reply's signal
// with this object as context and call finish() when the reply is the one
// wanted; exec() returns ExitOk then, ExitTimeout when the time ran out and
// ExitUnreachable when the connection dropped.
class ReplyWait : public QObject
{
    Q_OBJECT

public:
    // The protocol's own limit for one reply.
    static constexpr int kReplyTimeoutMs = 60000;

    explicit ReplyWait(Kelda::KeldaClient &client);

    void finish();
    ExitCode exec(int timeoutMs = kReplyTimeoutMs);

private:
    QEventLoop m_loop;
    bool m_done = false;
    bool m_lost = false;
};

// Runs an event loop for `ms`; used between polls of a slow operation.
void pause(int ms);

} // namespace KeldaCli
