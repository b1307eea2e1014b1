#pragma once

#include "resultrows.h"

#include <QSqlQuery>
#include <QVariant>

namespace Kelda {

// Rows of a Qt SQL query: SQLite's statements, and PostgreSQL's searches,
// which Qt streams row by row.
class QueryRows : public ResultRows
{
public:
    explicit QueryRows(QSqlQuery &query)
        : m_query(query)
    { }

    bool next() override { return m_query.next(); }
    bool isNull(int column) const override { return m_query.isNull(column); }
    QString text(int column) const override { return m_query.value(column).toString(); }
    qint64 number(int column) const override { return m_query.value(column).toLongLong(); }
    double real(int column) const override { return m_query.value(column).toDouble(); }
    bool flag(int column) const override { return m_query.value(column).toBool(); }
    QByteArray bytes(int column) const override { return m_query.value(column).toByteArray(); }
    int affected() const override { return m_query.numRowsAffected(); }
    void finish() override { m_query.finish(); }

private:
    QSqlQuery &m_query;
};

} // namespace Kelda
