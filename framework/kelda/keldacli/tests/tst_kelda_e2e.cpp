#include "keldaclient.h"
#include "serverprocess.h"
#include "trace.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace Kelda;

namespace {

const int kProcessWaitMs = 90000;

struct Run
{
    int exitCode = -1;
    QByteArray out;
    QString err;
};

QJsonDocument json(const Run &run)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(run.out, &error);
    if (error.error != QJsonParseError::NoError)
        qWarning("not one JSON document: %s", qPrintable(error.errorString()));
    return document;
}

} // namespace

// kelda against the real server process: a round trip of put, ls, get and
// rm, and the failures a script must be able to tell apart.
class KeldaRoundTripTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void roundTrip();
    void unknownGroup_data();
    void unknownGroup();
    void getReleasesItsLock();

private:
    Run kelda(const QStringList &arguments);
    QString put(const QStringList &files);

    QTemporaryDir m_dir;
    std::unique_ptr<ServerProcess> m_server;
};

void KeldaRoundTripTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    ErrorHandler::Instance()->SetLevel(0);
    m_server = std::make_unique<ServerProcess>();
    QVERIFY2(m_server->start(), qPrintable(m_server->errorString()));
}

void KeldaRoundTripTest::cleanupTestCase()
{
    m_server.reset();
}

Run KeldaRoundTripTest::kelda(const QStringList &arguments)
{
    QProcess process;
    // The program's own messages only, not the library's traces.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("KELDA_TRACE_MASK"));
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(m_dir.path());
    process.start(QStringLiteral(KELDA_BINARY),
                  QStringList{QStringLiteral("--host"), QStringLiteral("127.0.0.1"), QStringLiteral("--port"),
                              QString::number(m_server->port()), QStringLiteral("--user"), QStringLiteral("tester")}
                      + arguments);
    Run run;
    if (!process.waitForFinished(kProcessWaitMs)) {
        process.kill();
        process.waitForFinished(kProcessWaitMs);
        run.err = QStringLiteral("<did not finish>");
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QString KeldaRoundTripTest::put(const QStringList &files)
{
    const Run run = kelda(QStringList{QStringLiteral("put"), QStringLiteral("--comment"), QStringLiteral("test")}
                          + files);
    if (run.exitCode != 0) {
        qWarning("put failed: %s", qPrintable(run.err));
        return QString();
    }
    return QString::fromUtf8(run.out).section(QLatin1Char('/'), 3, 3);
}

void KeldaRoundTripTest::roundTrip()
{
    // Several copy blocks, random so that a shifted block shows.
    QByteArray recording(5 * 1024 * 1024 + 3, Qt::Uninitialized);
    QRandomGenerator generator(42);
    generator.fillRange(reinterpret_cast<quint32 *>(recording.data()), recording.size() / 4);
    const QString recordingPath = m_dir.filePath(QStringLiteral("recording.bin"));
    const QString notesPath = m_dir.filePath(QStringLiteral("notes.txt"));
    for (const auto &[path, bytes] : {std::pair<QString, QByteArray>{recordingPath, recording},
                                      std::pair<QString, QByteArray>{notesPath, "band 3\n"}}) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(bytes), qint64(bytes.size()));
    }

    Run run = kelda({QStringLiteral("put"), QStringLiteral("--type"), QStringLiteral("Scan Recording"),
                     QStringLiteral("--name"), QStringLiteral("round trip"), QStringLiteral("--version"),
                     QStringLiteral("2.0"), QStringLiteral("--comment"), QStringLiteral("kept"),
                     QStringLiteral("--detail"), QStringLiteral("band 3"), QStringLiteral("--lifecycle-days"),
                     QStringLiteral("3"), notesPath, recordingPath});
    QCOMPARE(run.err, QString());
    QCOMPARE(run.exitCode, 0);
    const QStringList urls = QString::fromUtf8(run.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(urls.size(), 2);
    const KeldaUrl recordingUrl(urls[1]);
    QVERIFY(recordingUrl.hasKeldaFileId());
    const QString guid = recordingUrl.toKeldaGuid();
    QCOMPARE(KeldaUrl(urls[0]).toKeldaGuid(), guid);

    run = kelda({QStringLiteral("ls"), QStringLiteral("--name"), QStringLiteral("round trip")});
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.out.contains(guid.toUtf8()), run.out.constData());

    run = kelda({QStringLiteral("ls"), QStringLiteral("--json"), QStringLiteral("--type"), QStringLiteral("8")});
    QCOMPARE(run.exitCode, 0);
    const QJsonArray groups = json(run).array();
    QVERIFY(std::any_of(groups.begin(), groups.end(), [&](const QJsonValue &group) {
        return group.toObject().value(QStringLiteral("guid")).toString() == guid;
    }));

    run = kelda({QStringLiteral("get"), recordingUrl.toString(), QStringLiteral("-o"),
                 m_dir.filePath(QStringLiteral("fetched.bin"))});
    QCOMPARE(run.err, QString());
    QCOMPARE(run.exitCode, 0);
    QFile fetched(m_dir.filePath(QStringLiteral("fetched.bin")));
    QVERIFY(fetched.open(QIODevice::ReadOnly));
    QVERIFY(fetched.readAll() == recording);

    run = kelda({QStringLiteral("info"), QStringLiteral("--json"), guid});
    QCOMPARE(run.exitCode, 0);
    const QJsonObject info = json(run).object();
    QCOMPARE(info.value(QStringLiteral("name")).toString(), QStringLiteral("round trip"));
    QCOMPARE(info.value(QStringLiteral("comment")).toString(), QStringLiteral("kept"));
    QVERIFY(info.contains(QStringLiteral("locationState")));
    QCOMPARE(info.value(QStringLiteral("files")).toArray().size(), 2);

    QCOMPARE(kelda({QStringLiteral("rm"), urls[0]}).exitCode, 0);
    run = kelda({QStringLiteral("files"), QStringLiteral("--json"), guid});
    QCOMPARE(run.exitCode, 0);
    const QJsonArray files = json(run).array();
    QCOMPARE(files.size(), 1);
    QCOMPARE(files[0].toObject().value(QStringLiteral("name")).toString(), QStringLiteral("recording.bin"));

    QCOMPARE(kelda({QStringLiteral("exists"), guid}).exitCode, 0);
    QCOMPARE(kelda({QStringLiteral("rm"), guid}).exitCode, 0);
    run = kelda({QStringLiteral("exists"), guid});
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.out, QByteArray("no\n"));
}

