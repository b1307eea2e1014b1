#include "keldaclient.h"
#include "scriptedpeer.h"
#include "serverprocess.h"
#include "testcertificates.h"
#include "trace.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QUuid>
#include <QtTest>

#include <memory>

using namespace Kelda;

namespace {

const QString kGuid = QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e");
const int kProcessWaitMs = 90000;

bool isGuid(const QString &text)
{
    return QUuid(text).toString(QUuid::WithoutBraces) == text;
}

// Files below a folder: relative path and content, for comparing trees.
QMap<QString, QByteArray> treeOf(const QString &root)
{
    QMap<QString, QByteArray> tree;
    QDirIterator it(root, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        if (file.open(QIODevice::ReadOnly))
            tree.insert(QDir(root).relativeFilePath(file.fileName()), file.readAll());
    }
    return tree;
}

QStringList lines(const QByteArray &text)
{
    return QString::fromUtf8(text).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

struct Run
{
    int exitCode = -1;
    QByteArray out;
    QString err;
    QJsonDocument json() const { return QJsonDocument::fromJson(out); }
};

quint16 portNobodyListensOn()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort();
}

} // namespace

// The kelda program as scripts see it, against the real server process:
// exit codes, stdout and stderr.
class KeldaToolTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void help();
    void failures_data();
    void failures();
    void roundTrip();
    void getReleasesItsLock();
    void groupCommands();
    void putFolder_data();
    void putFolder();
    void oneFileRefused();
    void getGroup_data();
    void getGroup();
    void integrity_data();
    void integrity();
    void verifyAll_data();
    void verifyAll();
    void serverWithoutDigests_data();
    void serverWithoutDigests();
    void environment_data();
    void environment();
    void verbosity_data();
    void verbosity();
    void dryRun_data();
    void dryRun();
    void completionScripts_data();
    void completionScripts();
    void bashCompletion_data();
    void bashCompletion();
    void tls_data();
    void tls();

private:
    Run kelda(const QStringList &arguments);
    Run keldaAt(quint16 port, const QStringList &arguments);
    // Without --host and --port: the environment, `environment` first, and
    // the configuration file of this test decide.
    Run keldaPlain(const QStringList &arguments, const QStringList &environment = {});
    QString writeFile(const QString &name, const QByteArray &bytes);
    // Makes the files, relative to a new folder `root`, each with bytes of
    // its own; returns the folder's path.
    QString writeTree(const QString &root, const QStringList &files);
    // The groups whose name contains `text`: name -> sorted file names.
    QMap<QString, QStringList> groupsNamed(const QString &text);
    void writeConfig(quint16 port);

    QTemporaryDir m_dir;
    std::unique_ptr<ServerProcess> m_server;
};

void KeldaToolTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    ErrorHandler::Instance()->SetLevel(0);
    m_server = std::make_unique<ServerProcess>();
    QVERIFY2(m_server->start(), qPrintable(m_server->errorString()));
    writeConfig(portNobodyListensOn());
}

void KeldaToolTest::writeConfig(quint16 port)
{
    QFile config(m_dir.filePath(QStringLiteral("kelda.ini")));
    QVERIFY(config.open(QIODevice::WriteOnly));
    config.write(QStringLiteral("[KELDA]\nServerHost=127.0.0.1\nXmlPort=%1\n").arg(port).toUtf8());
}

QString KeldaToolTest::writeTree(const QString &root, const QStringList &files)
{
    const QDir dir(m_dir.filePath(root));
    for (const QString &file : files) {
        if (!QDir().mkpath(QFileInfo(dir.filePath(file)).path()))
            return QString();
        QFile out(dir.filePath(file));
        if (!out.open(QIODevice::WriteOnly) || out.write(file.toUtf8().repeated(file.size() * 100)) < 0)
            return QString();
    }
    return dir.path();
}

QMap<QString, QStringList> KeldaToolTest::groupsNamed(const QString &text)
{
    QMap<QString, QStringList> groups;
    const QJsonArray found =
        kelda({QStringLiteral("ls"), QStringLiteral("--json"), QStringLiteral("--name"), text}).json().array();
    for (const QJsonValue &group : found) {
        const QString guid = group.toObject().value(QStringLiteral("guid")).toString();
        QStringList names;
        for (const QJsonValue &file : kelda({QStringLiteral("files"), QStringLiteral("--json"), guid}).json().array())
            names.append(file.toObject().value(QStringLiteral("name")).toString());
        names.sort();
        groups.insert(group.toObject().value(QStringLiteral("name")).toString(), names);
    }
    return groups;
}

// Later options win: an argument list may name another port.
Run KeldaToolTest::kelda(const QStringList &arguments)
{
    return keldaAt(m_server->port(), arguments);
}

Run KeldaToolTest::keldaAt(quint16 port, const QStringList &arguments)
{
    return keldaPlain(QStringList{QStringLiteral("--host"), QStringLiteral("127.0.0.1"), QStringLiteral("--port"),
                                  QString::number(port), QStringLiteral("--connect-timeout"), QStringLiteral("2")} +
                      arguments);
}

