#include "archivedatabase.h"

#include "archiveschema.h"
#include "pgsession.h"
#include "queryrows.h"

#include <QSqlDriver>
#include <QSqlError>

#include <libpq-fe.h>
#include <sqlite3.h>

#include <atomic>

namespace Kelda {

// A prepared SQLite statement and the view of its rows.
struct SqliteStatement
{
    explicit SqliteStatement(const QSqlDatabase &db)
        : query(db)
        , rows(query)
    {
        // Read once, front to back: Qt keeps no copy of the rows passed.
        query.setForwardOnly(true);
    }

    QSqlQuery query;
    QueryRows rows;
};

namespace {

const QByteArray kBegin = QByteArrayLiteral("BEGIN");
const QByteArray kCommit = QByteArrayLiteral("COMMIT");
const QByteArray kSavepoint = QByteArrayLiteral("SAVEPOINT request");
const QByteArray kRelease = QByteArrayLiteral("RELEASE SAVEPOINT request");
const QByteArray kRollbackToSavepoint = QByteArrayLiteral("ROLLBACK TO SAVEPOINT request");

const QString kWriteMark = QStringLiteral("INSERT INTO commit_marks (server_id, token) VALUES (?, ?)"
                                          " ON CONFLICT (server_id) DO UPDATE SET token = excluded.token");

pg_conn *postgresHandle(const QSqlDatabase &db)
{
    const QVariant handle = db.driver()->handle();
    if (!handle.isValid() || qstrcmp(handle.typeName(), "PGconn*") != 0)
        return nullptr;
    return *static_cast<pg_conn *const *>(handle.constData());
}

} // namespace

ArchiveDatabase::ArchiveDatabase()
{
    static std::atomic<int> counter{0};
    m_connectionName = QStringLiteral("keldaserver-%1").arg(counter.fetch_add(1));
}

ArchiveDatabase::~ArchiveDatabase()
{
    close();
}

void ArchiveDatabase::close()
{
    m_current = nullptr;
    m_statements.clear();
    m_session.reset();
    if (m_db.isValid()) {
        m_db.close();
        m_db = QSqlDatabase();
    }
    QSqlDatabase::removeDatabase(m_connectionName);
}

bool ArchiveDatabase::open(const DatabaseLocation &location, Schema schemaUse)
{
    m_location = location;
    m_schema = schemaUse;
    m_schemaTooNew = false;
    if (!connect())
        return false;
    ArchiveSchema schema(*this);
    try {
        if (!isPostgres())
            setUpSqlite();
        if (m_schema == Schema::Upgrade)
            schema.update();
        // A second holder of the same lock would wait for the first forever.
        if (isPostgres() && m_holdsLiveness)
            holdLiveness();
    } catch (const RequestFailure &failure) {
        m_schemaTooNew = schema.tooNew();
        if (m_schemaTooNew)
            m_error = failure.text;
        else if (m_error.isEmpty())
            m_error = QStringLiteral("Cannot prepare the database %1: %2").arg(m_location.displayName(), failure.text);
        return false;
    }
    return true;
}

bool ArchiveDatabase::reopen()
{
    close();
    m_connectionLost = false;
    m_error.clear();
    if (open(m_location, m_schema)) {
        if (m_reconnectCounter)
            ++*m_reconnectCounter;
        return true;
    }
    m_connectionLost = true;
    return false;
}

bool ArchiveDatabase::connect()
{
    m_error.clear();
    if (isPostgres()) {
        m_db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), m_connectionName);
        if (!m_db.isValid()) {
            m_error = QStringLiteral("Cannot use %1: Qt has no PostgreSQL driver; install libqt5sql5-psql")
                          .arg(m_location.displayName());
            return false;
        }
        m_db.setHostName(m_location.host);
        m_db.setPort(m_location.port);
        m_db.setUserName(m_location.user);
        m_db.setPassword(m_location.password);
        m_db.setDatabaseName(m_location.name);
    } else {
        m_db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_connectionName);
        m_db.setDatabaseName(m_location.file);
    }
    if (!m_db.open()) {
        m_error = QStringLiteral("Cannot open the database %1: %2")
                      .arg(m_location.displayName(), m_db.lastError().text().trimmed());
        return false;
    }
    if (isPostgres()) {
        pg_conn *handle = postgresHandle(m_db);
        if (!handle) {
            m_error = QStringLiteral("Cannot use %1: Qt's PostgreSQL driver gives no connection handle")
                          .arg(m_location.displayName());
            return false;
        }
        m_session = std::make_unique<PgSession>(handle);
        try {
            setUpPostgres();
        } catch (const RequestFailure &failure) {
            m_error =
                QStringLiteral("Cannot set up the connection to %1: %2").arg(m_location.displayName(), failure.text);
            return false;
        }
    }
    return true;
}

bool ArchiveDatabase::configureSqliteLibrary()
{
    return sqlite3_config(SQLITE_CONFIG_STMTJRNL_SPILL, SqliteSubJournalBytes) == SQLITE_OK;
}

