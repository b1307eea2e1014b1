#pragma once

#include "resultrows.h"

struct pg_result;

namespace Kelda {

// Rows of a libpq result in text form, which this object owns.
class PgRows : public ResultRows
{
public:
    PgRows() = default;
    ~PgRows() override;
    PgRows(const PgRows &) = delete;
    PgRows &operator=(const PgRows &) = delete;

    // Takes over result (null for none) and stands before its first row.
    void reset(pg_result *result);

    bool next() override;
    bool isNull(int column) const override;
    QString text(int column) const override;
    qint64 number(int column) const override;
    double real(int column) const override;
    bool flag(int column) const override;
    QByteArray bytes(int column) const override;
    int affected() const override;
    void finish() override { reset(nullptr); }

private:
    const char *value(int column) const;

    pg_result *m_result = nullptr;
    int m_row = -1;
};

} // namespace Kelda