void KeldaRoundTripTest::unknownGroup_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    const QString guid = KeldaClient::CreateGuid();
    QTest::newRow("info") << QStringList{QStringLiteral("info"), guid} << 4;
    QTest::newRow("files") << QStringList{QStringLiteral("files"), guid} << 4;
    QTest::newRow("get") << QStringList{QStringLiteral("get"), QStringLiteral("kelda:///%1/1").arg(guid)} << 4;
    QTest::newRow("rm") << QStringList{QStringLiteral("rm"), guid} << 4;
    QTest::newRow("exists") << QStringList{QStringLiteral("exists"), guid} << 1;
}

void KeldaRoundTripTest::unknownGroup()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    const Run run = kelda(arguments);
    QCOMPARE(run.exitCode, exitCode);
    if (exitCode == 4) {
        QVERIFY2(run.err.startsWith(QStringLiteral("kelda: %1: ").arg(arguments[0])), qPrintable(run.err));
        QVERIFY2(run.err.contains(QStringLiteral("(error ")), qPrintable(run.err));
        QVERIFY(run.out.isEmpty());
    }
}

void KeldaRoundTripTest::getReleasesItsLock()
{
    const QString path = m_dir.filePath(QStringLiteral("locked.txt"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("lock me");
    file.close();
    const QString guid = put({path});
    QVERIFY(!guid.isEmpty());
    QCOMPARE(kelda({QStringLiteral("get"), QStringLiteral("kelda:///%1/1").arg(guid), QStringLiteral("-o"),
                    m_dir.filePath(QStringLiteral("unlocked.txt"))})
                 .exitCode,
             0);

    // When get has ended, its read lock is gone: a write lock is granted.
    KeldaClient client(QStringLiteral("127.0.0.1"), m_server->port(), QStringLiteral("writer"),
                       QStringLiteral("other"), QString());
    QSignalSpy connected(&client, &KeldaClient::connected);
    QVERIFY(client.IsConnected() || connected.wait(15000));
    QVERIFY(!client.RequestFile(1, guid, LOCK_Write).isEmpty());
    QCOMPARE(client.GetError(), KE_NoError);
}

QTEST_GUILESS_MAIN(KeldaRoundTripTest)
#include "tst_kelda_e2e.moc"
