#pragma once

#include <QFile>
#include <QString>
#include <QTextStream>

#include <unistd.h>

// What the benchmark programs share: the summary rows that ./run.sh bench
// gathers into one table, and the process's resident size.
namespace BenchTable {

// One summary row: the figure, the limit it is compared with (measured in
// the same run), their ratio and the target. Tab-separated behind "table"
// so that the script can pick the rows out of the program's own output.
inline void Row(const QString &figure, const QString &measured, const QString &limit, const QString &ratio,
                const QString &target)
{
    QTextStream(stdout) << "table\t" << figure << '\t' << measured << '\t' << limit << '\t' << ratio << '\t' << target
                        << '\n';
}

inline QString Number(double value, int decimals = 1)
{
    return QString::number(value, 'f', decimals);
}

// Resident set size in bytes, from /proc; 0 where it cannot be read.
inline qint64 ResidentBytes()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.size() > 1 ? fields.at(1).toLongLong() * ::sysconf(_SC_PAGESIZE) : 0;
}

inline QString MiB(qint64 bytes)
{
    return Number(double(bytes) / (1024.0 * 1024.0), 1) + QStringLiteral(" MiB");
}

} // namespace BenchTable
