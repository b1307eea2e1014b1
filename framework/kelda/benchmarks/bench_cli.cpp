// Times the kelda program on a folder of many small files: `put -r` of the
// folder and `get` of the group back, with one transfer at a time and with
// four, beside `cp -r` of the same folder in the same run, against a real
// keldaserver on a temporary folder. Every run is a fresh process, as a
// user's would be, so the times include start-up and connecting.

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

    QStringList kelda(const QStringList &arguments) const
    {
        return QStringList{QStringLiteral("--host"), QStringLiteral("127.0.0.1"), QStringLiteral("--port"),
                           QString::number(m_port), QStringLiteral("-q")} +
            arguments;
    }

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

    static bool fail(const QString &what, const Timed &run)
    {
        out() << "error: " << what << " failed: " << QString::fromLocal8Bit(run.errors) << '\n';
        return false;
    }

    QString m_work;
    quint16 m_port;
    int m_files;
    QString m_source;
    QStringList m_expected;
};

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
            "beside 'cp -r' of the same folder, against a keldaserver on a temporary folder. Medians of %1 rounds.")
            .arg(kFullRounds));
    parser.addHelpOption();
    const QCommandLineOption quickOption(QStringLiteral("quick"),
                                         QStringLiteral("%1 files and one round, for CI.").arg(kQuickFiles));
    const QCommandLineOption filesOption(QStringLiteral("files"),
                                         QStringLiteral("Number of files (default %1).").arg(kFullFiles),
                                         QStringLiteral("N"));
    parser.addOption(quickOption);
    parser.addOption(filesOption);
    parser.process(app);
    const bool quick = parser.isSet(quickOption);
    const int files = parser.isSet(filesOption) ? parser.value(filesOption).toInt() : quick ? kQuickFiles : kFullFiles;
    if (files < 1) {
        out() << "error: --files takes a positive number\n";
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
    server.stop();
    return 0;
}
