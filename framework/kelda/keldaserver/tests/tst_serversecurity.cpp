#include "attacker.h"
#include "e2ehelpers.h"
#include "errorhandler.h"
#include "filequery.h"
#include "keldaclient.h"
#include "keldaxml.h"
#include "rawclient.h"
#include "serverprocess.h"
#include "testcertificates.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace Kelda;
using namespace E2e;

// Who may use the archive: TLS with the server's and the clients'
// certificates, and the networks clients may come from.
class TestServerSecurity : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void handshake_data();
    void handshake();
    void allowList_data();
    void allowList();

private:
    // A client of the library with these TLS files, given a few seconds.
    std::unique_ptr<KeldaClient> clientWith(quint16 port, const QString &caFile, const QString &user,
                                            bool foreign = false);
    QStringList tlsArguments(bool identifyClients) const;
    QString traces() const { return QString::fromUtf8(readFile(m_traceFile)); }

    TestCertificates *m_certificates = nullptr;
    QTemporaryDir m_traceDir;
    QString m_traceFile;
};

void TestServerSecurity::initTestCase()
{
    m_certificates = TestCertificates::shared();
    QVERIFY(m_certificates);
    m_traceFile = m_traceDir.filePath(QStringLiteral("server.log"));
}

void TestServerSecurity::cleanup()
{
    KeldaClient::SetTlsFiles(QString());
    QFile::remove(m_traceFile);
}

QStringList TestServerSecurity::tlsArguments(bool identifyClients) const
{
    QStringList arguments{QStringLiteral("--tls-cert"), m_certificates->serverCertificate(),
                          QStringLiteral("--tls-key"), m_certificates->serverKey()};
    if (identifyClients)
        arguments << QStringLiteral("--tls-client-ca") << m_certificates->authority();
    return arguments;
}

std::unique_ptr<KeldaClient> TestServerSecurity::clientWith(quint16 port, const QString &caFile, const QString &user,
                                                             bool foreign)
{
    KeldaClient::SetTlsFiles(caFile, user.isEmpty() ? QString() : m_certificates->userCertificate(user, foreign),
                             user.isEmpty() ? QString() : m_certificates->userKey(user, foreign));
    auto client = std::make_unique<KeldaClient>(QStringLiteral("127.0.0.1"), port, QStringLiteral("tests"), user,
                                                QStringLiteral("team"));
    client->WaitForConnected(3000);
    return client;
}

void TestServerSecurity::handshake_data()
{
    QTest::addColumn<bool>("identifyClients");
    QTest::addColumn<int>("caFile"); // 0 none (plain TCP), 1 the authority, 2 the foreign one
    QTest::addColumn<QString>("user");
    QTest::addColumn<bool>("foreignUser");
    QTest::addColumn<bool>("connects");
    QTest::addColumn<QString>("traced"); // by the server, or by this client when it refuses
    QTest::newRow("plain client, TLS server") << false << 0 << QString() << false << false
                                              << QStringLiteral("TLS handshake with client");
    QTest::newRow("server verified") << false << 1 << QString() << false << true << QString();
    QTest::newRow("server from another authority") << false << 2 << QString() << false << false
                                                   << QStringLiteral("is not trusted");
    QTest::newRow("user certificate") << true << 1 << QStringLiteral("alice") << false << true << QString();
    QTest::newRow("no user certificate") << true << 1 << QString() << false << false
                                         << QStringLiteral("its certificate does not verify");
    QTest::newRow("foreign user certificate") << true << 1 << QStringLiteral("mallory") << true << false
                                              << QStringLiteral("its certificate does not verify");
}

