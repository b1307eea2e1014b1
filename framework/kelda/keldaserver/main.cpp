#include "archivedatabase.h"
#include "archiveserver.h"
#include "backupcommand.h"
#include "restorecommand.h"
#include "auditcommand.h"
#include "serveroptions.h"
#include "signalwatcher.h"

#include <errorhandler.h>

#include <QCoreApplication>

#include <cstdio>

#include <sys/resource.h>

using namespace Kelda;

namespace {

// Connections cost a descriptor each: take all the system allows us, so
// that the connection limits, not the descriptor table, decide.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void printLine(FILE *stream, const QString &text)
{
    std::fputs(text.toLocal8Bit().constData(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

} // namespace

int main(int argc, char *argv[])
{
    // Without TZ the C library re-reads the zone file for every local time
    // it converts, and a large query converts four per group. The same
    // zone, named once, is read once.
    if (qEnvironmentVariableIsEmpty("TZ"))
        qputenv("TZ", ":/etc/localtime");
    ArchiveDatabase::configureSqliteLibrary();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("keldaserver"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KELDA_VERSION));

    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == QLatin1String("backup"))
        return BackupCommand::run(arguments);
    if (arguments.value(1) == QLatin1String("restore"))
        return RestoreCommand::run(arguments);
    if (arguments.value(1) == AuditCommand::Name)
        return AuditCommand::run(arguments);
    const ServerOptions options = ServerOptions::parse(arguments);
    switch (options.action) {
    case ServerOptions::Action::ShowHelp:
        printLine(stdout, options.helpText);
        return ServerOptions::ExitOk;
    case ServerOptions::Action::ShowVersion:
        printLine(stdout, QStringLiteral("keldaserver %1").arg(QCoreApplication::applicationVersion()));
        return ServerOptions::ExitOk;
    case ServerOptions::Action::Fail:
        printLine(stderr, QStringLiteral("keldaserver: %1\nTry 'keldaserver --help'.").arg(options.error));
        return ServerOptions::ExitUsage;
    case ServerOptions::Action::Run:
        break;
    }
    if (!options.host.isLoopback() && options.allow.isDefault())
        printLine(stderr,
                  QStringLiteral("keldaserver: warning: listening on %1 admits only loopback clients; name "
                                 "the networks of your clients with --allow")
                      .arg(options.host.toString()));
    raiseDescriptorLimit();
    if (options.hasTraceMask)
        ErrorHandler::Instance()->SetLevel(options.traceMask);

    SignalWatcher watcher;
    ArchiveServer server(options);
    if (!server.start()) {
        printLine(stderr, QStringLiteral("keldaserver: %1").arg(server.errorString()));
        return server.exitCode();
    }
    QObject::connect(&watcher, &SignalWatcher::terminationRequested, &app, [&server](int) {
        server.shutdown();
        QCoreApplication::exit(ServerOptions::ExitOk);
    });
    QObject::connect(&watcher, &SignalWatcher::reopenRequested, &app, [] { ErrorHandler::Instance()->Reopen(); });
    if (server.servesMetrics())
        printLine(stdout,
                  QStringLiteral("keldaserver metrics on %1:%2")
                      .arg(server.metricsAddress().toString())
                      .arg(server.metricsPort()));
    printLine(stdout,
              QStringLiteral("keldaserver listening on %1:%2").arg(server.address().toString()).arg(server.port()));
    return app.exec();
}
