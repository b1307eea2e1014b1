#include "keldaclient.h"
#include "serverprocess.h"
#include "trace.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace Kelda;

namespace {

const QString kGuid = QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e");
const int kProcessWaitMs = 90000;

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

private:
    Run kelda(const QStringList &arguments);
    QString writeFile(const QString &name, const QByteArray &bytes);

    QTemporaryDir m_dir;
    std::unique_ptr<ServerProcess> m_server;
};

void KeldaToolTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    ErrorHandler::Instance()->SetLevel(0);
    m_server = std::make_unique<ServerProcess>();
    QVERIFY2(m_server->start(), qPrintable(m_server->errorString()));
}

// Later options win: an argument list may name another port.
Run KeldaToolTest::kelda(const QStringList &arguments)
{
    QProcess process;
    // The program's own messages only, not the library's traces.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("KELDA_TRACE_MASK"));
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(m_dir.path());
    process.start(QStringLiteral(KELDA_BINARY),
                  QStringList{QStringLiteral("--host"), QStringLiteral("127.0.0.1"), QStringLiteral("--port"),
                              QString::number(m_server->port()), QStringLiteral("--connect-timeout"),
                              QStringLiteral("2")}
                      + arguments);
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
    for (const char *option : {"--type", "--name", "--version", "--comment", "--detail", "--lifecycle-days"})
        QVERIFY2(put.out.contains(option), option);
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
        QStringLiteral("kelda: get: 'http://h/x' is not a kelda:///GUID/ID URL"));
    row("file id 0", {QStringLiteral("rm"), QStringLiteral("kelda:///%1/0").arg(kGuid)}, 2,
        QStringLiteral("kelda: rm: 'kelda:///%1/0' is neither").arg(kGuid));
    row("unknown type", {QStringLiteral("put"), QStringLiteral("-t"), QStringLiteral("x"), QStringLiteral(KELDA_BINARY)},
        2, QStringLiteral("kelda: put: unknown file type 'x'"));
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
    row("unknown group: get", {QStringLiteral("get"), url}, 4, QStringLiteral("kelda: get: Guid not found (error 2)\n"));
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
    QCOMPARE(run.json().array()[0].toObject().value(QStringLiteral("name")).toString(), QStringLiteral("recording.bin"));
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
        return kelda({QStringLiteral("info"), QStringLiteral("--json"), guid}).json().object().value(QLatin1String(key));
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

QTEST_GUILESS_MAIN(KeldaToolTest)
#include "tst_kelda.moc"
