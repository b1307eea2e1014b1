#include "keldaclient.h"
#include "keldafile.h"
#include "trace.h"

#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

using namespace Kelda;

// KeldaFile in a process whose configuration names no server: a plain local
// file. The last test makes a server available that does not answer; the
// configuration is process-wide, hence a program of its own.
class KeldaFileNoServerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init() { m_traces.clear(); }
    void behavesAsALocalFile_data();
    void behavesAsALocalFile();
    void handleAddFileSignalMatchesThePendingRequest();
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
    ErrorHandler::Instance()->SetTraceHook(
        [this](const QString &text, const char *, int) { m_traces.append(text); });
}

void KeldaFileNoServerTest::cleanupTestCase()
{
    ErrorHandler::Instance()->SetTraceHook({});
}

using MakeFile = std::function<KeldaFile *(KeldaClient *, const QString &)>;
Q_DECLARE_METATYPE(MakeFile)

void KeldaFileNoServerTest::behavesAsALocalFile_data()
{
    QTest::addColumn<MakeFile>("make");
    QTest::addColumn<bool>("withClient");
    QTest::newRow("create-new") << MakeFile([](KeldaClient *client, const QString &name) {
        unsigned int days = 3;
        return new KeldaFile(client, name, QStringLiteral("1"), days, QString(), QString(), FT_Image, 0);
    }) << true;
    QTest::newRow("open-existing, id 0") << MakeFile([](KeldaClient *client, const QString &name) {
        return new KeldaFile(client, name, 0);
    }) << true;
    QTest::newRow("open-existing, id 5, no client") << MakeFile([](KeldaClient *, const QString &name) {
        return new KeldaFile(nullptr, name, 5);
    }) << false;
}

void KeldaFileNoServerTest::behavesAsALocalFile()
{
    QFETCH(MakeFile, make);
    QFETCH(bool, withClient);
    KeldaClient client;
    const QString name = m_dir.path() + QStringLiteral("//sub/../local.txt");
    const QString cleaned = QDir::toNativeSeparators(m_dir.filePath(QStringLiteral("local.txt")));
    QFile::remove(cleaned);

    std::unique_ptr<KeldaFile> file(make(withClient ? &client : nullptr, name));
    QCOMPARE(file->fileName(), cleaned);
    QCOMPARE(file->GetName(), cleaned);
    QVERIFY(file->GetGuid().isEmpty());
    QVERIFY(!file->IsEmpty());
    QVERIFY(file->open(QIODevice::WriteOnly));
    QCOMPARE(file->write("local bytes"), qint64(11));
    file->close();
    QVERIFY(file->open(QIODevice::ReadOnly));
    QCOMPARE(file->readAll(), QByteArray("local bytes"));
    file->close();
    file.reset();
    QCOMPARE(m_traces, QStringList());
}

void KeldaFileNoServerTest::handleAddFileSignalMatchesThePendingRequest()
{
    KeldaFile file(nullptr);
    QVERIFY(file.IsEmpty());
    QSignalSpy added(&file, &KeldaFile::fileSuccessfullyAdded);
    file.handleAddFileSignal(QStringLiteral("some-other-request"), 9);
    QCOMPARE(added.size(), 0);
    QCOMPARE(file.GetFileId(), 0u);
    // Nothing sets the pending request, so only an empty id matches.
    file.handleAddFileSignal(QString(), 9);
    QCOMPARE(added.size(), 1);
    QCOMPARE(added.at(0).at(0).toUInt(), 9u);
    QCOMPARE(file.GetFileId(), 9u);
}

void KeldaFileNoServerTest::availableButNotConnected()
{
    // A port nobody listens on.
    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost));
    const quint16 port = probe.serverPort();
    probe.close();
    KeldaClient client(QStringLiteral("127.0.0.1"), port, QStringLiteral("app"), QString(), QString());
    QVERIFY(KeldaClient::IsKeldaAvailable());
    QVERIFY(!client.IsConnected());

    const QString notConnected = QStringLiteral("KeldaClient not connected but available");
    const QString noClient = QStringLiteral("KeldaClient was not given to KeldaFile");
    unsigned int days = 1;
    KeldaFile created(&client, m_dir.filePath(QStringLiteral("a.bin")), QString(), days, QString(), QString(),
                      FT_Image, 0);
    QVERIFY(created.IsEmpty());
    QVERIFY(!created.open(QIODevice::ReadOnly));
    KeldaFile orphan(nullptr, m_dir.filePath(QStringLiteral("a.bin")), QString(), days, QString(), QString(),
                     FT_Image, 0);
    KeldaFile archived(nullptr, QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e"), 2);
    QVERIFY(!archived.open(QIODevice::ReadOnly));
    QCOMPARE(m_traces, (QStringList{notConnected, notConnected, noClient, noClient}));
}

QTEST_GUILESS_MAIN(KeldaFileNoServerTest)
#include "tst_keldafile_noserver.moc"
