#include "pgrows.h"

#include <libpq-fe.h>

namespace Kelda {

PgRows::~PgRows()
{
    reset(nullptr);
}

void PgRows::reset(pg_result *result)
{
    if (m_result)
        PQclear(m_result);
    m_result = result;
    m_row = -1;
}

bool PgRows::next()
{
    if (!m_result || m_row + 1 >= PQntuples(m_result))
        return false;
    ++m_row;
    return true;
}

const char *PgRows::value(int column) const
{
    if (!m_result || m_row < 0 || m_row >= PQntuples(m_result) || column < 0 || column >= PQnfields(m_result))
        return "";
    return PQgetvalue(m_result, m_row, column);
}

bool PgRows::isNull(int column) const
{
    if (!m_result || m_row < 0 || m_row >= PQntuples(m_result) || column < 0 || column >= PQnfields(m_result))
        return true;
    return PQgetisnull(m_result, m_row, column) != 0;
}

QString PgRows::text(int column) const
{
    return QString::fromUtf8(value(column));
}

qint64 PgRows::number(int column) const
{
    return QByteArray(value(column)).toLongLong();
}

double PgRows::real(int column) const
{
    return QByteArray(value(column)).toDouble();
}

bool PgRows::flag(int column) const
{
    // Booleans come as "t" and "f", integers as digits.
    const char *text = value(column);
    return text[0] == 't' || (text[0] >= '1' && text[0] <= '9');
}

QByteArray PgRows::bytes(int column) const
{
    size_t length = 0;
    unsigned char *raw = PQunescapeBytea(reinterpret_cast<const unsigned char *>(value(column)), &length);
    if (!raw)
        return QByteArray();
    const QByteArray result(reinterpret_cast<const char *>(raw), int(length));
    PQfreemem(raw);
    return result;
}

int PgRows::affected() const
{
    return m_result ? QByteArray(PQcmdTuples(m_result)).toInt() : 0;
}

} // namespace Kelda
