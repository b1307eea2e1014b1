#pragma once

#include <QSet>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

// A throw-away PostgreSQL cluster for tests: initdb into a temporary folder,
// listening only on 127.0.0.1 with a free port and on a socket folder
// inside that folder, stopped and removed with this object. When the tests
// run as root the cluster runs as the "postgres" user. The servers under
// test log in as an ordinary role that owns its databases and nothing else.
// Every wait is bounded.
class PostgresCluster
{
public:
    PostgresCluster();
    ~PostgresCluster();
    PostgresCluster(const PostgresCluster &) = delete;
    PostgresCluster &operator=(const PostgresCluster &) = delete;

    // The folder with initdb and pg_ctl, empty when PostgreSQL is missing.
    static QString binDirectory();
    // Whether the tests must fail rather than skip without PostgreSQL.
    static bool required();
    // What to tell when PostgreSQL is missing.
    static QString missingText();

    // One cluster for the whole test program, started on first use; null
    // with *error set when it cannot be.
    static PostgresCluster *shared(QString *error);

    // Commits reach the disk before they return, as in production; off by
    // default, since a test cluster lives only as long as its test.
    void setDurable(bool durable) { m_durable = durable; }

    bool start(QString *error);
    // pg_ctl stop -m fast: connections are cut as in a database crash.
    bool stop(QString *error = nullptr);
    bool isRunning() const { return m_running; }

    // Creates the database (owned by the test role) unless it exists.
    bool createDatabase(const QString &name, QString *error);
    // The --db argument for a server on that database.
    QString url(const QString &database) const;
    // The same through the socket folder instead of TCP.
    QString socketUrl(const QString &database) const;
    quint16 port() const { return m_port; }

    // pgbench on a database of this cluster as its superuser, through the
    // socket folder: the engine's own measure of what the cluster carries.
    // False with *error set when it fails.
    bool pgbench(const QString &database, const QStringList &arguments, QString *output, QString *error,
                 int timeoutMs = Wait);

    static constexpr int Wait = 120000;

private:
    bool run(const QString &program, const QStringList &arguments, QString *error, int timeoutMs = Wait,
             QString *output = nullptr);
    bool superuserSql(const QString &sql, QString *error);

    std::unique_ptr<QTemporaryDir> m_folder;
    QString m_dataDirectory;
    QString m_socketDirectory;
    quint16 m_port = 0;
    bool m_running = false;
    bool m_durable = false;
    QSet<QString> m_databases;
};