void ArchiveDatabase::setUpSqlite()
{
    // WAL lets the commit be one append and one flush; FULL makes that
    // flush happen before the commit returns.
    execute(QStringLiteral("PRAGMA journal_mode=WAL"), KE_DatabaseNotAvailable);
    execute(QStringLiteral("PRAGMA synchronous=FULL"), KE_DatabaseNotAvailable);
    execute(QStringLiteral("PRAGMA busy_timeout=5000"), KE_DatabaseNotAvailable);
    // Pages are read through a mapping instead of a system call each,
    // and more of them stay cached between transactions.
    execute(QStringLiteral("PRAGMA mmap_size=%1").arg(SqliteMapBytes), KE_DatabaseNotAvailable);
    // A negative size counts KiB.
    execute(QStringLiteral("PRAGMA cache_size=-%1").arg(SqliteCacheKiB), KE_DatabaseNotAvailable);
}

void ArchiveDatabase::setUpPostgres()
{
    // A row another server holds too long is an error, not a hang: the
    // client waits 60 s at most for any answer. "relation exists, skipping"
    // on every start is no news.
    execute(QStringLiteral("SET lock_timeout = '20s'; SET client_min_messages = warning"), KE_DatabaseNotAvailable);
}

void ArchiveDatabase::holdLiveness()
{
    // Held for the life of the connection: other servers see by it that
    // this one is still there to finish its moves.
    run(QStringLiteral("SELECT pg_advisory_lock(%1, hashtext(?))").arg(AdvisoryClass), {m_instanceId},
        KE_DatabaseNotAvailable)
        .finish();
}

bool ArchiveDatabase::ownerAlive(const QString &owner)
{
    if (owner == m_instanceId)
        return true;
    if (!isPostgres())
        return false;
    ResultRows &rows = run(QStringLiteral("SELECT pg_try_advisory_lock(%1, hashtext(?))").arg(AdvisoryClass), {owner},
                           KE_DatabaseNotAvailable);
    const bool free = rows.next() && rows.flag(0);
    rows.finish();
    if (!free)
        return true;
    run(QStringLiteral("SELECT pg_advisory_unlock(%1, hashtext(?))").arg(AdvisoryClass), {owner},
        KE_DatabaseNotAvailable)
        .finish();
    return false;
}

RequestFailure ArchiveDatabase::failure(const QSqlError &error, KeldaError code)
{
    const QString state = error.nativeErrorCode();
    // Errors libpq makes up itself carry no state: the server is gone.
    return failure(state, error.text().trimmed(), state.isEmpty() || error.type() == QSqlError::ConnectionError, code);
}

RequestFailure ArchiveDatabase::failure(const QString &state, const QString &text, bool connectionBroken,
                                        KeldaError code)
{
    RequestFailure result{code, text};
    if (m_errorCounter)
        ++*m_errorCounter;
    if (!isPostgres())
        return result;
    // Deadlock and serialization failures: another server changed the same
    // rows at the same moment; the request may simply run again.
    if (state == QLatin1String("40001") || state == QLatin1String("40P01")) {
        result.retry = true;
    } else if (connectionBroken || state.startsWith(QLatin1String("08")) || state.startsWith(QLatin1String("57P"))) {
        m_connectionLost = true;
        result.code = KE_DatabaseNotAvailable;
    }
    return result;
}

RequestFailure ArchiveDatabase::sessionFailure(KeldaError code)
{
    const PgSession::Error &error = m_session->lastError();
    return failure(error.state, error.message, error.connectionBroken, code);
}

void ArchiveDatabase::endRead()
{
    if (m_current) {
        m_current->finish();
        m_current = nullptr;
    }
}

SqliteStatement &ArchiveDatabase::prepared(const QString &sql)
{
    // Searches come in as many shapes as clients make; the few statements
    // of fixed text are soon prepared again.
    if (m_statements.size() >= MostStatements && !m_statements.contains(sql))
        m_statements.clear();
    auto &slot = m_statements[sql];
    if (!slot) {
        slot = std::make_shared<SqliteStatement>(m_db);
        if (!slot->query.prepare(sql)) {
            RequestFailure refused = failure(slot->query.lastError(), KE_DatabaseNotAvailable);
            refused.text = QStringLiteral("Cannot prepare a statement: %1").arg(refused.text);
            m_statements.remove(sql);
            throw refused;
        }
    }
    return *slot;
}

ResultRows &ArchiveDatabase::run(const QString &sql, const QVariantList &values, KeldaError code)
{
    endRead();
    if (m_session) {
        ResultRows *rows = m_session->run(sql, values);
        if (!rows)
            throw sessionFailure(code);
        m_current = rows;
        return *rows;
    }
    SqliteStatement &statement = prepared(sql);
    for (int i = 0; i < values.size(); ++i)
        statement.query.bindValue(i, values.at(i));
    if (!statement.query.exec())
        throw failure(statement.query.lastError(), code);
    m_current = &statement.rows;
    return statement.rows;
}