Run KeldaToolTest::keldaPlain(const QStringList &arguments, const QStringList &variables)
{
    QProcess process;
    // The program's own messages only, not the library's traces; no setting
    // from the environment of whoever runs the test.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"KELDA_TRACE_MASK", "KELDA_HOST", "KELDA_PORT", "KELDA_USER"})
        environment.remove(QLatin1String(name));
    environment.insert(QStringLiteral("KELDA_CONFIG_FILE"), m_dir.filePath(QStringLiteral("kelda.ini")));
    for (const QString &variable : variables)
        environment.insert(variable.section(QLatin1Char('='), 0, 0), variable.section(QLatin1Char('='), 1));
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(m_dir.path());
    process.start(QStringLiteral(KELDA_BINARY), arguments);
    Run run;
    if (!process.waitForFinished(kProcessWaitMs)) {
        process.kill();
        process.waitForFinished(kProcessWaitMs);
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QString KeldaToolTest::writeFile(const QString &name, const QByteArray &bytes)
{
    QFile file(m_dir.filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        return QString();
    return file.fileName();
}

void KeldaToolTest::help()
{
    const Run tool = kelda({QStringLiteral("--help")});
    const Run put = kelda({QStringLiteral("put"), QStringLiteral("--help")});
    QCOMPARE(tool.exitCode + put.exitCode, 0);
    for (const char *mention : {"--host", "--team", "Exit codes:", "  6  the server did not answer", "  import  "})
        QVERIFY2(tool.out.contains(mention), mention);
    QVERIFY(put.out.startsWith("Usage: kelda [global options] put [options] FILE...\n"));
    for (const char *option : {"--type", "--name", "--version", "--comment", "--detail", "--lifecycle-days",
                               "--recursive", "--group-per-folder", "--jobs", "--dry-run", "--quiet", "--verbose"})
        QVERIFY2(put.out.contains(option), option);
    for (const char *variable : {"KELDA_HOST", "KELDA_PORT", "KELDA_USER", "  completion  "})
        QVERIFY2(tool.out.contains(variable), variable);
}

void KeldaToolTest::failures_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");
    auto row = [](const char *name, const QStringList &arguments, int exitCode, const QString &message) {
        QTest::newRow(name) << arguments << exitCode << message;
    };
    const QString url = QStringLiteral("kelda:///%1/1").arg(kGuid);
    const QString down = QString::number(portNobodyListensOn());
    row("no command", {}, 2, QStringLiteral("kelda: no command given\nTry 'kelda --help'.\n"));
    row("unknown command", {QStringLiteral("frob")}, 2, QStringLiteral("kelda: unknown command 'frob'\n"));
    row("bad port", {QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("ls")}, 2,
        QStringLiteral("kelda: --port takes a TCP port"));
    row("not a GUID", {QStringLiteral("info"), QStringLiteral("x")}, 2,
        QStringLiteral("kelda: info: 'x' is not a file group GUID"));
    row("not a kelda URL", {QStringLiteral("get"), QStringLiteral("http://h/x")}, 2,
        QStringLiteral("kelda: get: 'http://h/x' is neither a kelda:///GUID/ID URL nor a GUID"));
    row("folder without -r", {QStringLiteral("put"), QStringLiteral(".")}, 2,
        QStringLiteral("kelda: put: '.' is a folder; store its files with -r"));
    row("jobs out of range",
        {QStringLiteral("put"), QStringLiteral("--jobs"), QStringLiteral("0"), QStringLiteral(".")}, 2,
        QStringLiteral("kelda: put: --jobs takes 1 to 32, not '0'"));
    row("group to stdout", {QStringLiteral("get"), kGuid, QStringLiteral("-o"), QStringLiteral("-")}, 2,
        QStringLiteral("kelda: get: a whole group does not fit on stdout"));
    row("quiet and verbose", {QStringLiteral("ls"), QStringLiteral("-q"), QStringLiteral("-v")}, 2,
        QStringLiteral("kelda: ls: --quiet and --verbose exclude each other"));
    row("unknown shell", {QStringLiteral("completion"), QStringLiteral("tcsh")}, 2,
        QStringLiteral("kelda: completion: no completion for 'tcsh'; choose one of bash, zsh, fish"));
    row("file id 0", {QStringLiteral("rm"), QStringLiteral("kelda:///%1/0").arg(kGuid)}, 2,
        QStringLiteral("kelda: rm: 'kelda:///%1/0' is neither").arg(kGuid));
    row("unknown type",
        {QStringLiteral("put"), QStringLiteral("-t"), QStringLiteral("x"), QStringLiteral(KELDA_BINARY)}, 2,
        QStringLiteral("kelda: put: unknown file type 'x'"));
    row("export without --to", {QStringLiteral("export"), kGuid}, 2,
        QStringLiteral("kelda: export: --to DIR is required"));
    row("missing file", {QStringLiteral("put"), QStringLiteral("/nonexistent/a")}, 5,
        QStringLiteral("kelda: put: cannot read '/nonexistent/a'"));
    row("server down",
        {QStringLiteral("--connect-timeout"), QStringLiteral("0.2"), QStringLiteral("--port"), down,
         QStringLiteral("get"), url},
        3, QStringLiteral("kelda: get: cannot reach the archive server at 127.0.0.1:%1 within 200 ms").arg(down));
    row("unknown group: info", {QStringLiteral("info"), kGuid}, 4,
        QStringLiteral("kelda: info: Guid not found (error 2)\n"));
    row("unknown group: get", {QStringLiteral("get"), url}, 4,
        QStringLiteral("kelda: get: Guid not found (error 2)\n"));
    row("unknown group: rm", {QStringLiteral("rm"), kGuid}, 4, QStringLiteral("kelda: rm: Guid not found (error 2)\n"));
}

void KeldaToolTest::failures()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, message);
    const Run run = kelda(arguments);
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(run.err.startsWith(message), qPrintable(run.err));
    QVERIFY(run.out.isEmpty());
}

