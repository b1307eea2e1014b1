#include "clisession.h"
#include "commands.h"
#include "exitcode.h"

#include "errorhandler.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <cstdio>

using namespace KeldaCli;

namespace {

const QString kHost = QStringLiteral("host");
const QString kPort = QStringLiteral("port");
const QString kApp = QStringLiteral("app");
const QString kUser = QStringLiteral("user");
const QString kTeam = QStringLiteral("team");
const QString kConnectTimeout = QStringLiteral("connect-timeout");
const QString kHelp = QStringLiteral("help");

void print(FILE *stream, const QString &text)
{
    std::fputs(qPrintable(text), stream);
}

int usageError(const QString &message)
{
    print(stderr, QStringLiteral("kelda: %1\nTry 'kelda --help'.\n").arg(message));
    return ExitUsage;
}

QString commandList()
{
    QString text = QStringLiteral("Commands:\n");
    for (const Command &command : commands())
        text += QStringLiteral("  %1  %2\n").arg(QString::fromLatin1(command.name).leftJustified(8), QLatin1String(command.summary));
    return text + QStringLiteral("\n'kelda COMMAND --help' describes a command and its options.\n");
}

void addGlobalOptions(QCommandLineParser &parser, const ConnectionSettings &defaults)
{
    parser.addOption({kHost, QStringLiteral("Archive server host (default %1).").arg(defaults.host),
                      QStringLiteral("HOST"), defaults.host});
    parser.addOption({kPort, QStringLiteral("Archive server port (default %1).").arg(defaults.port),
                      QStringLiteral("PORT"), QString::number(defaults.port)});
    parser.addOption({kApp, QStringLiteral("Application name sent with requests; ref and unref reference as it "
                                           "(default %1).").arg(defaults.application),
                      QStringLiteral("NAME"), defaults.application});
    parser.addOption({kUser, QStringLiteral("User name sent with requests (default %1).").arg(defaults.user),
                      QStringLiteral("NAME"), defaults.user});
    parser.addOption({kTeam, QStringLiteral("Team membership sent with requests."), QStringLiteral("TEAM")});
    parser.addOption({kConnectTimeout,
                      QStringLiteral("Seconds to wait for the server's handshake (default %1).")
                          .arg(defaults.connectTimeoutMs / 1000),
                      QStringLiteral("SECONDS"), QString::number(defaults.connectTimeoutMs / 1000)});
    parser.addOption({{QStringLiteral("h"), kHelp}, QStringLiteral("Show this help.")});
}

bool readSettings(const QCommandLineParser &parser, ConnectionSettings &settings, QString &error)
{
    settings.host = parser.value(kHost);
    bool ok = false;
    const uint port = parser.value(kPort).toUInt(&ok);
    if (!ok || port == 0 || port > 65535) {
        error = QStringLiteral("--port takes a TCP port (1-65535), not '%1'").arg(parser.value(kPort));
        return false;
    }
    settings.port = quint16(port);
    const double seconds = parser.value(kConnectTimeout).toDouble(&ok);
    if (!ok || seconds <= 0 || seconds > 60) {
        error = QStringLiteral("--connect-timeout takes 0 to 60 seconds, not '%1'").arg(parser.value(kConnectTimeout));
        return false;
    }
    settings.connectTimeoutMs = int(seconds * 1000);
    settings.application = parser.value(kApp);
    settings.user = parser.value(kUser);
    settings.team = parser.value(kTeam);
    return true;
}

// The subcommand's own help: its usage line in place of the parser's, which
// would name the program's path.
QString commandHelp(const Command &command, const QCommandLineParser &parser)
{
    QString text = parser.helpText();
    text = text.mid(text.indexOf(QLatin1Char('\n')) + 1);
    return QStringLiteral("Usage: kelda [global options] %1 [options] %2\n")
               .arg(QLatin1String(command.name), QLatin1String(command.synopsis))
           + text;
}

int runCommand(const Command &command, const QStringList &arguments, const ConnectionSettings &settings)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QLatin1String(command.summary));
    parser.addOption({{QStringLiteral("h"), kHelp}, QStringLiteral("Show this help.")});
    command.addOptions(parser);
    if (!parser.parse(QStringList{QLatin1String(command.name)} + arguments))
        return usageError(QStringLiteral("%1: %2").arg(QLatin1String(command.name), parser.errorText()));
    if (parser.isSet(kHelp)) {
        print(stdout, commandHelp(command, parser));
        return ExitOk;
    }
    Session session(QLatin1String(command.name), settings);
    return command.run(parser, session);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kelda"));
    // The program reports failures itself; library traces only on request.
    if (qEnvironmentVariableIsEmpty("KELDA_TRACE_MASK"))
        ErrorHandler::Instance()->SetLevel(0);

    const ConnectionSettings defaults = defaultConnectionSettings();
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Store files in, and fetch files from, the Kelda archive."));
    addGlobalOptions(parser, defaults);
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("One of the commands below."));
    parser.addPositionalArgument(QStringLiteral("arguments"), QStringLiteral("The command's arguments and options."),
                                 QStringLiteral("[arguments...]"));
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    if (!parser.parse(QCoreApplication::arguments()))
        return usageError(parser.errorText());

    const QString help = QStringLiteral("Usage: kelda [global options] COMMAND [arguments...]\n")
                         + parser.helpText().mid(parser.helpText().indexOf(QLatin1Char('\n')) + 1)
                         + QLatin1Char('\n') + commandList() + QLatin1Char('\n') + QLatin1String(exitCodeHelp());
    if (parser.isSet(kHelp)) {
        print(stdout, help);
        return ExitOk;
    }
    QStringList arguments = parser.positionalArguments();
    if (arguments.isEmpty())
        return usageError(QStringLiteral("no command given"));
    const QString name = arguments.takeFirst();
    const Command *command = findCommand(name);
    if (!command)
        return usageError(QStringLiteral("unknown command '%1'").arg(name));

    ConnectionSettings settings = defaults;
    QString error;
    if (!readSettings(parser, settings, error))
        return usageError(error);
    return runCommand(*command, arguments, settings);
}
