#include "serverprocess.h"

#include "postgrescluster.h"
#include "testcertificates.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QFile>
#include <QRegularExpression>

#include <cstdio>
#include <cstdlib>

#ifdef Q_OS_LINUX
#include <csignal>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>
#endif

ServerProcess::ChildProcess::ChildProcess()
    : m_parentId(QCoreApplication::applicationPid())
{ }

// Runs in the child between fork and exec: async-signal-safe calls only.
void ServerProcess::ChildProcess::setupChildProcess()
{
#ifdef Q_OS_LINUX
    // Tests start their servers from their main thread, whose end is the
    // test's end. A test that died before this line no longer is the parent.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != m_parentId)
        _exit(1);
    if (m_descriptorLimit > 0) {
        const rlimit limit{rlim_t(m_descriptorLimit), rlim_t(m_descriptorLimit)};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
#endif
}

ServerProcess::ServerProcess(const QString &basePath)
    : m_basePath(basePath)
{
    if (m_basePath.isEmpty()) {
        m_temporaryDir = std::make_unique<QTemporaryDir>();
        m_basePath = m_temporaryDir->path();
    }
    // Traces go where the test's own go.
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
}

ServerProcess::~ServerProcess()
{
    stop();
}

bool ServerProcess::usesTls()
{
    return qEnvironmentVariable("KELDA_TEST_TLS") == QLatin1String("1");
}

bool ServerProcess::usesPostgres()
{
    return qEnvironmentVariable("KELDA_TEST_BACKEND") == QLatin1String("postgresql");
}

QString ServerProcess::postgresUrl(const QString &basePath, QString *error)
{
    if (PostgresCluster::binDirectory().isEmpty() && !PostgresCluster::required()) {
        std::fprintf(stderr, "SKIP: %s (set KELDA_REQUIRE_POSTGRES=1 to fail instead)\n",
                     qPrintable(PostgresCluster::missingText()));
        std::exit(SkipExitCode);
    }
    PostgresCluster *cluster = PostgresCluster::shared(error);
    if (!cluster)
        return QString();
    const QString name = QStringLiteral("kelda_") +
        QString::fromLatin1(QCryptographicHash::hash(basePath.toUtf8(), QCryptographicHash::Sha1).toHex().left(16));
    return cluster->createDatabase(name, error) ? cluster->url(name) : QString();
}

QString ServerProcess::programPath()
{
    return QStringLiteral(KELDASERVER_PROGRAM);
}

bool ServerProcess::start(int timeoutMs)
{
    return launch(timeoutMs) && waitUntilReady(timeoutMs);
}

bool ServerProcess::launch(int timeoutMs)
{
    if (isRunning()) {
        m_error = QStringLiteral("The server runs already");
        return false;
    }
    m_port = 0;
    m_metricsPort = 0;
    m_error.clear();
    QStringList arguments{QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"), QStringLiteral("--base-path"),
                          m_basePath};
    if (usesPostgres() && !m_extraArguments.contains(QStringLiteral("--db"))) {
        const QString url = postgresUrl(m_basePath, &m_error);
        if (url.isEmpty())
            return false;
        arguments << QStringLiteral("--db") << url;
    }
    if (usesTls() && !m_extraArguments.contains(QStringLiteral("--tls-cert"))) {
        TestCertificates *certificates = TestCertificates::shared();
        if (!certificates) {
            m_error = QStringLiteral("No test certificates");
            return false;
        }
        arguments << QStringLiteral("--tls-cert") << certificates->serverCertificate() << QStringLiteral("--tls-key")
                  << certificates->serverKey();
    }
    arguments += m_extraArguments;
    m_process.start(programPath(), arguments);
    if (!m_process.waitForStarted(timeoutMs)) {
        m_error = QStringLiteral("Cannot start %1: %2").arg(programPath(), m_process.errorString());
        return false;
    }
    return true;
}

bool ServerProcess::waitUntilReady(int timeoutMs)
{
    static const QRegularExpression readyLine(QStringLiteral("^keldaserver listening on (.+):(\\d+)$"));
    static const QRegularExpression metricsLine(QStringLiteral("^keldaserver metrics on (.+):(\\d+)$"));
    QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        while (m_process.canReadLine()) {
            const QString line = QString::fromLocal8Bit(m_process.readLine()).trimmed();
            const QRegularExpressionMatch metrics = metricsLine.match(line);
            if (metrics.hasMatch())
                m_metricsPort = quint16(metrics.captured(2).toUInt());
            const QRegularExpressionMatch match = readyLine.match(line);
            if (match.hasMatch()) {
                m_port = quint16(match.captured(2).toUInt());
                return true;
            }
        }
        if (m_process.state() != QProcess::Running) {
            m_error = QStringLiteral("The server ended before it was ready (exit code %1)").arg(m_process.exitCode());
            return false;
        }
        m_process.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
    }
    m_error = QStringLiteral("No ready line within %1 ms").arg(timeoutMs);
    kill();
    return false;
}

void ServerProcess::stop(int timeoutMs)
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(timeoutMs)) {
        m_error = QStringLiteral("The server did not stop within %1 ms; killed").arg(timeoutMs);
        kill();
    }
}

void ServerProcess::kill()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    m_process.waitForFinished(15000);
}

bool ServerProcess::isRunning() const
{
    return m_process.state() == QProcess::Running;
}

int ServerProcess::exitCode() const
{
    return m_process.exitCode();
}

QProcess::ExitStatus ServerProcess::exitStatus() const
{
    return m_process.exitStatus();
}

qint64 ServerProcess::statusField(const char *name) const
{
    QFile status(QStringLiteral("/proc/%1/status").arg(m_process.processId()));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(name))
            return line.mid(int(qstrlen(name))).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

qint64 ServerProcess::cpuTicks() const
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(m_process.processId()));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    // The fields after the command name, which may hold spaces itself:
    // utime and stime are the 12th and 13th of them.
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    return fields.size() > 12 ? fields.at(11).toLongLong() + fields.at(12).toLongLong() : -1;
}
