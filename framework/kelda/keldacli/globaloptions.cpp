#include "globaloptions.h"

#include "clisession.h"
#include "environment.h"
#include "tlsoptions.h"

#include <QCommandLineParser>

namespace KeldaCli {

namespace {

const QString kHost = QStringLiteral("host");
const QString kPort = QStringLiteral("port");
const QString kApp = QStringLiteral("app");
const QString kUser = QStringLiteral("user");
const QString kTeam = QStringLiteral("team");
const QString kConnectTimeout = QStringLiteral("connect-timeout");
const QString kQuiet = QStringLiteral("quiet");
const QString kVerbose = QStringLiteral("verbose");

constexpr double kMaxConnectSeconds = 60;

// Where a bad port came from, for the message.
QString portSource(const QCommandLineParser &parser)
{
    if (!parser.isSet(kPort) && environmentSets(kPortVariable))
        return QLatin1String(kPortVariable);
    return QStringLiteral("--port");
}

} // namespace

void addGlobalOptions(QCommandLineParser &parser, const ConnectionSettings &defaults)
{
    const QString host = environmentOr(kHostVariable, defaults.host);
    const QString port = environmentOr(kPortVariable, QString::number(defaults.port));
    const QString user = environmentOr(kUserVariable, defaults.user);
    parser.addOption(
        {kHost, QStringLiteral("Archive server host (default %1).").arg(host), QStringLiteral("HOST"), host});
    parser.addOption(
        {kPort, QStringLiteral("Archive server port (default %1).").arg(port), QStringLiteral("PORT"), port});
    parser.addOption({kApp,
                      QStringLiteral("Application name sent with requests; ref and unref reference as it "
                                     "(default %1).")
                          .arg(defaults.application),
                      QStringLiteral("NAME"), defaults.application});
    parser.addOption(
        {kUser, QStringLiteral("User name sent with requests (default %1).").arg(user), QStringLiteral("NAME"), user});
    parser.addOption({kTeam, QStringLiteral("Team membership sent with requests."), QStringLiteral("TEAM")});
    parser.addOption({kConnectTimeout,
                      QStringLiteral("Seconds to wait for the server's handshake (default %1).")
                          .arg(defaults.connectTimeoutMs / 1000),
                      QStringLiteral("SECONDS"), QString::number(defaults.connectTimeoutMs / 1000)});
    Kelda::TlsOptions::Add(parser);
    addVerbosityOptions(parser);
    parser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")});
}

bool readGlobalOptions(const QCommandLineParser &parser, ConnectionSettings &settings, QString &error)
{
    settings.host = parser.value(kHost);
    bool ok = false;
    const uint port = parser.value(kPort).toUInt(&ok);
    if (!ok || port == 0 || port > 65535) {
        error = QStringLiteral("%1 takes a TCP port (1-65535), not '%2'").arg(portSource(parser), parser.value(kPort));
        return false;
    }
    settings.port = quint16(port);
    const double seconds = parser.value(kConnectTimeout).toDouble(&ok);
    if (!ok || seconds <= 0 || seconds > kMaxConnectSeconds) {
        error = QStringLiteral("--connect-timeout takes 0 to %1 seconds, not '%2'")
                    .arg(kMaxConnectSeconds)
                    .arg(parser.value(kConnectTimeout));
        return false;
    }
    settings.connectTimeoutMs = int(seconds * 1000);
    settings.application = parser.value(kApp);
    settings.user = parser.value(kUser);
    settings.team = parser.value(kTeam);
    if (!Kelda::TlsOptions::Read(parser, &settings.tls, &error))
        return false;
    error = verbosityConflict(parser);
    return error.isEmpty();
}

void addVerbosityOptions(QCommandLineParser &parser)
{
    parser.addOption(
        {{QStringLiteral("q"), kQuiet}, QStringLiteral("No progress and no summary; results and errors only.")});
    parser.addOption({{QStringLiteral("v"), kVerbose},
                      QStringLiteral("A line per file with its timing, also when not on a terminal.")});
}

Verbosity verbosityOf(const QCommandLineParser &parser, Verbosity verbosity)
{
    if (parser.isSet(kQuiet))
        return Verbosity::Quiet;
    if (parser.isSet(kVerbose))
        return Verbosity::Verbose;
    return verbosity;
}

QString verbosityConflict(const QCommandLineParser &parser)
{
    if (parser.isSet(kQuiet) && parser.isSet(kVerbose))
        return QStringLiteral("--quiet and --verbose exclude each other");
    return QString();
}

} // namespace KeldaCli
