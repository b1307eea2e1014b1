#pragma once

#include "pgrows.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <QVariantList>

struct pg_conn;

namespace Kelda {

// The statements of one PostgreSQL connection, sent through libpq on the
// connection Qt opened. Qt's driver sends one statement per round trip and
// drops the errors of all but the first in a text of several; libpq's
// simple query stops at the first error and reports it. That lets
// transaction control wait and travel with the next statement: a savepoint,
// its release and the commit mark cost no round trip of their own.
//
// Statements of fixed text are prepared once per connection and executed by
// name, their values sent as quoted literals. One thread owns an instance.
class PgSession
{
public:
    struct Error
    {
        QString state; // SQLSTATE, empty when libpq made the error up itself
        QString message;
        bool connectionBroken = false;
    };

    explicit PgSession(pg_conn *connection);
    PgSession(const PgSession &) = delete;
    PgSession &operator=(const PgSession &) = delete;

    // Runs a statement of fixed text ('?' for each value) after whatever
    // was deferred; null on failure, see lastError().
    ResultRows *run(const QString &sql, const QVariantList &values);
    // Runs a text of one or more statements after whatever was deferred.
    bool execute(const QByteArray &text);
    // Sends what was deferred, when anything was; for statements that go
    // their own way (through Qt).
    bool flush();

    // Transaction control that may wait for the next statement.
    void defer(const QByteArray &statement);
    // Takes back the last deferred statement when it is this one: a
    // savepoint that no statement used needs no release.
    bool withdraw(const QByteArray &statement);
    void dropDeferred() { m_deferred.clear(); }
    // Sends what was deferred and COMMIT in one round trip; false when
    // the transaction did not commit.
    bool commit();

    const Error &lastError() const { return m_error; }
    // Reads what the server sent unasked, without a round trip: false when
    // it closed the connection (a restart, an administrator).
    bool stillConnected();

    // sql with every '?' outside quotes replaced by values, as literals.
    QString withLiterals(const QString &sql, const QVariantList &values) const;
    QString literal(const QVariant &value) const;

private:
    struct Prepared
    {
        QByteArray name;
        int parameters = 0;
    };

    const Prepared *prepare(const QString &sql);
    // Sends deferred statements plus text; the result, or null with
    // lastError() set.
    pg_result *send(const QByteArray &text);
    void recordError(pg_result *result);

    pg_conn *m_connection;
    QHash<QString, Prepared> m_prepared;
    QList<QByteArray> m_deferred;
    PgRows m_rows;
    Error m_error;
};

} // namespace Kelda
