#include "serverprocess.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

const int kRunLimitMs = 60000;

} // namespace

// The tour of the reference's entry page, run as users would run it: against
// the real server, and with the mistakes users make.
class TourTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void run_data();
    void run();

private:
    QTemporaryDir m_dir;
    std::unique_ptr<ServerProcess> m_server;
    QString m_file;
    QByteArray m_bytes;
};

void TourTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    m_server = std::make_unique<ServerProcess>();
    QVERIFY2(m_server->start(), qPrintable(m_server->errorString()));
    // Not a multiple of any buffer size, and not text.
    for (int i = 0; i < 70001; ++i)
        m_bytes.append(char(i * 7 % 251));
    m_file = m_dir.filePath(QStringLiteral("sweep.bin"));
    QFile file(m_file);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(m_bytes), qint64(m_bytes.size()));
}

void TourTest::cleanupTestCase()
{
    if (m_server)
        m_server->stop();
}

void TourTest::run_data()
{
    // %PORT% is the running server's port, %FILE% the prepared file.
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("output");

    const QStringList server{QStringLiteral("--host"), QStringLiteral("127.0.0.1"), QStringLiteral("--port"),
                             QStringLiteral("%PORT%")};
    QTest::newRow("stores, fetches and lists")
        << (server + QStringList{QStringLiteral("%FILE%")}) << 0 << QStringLiteral("fetched 70001 bytes, identical");
    QTest::newRow("nobody listens")
        << QStringList{QStringLiteral("--host"), QStringLiteral("127.0.0.1"),         QStringLiteral("--port"),
                       QStringLiteral("1"),      QStringLiteral("--connect-timeout"), QStringLiteral("200"),
                       QStringLiteral("%FILE%")}
        << 69 << QStringLiteral("no connection to 127.0.0.1:1 within 200 ms");
    QTest::newRow("no server configured")
        << QStringList{QStringLiteral("%FILE%")} << 69 << QStringLiteral("no server configured");
    QTest::newRow("port out of range") << (QStringList{QStringLiteral("--host"), QStringLiteral("127.0.0.1"),
                                                       QStringLiteral("--port"), QStringLiteral("70000"),
                                                       QStringLiteral("%FILE%")})
                                       << 64 << QStringLiteral("--port wants a number from 1 to 65535");
    QTest::newRow("missing file") << (server + QStringList{QStringLiteral("%FILE%.missing")}) << 64
                                  << QStringLiteral("cannot read");
    QTest::newRow("no file") << server << 64 << QStringLiteral("give exactly one FILE");
    QTest::newRow("help") << QStringList{QStringLiteral("--help")} << 0 << QStringLiteral("Usage: ");
}

void TourTest::run()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, output);
    for (QString &argument : arguments) {
        argument.replace(QStringLiteral("%PORT%"), QString::number(m_server->port()));
        argument.replace(QStringLiteral("%FILE%"), m_file);
    }

    QProcess tour;
    tour.setProgram(QStringLiteral(KELDA_TOUR_PROGRAM));
    tour.setArguments(arguments);
    tour.start();
    QVERIFY2(tour.waitForFinished(kRunLimitMs), qPrintable(tour.errorString()));
    const QString said = QString::fromLocal8Bit(tour.readAllStandardOutput() + tour.readAllStandardError());
    QVERIFY2(tour.exitStatus() == QProcess::NormalExit, qPrintable(said));
    QVERIFY2(tour.exitCode() == exitCode, qPrintable(said));
    QVERIFY2(said.contains(output), qPrintable(said));
    if (exitCode == 0 && arguments.contains(m_file)) {
        // The listing shows the new group under the name made from the file.
        const QString url = said.section(QStringLiteral("stored as "), 1).section(QLatin1Char('\n'), 0, 0);
        const QString guid = url.section(QLatin1Char('/'), 3, 3);
        QCOMPARE(guid.size(), 36);
        QVERIFY2(said.contains(guid + QStringLiteral("  sweep.bin  stored by the tour")), qPrintable(said));
    }
}

QTEST_GUILESS_MAIN(TourTest)
#include "tst_tour.moc"