void KeldaToolTest::roundTrip()
{
    // Several copy blocks, random so that a shifted block shows.
    QByteArray recording(5 * 1024 * 1024 + 3, Qt::Uninitialized);
    QRandomGenerator(42).fillRange(reinterpret_cast<quint32 *>(recording.data()), recording.size() / 4);
    const QString notes = writeFile(QStringLiteral("notes.txt"), "band 3\n");
    Run run = kelda({QStringLiteral("put"), QStringLiteral("--type"), QStringLiteral("Scan Recording"),
                     QStringLiteral("--name"), QStringLiteral("round trip"), QStringLiteral("--comment"),
                     QStringLiteral("kept"), notes, writeFile(QStringLiteral("recording.bin"), recording)});
    QCOMPARE(run.err, QString());
    QCOMPARE(run.exitCode, 0);
    const QStringList urls = QString::fromUtf8(run.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(urls.size(), 2);
    const QString guid = KeldaUrl(urls[1]).toKeldaGuid();
    QCOMPARE(urls[1], QStringLiteral("kelda:///%1/%2").arg(guid).arg(KeldaUrl(urls[0]).toKeldaFileId() + 1));

    run = kelda({QStringLiteral("ls"), QStringLiteral("--name"), QStringLiteral("round trip")});
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.out.contains(guid.toUtf8()), run.out.constData());
    run = kelda({QStringLiteral("ls"), QStringLiteral("--json"), QStringLiteral("--type"), QStringLiteral("8")});
    QCOMPARE(run.json().array().size(), 1);
    QCOMPARE(run.json().array()[0].toObject().value(QStringLiteral("guid")).toString(), guid);

    run = kelda({QStringLiteral("get"), urls[1], QStringLiteral("-o"), m_dir.filePath(QStringLiteral("copy.bin"))});
    QCOMPARE(run.err, QString());
    QCOMPARE(run.exitCode, 0);
    QFile copy(m_dir.filePath(QStringLiteral("copy.bin")));
    QVERIFY(copy.open(QIODevice::ReadOnly));
    QVERIFY(copy.readAll() == recording);

    run = kelda({QStringLiteral("info"), QStringLiteral("--json"), guid});
    const QJsonObject info = run.json().object();
    QCOMPARE(info.value(QStringLiteral("comment")).toString(), QStringLiteral("kept"));
    QVERIFY(info.contains(QStringLiteral("locationState")));
    QCOMPARE(info.value(QStringLiteral("files")).toArray().size(), 2);

    QCOMPARE(kelda({QStringLiteral("rm"), urls[0]}).exitCode, 0);
    run = kelda({QStringLiteral("files"), QStringLiteral("--json"), guid});
    QCOMPARE(run.json().array().size(), 1);
    QCOMPARE(run.json().array()[0].toObject().value(QStringLiteral("name")).toString(),
             QStringLiteral("recording.bin"));
    QCOMPARE(kelda({QStringLiteral("exists"), guid}).out, QByteArray("yes\n"));
    QCOMPARE(kelda({QStringLiteral("rm"), guid}).exitCode, 0);
    QCOMPARE(kelda({QStringLiteral("exists"), guid}).exitCode, 1);
}

void KeldaToolTest::getReleasesItsLock()
{
    const Run put = kelda({QStringLiteral("put"), writeFile(QStringLiteral("locked.txt"), "lock me")});
    const QString url = QString::fromUtf8(put.out).trimmed();
    QCOMPARE(put.exitCode, 0);
    QCOMPARE(kelda({QStringLiteral("get"), url, QStringLiteral("-o"), QStringLiteral("-")}).out, QByteArray("lock me"));

    // Once get has ended its read lock is gone: a write lock is granted.
    KeldaClient client(QStringLiteral("127.0.0.1"), m_server->port(), QStringLiteral("writer"), QStringLiteral("w"),
                       QString());
    QSignalSpy connected(&client, &KeldaClient::connected);
    QVERIFY(client.IsConnected() || connected.wait(15000));
    QVERIFY(!client.RequestFile(KeldaUrl(url), LOCK_Write).isEmpty());
    QCOMPARE(client.GetError(), KE_NoError);
}

void KeldaToolTest::groupCommands()
{
    const Run put = kelda({QStringLiteral("put"), writeFile(QStringLiteral("moved.txt"), "move me")});
    const QString guid = KeldaUrl(QString::fromUtf8(put.out).trimmed()).toKeldaGuid();
    QCOMPARE(guid.size(), 36);
    auto info = [&](const char *key) {
        return kelda({QStringLiteral("info"), QStringLiteral("--json"), guid})
            .json()
            .object()
            .value(QLatin1String(key));
    };
    const QStringList asViewer{QStringLiteral("--app"), QStringLiteral("viewer")};
    QCOMPARE(kelda(asViewer + QStringList{QStringLiteral("ref"), guid}).exitCode, 0);
    QCOMPARE(info("referenceCounter").toInt(), 1);
    QCOMPARE(kelda(asViewer + QStringList{QStringLiteral("unref"), guid}).exitCode, 0);
    QCOMPARE(info("referenceCounter").toInt(), 0);
    QCOMPARE(kelda({QStringLiteral("move"), guid}).exitCode, 0);
    QCOMPARE(info("locationState").toInt(), int(LS_Central));
    // Relative paths name folders below the server's exchange folder, not the caller's.
    QCOMPARE(kelda({QStringLiteral("export"), guid, QStringLiteral("--to"), QStringLiteral("export")}).exitCode, 0);
    QVERIFY(QFileInfo::exists(QStringLiteral("%1/exchange/export/%2/moved.txt").arg(m_server->basePath(), guid)));
    const Run again = kelda({QStringLiteral("import"), QStringLiteral("export")});
    QCOMPARE(again.exitCode, 4);
    QVERIFY2(again.err.contains(QLatin1String("(error 50)")), qPrintable(again.err));
}

