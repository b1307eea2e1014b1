#include "e2ehelpers.h"
#include "keldaclient.h"
#include "serverprocess.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace Kelda;
using namespace E2e;

// Every answered change survives a restart, also when the server is killed
// right after answering.
class TestServerRestart : public QObject
{
    Q_OBJECT

private slots:
    void keepsAnsweredChanges_data();
    void keepsAnsweredChanges();
    void refusesSecondServerOnSamePort();
};

void TestServerRestart::keepsAnsweredChanges_data()
{
    QTest::addColumn<bool>("kill");
    QTest::newRow("SIGTERM") << false;
    QTest::newRow("SIGKILL") << true;
}

void TestServerRestart::keepsAnsweredChanges()
{
    QFETCH(bool, kill);
    QTemporaryDir base;
    ServerProcess server(base.path());
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    auto alice = connectClient(server.port(), QStringLiteral("alice"), QStringLiteral("editor"));
    unsigned int fileId = 0;
    const QString guid = createGroupWithFile(*alice, QStringLiteral("Durable"), FT_Image, "kept", &fileId);
    QVERIFY(!guid.isEmpty());
    QVERIFY(!alice->RequestFile(fileId, guid, LOCK_Write).isEmpty());

    // A burst of changes; the server goes down as soon as the last is answered.
    constexpr int References = 50;
    QSignalSpy referenced(alice.get(), &KeldaClient::AddReferenceSg);
    for (int i = 0; i < References; ++i)
        alice->AddReference(guid);
    QTRY_COMPARE_WITH_TIMEOUT(referenced.size(), References, Wait);
    if (kill) {
        server.kill();
    } else {
        server.stop();
        QCOMPARE(server.exitStatus(), QProcess::NormalExit);
        QCOMPARE(server.exitCode(), 0);
    }
    alice.reset();

    QVERIFY2(server.start(), qPrintable(server.errorString()));
    auto bob = connectClient(server.port(), QStringLiteral("bob"));
    QCOMPARE(bob->GetFileList(guid), (QStringList{QString::number(fileId), QStringLiteral("data.bin")}));
    QVERIFY(bob->RequestFile(fileId, guid, LOCK_Read).isEmpty());
    QCOMPARE(int(bob->GetError()), int(KE_FileGroupWriteLocked));
    QSignalSpy meta(bob.get(), &KeldaClient::QueryMetaDataSg);
    const FileGroupData record =
        waitForRequest(meta, bob->QueryMetaDataAsync(guid, QString())).value(1).value<FileGroupData>();
    QCOMPARE(record.getReferenceCounter(), References);
    QCOMPARE(record.getFileGroupName(), QStringLiteral("Durable"));
}

void TestServerRestart::refusesSecondServerOnSamePort()
{
    ServerProcess first;
    QVERIFY2(first.start(), qPrintable(first.errorString()));
    ServerProcess second;
    second.setExtraArguments({QStringLiteral("--listen"), QStringLiteral("127.0.0.1:%1").arg(first.port())});
    QVERIFY(!second.start());
    QCOMPARE(second.exitCode(), 69);
}

QTEST_GUILESS_MAIN(TestServerRestart)
#include "tst_serverrestart.moc"
