#include "postgrescluster.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>

#include <pwd.h>
#include <unistd.h>

namespace {

const QString kRole = QStringLiteral("kelda_test");
const QString kPassword = QStringLiteral("kelda-test-password");
const QString kSystemUser = QStringLiteral("postgres");

bool runsAsRoot()
{
    return ::geteuid() == 0;
}

quint16 freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

} // namespace

PostgresCluster::PostgresCluster() = default;

PostgresCluster::~PostgresCluster()
{
    if (m_running) {
        // Nothing is worth keeping: the quickest stop.
        run(QDir(binDirectory()).filePath(QStringLiteral("pg_ctl")),
            {QStringLiteral("stop"), QStringLiteral("-D"), m_dataDirectory, QStringLiteral("-m"),
             QStringLiteral("immediate"), QStringLiteral("-w")},
            nullptr);
    }
}

QString PostgresCluster::binDirectory()
{
    // Debian keeps the server programs off PATH, one folder per version.
    QDir versions(QStringLiteral("/usr/lib/postgresql"));
    QStringList found = versions.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    std::sort(found.begin(), found.end(), [](const QString &a, const QString &b) { return a.toInt() > b.toInt(); });
    for (const QString &version : qAsConst(found)) {
        const QString bin = versions.filePath(version + QStringLiteral("/bin"));
        if (QFileInfo(QDir(bin).filePath(QStringLiteral("initdb"))).isExecutable())
            return bin;
    }
    // Elsewhere initdb is on PATH, perhaps as a link into the folder that
    // holds psql and pg_ctl too.
    const QString onPath = QStandardPaths::findExecutable(QStringLiteral("initdb"));
    return onPath.isEmpty() ? QString() : QFileInfo(QFileInfo(onPath).canonicalFilePath()).absolutePath();
}

bool PostgresCluster::required()
{
    return qEnvironmentVariable("KELDA_REQUIRE_POSTGRES") == QLatin1String("1");
}

QString PostgresCluster::missingText()
{
    return QStringLiteral("PostgreSQL is not installed (no initdb on PATH or below /usr/lib/postgresql); "
                          "install the postgresql package, or run ./run.sh test which does");
}

PostgresCluster *PostgresCluster::shared(QString *error)
{
    static std::unique_ptr<PostgresCluster> cluster;
    if (!cluster) {
        auto started = std::make_unique<PostgresCluster>();
        if (!started->start(error))
            return nullptr;
        cluster = std::move(started);
    }
    return cluster.get();
}

bool PostgresCluster::run(const QString &program, const QStringList &arguments, QString *error, int timeoutMs,
                          QString *output)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setWorkingDirectory(m_folder ? m_folder->path() : QDir::tempPath());
    if (runsAsRoot())
        process.start(QStringLiteral("runuser"),
                      QStringList{QStringLiteral("-u"), kSystemUser, QStringLiteral("--"), program} + arguments);
    else
        process.start(program, arguments);
    const bool finished = process.waitForStarted(timeoutMs) && process.waitForFinished(timeoutMs);
    if (finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0) {
        if (output)
            *output = QString::fromLocal8Bit(process.readAll());
        return true;
    }
    if (!finished)
        process.kill();
    if (error)
        *error = QStringLiteral("%1 %2 failed: %3")
                     .arg(program, arguments.join(QLatin1Char(' ')),
                          finished ? QString::fromLocal8Bit(process.readAll()).trimmed()
                                   : QStringLiteral("no end within %1 ms").arg(timeoutMs));
    return false;
}