void KeldaToolTest::putFolder_data()
{
    QTest::addColumn<QString>("root");
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("exitCode");
    // Group name -> its file names; empty when nothing may be stored.
    QTest::addColumn<QStringList>("groups");
    const QStringList nested{QStringLiteral("top.txt"), QStringLiteral("a/x.bin"), QStringLiteral("a/b/y.bin"),
                             QStringLiteral("a/b/c/.z")};
    QTest::newRow("nested folder, one group")
        << QStringLiteral("tree-one") << nested << QStringList{QStringLiteral("-r")} << 0
        << QStringList{QStringLiteral("tree-one: .z top.txt x.bin y.bin")};
    QTest::newRow("one group per folder")
        << QStringLiteral("tree-per") << nested << QStringList{QStringLiteral("--group-per-folder")} << 0
        << QStringList{QStringLiteral("tree-per: top.txt"), QStringLiteral("tree-per/a: x.bin"),
                       QStringLiteral("tree-per/a/b: y.bin"), QStringLiteral("tree-per/a/b/c: .z")};
    QTest::newRow("per folder, --name replaces the top")
        << QStringLiteral("tree-named") << QStringList{QStringLiteral("a.txt"), QStringLiteral("sub/b.txt")}
        << QStringList{QStringLiteral("--group-per-folder"), QStringLiteral("--name"), QStringLiteral("tree-named-x")}
        << 0 << QStringList{QStringLiteral("tree-named-x: a.txt"), QStringLiteral("tree-named-x/sub: b.txt")};
    QTest::newRow("name clash refused before sending")
        << QStringLiteral("tree-clash")
        << QStringList{QStringLiteral("one/same.txt"), QStringLiteral("two/same.txt"), QStringLiteral("other.txt")}
        << QStringList{QStringLiteral("-r")} << 2 << QStringList();
}

void KeldaToolTest::putFolder()
{
    QFETCH(QString, root);
    QFETCH(QStringList, files);
    QFETCH(QStringList, options);
    QFETCH(int, exitCode);
    QFETCH(QStringList, groups);
    const QString folder = writeTree(root, files);
    QVERIFY(!folder.isEmpty());
    const Run run = kelda(QStringList{QStringLiteral("put")} + options + QStringList{folder});
    QCOMPARE(run.exitCode, exitCode);
    QCOMPARE(lines(run.out).size(), exitCode == 0 ? files.size() : 0);
    if (exitCode != 0) {
        // Every clashing path is named, the others are not.
        QVERIFY2(run.err.contains(QStringLiteral("%1/one/same.txt, %1/two/same.txt").arg(folder)), qPrintable(run.err));
        QVERIFY(!run.err.contains(QStringLiteral("other.txt")));
    }
    QStringList stored;
    const QMap<QString, QStringList> found = groupsNamed(root);
    for (auto it = found.cbegin(); it != found.cend(); ++it)
        stored.append(it.key() + QStringLiteral(": ") + it.value().join(QLatin1Char(' ')));
    QCOMPARE(stored, groups);
}

// The server refuses one file of a folder: that file is named with the
// server's reason, the others are stored, and the refused copy does not stay
// in the group's directory.
void KeldaToolTest::oneFileRefused()
{
    const QString folder = writeTree(QStringLiteral("refused"),
                                     {QStringLiteral("good1"), QStringLiteral("bad\\name"), QStringLiteral("good2")});
    const Run run = kelda({QStringLiteral("put"), QStringLiteral("-r"), folder});
    QCOMPARE(run.exitCode, 4);
    QCOMPARE(run.err,
             QStringLiteral("kelda: put: %1/bad\\name: %2 (error %3)\n")
                 .arg(folder, KeldaErrorString::Get(KE_AddFileFailed))
                 .arg(int(KE_AddFileFailed)));
    const QStringList urls = lines(run.out);
    QCOMPARE(urls.size(), 2);
    const QString guid = KeldaUrl(urls.first()).toKeldaGuid();
    QCOMPARE(groupsNamed(QStringLiteral("refused")).value(QStringLiteral("refused")),
             (QStringList{QStringLiteral("good1"), QStringLiteral("good2")}));
    QDirIterator copies(m_server->basePath(), {QStringLiteral("bad*")}, QDir::Files, QDirIterator::Subdirectories);
    QVERIFY2(!copies.hasNext(), qPrintable(copies.hasNext() ? copies.next() : guid));
}

void KeldaToolTest::getGroup_data()
{
    QTest::addColumn<int>("jobs");
    QTest::newRow("one at a time") << 1;
    QTest::newRow("four at once") << 4;
}

// The same folder through put -r and get GUID -o DIR with either number of
// jobs: the same URLs in the same order, and the same bytes back.
void KeldaToolTest::getGroup()
{
    QFETCH(int, jobs);
    const QString root = QStringLiteral("jobs%1").arg(jobs);
    QStringList files;
    for (int i = 0; i < 12; ++i)
        files.append(QStringLiteral("d%1/f%2.dat").arg(i % 3).arg(i));
    const QString folder = writeTree(root, files);
    // Empty, and larger than one copy block.
    QFile(QDir(folder).filePath(QStringLiteral("empty"))).open(QIODevice::WriteOnly);
    QFile big(QDir(folder).filePath(QStringLiteral("d0/big")));
    QVERIFY(big.open(QIODevice::WriteOnly));
    big.write(QByteArray(3 * 1024 * 1024 + 5, 'b'));
    big.close();

    const Run put =
        kelda({QStringLiteral("put"), QStringLiteral("-r"), QStringLiteral("--jobs"), QString::number(jobs), folder});
    QCOMPARE(put.err, QString());
    QCOMPARE(put.exitCode, 0);
    const QStringList urls = lines(put.out);
    QCOMPARE(urls.size(), files.size() + 2);
    const QString guid = KeldaUrl(urls.first()).toKeldaGuid();
    for (int i = 0; i < urls.size(); ++i)
        QCOMPARE(urls[i], QStringLiteral("kelda:///%1/%2").arg(guid).arg(i + 1));

    const QString target = m_dir.filePath(root + QStringLiteral("-back/made/here"));
    const Run get =
        kelda({QStringLiteral("get"), guid, QStringLiteral("-o"), target, QStringLiteral("-j"), QString::number(jobs)});
    QCOMPARE(get.err, QString());
    QCOMPARE(get.exitCode, 0);
    QMap<QString, QByteArray> flattened;
    const QMap<QString, QByteArray> source = treeOf(folder);
    for (auto it = source.cbegin(); it != source.cend(); ++it)
        flattened.insert(QFileInfo(it.key()).fileName(), it.value());
    QVERIFY(treeOf(target) == flattened);

    // The read locks are gone once get has ended.
    KeldaClient client(QStringLiteral("127.0.0.1"), m_server->port(), QStringLiteral("w"), QStringLiteral("w"),
                       QString());
    QSignalSpy connected(&client, &KeldaClient::connected);
    QVERIFY(client.IsConnected() || connected.wait(15000));
    QVERIFY(!client.RequestFile(KeldaUrl(urls.first()), LOCK_Write).isEmpty());
}

