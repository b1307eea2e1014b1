// Measures the reading of QueryFileGroups replies from 10 to 100,000 groups
// (envelope, parser and result table) against a bare QXmlStreamReader pass
// over the same bytes, read whole and read while they arrive.

#include "benchtable.h"
#include "queryreply.h"
#include "filegroupdata.h"
#include "keldaxml.h"
#include "replyparser.h"
#include "replystream.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>
#include <QXmlStreamReader>

#include <algorithm>
#include <ctime>
#include <functional>
#include <limits>
#include <optional>

using namespace Kelda;

namespace {

// Best wall and processor times of several runs, in milliseconds.
struct Timing
{
    double wall = std::numeric_limits<double>::max();
    double cpu = std::numeric_limits<double>::max();

    void Run(const std::function<void()> &work)
    {
        QElapsedTimer timer;
        const std::clock_t cpuStart = std::clock();
        timer.start();
        work();
        wall = std::min(wall, timer.nsecsElapsed() / 1e6);
        cpu = std::min(cpu, (std::clock() - cpuStart) * 1000.0 / CLOCKS_PER_SEC);
    }
};

// The reply read as the client reads it while it arrives: 64 KiB at a time,
// each time fed up to the last group in, then finished whole. Times the last
// step into last.
ParsedReply ReadWhileArriving(const QByteArray &reply, Timing &last)
{
    constexpr qint64 Arrival = 64 * 1024;
    ReplyStream stream;
    qint64 fed = 0;
    for (qint64 arrived = Arrival; arrived < reply.size(); arrived += Arrival) {
        const qint64 cut = ReplyStream::GroupBoundary(reply.constData(), arrived - Arrival, arrived);
        if (cut > fed) {
            stream.Feed(reply.mid(int(fed), int(cut - fed)), fed);
            fed = cut;
        }
    }
    std::optional<ParsedReply> parsed;
    last.Run([&] { parsed.emplace(stream.Finish(reply)); });
    return std::move(*parsed);
}

// The groups of the reply again, as records, to time the table rows alone.
std::vector<FileGroupData> MakeRecords(const TableResult &table)
{
    return FileGroupData::fromStringList(table.table.mid(table.columnCount));
}

// One reply size: the bare pass, the full read and the table rows alone.
struct SizeFigures
{
    int groups = 0;
    qint64 bytes = 0;
    Timing bare;
    Timing full;
    Timing streamed;
    // The streamed read's last piece and the finish: what is left once the
    // last byte is in.
    Timing streamedLast;
    Timing rows;
    Timing reservedRows;
    qint64 tokens = 0;
};

std::optional<SizeFigures> Measure(int groups, int runs, bool distinct)
{
    SizeFigures figures;
    figures.groups = groups;
    const QByteArray reply = QueryReply::Make(groups, distinct);
    figures.bytes = reply.size();

    const ParsedReply parsed = ParseReplyMessage(reply);
    if (!parsed.IsValid() || parsed.Kind() != ReplyKind::QueryFileGroups) {
        QTextStream(stderr) << "bench_replyparse: the generated reply did not parse: " << parsed.error << '\n';
        return std::nullopt;
    }
    const TableResult &table = std::get<TableResult>(parsed.result);
    if (table.table.size() != table.columnCount * (groups + 1)) {
        QTextStream(stderr) << "bench_replyparse: unexpected table size " << table.table.size() << '\n';
        return std::nullopt;
    }
    const std::vector<FileGroupData> records = MakeRecords(table);

    const auto barePass = [&reply, &figures] {
        QXmlStreamReader reader(reply);
        figures.tokens = 0;
        while (!reader.atEnd()) {
            reader.readNext();
            ++figures.tokens;
        }
    };
    // The result outlives the timing: its destruction is not part of reading.
    std::optional<ParsedReply> kept;
    const auto parse = [&reply, &kept] { kept.emplace(ParseReplyMessage(reply)); };
    const auto stream = [&reply, &kept, &figures] { kept.emplace(ReadWhileArriving(reply, figures.streamedLast)); };
    // ToStringList alone, into an empty table and into one reserved in full.
    const auto tableRows = [&records] {
        QStringList list;
        FileGroupData::GetHeaders(list);
        for (const FileGroupData &record : records)
            record.ToStringList(list);
    };
    const int cells = table.table.size();
    const auto reservedRows = [&records, cells] {
        QStringList list;
        list.reserve(cells);
        FileGroupData::GetHeaders(list);
        for (const FileGroupData &record : records)
            record.ToStringList(list);
    };

    // Interleaved, so that load from elsewhere falls on all alike. Small
    // replies are repeated so that each timing covers enough work.
    const int repeat = std::max(1, 20000 / std::max(groups, 1));
    const auto repeated = [repeat](const std::function<void()> &work) {
        return [repeat, work] {
            for (int i = 0; i < repeat; ++i)
                work();
        };
    };
    for (int i = 0; i < runs; ++i) {
        figures.bare.Run(repeated(barePass));
        kept.reset();
        figures.full.Run(repeated(parse));
        kept.reset();
        figures.streamed.Run(repeated(stream));
        figures.rows.Run(repeated(tableRows));
        figures.reservedRows.Run(repeated(reservedRows));
    }
    // The last step is timed once per reply already.
    for (Timing *timing : {&figures.bare, &figures.full, &figures.streamed, &figures.rows, &figures.reservedRows}) {
        timing->wall /= repeat;
        timing->cpu /= repeat;
    }
    return figures;
}

// Resident size added by holding the result of a reply of this many groups.
qint64 ParsedResidentBytes(int groups)
{
    const QByteArray reply = QueryReply::Make(groups, false);
    const qint64 before = BenchTable::ResidentBytes();
    const ParsedReply parsed = ParseReplyMessage(reply);
    const qint64 after = BenchTable::ResidentBytes();
    return parsed.IsValid() ? after - before : -1;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Times the reading of QueryFileGroups replies of 10, 1,000, 10,000 and 100,000 groups (envelope, parser\n"
        "and result table) against a bare QXmlStreamReader pass over the same bytes, and prints both, their\n"
        "ratio, the growth from 10,000 to 100,000 groups, and the resident size of 100,000 parsed groups.\n"
        "The same replies read while they arrive, 64 KiB at a time, as the client reads them: the whole read,\n"
        "and the part of it left once the last byte is in."));
    parser.addHelpOption();
    const QCommandLineOption groupsOption(QStringLiteral("groups"),
                                          QStringLiteral("Only this number of file groups in the reply."),
                                          QStringLiteral("N"));
    const QCommandLineOption runsOption(QStringLiteral("runs"),
                                        QStringLiteral("Runs per measurement; the best counts (default 5)."),
                                        QStringLiteral("N"), QStringLiteral("5"));
    const QCommandLineOption distinctOption(QStringLiteral("distinct-times"),
                                            QStringLiteral("Give every group its own backup and life cycle time "
                                                           "too (by default groups of one day share them)."));
    const QCommandLineOption quickOption(QStringLiteral("quick"), QStringLiteral("A short run: one run per size."));
    parser.addOption(groupsOption);
    parser.addOption(runsOption);
    parser.addOption(distinctOption);
    parser.addOption(quickOption);
    parser.process(app);

