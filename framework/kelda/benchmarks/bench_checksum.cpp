// Measures the rate at which the archive server digests a file (SHA-256,
// the code every AddFile, move and fixity check runs) against the system's
// own tools over the same file in the same run: `openssl dgst -sha256` and
// `sha256sum`. The file is read once beforehand, so that every reader finds
// it in the page cache and the digest, not the disk, is measured.

#include "benchtable.h"
#include "confineddirectory.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTextStream>

#include <algorithm>
#include <functional>
#include <vector>

using namespace Kelda;

namespace {

constexpr qint64 MiB = 1024 * 1024;
constexpr int Rounds = 3;

bool writeSample(const QString &path, qint64 bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    QByteArray block(int(MiB), '\0');
    QRandomGenerator random(20261125);
    random.fillRange(reinterpret_cast<quint32 *>(block.data()), block.size() / 4);
    for (qint64 written = 0; written < bytes; written += block.size()) {
        if (file.write(block) != block.size())
            return false;
    }
    return true;
}

// The best of a few rounds, in seconds; negative when a round failed.
double bestOf(const std::function<bool()> &round)
{
    double best = -1;
    for (int i = 0; i < Rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        if (!round())
            return -1;
        const double seconds = timer.nsecsElapsed() / 1e9;
        best = best < 0 ? seconds : std::min(best, seconds);
    }
    return best;
}

// A tool's digest of the file, as the hexadecimal text it prints first.
QByteArray toolDigest(const QString &program, const QStringList &arguments)
{
    QProcess tool;
    tool.start(program, arguments);
    if (!tool.waitForFinished(600000) || tool.exitCode() != 0)
        return QByteArray();
    const QByteArray out = tool.readAllStandardOutput().trimmed();
    // "SHA2-256(file)= hex" or "hex  file".
    const int equals = out.lastIndexOf("= ");
    return equals >= 0 ? out.mid(equals + 2) : out.left(out.indexOf(' '));
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("bench_checksum"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "The server's SHA-256 digest rate over one file beside `openssl dgst -sha256` and `sha256sum` over the\n"
        "same file, each the best of three rounds from the page cache. Exit code 1 when the digests disagree."));
    parser.addHelpOption();
    const QCommandLineOption sizeOption(QStringLiteral("size"), QStringLiteral("File size in MiB (default 1024)."),
                                        QStringLiteral("MiB"), QStringLiteral("1024"));
    const QCommandLineOption quickOption(QStringLiteral("quick"), QStringLiteral("A short run over 64 MiB."));
    parser.addOption(sizeOption);
    parser.addOption(quickOption);
    parser.process(app);
    QTextStream out(stdout);
    QTextStream err(stderr);
    bool ok = false;
    const qint64 mebibytes = parser.isSet(quickOption) ? 64 : parser.value(sizeOption).toLongLong(&ok);
    if (!parser.isSet(quickOption) && (!ok || mebibytes < 1)) {
        err << "bench_checksum: --size needs a positive number of MiB\n";
        return 64;
    }

    QTemporaryDir dir;
    const QString name = QStringLiteral("sample.bin");
    const QString path = dir.filePath(name);
    if (!dir.isValid() || !writeSample(path, mebibytes * MiB)) {
        err << "bench_checksum: cannot write " << path << '\n';
        return 1;
    }
    QString error;
    const ConfinedDirectory folder =
        ConfinedDirectory::open(dir.path(), dir.path(), ConfinedDirectory::Creation::Existing, &error);
    QByteArray server;
    const auto serverRound = [&] {
        const std::optional<ConfinedDirectory::Digest> digest = folder.digestFile(name, &error);
        if (digest)
            server = digest->sha256.toHex();
        return digest.has_value();
    };
    // Warms the page cache for everyone.
    if (!folder.isOpen() || !serverRound()) {
        err << "bench_checksum: " << error << '\n';
        return 1;
    }
    const double serverSeconds = bestOf(serverRound);

    struct Tool
    {
        QString program;
        QStringList arguments;
        double seconds = -1;
        QByteArray digest;
    };
    std::vector<Tool> tools(2);
    tools[0].program = QStringLiteral("openssl");
    tools[0].arguments = QStringList{QStringLiteral("dgst"), QStringLiteral("-sha256"), path};
    tools[1].program = QStringLiteral("sha256sum");
    tools[1].arguments = QStringList{path};
    for (Tool &tool : tools) {
        if (QStandardPaths::findExecutable(tool.program).isEmpty())
            continue;
        tool.seconds = bestOf([&tool] {
            tool.digest = toolDigest(tool.program, tool.arguments);
            return !tool.digest.isEmpty();
        });
    }

    const double megabytes = double(mebibytes * MiB) / 1e6;
    const auto rate = [megabytes](double seconds) { return seconds > 0 ? megabytes / seconds : 0; };
    out << "file: " << mebibytes << " MiB, best of " << Rounds << " rounds from the page cache\n";
    out << QStringLiteral("%1 %2 MB/s\n")
               .arg(QStringLiteral("keldaserver digest"), -24)
               .arg(rate(serverSeconds), 8, 'f', 0);
    const Tool *fastest = nullptr;
    bool agree = true;
    for (const Tool &tool : tools) {
        if (tool.seconds < 0) {
            out << QStringLiteral("%1 not available\n").arg(tool.program, -24);
            continue;
        }
        out << QStringLiteral("%1 %2 MB/s\n").arg(tool.program, -24).arg(rate(tool.seconds), 8, 'f', 0);
        agree = agree && tool.digest == server;
        if (!fastest || tool.seconds < fastest->seconds)
            fastest = &tool;
    }
    if (!agree)
        err << "bench_checksum: the digests disagree\n";
    if (fastest) {
        const double ratio = rate(serverSeconds) / rate(fastest->seconds);
        out << "ratio to the fastest tool (" << fastest->program << "): " << QString::number(ratio, 'f', 2)
            << " (target >= 0.9)\n";
        BenchTable::Row(QStringLiteral("SHA-256 digest, MB/s"), BenchTable::Number(rate(serverSeconds), 0),
                        BenchTable::Number(rate(fastest->seconds), 0) + QLatin1Char(' ') + fastest->program,
                        BenchTable::Number(ratio, 2), QStringLiteral("ratio >= 0.9"));
    }
    return agree ? 0 : 1;
}