void KeldaToolTest::integrity_data()
{
    QTest::addColumn<QString>("form");
    QTest::addColumn<int>("jobs");
    QTest::newRow("one file by URL") << QStringLiteral("url") << 1;
    QTest::newRow("group, one at a time") << QStringLiteral("group") << 1;
    QTest::newRow("group, four at once") << QStringLiteral("group") << 4;
}

// A group verifies and fetches clean; once one byte of its stored copy is
// changed behind the server's back, verify and get each report it, and get
// leaves no copy of the bad file.
void KeldaToolTest::integrity()
{
    QFETCH(QString, form);
    QFETCH(int, jobs);
    const QString name = QStringLiteral("fixity-%1-%2.bin").arg(form).arg(jobs);
    QByteArray bytes(2 * 1024 * 1024 + 7, Qt::Uninitialized);
    QRandomGenerator(jobs).fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
    const Run put =
        kelda({QStringLiteral("put"), writeFile(name, bytes), writeFile(name + QStringLiteral(".txt"), "companion\n")});
    QCOMPARE(put.exitCode, 0);
    const QStringList urls = lines(put.out);
    QCOMPARE(urls.size(), 2);
    const QString guid = KeldaUrl(urls.first()).toKeldaGuid();
    const QString target = form == QStringLiteral("url") ? urls.first() : guid;
    const QString back = m_dir.filePath(QStringLiteral("back-%1-%2").arg(form).arg(jobs));
    QVERIFY(QDir().mkpath(back));
    const QStringList get{QStringLiteral("get"), target, QStringLiteral("-o"), back, QStringLiteral("--jobs"),
                          QString::number(jobs)};
    const QStringList verifyJson{QStringLiteral("verify"), QStringLiteral("--json"), guid};

    Run run = kelda({QStringLiteral("info"), QStringLiteral("--json"), guid});
    QCOMPARE(run.exitCode, 0);
    const QJsonObject first = run.json().object().value(QStringLiteral("files")).toArray().at(0).toObject();
    QCOMPARE(first.value(QStringLiteral("digest")).toString(),
             QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex()));
    run = kelda(verifyJson);
    QCOMPARE(run.err, QString());
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.json().array().size(), 2);
    run = kelda(get);
    QCOMPARE(run.err, QString());
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(treeOf(back).value(name), bytes);
    QVERIFY(QDir(back).removeRecursively());
    QVERIFY(QDir().mkpath(back));

    QDirIterator stored(m_server->basePath(), {name}, QDir::Files, QDirIterator::Subdirectories);
    QVERIFY(stored.hasNext());
    QFile copy(stored.next());
    QVERIFY(copy.open(QIODevice::ReadWrite));
    QVERIFY(copy.seek(bytes.size() / 2));
    QVERIFY(copy.putChar(char(bytes.at(bytes.size() / 2) ^ 0x01)));
    copy.close();

    run = kelda(get);
    QCOMPARE(run.exitCode, 7);
    QVERIFY2(run.err.contains(first.value(QStringLiteral("digest")).toString()), qPrintable(run.err));
    QVERIFY(!QFileInfo::exists(QDir(back).filePath(name)));
    QVERIFY(treeOf(back).keys().filter(name + QStringLiteral(".part")).isEmpty());
    run = kelda(verifyJson);
    QCOMPARE(run.exitCode, 8);
    QStringList states;
    for (const QJsonValue &file : run.json().array())
        states.append(file.toObject().value(QStringLiteral("name")).toString() + QLatin1Char('=') +
                      file.toObject().value(QStringLiteral("state")).toString());
    states.sort();
    QCOMPARE(states, (QStringList{name + QStringLiteral(".txt=ok"), name + QStringLiteral("=mismatch")}));
}

void KeldaToolTest::verifyAll_data()
{
    QTest::addColumn<bool>("corrupt");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("every file intact") << false << 0;
    QTest::newRow("one stored file changed") << true << 8;
}

