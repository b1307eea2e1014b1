#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace Kelda {

// The rows one statement answered, read column by column in the same terms
// on both backends: SQLite answers through Qt SQL, PostgreSQL through libpq.
// Valid until the next statement of its connection.
class ResultRows
{
public:
    virtual ~ResultRows() = default;

    // Moves to the next row; false after the last.
    virtual bool next() = 0;
    virtual bool isNull(int column) const = 0;
    virtual QString text(int column) const = 0;
    virtual qint64 number(int column) const = 0;
    virtual double real(int column) const = 0;
    virtual bool flag(int column) const = 0;
    virtual QByteArray bytes(int column) const = 0;
    // Rows a change touched.
    virtual int affected() const = 0;
    // The rest of the rows are not needed: SQLite ends the statement's read.
    virtual void finish() = 0;

    // The first column of the first row, if there is one.
    std::optional<QString> firstText()
    {
        const std::optional<QString> found = next() ? std::optional<QString>(text(0)) : std::nullopt;
        finish();
        return found;
    }
};

} // namespace Kelda
