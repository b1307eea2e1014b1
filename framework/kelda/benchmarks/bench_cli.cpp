// Times the kelda program on a folder of many small files: `put -r` of the
// folder and `get` of the group back, with one transfer at a time and with
// four, beside `cp -r` of the same folder in the same run; then `put` and
// `get` of one large file beside `cp` of it. Against a real keldaserver on a
// temporary folder. Every run is a fresh process, as a user's would be, so
// the times include start-up and connecting.

#include "benchtable.h"
#include "serverprocess.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTextStream>

#include <algorithm>
#include <vector>

namespace {

constexpr int kFullFiles = 1000;
constexpr int kQuickFiles = 100;
constexpr int kFileBytes = 64 * 1024;
constexpr int kFolders = 10;
constexpr int kFullRounds = 3;
constexpr int kProcessWaitMs = 10 * 60 * 1000;
// The target: --jobs 4 takes at most this many times cp -r's time.
constexpr double kTargetRatio = 3.0;
constexpr qint64 kMiB = 1024 * 1024;
constexpr int kFullLargeMiB = 1024;
constexpr int kQuickLargeMiB = 32;
// One large file at full size, measured before the integrity work (README,
// "Figures after hardening, integrity and security"); put and get may take
// at most kBeforeRatio times as long now.
constexpr double kPutBeforeSeconds = 5.27;
constexpr double kGetBeforeSeconds = 2.23;
constexpr double kBeforeRatio = 1.3;

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

struct Timed
{
    bool ok = false;
    double seconds = 0;
    QByteArray output;
    QByteArray errors;
};

Timed runTimed(const QString &program, const QStringList &arguments)
{
    QProcess process;
    QElapsedTimer timer;
    timer.start();
    process.start(program, arguments);
    Timed timed;
    if (!process.waitForFinished(kProcessWaitMs)) {
        process.kill();
        process.waitForFinished();
        return timed;
    }
    timed.seconds = double(timer.nsecsElapsed()) / 1e9;
    timed.ok = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    timed.output = process.readAllStandardOutput();
    timed.errors = process.readAllStandardError();
    return timed;
}

// Random bytes, so that no layer below can shortcut the copies.
bool makeFolder(const QString &root, int files)
{
    QRandomGenerator random(7);
    QByteArray bytes(kFileBytes, Qt::Uninitialized);
    for (int i = 0; i < files; ++i) {
        const QString folder = QStringLiteral("%1/part%2").arg(root).arg(i % kFolders);
        QDir().mkpath(folder);
        random.fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
        QFile file(QStringLiteral("%1/file%2.bin").arg(folder).arg(i, 5, 10, QLatin1Char('0')));
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
            return false;
    }
    return true;
}

// Name and content hash of every file below `root`, in name order.
QStringList fingerprint(const QString &root)
{
    QStringList lines;
    QDirIterator it(root, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        if (!file.open(QIODevice::ReadOnly))
            return {};
        lines.append(QFileInfo(file).fileName() + QLatin1Char(' ') +
                     QString::fromLatin1(QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha1).toHex()));
    }
    lines.sort();
    return lines;
}

// A file of `mib` MiB of random bytes, written a MiB at a time.
bool makeLargeFile(const QString &path, int mib)
{
    QRandomGenerator random(11);
    QByteArray bytes(int(kMiB), Qt::Uninitialized);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    for (int i = 0; i < mib; ++i) {
        random.fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
        if (file.write(bytes) != bytes.size())
            return false;
    }
    return true;
}

QByteArray contentHash(const QString &path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha1);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return QByteArray();
    return hash.result();
}

QStringList keldaArguments(quint16 port, const QStringList &arguments)
{
    return QStringList{QStringLiteral("--host"), QStringLiteral("127.0.0.1"), QStringLiteral("--port"),
                       QString::number(port), QStringLiteral("-q")} +
        arguments;
}