// verify --all on a server of its own, so that exactly its two groups are
// listed: every file of both is read, and a changed one is named.
void KeldaToolTest::verifyAll()
{
    QFETCH(bool, corrupt);
    QFETCH(int, exitCode);
    ServerProcess server;
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    const QString tag = QString::fromLatin1(QTest::currentDataTag()).replace(QLatin1Char(' '), QLatin1Char('-'));
    const QStringList names{tag + QStringLiteral("-first.bin"), tag + QStringLiteral("-second.bin")};
    for (const QString &name : names)
        QCOMPARE(
            keldaAt(server.port(), {QStringLiteral("put"), writeFile(name, name.toUtf8().repeated(1000))}).exitCode, 0);
    if (corrupt) {
        QDirIterator stored(server.basePath(), {names.last()}, QDir::Files, QDirIterator::Subdirectories);
        QVERIFY(stored.hasNext());
        QFile copy(stored.next());
        QVERIFY(copy.open(QIODevice::ReadWrite));
        QVERIFY(copy.putChar('!'));
    }

    const Run run = keldaAt(server.port(), {QStringLiteral("verify"), QStringLiteral("--all")});
    QCOMPARE(run.exitCode, exitCode);
    const QStringList rows = lines(run.out);
    for (const QString &name : names) {
        const QStringList named = rows.filter(name);
        QCOMPARE(named.size(), 1);
        const bool bad = corrupt && name == names.last();
        QVERIFY2(named.first().contains(bad ? QStringLiteral(" mismatch ") : QStringLiteral(" ok ")),
                 qPrintable(named.first()));
    }
    QCOMPARE(run.err, corrupt ? QStringLiteral("kelda: verify: 1 file of 2 not intact\n") : QString());
}

void KeldaToolTest::serverWithoutDigests_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");
    const QString url = QStringLiteral("kelda:///%1/1").arg(kGuid);
    QTest::newRow("get fetches without comparing")
        << QStringList{QStringLiteral("-v"), QStringLiteral("get"), url, QStringLiteral("-o"),
                       QStringLiteral("old.bin")}
        << 0 << QStringLiteral("the server keeps no digests; the copies are not compared\n");
    QTest::newRow("get says nothing unless verbose")
        << QStringList{QStringLiteral("get"), url, QStringLiteral("-o"), QStringLiteral("old.bin")} << 0 << QString();
    QTest::newRow("verify cannot")
        << QStringList{QStringLiteral("verify"), kGuid} << 4
        << QStringLiteral("kelda: verify: the server keeps no digests and cannot verify files: not supported by "
                          "this server (error 41)\n");
}

// A server from before digests answers their commands with code 41: get
// fetches as before, verify says why it cannot.
void KeldaToolTest::serverWithoutDigests()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, message);
    const QByteArray bytes("archived before digests\n");
    const QString archived = writeFile(QStringLiteral("archived.bin"), bytes);
    QFile::remove(m_dir.filePath(QStringLiteral("old.bin")));
    ScriptedPeer peer;
    for (const char *command : {"GetFileChecksums", "VerifyFileGroup"})
        peer.setReplyChildren(QLatin1String(command), QStringLiteral("<m:Error>41</m:Error>"));
    peer.setReplyChildren(QStringLiteral("RequestFile"),
                          QStringLiteral("<m:Path>%1</m:Path>").arg(archived.toHtmlEscaped()));

    const Run run = keldaAt(peer.port(), arguments);
    QCOMPARE(run.err, message);
    QCOMPARE(run.exitCode, exitCode);
    if (exitCode == 0) {
        QFile copy(m_dir.filePath(QStringLiteral("old.bin")));
        QVERIFY(copy.open(QIODevice::ReadOnly));
        QCOMPARE(copy.readAll(), bytes);
    }
}

void KeldaToolTest::environment_data()
{
    QTest::addColumn<QString>("configured");
    QTest::addColumn<QStringList>("environment");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("creator");
    // "live" stands for the server's port, "dead" for one nobody listens on.
    const QString live = QStringLiteral("live");
    const QString dead = QStringLiteral("dead");
    QTest::newRow("configuration") << live << QStringList() << QStringList() << 0 << QString();
    QTest::newRow("variable over configuration")
        << dead << QStringList{QStringLiteral("KELDA_PORT=live")} << QStringList() << 0 << QString();
    QTest::newRow("variable wins even when it is wrong")
        << live << QStringList{QStringLiteral("KELDA_PORT=dead")} << QStringList() << 3 << QString();
    QTest::newRow("option over variable") << dead << QStringList{QStringLiteral("KELDA_PORT=dead")}
                                          << QStringList{QStringLiteral("--port"), live} << 0 << QString();
    QTest::newRow("host variable") << live << QStringList{QStringLiteral("KELDA_HOST=127.0.0.2")} << QStringList() << 3
                                   << QString();
    QTest::newRow("bad port variable") << live << QStringList{QStringLiteral("KELDA_PORT=x")} << QStringList() << 2
                                       << QString();
    QTest::newRow("user variable") << live << QStringList{QStringLiteral("KELDA_USER=from-env")} << QStringList() << 0
                                   << QStringLiteral("from-env");
    QTest::newRow("user option over variable")
        << live << QStringList{QStringLiteral("KELDA_USER=from-env")}
        << QStringList{QStringLiteral("--user"), QStringLiteral("from-option")} << 0 << QStringLiteral("from-option");
}

void KeldaToolTest::environment()
{
    QFETCH(QString, configured);
    QFETCH(QStringList, environment);
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, creator);
    const QString live = QString::number(m_server->port());
    const QString dead = QString::number(portNobodyListensOn());
    auto resolve = [&](QString text) {
        return text.replace(QStringLiteral("live"), live).replace(QStringLiteral("dead"), dead);
    };
    writeConfig(resolve(configured).toUShort());
    for (QString &item : environment)
        item = resolve(item);
    for (QString &item : arguments)
        item = resolve(item);
    const Run run = keldaPlain(arguments +
                                   QStringList{QStringLiteral("--connect-timeout"), QStringLiteral("1"),
                                               QStringLiteral("put"), writeFile(QStringLiteral("env.txt"), "e")},
                               environment);
    writeConfig(portNobodyListensOn());
    QVERIFY2(run.exitCode == exitCode, qPrintable(run.err));
    if (exitCode == 2)
        QVERIFY2(run.err.startsWith(QStringLiteral("kelda: KELDA_PORT takes a TCP port")), qPrintable(run.err));
    if (!creator.isEmpty()) {
        const QString guid = KeldaUrl(QString::fromUtf8(run.out).trimmed()).toKeldaGuid();
        const QJsonObject info = kelda({QStringLiteral("info"), QStringLiteral("--json"), guid}).json().object();
        QCOMPARE(info.value(QStringLiteral("creator")).toString(), creator);
    }
}

