#include "keldaclient.h"
#include "keldafile.h"
#include "trace.h"

#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace Kelda;

using MakeFile = std::function<KeldaFile *(KeldaClient *, const QString &)>;
Q_DECLARE_METATYPE(MakeFile)

// KeldaFile in a process whose configuration names no server: a plain local
// file. The last test makes a server available that does not answer; the
// configuration is process-wide, hence a program of its own.
class KeldaFileNoServerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase() { ErrorHandler::Instance()->SetTraceHook({}); }
    void behavesAsALocalFile_data();
    void behavesAsALocalFile();
    // Last: an explicit client makes a server available for good.
    void availableButNotConnected();

private:
    QTemporaryDir m_dir;
    QStringList m_traces;
};

void KeldaFileNoServerTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY(!KeldaClient::IsKeldaAvailable());
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
    ErrorHandler::Instance()->SetTraceHook([this](const QString &text, const char *, int) { m_traces.append(text); });
}

void KeldaFileNoServerTest::behavesAsALocalFile_data()
{
    QTest::addColumn<MakeFile>("make");
    QTest::newRow("create-new") << MakeFile([](KeldaClient *client, const QString &name) {
        unsigned int days = 3;
        return new KeldaFile(client, name, QStringLiteral("1"), days, QString(), QString(), FT_Image, 0);
    });
    QTest::newRow("open-existing") << MakeFile(
        [](KeldaClient *client, const QString &name) { return new KeldaFile(client, name, 5); });
    QTest::newRow("no client") << MakeFile(
        [](KeldaClient *, const QString &name) { return new KeldaFile(nullptr, name, 5); });
}

void KeldaFileNoServerTest::behavesAsALocalFile()
{
    QFETCH(MakeFile, make);
    KeldaClient client;
    const QString cleaned = QDir::toNativeSeparators(m_dir.filePath(QStringLiteral("local.txt")));
    QFile::remove(cleaned);
    m_traces.clear();

    std::unique_ptr<KeldaFile> file(make(&client, m_dir.path() + QStringLiteral("//sub/../local.txt")));
    QCOMPARE(file->GetName(), cleaned);
    QVERIFY(file->GetGuid().isEmpty() && !file->IsEmpty());
    QVERIFY(file->open(QIODevice::WriteOnly));
    QCOMPARE(file->write("local bytes"), qint64(11));
    file->close();
    QVERIFY(file->open(QIODevice::ReadOnly));
    QCOMPARE(file->readAll(), QByteArray("local bytes"));
    file->close();
    file.reset();
    QCOMPARE(m_traces, QStringList());
}

void KeldaFileNoServerTest::availableButNotConnected()
{
    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost));
    const quint16 port = probe.serverPort();
    probe.close();
    KeldaClient client(QStringLiteral("127.0.0.1"), port, QStringLiteral("app"), QString(), QString());
    QVERIFY(KeldaClient::IsKeldaAvailable() && !client.IsConnected());
    m_traces.clear();

    unsigned int days = 1;
    const QString name = m_dir.filePath(QStringLiteral("a.bin"));
    KeldaFile created(&client, name, QString(), days, QString(), QString(), FT_Image, 0);
    QVERIFY(created.IsEmpty());
    QVERIFY(!created.open(QIODevice::ReadOnly));
    KeldaFile orphan(nullptr, name, QString(), days, QString(), QString(), FT_Image, 0);
    KeldaFile archived(nullptr, QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e"), 2);
    QVERIFY(!archived.open(QIODevice::ReadOnly));
    const QString notConnected = QStringLiteral("KeldaClient not connected but available");
    const QString noClient = QStringLiteral("KeldaClient was not given to KeldaFile");
    QCOMPARE(m_traces, (QStringList{notConnected, notConnected, noClient, noClient}));
}

QTEST_GUILESS_MAIN(KeldaFileNoServerTest)
#include "tst_keldafile_noserver.moc"