bool fail(const QString &what, const Timed &run)
{
    out() << "error: " << what << " failed: " << QString::fromLocal8Bit(run.errors) << '\n';
    return false;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

struct Figures
{
    std::vector<double> copy;
    std::vector<double> put[2];
    std::vector<double> get[2];
};

class Bench
{
public:
    Bench(const QString &work, quint16 port, int files)
        : m_work(work)
        , m_port(port)
        , m_files(files)
        , m_source(work + QStringLiteral("/source"))
    { }

    bool prepare()
    {
        if (!makeFolder(m_source, m_files))
            return false;
        m_expected = fingerprint(m_source);
        // Reads the folder once so that every contestant finds it cached.
        return runTimed(QStringLiteral("cp"), {QStringLiteral("-r"), m_source, target(QStringLiteral("warm"))}).ok;
    }

    bool round(int index, Figures &figures)
    {
        const Timed copy =
            runTimed(QStringLiteral("cp"), {QStringLiteral("-r"), m_source, target(QStringLiteral("cp%1").arg(index))});
        if (!copy.ok)
            return fail(QStringLiteral("cp -r"), copy);
        figures.copy.push_back(copy.seconds);
        const int jobs[] = {1, 4};
        for (int j = 0; j < 2; ++j) {
            QString guid;
            if (!put(jobs[j], figures.put[j], guid) || !get(jobs[j], guid, index, figures.get[j]))
                return false;
        }
        return true;
    }

private:
    QString target(const QString &name) const { return m_work + QLatin1Char('/') + name; }

    QStringList kelda(const QStringList &arguments) const { return keldaArguments(m_port, arguments); }

    bool put(int jobs, std::vector<double> &times, QString &guid)
    {
        const Timed run = runTimed(QStringLiteral(KELDA_BINARY),
                                   kelda({QStringLiteral("put"), QStringLiteral("-r"), QStringLiteral("--jobs"),
                                          QString::number(jobs), m_source}));
        const QList<QByteArray> urls = run.output.split('\n');
        if (!run.ok || urls.size() < m_files)
            return fail(QStringLiteral("kelda put -r --jobs %1").arg(jobs), run);
        guid = QString::fromLatin1(urls.first()).section(QLatin1Char('/'), 3, 3);
        times.push_back(run.seconds);
        return true;
    }

    bool get(int jobs, const QString &guid, int index, std::vector<double> &times)
    {
        const QString destination = target(QStringLiteral("get%1-%2").arg(jobs).arg(index));
        const Timed run = runTimed(QStringLiteral(KELDA_BINARY),
                                   kelda({QStringLiteral("get"), guid, QStringLiteral("-o"), destination,
                                          QStringLiteral("--jobs"), QString::number(jobs)}));
        if (!run.ok)
            return fail(QStringLiteral("kelda get --jobs %1").arg(jobs), run);
        if (fingerprint(destination) != m_expected) {
            out() << "error: the files fetched with --jobs " << jobs << " differ from the originals\n";
            return false;
        }
        times.push_back(run.seconds);
        return true;
    }

    QString m_work;
    quint16 m_port;
    int m_files;
    QString m_source;
    QStringList m_expected;
};

struct LargeFigures
{
    std::vector<double> copy;
    std::vector<double> put;
    std::vector<double> get;
};

// One large file: cp of it, kelda put of it as a group of its own, and kelda
// get of that file back. The copies go after each round, so that the disk
// holds the file about twice at most.
class LargeFileBench
{
public:
    LargeFileBench(const QString &work, quint16 port, int mib)
        : m_work(work)
        , m_port(port)
        , m_mib(mib)
        , m_source(work + QStringLiteral("/large.bin"))
    { }

    bool prepare()
    {
        if (!makeLargeFile(m_source, m_mib))
            return false;
        m_expected = contentHash(m_source);
        return !m_expected.isEmpty();
    }

    bool round(int index, LargeFigures &figures)
    {
        const QString copied = target(QStringLiteral("large-cp%1.bin").arg(index));
        const Timed copy = runTimed(QStringLiteral("cp"), {m_source, copied});
        if (!copy.ok)
            return fail(QStringLiteral("cp"), copy);
        figures.copy.push_back(copy.seconds);
        QFile::remove(copied);
        QString url;
        return put(figures.put, url) && get(url, index, figures.get) && remove(url);
    }

private:
    QString target(const QString &name) const { return m_work + QLatin1Char('/') + name; }

    bool put(std::vector<double> &times, QString &url)
    {
        const Timed run =
            runTimed(QStringLiteral(KELDA_BINARY), keldaArguments(m_port, {QStringLiteral("put"), m_source}));
        url = QString::fromLatin1(run.output).trimmed();
        if (!run.ok || url.isEmpty())
            return fail(QStringLiteral("kelda put"), run);
        times.push_back(run.seconds);
        return true;
    }

    // The copy is checked whole in the first round and by its size after.
    bool get(const QString &url, int index, std::vector<double> &times)
    {
        const QString destination = target(QStringLiteral("large-get%1.bin").arg(index));
        const Timed run =
            runTimed(QStringLiteral(KELDA_BINARY),
                     keldaArguments(m_port, {QStringLiteral("get"), url, QStringLiteral("-o"), destination}));
        if (!run.ok)
            return fail(QStringLiteral("kelda get"), run);
        const bool same =
            index == 0 ? contentHash(destination) == m_expected : QFileInfo(destination).size() == qint64(m_mib) * kMiB;
        QFile::remove(destination);
        if (!same) {
            out() << "error: the large file fetched differs from the original\n";
            return false;
        }
        times.push_back(run.seconds);
        return true;
    }

    bool remove(const QString &url)
    {
        const QString guid = url.section(QLatin1Char('/'), 3, 3);
        const Timed run = runTimed(QStringLiteral(KELDA_BINARY), keldaArguments(m_port, {QStringLiteral("rm"), guid}));
        return run.ok || fail(QStringLiteral("kelda rm"), run);
    }

    QString m_work;
    quint16 m_port;
    int m_mib;
    QString m_source;
    QByteArray m_expected;
};

QString sizeName(int mib)
{
    return mib % 1024 == 0 ? QStringLiteral("%1 GiB").arg(mib / 1024) : QStringLiteral("%1 MiB").arg(mib);
}

// Beside cp always; beside the figure before the integrity work only at the
// size that figure was measured at.
void printLargeRow(const QString &what, double seconds, double copy, double before, int mib, int rounds)
{
    const QString figure = QStringLiteral("kelda %1 %2 file, s (median of %3)").arg(what, sizeName(mib)).arg(rounds);
    if (mib == kFullLargeMiB)
        BenchTable::Row(
            figure, BenchTable::Number(seconds, 2),
            QStringLiteral("%1 before (cp %2)").arg(BenchTable::Number(before, 2), BenchTable::Number(copy, 2)),
            QStringLiteral("%1 (%2 x cp)")
                .arg(BenchTable::Number(seconds / before, 2), BenchTable::Number(seconds / copy, 2)),
            QStringLiteral("ratio <= %1").arg(kBeforeRatio));
    else
        BenchTable::Row(figure, BenchTable::Number(seconds, 2), BenchTable::Number(copy, 2) + QStringLiteral(" cp"),
                        BenchTable::Number(seconds / copy, 2), QStringLiteral("figure only"));
}

void printLargeFigures(const LargeFigures &figures, int mib)
{
    const double copy = median(figures.copy);
    const double put = median(figures.put);
    const double get = median(figures.get);
    const int rounds = int(figures.put.size());
    out() << "cp / kelda put / kelda get of a " << sizeName(mib) << " file: " << BenchTable::Number(copy, 2) << " s / "
          << BenchTable::Number(put, 2) << " s / " << BenchTable::Number(get, 2) << " s (median of " << rounds << ")\n";
    out().flush();
    printLargeRow(QStringLiteral("put"), put, copy, kPutBeforeSeconds, mib, rounds);
    printLargeRow(QStringLiteral("get"), get, copy, kGetBeforeSeconds, mib, rounds);
}

void printFigures(const Figures &figures, int files)
{
    const double copy = median(figures.copy);
    const QString what = QStringLiteral("%1 x 64 KiB").arg(files);
    out() << "cp -r " << what << ": " << BenchTable::Number(copy, 3) << " s (median)\n";
    const int jobs[] = {1, 4};
    for (int j = 0; j < 2; ++j) {
        out() << "kelda put -r / get, --jobs " << jobs[j] << ": " << BenchTable::Number(median(figures.put[j]), 3)
              << " s / " << BenchTable::Number(median(figures.get[j]), 3) << " s (median)\n";
    }
    // The summary rows go through a stream of their own.
    out().flush();
    for (int j = 0; j < 2; ++j) {
        const double put = median(figures.put[j]);
        const double get = median(figures.get[j]);
        const QString target =
            jobs[j] == 4 ? QStringLiteral("ratio <= %1").arg(kTargetRatio) : QStringLiteral("figure only");
        BenchTable::Row(QStringLiteral("kelda put -r %1, --jobs %2, s").arg(what).arg(jobs[j]),
                        BenchTable::Number(put, 3), BenchTable::Number(copy, 3) + QStringLiteral(" cp -r"),
                        BenchTable::Number(put / copy, 2), target);
        BenchTable::Row(QStringLiteral("kelda get group %1, --jobs %2, s").arg(what).arg(jobs[j]),
                        BenchTable::Number(get, 3), BenchTable::Number(copy, 3) + QStringLiteral(" cp -r"),
                        BenchTable::Number(get / copy, 2), target);
    }
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral(
            "Times 'kelda put -r' of a folder of 64 KiB files and 'kelda get' of the group back, with --jobs 1 and 4, "
            "beside 'cp -r' of the same folder, then 'kelda put' and 'kelda get' of one large file beside 'cp' of it, "
            "against a keldaserver on a temporary folder. Medians of %1 rounds. Exit codes: 0 measured, 1 a run "
            "failed or its copy differs, 2 bad arguments.")
            .arg(kFullRounds));
    parser.addHelpOption();
    const QCommandLineOption quickOption(
        QStringLiteral("quick"),
        QStringLiteral("%1 files, a %2 MiB file and one round, for CI.").arg(kQuickFiles).arg(kQuickLargeMiB));
    const QCommandLineOption filesOption(QStringLiteral("files"),
                                         QStringLiteral("Number of files (default %1).").arg(kFullFiles),
                                         QStringLiteral("N"));
    const QCommandLineOption largeOption(
        QStringLiteral("large-mib"),
        QStringLiteral("Size of the large file in MiB (default %1); 0 leaves it out.").arg(kFullLargeMiB),
        QStringLiteral("N"));
    parser.addOption(quickOption);
    parser.addOption(filesOption);
    parser.addOption(largeOption);
    parser.process(app);
    const bool quick = parser.isSet(quickOption);
    const int files = parser.isSet(filesOption) ? parser.value(filesOption).toInt() : quick ? kQuickFiles : kFullFiles;
    if (files < 1) {
        out() << "error: --files takes a positive number\n";
        return 2;
    }
    bool ok = true;
    const int largeMiB = parser.isSet(largeOption) ? parser.value(largeOption).toInt(&ok)
        : quick                                    ? kQuickLargeMiB
                                                   : kFullLargeMiB;
    if (!ok || largeMiB < 0) {
        out() << "error: --large-mib takes a number of MiB, 0 or more\n";
        return 2;
    }

    QTemporaryDir work;
    ServerProcess server;
    if (!work.isValid() || !server.start()) {
        out() << "error: cannot start keldaserver: " << server.errorString() << '\n';
        return 1;
    }
    Bench bench(work.path(), server.port(), files);
    if (!bench.prepare()) {
        out() << "error: cannot make the folder to copy below " << work.path() << '\n';
        return 1;
    }
    Figures figures;
    const int rounds = quick ? 1 : kFullRounds;
    for (int round = 0; round < rounds; ++round) {
        if (!bench.round(round, figures))
            return 1;
    }
    out().flush();
    printFigures(figures, files);
    if (largeMiB > 0) {
        LargeFileBench large(work.path(), server.port(), largeMiB);
        if (!large.prepare()) {
            out() << "error: cannot write the large file below " << work.path() << '\n';
            return 1;
        }
        LargeFigures largeFigures;
        for (int round = 0; round < rounds; ++round) {
            if (!large.round(round, largeFigures))
                return 1;
        }
        printLargeFigures(largeFigures, largeMiB);
    }
    server.stop();
    return 0;
}