void KeldaToolTest::verbosity_data()
{
    QTest::addColumn<QStringList>("global");
    QTest::addColumn<QStringList>("local");
    QTest::addColumn<int>("detailLines");
    QTest::newRow("default, not a terminal") << QStringList() << QStringList() << 0;
    QTest::newRow("quiet") << QStringList{QStringLiteral("-q")} << QStringList() << 0;
    QTest::newRow("verbose before the command") << QStringList{QStringLiteral("-v")} << QStringList() << 4;
    QTest::newRow("verbose after the command") << QStringList() << QStringList{QStringLiteral("--verbose")} << 4;
}

void KeldaToolTest::verbosity()
{
    QFETCH(QStringList, global);
    QFETCH(QStringList, local);
    QFETCH(int, detailLines);
    const QString folder =
        writeTree(QStringLiteral("verbosity%1").arg(QLatin1String(QTest::currentDataTag())).remove(QLatin1Char(' ')),
                  {QStringLiteral("one"), QStringLiteral("two")});
    const Run run =
        kelda(global + QStringList{QStringLiteral("put"), QStringLiteral("-r")} + local + QStringList{folder});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(lines(run.out).size(), 2);
    // Created group, one line per file, the summary.
    const QStringList err = run.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(err.size(), detailLines);
    if (detailLines > 0) {
        QVERIFY2(err[1].contains(
                     QRegularExpression(QStringLiteral("^stored .*/one as kelda:///\\S+/1 \\(.*, \\d+ ms\\)$"))),
                 qPrintable(err[1]));
        QVERIFY2(err.last().startsWith(QStringLiteral("stored 2 files (")), qPrintable(err.last()));
    }
}

void KeldaToolTest::dryRun_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("said");
    QTest::newRow("put") << QStringLiteral("put") << 0 << QStringLiteral("would create group \"dry-put\"");
    QTest::newRow("rm group") << QStringLiteral("rm") << 0 << QStringLiteral("would delete group \"dry-rm\"");
    QTest::newRow("rm file") << QStringLiteral("rm file") << 0 << QStringLiteral("would delete a.txt (kelda:///");
    QTest::newRow("rm unknown group") << QStringLiteral("rm unknown") << 4 << QString();
    QTest::newRow("import") << QStringLiteral("import") << 0 << QStringLiteral("would import group \"dry-import\"");
    QTest::newRow("import incomplete") << QStringLiteral("import broken") << 5 << QString();
}

// A dry run says what it would do and leaves the archive as it was.
void KeldaToolTest::dryRun()
{
    QFETCH(QString, command);
    QFETCH(int, exitCode);
    QFETCH(QString, said);
    const QString name = QStringLiteral("dry-") + command.section(QLatin1Char(' '), 0, 0);
    const QString folder =
        writeTree(name + QLatin1String(QTest::currentDataTag()), {QStringLiteral("a.txt"), QStringLiteral("b.txt")});
    QStringList arguments{command.section(QLatin1Char(' '), 0, 0), QStringLiteral("--dry-run")};
    if (command == QStringLiteral("put")) {
        arguments += QStringList{QStringLiteral("-r"), QStringLiteral("--name"), name, folder};
    } else {
        const Run put = kelda({QStringLiteral("put"), QStringLiteral("-r"), QStringLiteral("--name"), name, folder});
        const QString guid = KeldaUrl(lines(put.out).value(0)).toKeldaGuid();
        QVERIFY(isGuid(guid));
        if (command.startsWith(QStringLiteral("rm")))
            arguments.append(command.endsWith(QStringLiteral("file")) ? QStringLiteral("kelda:///%1/1").arg(guid)
                                 : command.endsWith(QStringLiteral("unknown")) ? kGuid
                                                                               : guid);
        if (command.startsWith(QStringLiteral("import"))) {
            // Exported below the server's exchange folder, which this machine sees too.
            const QString relative = QStringLiteral("export-") + QLatin1String(QTest::currentDataTag());
            const QString exported = QStringLiteral("%1/exchange/%2").arg(m_server->basePath(), relative);
            QCOMPARE(kelda({QStringLiteral("export"), guid, QStringLiteral("--to"), relative}).exitCode, 0);
            if (command.endsWith(QStringLiteral("broken")))
                QVERIFY(QFile::remove(QStringLiteral("%1/%2/b.txt").arg(exported, guid)));
            arguments.append(exported);
        }
    }
    const QMap<QString, QStringList> before = groupsNamed(name);
    const Run run = kelda(arguments);
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(QString::fromUtf8(run.out).contains(said), run.out.constData());
    QCOMPARE(groupsNamed(name), before);
}

void KeldaToolTest::completionScripts_data()
{
    QTest::addColumn<QString>("shell");
    QTest::addColumn<bool>("shellRequired");
    QTest::newRow("bash") << QStringLiteral("bash") << true;
    QTest::newRow("zsh") << QStringLiteral("zsh") << false;
    QTest::newRow("fish") << QStringLiteral("fish") << false;
}

