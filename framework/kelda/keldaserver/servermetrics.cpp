#include "servermetrics.h"

#include <QFile>

#include <sys/statvfs.h>

namespace Kelda {

namespace {

// Label values are client-chosen command names: escaped as the text format
// asks, so that nothing a client sends can forge a line.
QByteArray labelValue(const QString &text)
{
    QByteArray escaped;
    for (const char c : text.toUtf8()) {
        if (c == '\\' || c == '"')
            escaped += '\\';
        if (c == '\n') {
            escaped += "\\n";
            continue;
        }
        escaped += c;
    }
    return escaped;
}

void header(QByteArray &out, const char *name, const char *type, const char *help)
{
    out += "# HELP ";
    out += name;
    out += ' ';
    out += help;
    out += "\n# TYPE ";
    out += name;
    out += ' ';
    out += type;
    out += '\n';
}

void sample(QByteArray &out, const char *name, const QByteArray &labels, double value)
{
    out += name;
    if (!labels.isEmpty())
        out += '{' + labels + '}';
    out += ' ';
    out += QByteArray::number(value, 'g', 17);
    out += '\n';
}

void single(QByteArray &out, const char *name, const char *type, const char *help, double value)
{
    header(out, name, type, help);
    sample(out, name, QByteArray(), value);
}

} // namespace

void ServerMetrics::requestAnswered(const QString &command, int code, qint64 nanoseconds)
{
    ++m_requests[qMakePair(command, code)];
    Latency &latency = m_latencies[command];
    const double seconds = double(nanoseconds) / 1e9;
    for (size_t i = 0; i < LatencyBuckets.size(); ++i) {
        if (seconds <= LatencyBuckets[i])
            ++latency.buckets[i];
    }
    ++latency.count;
    latency.sum += seconds;
}

void ServerMetrics::countFixity(FixityResult result)
{
    switch (result) {
    case FixityResult::Ok:
        ++fixityOk;
        return;
    case FixityResult::Mismatch:
        ++fixityMismatch;
        return;
    case FixityResult::Missing:
        ++fixityMissing;
        return;
    }
}

QByteArray ServerMetrics::render(const Gauges &gauges) const
{
    QByteArray out;
    header(out, "kelda_requests_total", "counter", "Requests answered, by command and result code.");
    for (auto it = m_requests.cbegin(); it != m_requests.cend(); ++it)
        sample(out, "kelda_requests_total",
               "command=\"" + labelValue(it.key().first) + "\",code=\"" + QByteArray::number(it.key().second) + '"',
               double(it.value()));
    header(out, "kelda_request_duration_seconds", "histogram",
           "Time from a request's arrival to its answer leaving, by command.");
    for (auto it = m_latencies.cbegin(); it != m_latencies.cend(); ++it) {
        const QByteArray command = "command=\"" + labelValue(it.key()) + '"';
        for (size_t i = 0; i < LatencyBuckets.size(); ++i)
            sample(out, "kelda_request_duration_seconds_bucket",
                   command + ",le=\"" + QByteArray::number(LatencyBuckets[i], 'g', 6) + '"', double(it->buckets[i]));
        sample(out, "kelda_request_duration_seconds_bucket", command + ",le=\"+Inf\"", double(it->count));
        sample(out, "kelda_request_duration_seconds_sum", command, it->sum);
        sample(out, "kelda_request_duration_seconds_count", command, double(it->count));
    }
    single(out, "kelda_connections", "gauge", "Client connections open.", gauges.connections);
    single(out, "kelda_backlog_bytes", "gauge", "Answer bytes waiting for clients to read them.",
           double(gauges.backlogBytes));
    single(out, "kelda_pending_bytes", "gauge", "Bytes of large requests being received or decoded.",
           double(gauges.pendingBytes));
    single(out, "kelda_database_up", "gauge", "1 when the database answered the last look, else 0.",
           gauges.databaseUp ? 1 : 0);
    single(out, "kelda_database_errors_total", "counter", "Database statements that failed.",
           double(databaseErrors.load()));
    single(out, "kelda_database_reconnects_total", "counter", "Connections to the database made again after a loss.",
           double(databaseReconnects.load()));
    header(out, "kelda_nas_moves_total", "counter", "Moves to network storage, by outcome.");
    sample(out, "kelda_nas_moves_total", "outcome=\"started\"", double(movesStarted.load()));
    sample(out, "kelda_nas_moves_total", "outcome=\"completed\"", double(movesCompleted.load()));
    sample(out, "kelda_nas_moves_total", "outcome=\"failed\"", double(movesFailed.load()));
    header(out, "kelda_fixity_checks_total", "counter", "Files re-read and compared with their digest, by result.");
    sample(out, "kelda_fixity_checks_total", "result=\"ok\"", double(fixityOk.load()));
    sample(out, "kelda_fixity_checks_total", "result=\"mismatch\"", double(fixityMismatch.load()));
    sample(out, "kelda_fixity_checks_total", "result=\"missing\"", double(fixityMissing.load()));
    header(out, "kelda_storage_used_bytes", "gauge", "Bytes used on the file system of each storage folder.");
    for (const Gauges::Storage &storage : gauges.storage)
        sample(out, "kelda_storage_used_bytes", "folder=\"" + labelValue(storage.name) + '"',
               double(storage.usedBytes));
    header(out, "kelda_storage_free_bytes", "gauge", "Bytes free on the file system of each storage folder.");
    for (const Gauges::Storage &storage : gauges.storage)
        sample(out, "kelda_storage_free_bytes", "folder=\"" + labelValue(storage.name) + '"',
               double(storage.freeBytes));
    return out;
}

QPair<qint64, qint64> ServerMetrics::fileSystemBytes(const QString &path)
{
    struct statvfs status;
    if (::statvfs(QFile::encodeName(path).constData(), &status) != 0)
        return qMakePair(qint64(-1), qint64(-1));
    const qint64 unit = qint64(status.f_frsize);
    return qMakePair(qint64(status.f_blocks - status.f_bfree) * unit, qint64(status.f_bavail) * unit);
}

} // namespace Kelda