void TestServerSecurity::handshake()
{
    QFETCH(bool, identifyClients);
    QFETCH(int, caFile);
    QFETCH(QString, user);
    QFETCH(bool, foreignUser);
    QFETCH(bool, connects);
    QFETCH(QString, traced);
    qputenv("KELDA_TRACE_FILE", m_traceFile.toLocal8Bit());
    ServerProcess server;
    server.setExtraArguments(tlsArguments(identifyClients));
    const bool started = server.start();
    qputenv("KELDA_TRACE_FILE", QByteArray());
    QVERIFY2(started, qPrintable(server.errorString()));

    QStringList clientTraces;
    ErrorHandler::Instance()->SetTraceHook([&clientTraces](const QString &text, const char *, int) { clientTraces << text; });
    const QString authority = caFile == 0 ? QString()
                              : caFile == 1 ? m_certificates->authority()
                                            : m_certificates->foreignAuthority();
    auto client = clientWith(server.port(), authority, user, foreignUser);
    const bool connected = client->IsConnected();
    if (connected) {
        unsigned int fileId = 0;
        QVERIFY(!createGroupWithFile(*client, QStringLiteral("Secure"), FT_Image, "secret", &fileId).isEmpty());
    } else {
        // A blocking call fails at once, as for any lost connection.
        QElapsedTimer timer;
        timer.start();
        unsigned int columns = 0;
        QVERIFY(client->QueryFiles(FileQuery(), columns).isEmpty());
        QVERIFY(timer.elapsed() < 1000);
    }
    client.reset();
    ErrorHandler::Instance()->SetTraceHook({});
    QCOMPARE(connected, connects);
    if (!traced.isEmpty())
        QTRY_VERIFY2_WITH_TIMEOUT(traces().contains(traced) || clientTraces.join(QLatin1Char('\n')).contains(traced),
                                  qPrintable(traces() + clientTraces.join(QLatin1Char('\n'))), 5000);
    server.stop();
}

void TestServerSecurity::allowList_data()
{
    QTest::addColumn<QStringList>("allow");
    QTest::addColumn<QByteArray>("from");
    QTest::addColumn<bool>("served");
    QTest::newRow("default, loopback") << QStringList() << QByteArray("127.0.0.2") << true;
    QTest::newRow("one address, that one") << QStringList{QStringLiteral("127.0.0.1/32")} << QByteArray("127.0.0.1")
                                           << true;
    QTest::newRow("one address, another") << QStringList{QStringLiteral("127.0.0.1/32")} << QByteArray("127.0.0.2")
                                          << false;
    QTest::newRow("a network") << QStringList{QStringLiteral("127.0.0.1"), QStringLiteral("127.0.0.0/30")}
                               << QByteArray("127.0.0.3") << true;
}

void TestServerSecurity::allowList()
{
    QFETCH(QStringList, allow);
    QFETCH(QByteArray, from);
    QFETCH(bool, served);
    QStringList arguments;
    for (const QString &block : allow)
        arguments << QStringLiteral("--allow") << block;
    qputenv("KELDA_TRACE_FILE", m_traceFile.toLocal8Bit());
    ServerProcess server;
    server.setExtraArguments(arguments);
    const bool started = server.start();
    qputenv("KELDA_TRACE_FILE", QByteArray());
    QVERIFY2(started, qPrintable(server.errorString()));
    if (ServerProcess::usesTls())
        QSKIP("the raw client here speaks plain TCP");

    Attacker client(server.port(), from);
    std::atomic<int> answered{-1};
    client.start([&answered](Attacker &peer) {
        answered = peer.connectNow()
            && peer.sendAll(Attacker::frame(RawClient::request(Tag::GetBasePath, QStringLiteral("bp"), QString())))
            && peer.receiveFrame(5000).contains("GetBasePathReply");
    });
    QTRY_VERIFY_WITH_TIMEOUT(answered != -1, 10000);
    QCOMPARE(bool(answered), served);
    if (!served)
        QTRY_VERIFY_WITH_TIMEOUT(traces().contains(QStringLiteral("Refused client %1").arg(QString::fromLatin1(from))),
                                 5000);
    server.stop();
}

QTEST_GUILESS_MAIN(TestServerSecurity)
#include "tst_serversecurity.moc"