    bool ok = true;
    QList<int> sizes{10, 1000, 10000, 100000};
    if (parser.isSet(groupsOption))
        sizes = {parser.value(groupsOption).toInt(&ok)};
    const int runs = parser.isSet(quickOption) ? 1 : (ok ? parser.value(runsOption).toInt(&ok) : 0);
    if (!ok || sizes.first() < 0 || runs < 1) {
        QTextStream(stderr) << "bench_replyparse: --groups needs a number >= 0, --runs a number >= 1\n";
        return 2;
    }

    // Measured first, while the heap is still small.
    const qint64 resident = sizes.contains(100000) ? ParsedResidentBytes(100000) : 0;

    QTextStream out(stdout);
    out.setRealNumberNotation(QTextStream::FixedNotation);
    out.setRealNumberPrecision(1);
    out << "best of " << runs << " runs; wall ms per reply\n";
    out << "  groups      MiB    bare ms   parse ms    MB/s   groups/s   ratio  rows ms  rows reserved ms  streamed ms"
           "  left ms\n";
    std::vector<SizeFigures> all;
    for (int groups : sizes) {
        const std::optional<SizeFigures> f = Measure(groups, runs, parser.isSet(distinctOption));
        if (!f)
            return 1;
        all.push_back(*f);
        const double ratio = f->bare.wall / f->full.wall;
        const double mbPerS = f->bytes / 1e6 / (f->full.wall / 1e3);
        const double groupsPerS = groups / (f->full.wall / 1e3);
        out << qSetFieldWidth(8) << groups << qSetFieldWidth(9) << f->bytes / (1024.0 * 1024.0) << qSetFieldWidth(11)
            << f->bare.wall << qSetFieldWidth(11) << f->full.wall << qSetFieldWidth(8) << mbPerS << qSetFieldWidth(11)
            << groupsPerS << qSetFieldWidth(8) << ratio << qSetFieldWidth(9) << f->rows.wall << qSetFieldWidth(18)
            << f->reservedRows.wall << qSetFieldWidth(13) << f->streamed.wall << qSetFieldWidth(9)
            << f->streamedLast.wall << qSetFieldWidth(0) << '\n';
        BenchTable::Row(QStringLiteral("reply parse %1 groups, MB/s").arg(groups), BenchTable::Number(mbPerS, 0),
                        BenchTable::Number(f->bytes / 1e6 / (f->bare.wall / 1e3), 0) + QStringLiteral(" bare reader"),
                        BenchTable::Number(ratio, 2), QStringLiteral("ratio >= 0.5"));
    }
    if (all.size() == 4) {
        const double growth = all[3].full.wall / all[2].full.wall;
        const double bareGrowth = all[3].bare.wall / all[2].bare.wall;
        out << "growth 10,000 -> 100,000 groups: parse " << growth << "x, bare " << bareGrowth << "x, relative "
            << growth / bareGrowth << " (required <= 1.3)\n";
        BenchTable::Row(QStringLiteral("reply parse growth 10k -> 100k groups"),
                        BenchTable::Number(growth, 2) + QLatin1Char('x'),
                        BenchTable::Number(bareGrowth, 2) + QStringLiteral("x bare reader"),
                        BenchTable::Number(growth / bareGrowth, 2), QStringLiteral("ratio <= 1.3"));
    }
    if (all.size() == 4) {
        const SizeFigures &large = all[3];
        const double growth = large.streamed.wall / all[2].streamed.wall;
        const double bareGrowth = large.bare.wall / all[2].bare.wall;
        out << "read while arriving, 100,000 groups: " << large.bare.wall / large.streamed.wall
            << " of the bare reader's speed, growth from 10,000 groups " << growth / bareGrowth
            << " of the bare reader's, " << large.streamedLast.wall << " ms left after the last byte (whole read "
            << large.full.wall << " ms)\n";
        BenchTable::Row(QStringLiteral("reply read while arriving 100000 groups, MB/s"),
                        BenchTable::Number(large.bytes / 1e3 / large.streamed.wall, 0),
                        BenchTable::Number(large.bytes / 1e3 / large.bare.wall, 0) + QStringLiteral(" bare reader"),
                        BenchTable::Number(large.bare.wall / large.streamed.wall, 2), QStringLiteral("ratio >= 0.6"));
        BenchTable::Row(QStringLiteral("reply read while arriving, growth 10k -> 100k groups"),
                        BenchTable::Number(growth, 2) + QLatin1Char('x'),
                        BenchTable::Number(bareGrowth, 2) + QStringLiteral("x bare reader"),
                        BenchTable::Number(growth / bareGrowth, 2), QStringLiteral("ratio <= 1.2"));
        BenchTable::Row(QStringLiteral("reply 100000 groups, ms left after the last byte"),
                        BenchTable::Number(large.streamedLast.wall, 1),
                        BenchTable::Number(large.full.wall, 1) + QStringLiteral(" whole read"),
                        BenchTable::Number(large.streamedLast.wall / large.full.wall, 3),
                        QStringLiteral("figure only"));
    }
    if (resident > 0) {
        out << "resident size of 100,000 parsed groups: " << BenchTable::MiB(resident) << '\n';
        BenchTable::Row(QStringLiteral("memory, 100,000 parsed groups"), BenchTable::MiB(resident),
                        BenchTable::MiB(all.back().bytes) + QStringLiteral(" reply bytes"),
                        BenchTable::Number(double(resident) / double(all.back().bytes), 2),
                        QStringLiteral("figure only"));
    }
    return 0;
}
