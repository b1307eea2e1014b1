// Measures the reading of a large QueryFileGroups reply (envelope, parser and
// result table) against a bare QXmlStreamReader pass over the same bytes.

#include "filegroupdata.h"
#include "keldaxml.h"
#include "replyparser.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <algorithm>
#include <ctime>
#include <functional>
#include <limits>
#include <optional>

using namespace Kelda;

namespace {

QString TwoDigits(int value)
{
    return QStringLiteral("%1").arg(value, 2, 10, QLatin1Char('0'));
}

// A time stamp that differs from group to group: second i after a start.
QString DistinctTime(int i, int startYear)
{
    const QDateTime start(QDate(startYear, 1, 1), QTime(0, 0));
    return start.addSecs(qint64(i) * 37).toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
}

void WriteField(QXmlStreamWriter &writer, QLatin1String name, const QString &value)
{
    writer.writeTextElement(Tag::m(name), value);
}

// Creation and modification times differ for every group. Backup and life
// cycle times are shared by the groups of one day, as batches of one backup
// or one retention rule would share them, unless distinct is set.
QByteArray MakeReply(int groups, bool distinct)
{
    QByteArray bytes;
    QXmlStreamWriter writer(&bytes);
    writer.writeStartDocument();
    writer.writeNamespace(Ns::Envelope, Ns::PrefixS);
    writer.writeStartElement(Tag::s(Tag::Envelope));
    writer.writeStartElement(Tag::s(Tag::Header));
    writer.writeTextElement(Tag::s(Tag::Version), Ns::SoapVersion);
    writer.writeTextElement(Tag::s(Tag::RequestId), QStringLiteral("0f8fad5b-d9cb-469f-a165-70867728950e"));
    writer.writeEndElement();
    writer.writeStartElement(Tag::s(Tag::Body));
    writer.writeStartElement(Tag::m(Tag::QueryFileGroupsReply));
    writer.writeNamespace(Ns::Message, Ns::PrefixM);
    for (int i = 0; i < groups; ++i) {
        const QString day = QStringLiteral("2021-%1-%2").arg(TwoDigits(i / 28 % 12 + 1), TwoDigits(i % 28 + 1));
        writer.writeStartElement(Tag::m(Tag::FileGroup));
        WriteField(writer, Tag::Guid, QStringLiteral("6f1c2b7e-3d4a-4c5b-8e9f-%1").arg(i, 12, 10, QLatin1Char('0')));
        WriteField(writer, Tag::FileGroupName, QStringLiteral("Recording %1").arg(i));
        WriteField(writer, Tag::FileType, QString::number(i % 23));
        WriteField(writer, Tag::LocationState, QString::number(i % 14));
        WriteField(writer, Tag::BackupTime, distinct ? DistinctTime(i, 2022) : day + QStringLiteral(" 23:30:00"));
        WriteField(writer, Tag::CreationTime, DistinctTime(i, 2019));
        WriteField(writer, Tag::ModificationTime, DistinctTime(i, 2020));
        WriteField(writer, Tag::LifeCycle, distinct ? DistinctTime(i, 2030) : QString(day).replace(0, 4, QStringLiteral("2031"))
                                                                                 + QStringLiteral(" 00:00:00"));
        WriteField(writer, Tag::Comment, QStringLiteral("comment & remarks %1").arg(i));
        WriteField(writer, Tag::Creator, QStringLiteral("operator"));
        WriteField(writer, Tag::Detail, QStringLiteral("detail"));
        WriteField(writer, Tag::TeamMembership, QStringLiteral("team a"));
        WriteField(writer, Tag::Version, QStringLiteral("1.%1").arg(i % 10));
        WriteField(writer, Tag::ReservedStorage, QString::number(i % 1000));
        WriteField(writer, Tag::ReferenceCounter, QString::number(i % 5));
        writer.writeStartElement(Tag::m(Tag::Files));
        writer.writeEndElement();
        writer.writeEndElement();
    }
    WriteField(writer, Tag::Error, QStringLiteral("0"));
    writer.writeEndDocument();
    return bytes;
}

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

// The groups of the reply again, as records, to time the table rows alone.
std::vector<FileGroupData> MakeRecords(const TableResult &table)
{
    return FileGroupData::fromStringList(table.table.mid(table.columnCount));
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Times the reading of a QueryFileGroups reply (envelope, parser and result table) against a bare "
        "QXmlStreamReader pass over the same bytes, and prints both and their ratio."));
    parser.addHelpOption();
    const QCommandLineOption groupsOption(QStringLiteral("groups"),
                                          QStringLiteral("Number of file groups in the reply (default 100000)."),
                                          QStringLiteral("N"), QStringLiteral("100000"));
    const QCommandLineOption runsOption(QStringLiteral("runs"),
                                        QStringLiteral("Runs per measurement; the best counts (default 5)."),
                                        QStringLiteral("N"), QStringLiteral("5"));
    const QCommandLineOption distinctOption(QStringLiteral("distinct-times"),
                                            QStringLiteral("Give every group its own backup and life cycle time "
                                                           "too (by default groups of one day share them)."));
    parser.addOption(groupsOption);
    parser.addOption(runsOption);
    parser.addOption(distinctOption);
    parser.process(app);

    bool ok = false;
    const int groups = parser.value(groupsOption).toInt(&ok);
    const int runs = ok ? parser.value(runsOption).toInt(&ok) : 0;
    if (!ok || groups < 0 || runs < 1) {
        QTextStream(stderr) << "bench_replyparse: --groups needs a number >= 0, --runs a number >= 1\n";
        return 2;
    }

    const QByteArray reply = MakeReply(groups, parser.isSet(distinctOption));

    const ParsedReply parsed = ParseReplyMessage(reply);
    if (!parsed.IsValid() || parsed.Kind() != ReplyKind::QueryFileGroups) {
        QTextStream(stderr) << "bench_replyparse: the generated reply did not parse: " << parsed.error << '\n';
        return 1;
    }
    const TableResult &table = std::get<TableResult>(parsed.result);
    if (table.table.size() != table.columnCount * (groups + 1)) {
        QTextStream(stderr) << "bench_replyparse: unexpected table size " << table.table.size() << '\n';
        return 1;
    }
    const std::vector<FileGroupData> records = MakeRecords(table);

    qint64 tokens = 0;
    const auto barePass = [&reply, &tokens] {
        QXmlStreamReader reader(reply);
        tokens = 0;
        while (!reader.atEnd()) {
            reader.readNext();
            ++tokens;
        }
    };
    // The result outlives the timing: its destruction is not part of reading.
    std::optional<ParsedReply> kept;
    const auto parse = [&reply, &kept] { kept.emplace(ParseReplyMessage(reply)); };
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

    // Interleaved, so that load from elsewhere falls on all three alike.
    Timing bare;
    Timing full;
    Timing rows;
    Timing reservedRowsTime;
    for (int i = 0; i < runs; ++i) {
        bare.Run(barePass);
        kept.reset();
        full.Run(parse);
        rows.Run(tableRows);
        reservedRowsTime.Run(reservedRows);
    }

    QTextStream out(stdout);
    out.setRealNumberNotation(QTextStream::FixedNotation);
    out.setRealNumberPrecision(1);
    out << "groups: " << groups << ", " << reply.size() / (1024.0 * 1024.0) << " MiB, " << tokens
        << " tokens, best of " << runs << " runs\n";
    out << "                              wall ms    cpu ms\n";
    out << "bare QXmlStreamReader pass   " << qSetFieldWidth(8) << bare.wall << qSetFieldWidth(10) << bare.cpu
        << qSetFieldWidth(0) << '\n';
    out << "ParseReplyMessage + table    " << qSetFieldWidth(8) << full.wall << qSetFieldWidth(10) << full.cpu
        << qSetFieldWidth(0) << '\n';
    out << "  ToStringList rows alone    " << qSetFieldWidth(8) << rows.wall << qSetFieldWidth(10) << rows.cpu
        << qSetFieldWidth(0) << '\n';
    out << "  the same, table reserved   " << qSetFieldWidth(8) << reservedRowsTime.wall << qSetFieldWidth(10)
        << reservedRowsTime.cpu << qSetFieldWidth(0) << '\n';
    out.setRealNumberPrecision(3);
    out << "speed ratio (bare / parse): wall " << bare.wall / full.wall << ", cpu " << bare.cpu / full.cpu
        << " (required >= 0.5)\n";
    return 0;
}
