#include "clisession.h"
#include "commands.h"
#include "environment.h"
#include "exitcode.h"
#include "globaloptions.h"

#include "errorhandler.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <cstdio>

using namespace KeldaCli;

namespace {

const QString kHelp = QStringLiteral("help");
// Wide enough for the longest command name.
constexpr int kCommandColumn = 10;

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
        text +=
            QStringLiteral("  %1  %2\n")
                .arg(QString::fromLatin1(command.name).leftJustified(kCommandColumn), QLatin1String(command.summary));
    return text + QStringLiteral("\n'kelda COMMAND --help' describes a command and its options.\n");
}

// The subcommand's own help: its usage line in place of the parser's, which
// would name the program's path.
QString commandHelp(const Command &command, const QCommandLineParser &parser)
{
    QString text = parser.helpText();
    text = text.mid(text.indexOf(QLatin1Char('\n')) + 1);
    return QStringLiteral("Usage: kelda [global options] %1 [options] %2\n")
               .arg(QLatin1String(command.name), QLatin1String(command.synopsis)) +
        text;
}

int runCommand(const Command &command, const QStringList &arguments, const ConnectionSettings &settings,
               Verbosity verbosity)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QLatin1String(command.summary));
    parser.addOption({{QStringLiteral("h"), kHelp}, QStringLiteral("Show this help.")});
    addVerbosityOptions(parser);
    command.addOptions(parser);
    if (!parser.parse(QStringList{QLatin1String(command.name)} + arguments))
        return usageError(QStringLiteral("%1: %2").arg(QLatin1String(command.name), parser.errorText()));
    if (parser.isSet(kHelp)) {
        print(stdout, commandHelp(command, parser));
        return ExitOk;
    }
    const QString conflict = verbosityConflict(parser);
    if (!conflict.isEmpty())
        return usageError(QStringLiteral("%1: %2").arg(QLatin1String(command.name), conflict));
    Session session(QLatin1String(command.name), settings);
    session.setVerbosity(verbosityOf(parser, verbosity));
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

    const QString help = QStringLiteral("Usage: kelda [global options] COMMAND [arguments...]\n") +
        parser.helpText().mid(parser.helpText().indexOf(QLatin1Char('\n')) + 1) + QLatin1Char('\n') + commandList() +
        QLatin1Char('\n') + QLatin1String(environmentHelp()) + QLatin1Char('\n') + QLatin1String(exitCodeHelp());
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
    if (!readGlobalOptions(parser, settings, error))
        return usageError(error);
    return runCommand(*command, arguments, settings, verbosityOf(parser, Verbosity::Normal));
}