bool PostgresCluster::start(QString *error)
{
    const QString bin = binDirectory();
    if (bin.isEmpty()) {
        *error = missingText();
        return false;
    }
    if (!m_folder) {
        m_folder = std::make_unique<QTemporaryDir>(QDir::temp().filePath(QStringLiteral("kelda-pg-XXXXXX")));
        if (!m_folder->isValid()) {
            *error = QStringLiteral("Cannot create a temporary folder: %1").arg(m_folder->errorString());
            return false;
        }
        if (runsAsRoot()) {
            const passwd *user = ::getpwnam("postgres");
            if (!user || ::chown(QFile::encodeName(m_folder->path()).constData(), user->pw_uid, user->pw_gid) != 0) {
                *error =
                    QStringLiteral("Running as root, but cannot hand %1 to the user postgres").arg(m_folder->path());
                return false;
            }
        }
        m_dataDirectory = QDir(m_folder->path()).filePath(QStringLiteral("data"));
        m_socketDirectory = m_folder->path();
        if (!run(QDir(bin).filePath(QStringLiteral("initdb")),
                 {QStringLiteral("-D"), m_dataDirectory, QStringLiteral("-U"), QStringLiteral("postgres"),
                  QStringLiteral("--auth-local=trust"), QStringLiteral("--auth-host=scram-sha-256"),
                  QStringLiteral("-E"), QStringLiteral("UTF8"), QStringLiteral("--no-sync"),
                  QStringLiteral("--no-instructions")},
                 error))
            return false;
        m_port = freePort();
    }
    const QString options = QStringLiteral("-c listen_addresses=127.0.0.1 -p %1 -k %2 -c fsync=%3")
                                .arg(m_port)
                                .arg(m_socketDirectory, m_durable ? QStringLiteral("on") : QStringLiteral("off"));
    if (!run(QDir(bin).filePath(QStringLiteral("pg_ctl")),
             {QStringLiteral("start"), QStringLiteral("-D"), m_dataDirectory, QStringLiteral("-w"),
              QStringLiteral("-t"), QString::number(Wait / 1000), QStringLiteral("-l"),
              QDir(m_folder->path()).filePath(QStringLiteral("log")), QStringLiteral("-o"), options},
             error))
        return false;
    m_running = true;
    return superuserSql(QStringLiteral("DO $$ BEGIN IF NOT EXISTS (SELECT 1 FROM pg_roles WHERE rolname = '%1') THEN "
                                       "CREATE ROLE %1 LOGIN NOSUPERUSER NOCREATEDB NOCREATEROLE PASSWORD '%2'; "
                                       "END IF; END $$")
                            .arg(kRole, kPassword),
                        error);
}

bool PostgresCluster::stop(QString *error)
{
    if (!m_running)
        return true;
    m_running = false;
    return run(QDir(binDirectory()).filePath(QStringLiteral("pg_ctl")),
               {QStringLiteral("stop"), QStringLiteral("-D"), m_dataDirectory, QStringLiteral("-m"),
                QStringLiteral("fast"), QStringLiteral("-w"), QStringLiteral("-t"), QString::number(Wait / 1000)},
               error);
}

bool PostgresCluster::superuserSql(const QString &sql, QString *error)
{
    return run(QDir(binDirectory()).filePath(QStringLiteral("psql")),
               {QStringLiteral("-h"), m_socketDirectory, QStringLiteral("-p"), QString::number(m_port),
                QStringLiteral("-U"), QStringLiteral("postgres"), QStringLiteral("-d"), QStringLiteral("postgres"),
                QStringLiteral("-v"), QStringLiteral("ON_ERROR_STOP=1"), QStringLiteral("-q"), QStringLiteral("-c"),
                sql},
               error);
}

bool PostgresCluster::createDatabase(const QString &name, QString *error)
{
    if (m_databases.contains(name))
        return true;
    if (!superuserSql(QStringLiteral("CREATE DATABASE %1 OWNER %2").arg(name, kRole), error))
        return false;
    m_databases.insert(name);
    return true;
}

bool PostgresCluster::pgbench(const QString &database, const QStringList &arguments, QString *output, QString *error,
                              int timeoutMs)
{
    const QStringList connection{QStringLiteral("-h"),    m_socketDirectory,    QStringLiteral("-p"),
                                 QString::number(m_port), QStringLiteral("-U"), QStringLiteral("postgres")};
    return run(QDir(binDirectory()).filePath(QStringLiteral("pgbench")), connection + arguments + QStringList{database},
               error, timeoutMs, output);
}

QString PostgresCluster::url(const QString &database) const
{
    return QStringLiteral("postgresql://%1:%2@127.0.0.1:%3/%4").arg(kRole, kPassword).arg(m_port).arg(database);
}

QString PostgresCluster::socketUrl(const QString &database) const
{
    return QStringLiteral("postgresql://%1@localhost:%2/%3?host=%4")
        .arg(kRole)
        .arg(m_port)
        .arg(database, m_socketDirectory);
}