void ArchiveDatabase::visit(const QString &sql, const QVariantList &values, KeldaError code,
                            const std::function<void(const ResultRows &)> &row)
{
    endRead();
    if (!m_session) {
        // Searches of the same shape share their statement, parsed once.
        ResultRows &rows = run(sql, values, code);
        while (rows.next())
            row(rows);
        endRead();
        return;
    }
    // Qt streams the rows of a forward-only query; the values go in as
    // literals, so that the planner sees the search texts.
    QSqlQuery query(m_db);
    query.setForwardOnly(true);
    if (!m_session->flush())
        throw sessionFailure(code);
    if (!query.exec(m_session->withLiterals(sql, values)))
        throw failure(query.lastError(), code);
    QueryRows rows(query);
    while (rows.next())
        row(rows);
}

void ArchiveDatabase::execute(const QString &sql, KeldaError code)
{
    endRead();
    if (m_session) {
        if (!m_session->execute(sql.toUtf8()))
            throw sessionFailure(code);
        return;
    }
    QSqlQuery query(m_db);
    if (!query.exec(sql))
        throw failure(query.lastError(), code);
}

void ArchiveDatabase::runLater(const QString &sql, const QVariantList &values, KeldaError code)
{
    if (m_session)
        m_session->defer(m_session->withLiterals(sql, values).toUtf8());
    else
        run(sql, values, code).finish();
}

void ArchiveDatabase::begin()
{
    if (m_session) {
        // A connection the server closed while this one was idle shows
        // here, before anything was done on it, so that a fresh one may
        // take over; otherwise BEGIN travels with the first statement.
        if (!m_session->stillConnected())
            throw failure(QString(), QStringLiteral("The database closed the connection"), true,
                          KE_DatabaseNotAvailable);
        m_session->dropDeferred();
        m_session->defer(kBegin);
        return;
    }
    transactionControl(QString::fromLatin1(kBegin));
}

bool ArchiveDatabase::commit()
{
    try {
        if (m_beforeCommit)
            m_beforeCommit();
    } catch (const RequestFailure &failure) {
        m_error = failure.text;
        if (!m_connectionLost)
            rollback();
        return false;
    }
    endRead();
    if (m_session) {
        if (m_session->commit())
            return true;
        m_error = sessionFailure(KE_DatabaseNotAvailable).text;
    } else {
        try {
            transactionControl(QString::fromLatin1(kCommit));
            endRead();
            return true;
        } catch (const RequestFailure &failure) {
            m_error = failure.text;
        }
    }
    if (!m_connectionLost)
        rollback();
    return false;
}

void ArchiveDatabase::rollback()
{
    endRead();
    if (m_session) {
        m_session->dropDeferred();
        // After a failed COMMIT there may be no transaction left to end.
        m_session->execute("ROLLBACK");
        return;
    }
    m_db.rollback();
}

void ArchiveDatabase::transactionControl(const QString &sql)
{
    // SQLite runs these faster prepared.
    run(sql, {}, KE_DatabaseNotAvailable);
}

void ArchiveDatabase::savepoint()
{
    if (m_session)
        m_session->defer(kSavepoint);
    else
        transactionControl(QString::fromLatin1(kSavepoint));
}

void ArchiveDatabase::releaseSavepoint()
{
    if (!m_session) {
        transactionControl(QString::fromLatin1(kRelease));
    } else if (!m_session->withdraw(kSavepoint)) {
        m_session->defer(kRelease);
    }
}

void ArchiveDatabase::rollbackToSavepoint()
{
    if (!m_session) {
        transactionControl(QString::fromLatin1(kRollbackToSavepoint));
        transactionControl(QString::fromLatin1(kRelease));
    } else if (!m_session->withdraw(kSavepoint)) {
        m_session->defer(kRollbackToSavepoint);
        m_session->defer(kRelease);
    }
}

QString ArchiveDatabase::commitMarkId() const
{
    return m_commitMarkId.isEmpty() ? m_instanceId : m_commitMarkId;
}

void ArchiveDatabase::writeCommitMark(qint64 token)
{
    // Inside the transaction it marks, sent with its COMMIT.
    if (m_session)
        m_session->defer(m_session->withLiterals(kWriteMark, {commitMarkId(), token}).toUtf8());
    else
        run(kWriteMark, {commitMarkId(), token}, KE_DatabaseNotAvailable);
}

bool ArchiveDatabase::hasCommitMark(qint64 token)
{
    ResultRows &rows = run(QStringLiteral("SELECT token FROM commit_marks WHERE server_id = ?"), {commitMarkId()},
                           KE_DatabaseNotAvailable);
    const bool found = rows.next() && rows.number(0) == token;
    rows.finish();
    return found;
}

void ArchiveDatabase::dropCommitMark()
{
    run(QStringLiteral("DELETE FROM commit_marks WHERE server_id = ?"), {commitMarkId()}, KE_DatabaseNotAvailable);
}

} // namespace Kelda
