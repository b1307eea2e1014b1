#include "serverprocess.h"

#include <QDir>
#include <QFile>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

// SIGHUP as log rotation sends it to the real server: the trace file is
// opened again under its name, and the server goes on serving.
class TestServerSignals : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();
    void hangupReopensTraceFile_data();
    void hangupReopensTraceFile();

private:
    // Connects and returns the trace line the server writes for it.
    static QByteArray connectClient(QTcpSocket *socket, quint16 port);
};

namespace {

constexpr int Wait = 15000;

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

void TestServerSignals::cleanup()
{
    qputenv("KELDA_TRACE_FILE", QByteArray());
}

QByteArray TestServerSignals::connectClient(QTcpSocket *socket, quint16 port)
{
    socket->connectToHost(QStringLiteral("127.0.0.1"), port);
    if (!socket->waitForConnected(Wait))
        return QByteArray();
    return QStringLiteral("Client 127.0.0.1:%1 connected").arg(socket->localPort()).toUtf8();
}

void TestServerSignals::hangupReopensTraceFile_data()
{
    QTest::addColumn<QString>("rotation");
    QTest::addColumn<bool>("newFile"); // later traces in a new file at the old name
    QTest::newRow("file renamed") << QStringLiteral("rename") << true;
    QTest::newRow("file deleted") << QStringLiteral("delete") << true;
    // The name cannot be opened again: traces stay in the file they went to.
    QTest::newRow("folder renamed") << QStringLiteral("rename folder") << false;
    QTest::newRow("no trace file") << QString() << false;
}

void TestServerSignals::hangupReopensTraceFile()
{
    QFETCH(QString, rotation);
    QFETCH(bool, newFile);
    QTemporaryDir scratch;
    const QString logs = scratch.filePath(QStringLiteral("logs"));
    const QString trace = logs + QStringLiteral("/trace.log");
    const QString rotated = rotation == QLatin1String("rename folder")
        ? scratch.filePath(QStringLiteral("logs.1/trace.log"))
        : trace + QStringLiteral(".1");
    QVERIFY(QDir().mkpath(logs));
    if (!rotation.isEmpty())
        qputenv("KELDA_TRACE_FILE", QFile::encodeName(trace));
    ServerProcess server;
    server.setExtraArguments({QStringLiteral("--trace-mask"), QStringLiteral("0x60")});
    QVERIFY2(server.start(), qPrintable(server.errorString()));

    QTcpSocket before;
    const QByteArray beforeLine = connectClient(&before, server.port());
    QVERIFY(!beforeLine.isEmpty());
    if (!rotation.isEmpty())
        QTRY_VERIFY_WITH_TIMEOUT(contentOf(trace).contains(beforeLine), Wait);

    if (rotation == QLatin1String("rename"))
        QVERIFY(QFile::rename(trace, rotated));
    else if (rotation == QLatin1String("delete"))
        QVERIFY(QFile::remove(trace));
    else if (rotation == QLatin1String("rename folder"))
        QVERIFY(QDir().rename(logs, scratch.filePath(QStringLiteral("logs.1"))));
    QCOMPARE(::kill(pid_t(server.processId()), SIGHUP), 0);
    if (newFile)
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(trace), Wait);

    QTcpSocket after;
    const QByteArray afterLine = connectClient(&after, server.port());
    QVERIFY(!afterLine.isEmpty());
    if (newFile) {
        QTRY_VERIFY_WITH_TIMEOUT(contentOf(trace).contains(afterLine), Wait);
        QVERIFY(!contentOf(trace).contains(beforeLine));
        if (rotation == QLatin1String("rename"))
            QVERIFY(!contentOf(rotated).contains(afterLine));
    } else if (!rotation.isEmpty()) {
        QTRY_VERIFY_WITH_TIMEOUT(contentOf(rotated).contains(afterLine), Wait);
        QVERIFY(!QFile::exists(trace));
    }

    // SIGHUP did not end it, and SIGTERM still ends it cleanly.
    QVERIFY(server.isRunning());
    server.stop();
    QCOMPARE(server.exitStatus(), QProcess::NormalExit);
    QCOMPARE(server.exitCode(), 0);
}

QTEST_GUILESS_MAIN(TestServerSignals)
#include "tst_serversignals.moc"
