#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

// Runs the real keldaserver program as a separate process for tests, the
// way users run it: on 127.0.0.1 with a free port, below a fresh temporary
// base path unless one is given (give the same one again to restart on the
// same data). Every wait is bounded.
//
// With KELDA_TEST_BACKEND=postgresql the metadata goes to a database of the
// test program's throw-away PostgreSQL cluster, one database per base path,
// so the same tests run on both backends. Without PostgreSQL installed such
// a run ends at once with SkipExitCode (CTest reports it skipped), unless
// KELDA_REQUIRE_POSTGRES=1.
class ServerProcess
{
public:
    // An empty basePath means a fresh temporary folder, removed with this
    // object.
    explicit ServerProcess(const QString &basePath = QString());
    ~ServerProcess();
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;

    // Further command-line options, e.g. {"--max-frame", "1024"}.
    void setExtraArguments(const QStringList &arguments) { m_extraArguments = arguments; }
    // Starts the program with at most this many open files (soft and hard
    // limit); 0 leaves the limit as it is.
    void setDescriptorLimit(int descriptors) { m_process.setDescriptorLimit(descriptors); }

    // Starts the program and waits for its ready line; false with
    // errorString() when it did not come within timeoutMs.
    bool start(int timeoutMs = 15000);
    // The two halves of start(), for servers that must start together.
    bool launch(int timeoutMs = 15000);
    bool waitUntilReady(int timeoutMs = 15000);
    // SIGTERM, then waits for the exit; SIGKILL when it takes longer.
    void stop(int timeoutMs = 15000);
    // SIGKILL at once, as a crash would end it.
    void kill();

    bool isRunning() const;
    quint16 port() const { return m_port; }
    // The monitoring port the program named before its ready line; 0
    // without --metrics.
    quint16 metricsPort() const { return m_metricsPort; }
    qint64 processId() const { return m_process.processId(); }
    QString basePath() const { return m_basePath; }
    QString errorString() const { return m_error; }
    // Exit code of the last run; valid after stop() returned.
    int exitCode() const;
    QProcess::ExitStatus exitStatus() const;

    // The running program's resident size now, and its peak so far, in
    // KiB; -1 when unknown.
    qint64 residentKiB() const { return statusField("VmRSS:"); }
    qint64 peakResidentKiB() const { return statusField("VmHWM:"); }
    // Processor time the program has used, in clock ticks; -1 when unknown.
    qint64 cpuTicks() const;

    static QString programPath();

    static bool usesPostgres();
    // With KELDA_TEST_TLS=1 the server speaks TLS with the test
    // certificates (see TestCertificates), and the test helpers' clients
    // trust their authority.
    static bool usesTls();
    // The --db URL for a base path on the shared cluster; empty with *error
    // set when there is none.
    static QString postgresUrl(const QString &basePath, QString *error);
    static constexpr int SkipExitCode = 77;

private:
    // A server outlives a test that is killed or halted (by a sanitizer, say)
    // unless told otherwise, and then holds the test's output open, so that
    // CTest waits for it until its time limit.
    class ChildProcess : public QProcess
    {
    public:
        ChildProcess();
        void setDescriptorLimit(int descriptors) { m_descriptorLimit = descriptors; }

    protected:
        void setupChildProcess() override;

    private:
        qint64 m_parentId;
        int m_descriptorLimit = 0;
    };

    qint64 statusField(const char *name) const;

    std::unique_ptr<QTemporaryDir> m_temporaryDir;
    QString m_basePath;
    QStringList m_extraArguments;
    ChildProcess m_process;
    quint16 m_port = 0;
    quint16 m_metricsPort = 0;
    QString m_error;
};
