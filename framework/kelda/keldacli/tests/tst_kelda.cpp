#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString kGuid = QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e");
const int kProcessWaitMs = 30000;

struct Run
{
    int exitCode = -1;
    QString out;
    QString err;
};

Run kelda(const QStringList &arguments)
{
    QProcess process;
    // The program's own messages only, not the library's traces.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("KELDA_TRACE_MASK"));
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(KELDA_BINARY), arguments);
    Run run;
    if (!process.waitForFinished(kProcessWaitMs)) {
        process.kill();
        process.waitForFinished(kProcessWaitMs);
        run.err = QStringLiteral("<did not finish>");
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

quint16 portNobodyListensOn()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

} // namespace

// The kelda program as scripts see it: exit codes, stdout and stderr.
class KeldaToolTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void help_data();
    void help();
    void badArguments_data();
    void badArguments();
    void serverDown_data();
    void serverDown();

private:
    QTemporaryDir m_dir;
};

void KeldaToolTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY(QFileInfo::exists(QStringLiteral(KELDA_BINARY)));
}

void KeldaToolTest::help_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("mentions");
    QTest::newRow("tool") << QStringList{QStringLiteral("--help")}
                          << QStringList{QStringLiteral("--host"), QStringLiteral("--port"), QStringLiteral("--app"),
                                         QStringLiteral("--user"), QStringLiteral("--team"), QStringLiteral("Exit codes"),
                                         QStringLiteral("  put "), QStringLiteral("  move "), QStringLiteral("  import ")};
    QTest::newRow("put") << QStringList{QStringLiteral("put"), QStringLiteral("--help")}
                         << QStringList{QStringLiteral("Usage: kelda [global options] put"), QStringLiteral("--type"),
                                        QStringLiteral("--name"), QStringLiteral("--version"), QStringLiteral("--comment"),
                                        QStringLiteral("--detail"), QStringLiteral("--lifecycle-days")};
    QTest::newRow("get") << QStringList{QStringLiteral("get"), QStringLiteral("-h")}
                         << QStringList{QStringLiteral("-o, --output")};
    QTest::newRow("ls") << QStringList{QStringLiteral("ls"), QStringLiteral("--help")}
                        << QStringList{QStringLiteral("--json"), QStringLiteral("--referenced-by"),
                                       QStringLiteral("--lifecycle-to"), QStringLiteral("--lock")};
}

void KeldaToolTest::help()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, mentions);
    const Run run = kelda(arguments);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.err, QString());
    for (const QString &mention : mentions)
        QVERIFY2(run.out.contains(mention), qPrintable(mention));
}

void KeldaToolTest::badArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");

    auto add = [](const char *name, const QStringList &arguments, int exitCode, const char *message) {
        QTest::newRow(name) << arguments << exitCode << QString::fromUtf8(message);
    };
    add("no command", {}, 2, "kelda: no command given");
    add("unknown command", {QStringLiteral("frob")}, 2, "kelda: unknown command 'frob'");
    add("unknown global option", {QStringLiteral("--frob"), QStringLiteral("ls")}, 2, "kelda: Unknown option 'frob'");
    add("bad port", {QStringLiteral("--port"), QStringLiteral("70000"), QStringLiteral("ls")}, 2,
        "kelda: --port takes a TCP port");
    add("unknown command option", {QStringLiteral("ls"), QStringLiteral("--frob")}, 2,
        "kelda: ls: Unknown option 'frob'");
    add("not a GUID", {QStringLiteral("info"), QStringLiteral("not-a-guid")}, 2,
        "kelda: info: 'not-a-guid' is not a file group GUID");
    add("not a kelda URL", {QStringLiteral("get"), QStringLiteral("http://host/x")}, 2,
        "kelda: get: 'http://host/x' is not a kelda:///GUID/ID URL");
    add("file id 0", {QStringLiteral("rm"), QStringLiteral("kelda:///%1/0").arg(kGuid)}, 2,
        "kelda: rm: 'kelda:///0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e/0' is neither");
    add("put without files", {QStringLiteral("put")}, 2, "kelda: put: expected at least 1 argument(s), got 0");
    add("two GUIDs for exists", {QStringLiteral("exists"), kGuid, kGuid}, 2, "kelda: exists: expected 1 argument(s)");
    add("unknown file type", {QStringLiteral("put"), QStringLiteral("--type"), QStringLiteral("Cheese"),
                              QStringLiteral(KELDA_BINARY)},
        2, "kelda: put: unknown file type 'Cheese'");
    add("bad query time", {QStringLiteral("ls"), QStringLiteral("--created-from"), QStringLiteral("soon")}, 2,
        "kelda: ls: invalid value 'soon' for --created-from");
    add("export without target", {QStringLiteral("export"), kGuid}, 2, "kelda: export: --to DIR is required");
    add("missing local file", {QStringLiteral("put"), QStringLiteral("/nonexistent/scan.bin")}, 5,
        "kelda: put: cannot read '/nonexistent/scan.bin'");
}

void KeldaToolTest::badArguments()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, message);
    // A server that is not there: arguments are checked before connecting.
    const Run run = kelda(QStringList{QStringLiteral("--port"), QString::number(portNobodyListensOn())} + arguments);
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(run.err.startsWith(message), qPrintable(run.err));
    QCOMPARE(run.out, QString());
}

void KeldaToolTest::serverDown_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("ls") << QStringList{QStringLiteral("ls")};
    QTest::newRow("get") << QStringList{QStringLiteral("get"), QStringLiteral("kelda:///%1/1").arg(kGuid)};
    QTest::newRow("exists") << QStringList{QStringLiteral("exists"), kGuid};
}

void KeldaToolTest::serverDown()
{
    QFETCH(QStringList, arguments);
    const quint16 port = portNobodyListensOn();
    const Run run = kelda(QStringList{QStringLiteral("--host"), QStringLiteral("127.0.0.1"), QStringLiteral("--port"),
                                      QString::number(port), QStringLiteral("--connect-timeout"), QStringLiteral("1")}
                          + arguments);
    QCOMPARE(run.exitCode, 3);
    QVERIFY2(run.err.contains(QStringLiteral(": cannot reach the archive server at 127.0.0.1:%1").arg(port)),
             qPrintable(run.err));
    QCOMPARE(run.out, QString());
}

QTEST_GUILESS_MAIN(KeldaToolTest)
#include "tst_kelda.moc"