// Each script names every command, option and file type, and its shell
// reads it without a syntax error.
void KeldaToolTest::completionScripts()
{
    QFETCH(QString, shell);
    QFETCH(bool, shellRequired);
    const Run run = kelda({QStringLiteral("completion"), shell});
    QCOMPARE(run.exitCode, 0);
    for (const char *word : {"put", "completion", "group-per-folder", "connect-timeout", "Scan Recording", "ls"})
        QVERIFY2(run.out.contains(word), word);
    const QString program = QStandardPaths::findExecutable(shell);
    if (program.isEmpty()) {
        QVERIFY2(!shellRequired, qPrintable(shell));
        return;
    }
    const QString script = writeFile(QStringLiteral("completion.") + shell, run.out);
    QProcess check;
    check.start(program, {QStringLiteral("-n"), script});
    QVERIFY(check.waitForFinished(kProcessWaitMs));
    QVERIFY2(check.exitCode() == 0, check.readAllStandardError().constData());
}

void KeldaToolTest::bashCompletion_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("expected");
    QTest::newRow("command") << QStringLiteral("kelda pu") << QStringLiteral("put");
    QTest::newRow("global option") << QStringLiteral("kelda --conn") << QStringLiteral("--connect-timeout");
    QTest::newRow("command option") << QStringLiteral("kelda --port 1 put --group")
                                    << QStringLiteral("--group-per-folder");
    QTest::newRow("file type") << QStringLiteral("kelda put -t Sca") << QStringLiteral("Scan Recording");
    QTest::newRow("shell") << QStringLiteral("kelda completion fi") << QStringLiteral("fish");
    QTest::newRow("GUID from the server") << QStringLiteral("kelda --port live info ") << QStringLiteral("guid");
    QTest::newRow("no server, no GUID") << QStringLiteral("kelda --port dead info ") << QString();
}

// The bash script at work: the words offered for the last word of a line.
void KeldaToolTest::bashCompletion()
{
    QFETCH(QString, line);
    QFETCH(QString, expected);
    const Run put = kelda({QStringLiteral("put"), writeFile(QStringLiteral("listed.txt"), "listed")});
    const QString guid = KeldaUrl(QString::fromUtf8(put.out).trimmed()).toKeldaGuid();
    expected.replace(QStringLiteral("guid"), guid);
    line.replace(QStringLiteral("live"), QString::number(m_server->port()))
        .replace(QStringLiteral("dead"), QString::number(portNobodyListensOn()));
    const QString script =
        writeFile(QStringLiteral("completion.bash"), kelda({QStringLiteral("completion"), QStringLiteral("bash")}).out);
    QProcess bash;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PATH"),
                       QFileInfo(QStringLiteral(KELDA_BINARY)).path() + QLatin1Char(':') +
                           environment.value(QStringLiteral("PATH")));
    environment.insert(QStringLiteral("KELDA_CONFIG_FILE"), m_dir.filePath(QStringLiteral("kelda.ini")));
    bash.setProcessEnvironment(environment);
    bash.start(QStringLiteral("bash"),
               {QStringLiteral("-c"),
                QStringLiteral("source \"$1\"; read -ra COMP_WORDS <<< \"$2\"; [[ $2 == *' ' ]] && COMP_WORDS+=(''); "
                               "COMP_CWORD=$(( ${#COMP_WORDS[@]} - 1 )); _kelda; printf '%s\\n' \"${COMPREPLY[@]}\""),
                QStringLiteral("bash"), script, line});
    QVERIFY(bash.waitForFinished(kProcessWaitMs));
    const QStringList offered = lines(bash.readAllStandardOutput());
    if (expected.isEmpty())
        QCOMPARE(offered, QStringList());
    else
        QVERIFY2(offered.contains(expected), qPrintable(offered.join(QLatin1Char(','))));
}

void KeldaToolTest::tls_data()
{
    QTest::addColumn<bool>("identifyClients");
    QTest::addColumn<QString>("authority"); // none, ours or foreign
    QTest::addColumn<bool>("withCertificate");
    QTest::addColumn<int>("exitCode"); // 3: not reachable
    QTest::newRow("plain client") << false << QString() << false << 3;
    QTest::newRow("server verified") << false << QStringLiteral("ours") << false << 0;
    QTest::newRow("server not trusted") << false << QStringLiteral("foreign") << false << 3;
    QTest::newRow("user certificate") << true << QStringLiteral("ours") << true << 0;
    QTest::newRow("no user certificate") << true << QStringLiteral("ours") << false << 3;
}

// --tls-ca, --tls-cert and --tls-key against a server that speaks TLS.
void KeldaToolTest::tls()
{
    QFETCH(bool, identifyClients);
    QFETCH(QString, authority);
    QFETCH(bool, withCertificate);
    QFETCH(int, exitCode);
    TestCertificates *certificates = TestCertificates::shared();
    QVERIFY(certificates);
    QStringList serverArguments{QStringLiteral("--tls-cert"), certificates->serverCertificate(),
                                QStringLiteral("--tls-key"), certificates->serverKey()};
    if (identifyClients)
        serverArguments << QStringLiteral("--tls-client-ca") << certificates->authority();
    ServerProcess server;
    server.setExtraArguments(serverArguments);
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QStringList arguments{QStringLiteral("--host"),       QStringLiteral("127.0.0.1"),         QStringLiteral("--port"),
                          QString::number(server.port()), QStringLiteral("--connect-timeout"), QStringLiteral("2")};
    if (!authority.isEmpty())
        arguments << QStringLiteral("--tls-ca")
                  << (authority == QLatin1String("ours") ? certificates->authority()
                                                         : certificates->foreignAuthority());
    if (withCertificate)
        arguments << QStringLiteral("--tls-cert") << certificates->userCertificate(QStringLiteral("carol"))
                  << QStringLiteral("--tls-key") << certificates->userKey(QStringLiteral("carol"));
    const Run run = keldaPlain(arguments + QStringList{QStringLiteral("users")});
    QCOMPARE(run.exitCode, exitCode);
}

QTEST_GUILESS_MAIN(KeldaToolTest)
#include "tst_kelda.moc"
