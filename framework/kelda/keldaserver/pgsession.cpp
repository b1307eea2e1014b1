#include "pgsession.h"

#include <libpq-fe.h>

namespace Kelda {

namespace {

const QByteArray kSeparator = QByteArrayLiteral("; ");

// Calls mark(index) for every '?' outside quoted text and identifiers and
// returns sql with each replaced by what mark returned.
template <typename Mark> QString replaceMarks(const QString &sql, Mark mark)
{
    QString result;
    result.reserve(sql.size() + 16);
    QChar quote;
    int index = 0;
    for (const QChar c : sql) {
        if (!quote.isNull()) {
            if (c == quote)
                quote = QChar();
            result += c;
        } else if (c == QLatin1Char('\'') || c == QLatin1Char('"')) {
            quote = c;
            result += c;
        } else if (c == QLatin1Char('?')) {
            result += mark(index++);
        } else {
            result += c;
        }
    }
    return result;
}

int countMarks(const QString &sql)
{
    int count = 0;
    replaceMarks(sql, [&count](int) {
        ++count;
        return QString();
    });
    return count;
}

} // namespace

PgSession::PgSession(pg_conn *connection)
    : m_connection(connection)
{ }

QString PgSession::literal(const QVariant &value) const
{
    if (value.isNull())
        return QStringLiteral("NULL");
    switch (value.userType()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return value.toString();
    case QMetaType::Double:
        return QString::number(value.toDouble(), 'g', 17);
    case QMetaType::QByteArray:
        return QStringLiteral("E'\\\\x%1'::bytea").arg(QString::fromLatin1(value.toByteArray().toHex()));
    default:
        break;
    }
    // E'' reads backslashes as escapes whatever standard_conforming_strings
    // says; the connection speaks UTF-8, where no byte of a multi-byte
    // character looks like a quote or a backslash.
    QString text = value.toString();
    text.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    text.replace(QLatin1Char('\''), QLatin1String("''"));
    return QStringLiteral("E'") + text + QLatin1Char('\'');
}

QString PgSession::withLiterals(const QString &sql, const QVariantList &values) const
{
    return replaceMarks(sql, [&](int index) { return literal(values.value(index)); });
}

const PgSession::Prepared *PgSession::prepare(const QString &sql)
{
    const auto found = m_prepared.constFind(sql);
    if (found != m_prepared.constEnd())
        return &found.value();
    Prepared prepared;
    prepared.name = "kelda_" + QByteArray::number(m_prepared.size() + 1);
    prepared.parameters = countMarks(sql);
    const QString numbered = replaceMarks(sql, [](int index) { return QStringLiteral("$%1").arg(index + 1); });
    pg_result *result = send("PREPARE " + prepared.name + " AS " + numbered.toUtf8());
    if (!result)
        return nullptr;
    PQclear(result);
    return &m_prepared.insert(sql, prepared).value();
}

ResultRows *PgSession::run(const QString &sql, const QVariantList &values)
{
    const Prepared *prepared = prepare(sql);
    if (!prepared)
        return nullptr;
    if (values.size() != prepared->parameters) {
        m_error = Error{
            QString(),
            QStringLiteral("%1 values for %2 parameters of: %3").arg(values.size()).arg(prepared->parameters).arg(sql),
            false};
        return nullptr;
    }
    QByteArray text = "EXECUTE " + prepared->name;
    if (!values.isEmpty()) {
        QStringList literals;
        for (const QVariant &value : values)
            literals.append(literal(value));
        text += '(' + literals.join(QLatin1String(", ")).toUtf8() + ')';
    }
    pg_result *result = send(text);
    if (!result)
        return nullptr;
    m_rows.reset(result);
    return &m_rows;
}

bool PgSession::execute(const QByteArray &text)
{
    pg_result *result = send(text);
    if (!result)
        return false;
    PQclear(result);
    return true;
}

bool PgSession::flush()
{
    if (m_deferred.isEmpty())
        return true;
    const QByteArray text = m_deferred.join(kSeparator);
    m_deferred.clear();
    return execute(text);
}

void PgSession::defer(const QByteArray &statement)
{
    m_deferred.append(statement);
}

bool PgSession::withdraw(const QByteArray &statement)
{
    if (m_deferred.isEmpty() || m_deferred.last() != statement)
        return false;
    m_deferred.removeLast();
    return true;
}

bool PgSession::stillConnected()
{
    // A server that ends the connection says why, then closes it: one
    // read takes the message, the next meets the end.
    for (int read = 0; read < 2; ++read) {
        if (PQconsumeInput(m_connection) == 0)
            return false;
    }
    return PQstatus(m_connection) == CONNECTION_OK;
}

bool PgSession::commit()
{
    pg_result *result = send("COMMIT");
    if (!result)
        return false;
    // COMMIT of a transaction that failed earlier succeeds as a ROLLBACK.
    const bool committed = qstrcmp(PQcmdStatus(result), "COMMIT") == 0;
    PQclear(result);
    if (!committed)
        m_error = Error{QString(), QStringLiteral("The transaction was rolled back"), false};
    return committed;
}

pg_result *PgSession::send(const QByteArray &text)
{
    QByteArray all = text;
    if (!m_deferred.isEmpty()) {
        all = m_deferred.join(kSeparator) + kSeparator + text;
        m_deferred.clear();
    }
    pg_result *result = PQexec(m_connection, all.constData());
    const ExecStatusType status = result ? PQresultStatus(result) : PGRES_FATAL_ERROR;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK)
        return result;
    recordError(result);
    if (result)
        PQclear(result);
    return nullptr;
}

void PgSession::recordError(pg_result *result)
{
    const char *state = result ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
    const char *message = result ? PQresultErrorMessage(result) : PQerrorMessage(m_connection);
    m_error.state = state ? QString::fromLatin1(state) : QString();
    m_error.message = QString::fromUtf8(message).trimmed();
    if (m_error.message.isEmpty())
        m_error.message = QString::fromUtf8(PQerrorMessage(m_connection)).trimmed();
    m_error.connectionBroken = PQstatus(m_connection) == CONNECTION_BAD;
}

} // namespace Kelda
