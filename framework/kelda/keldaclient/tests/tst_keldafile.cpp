#include "keldaclient.h"
#include "keldafile.h"
#include "scriptedpeer.h"
#include "trace.h"

#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QtTest>

using namespace Kelda;

namespace {

const QString kGuid = QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e");
const int kSignalWaitMs = 10000;

QString field(const QByteArray &document, const QString &name)
{
    QXmlStreamReader reader(document);
    while (reader.readNextStartElement() || !reader.atEnd()) {
        if (reader.isStartElement() && reader.name() == name)
            return reader.readElementText();
    }
    return QString();
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

} // namespace

// KeldaFile against a scripted peer: which lock each mode asks for, what
// close and the destructor send, and how the create-new form fills the new
// group.
class KeldaFileTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void openAsksForTheLockOfTheMode_data();
    void openAsksForTheLockOfTheMode();
    void openKeepsTheServersError();
    void openWithoutGuidFailsQuietly();
    void createNewCopiesTheFileIntoTheGroup_data();
    void createNewCopiesTheFileIntoTheGroup();
    void createNewWithoutTheLocalFileAddsNothing();
    void createNewAdoptsAGuid();

private:
    QTemporaryDir m_dir;
    ScriptedPeer *m_peer = nullptr;
    KeldaClient *m_client = nullptr;
    QStringList m_traces;
};

void KeldaFileTest::init()
{
    QVERIFY(m_dir.isValid());
    m_traces.clear();
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
    ErrorHandler::Instance()->SetTraceHook(
        [this](const QString &text, const char *, int) { m_traces.append(text); });
    m_peer = new ScriptedPeer;
    m_peer->setBasePath(m_dir.path());
    m_client = new KeldaClient(QStringLiteral("127.0.0.1"), m_peer->port(), QStringLiteral("app"),
                               QStringLiteral("user"), QString());
    QSignalSpy connected(m_client, &KeldaClient::connected);
    QVERIFY(connected.wait(kSignalWaitMs));
}

void KeldaFileTest::cleanup()
{
    delete m_client;
    m_client = nullptr;
    delete m_peer;
    m_peer = nullptr;
    ErrorHandler::Instance()->SetTraceHook({});
}

void KeldaFileTest::openAsksForTheLockOfTheMode_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("writeLock");
    QTest::newRow("read") << int(QIODevice::ReadOnly) << QStringLiteral("false");
    QTest::newRow("read-write") << int(QIODevice::ReadWrite) << QStringLiteral("true");
    QTest::newRow("write") << int(QIODevice::WriteOnly | QIODevice::Append) << QStringLiteral("true");
}

void KeldaFileTest::openAsksForTheLockOfTheMode()
{
    QFETCH(int, mode);
    QFETCH(QString, writeLock);
    const QString copy = m_dir.filePath(QStringLiteral("copy.bin"));
    QVERIFY(writeFile(copy, "archived"));
    m_peer->setReplyChildren(QStringLiteral("RequestFile"), QStringLiteral("<m:Path>%1</m:Path>").arg(copy));

    KeldaFile file(m_client, kGuid, 7);
    QCOMPARE(file.GetName(), QStringLiteral("kelda:///%1/7").arg(kGuid));
    QVERIFY(file.open(QIODevice::OpenMode(mode)));
    QCOMPARE(file.fileName(), copy);
    const QList<ScriptedPeer::Request> requests = m_peer->requests(QStringLiteral("RequestFile"));
    QCOMPARE(requests.size(), 1);
    QCOMPARE(field(requests[0].document, QStringLiteral("WriteLock")), writeLock);
    QCOMPARE(field(requests[0].document, QStringLiteral("FileId")), QStringLiteral("7"));

    QSignalSpy closed(m_client, &KeldaClient::CloseFileSg);
    file.close();
    QVERIFY(!file.isOpen());
    QVERIFY(closed.wait(kSignalWaitMs));
    const QList<ScriptedPeer::Request> closes = m_peer->requests(QStringLiteral("CloseFile"));
    QCOMPARE(closes.size(), 1);
    QCOMPARE(field(closes[0].document, QStringLiteral("Guid")), kGuid);

    // The second open reuses the local copy.
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("archived"));
    QCOMPARE(m_peer->requests(QStringLiteral("RequestFile")).size(), 1);
    file.close();
    QCOMPARE(file.GetError(), KE_NoError);
}

void KeldaFileTest::openKeepsTheServersError()
{
    m_peer->setReplyChildren(QStringLiteral("RequestFile"), QStringLiteral("<m:Error>5</m:Error>"));
    KeldaFile file(m_client, kGuid, 1);
    QVERIFY(!file.open(QIODevice::ReadWrite));
    QCOMPARE(file.GetError(), KE_FileGroupWriteLocked);
    QCOMPARE(file.GetErrorString(), QStringLiteral("File group is write locked"));
    QVERIFY(m_traces.contains(QStringLiteral("KeldaFile::open: File group is write locked")));
    QVERIFY(file.fileName().isEmpty());
}

void KeldaFileTest::openWithoutGuidFailsQuietly()
{
    KeldaFile file(m_client);
    QVERIFY(file.IsEmpty());
    QVERIFY(!file.open(QIODevice::ReadOnly));
    QVERIFY(m_traces.isEmpty());
    QVERIFY(m_peer->requests(QStringLiteral("RequestFile")).isEmpty());
}

void KeldaFileTest::createNewCopiesTheFileIntoTheGroup_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<QString>("groupName");
    QTest::newRow("one dot") << QStringLiteral("scan.bin") << QStringLiteral("scan.bin");
    QTest::newRow("two dots") << QStringLiteral("day.scan.bin") << QStringLiteral("scan.bin");
    QTest::newRow("no dot") << QStringLiteral("scan") << QStringLiteral("scan");
}

void KeldaFileTest::createNewCopiesTheFileIntoTheGroup()
{
    QFETCH(QString, fileName);
    QFETCH(QString, groupName);
    const QString source = m_dir.filePath(QStringLiteral("in/") + fileName);
    QVERIFY(QDir().mkpath(m_dir.filePath(QStringLiteral("in"))));
    QVERIFY(writeFile(source, "recorded bytes"));
    m_peer->setReplyChildren(QStringLiteral("AddFile"), QStringLiteral("<m:FileId>4</m:FileId>"));

    unsigned int days = 10;
    {
        KeldaFile file(m_client, source, QStringLiteral("2.1"), days, QStringLiteral("detail"),
                       QStringLiteral("comment"), FT_AudioRecording, 1024);
        QCOMPARE(file.GetError(), KE_NoError);
        QCOMPARE(file.GetGuid().size(), 36);
        QCOMPARE(file.GetFileId(), 4u);
        QCOMPARE(file.GetName(), QStringLiteral("kelda:///%1/4").arg(file.GetGuid()));
        QCOMPARE(file.fileName(), QDir::toNativeSeparators(source));

        const QList<ScriptedPeer::Request> creates = m_peer->requests(QStringLiteral("CreateFileGroup"));
        QCOMPARE(creates.size(), 1);
        QCOMPARE(field(creates[0].document, QStringLiteral("FileGroupName")), groupName);
        const QString groupPath = field(creates[0].document, QStringLiteral("Path"));
        QFile copy(QDir(groupPath).filePath(fileName));
        QVERIFY2(copy.open(QIODevice::ReadOnly), qPrintable(copy.fileName()));
        QCOMPARE(copy.readAll(), QByteArray("recorded bytes"));

        const QList<ScriptedPeer::Request> adds = m_peer->requests(QStringLiteral("AddFile"));
        QCOMPARE(adds.size(), 1);
        QCOMPARE(field(adds[0].document, QStringLiteral("FileName")), fileName);
        QVERIFY(m_traces.contains(QStringLiteral("ASSERT failed: (m_uFileId == 0)")));

        // The local name is the source: open reads it without asking.
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("recorded bytes"));
        QVERIFY(m_peer->requests(QStringLiteral("RequestFile")).isEmpty());
    }
    // The destructor hands the new group to network storage.
    QTRY_COMPARE_WITH_TIMEOUT(m_peer->requests(QStringLiteral("MoveToNas")).size(), 1, kSignalWaitMs);
}

void KeldaFileTest::createNewWithoutTheLocalFileAddsNothing()
{
    unsigned int days = 1;
    KeldaFile file(m_client, m_dir.filePath(QStringLiteral("missing.bin")), QString(), days, QString(), QString(),
                   FT_Image, 0);
    QCOMPARE(file.GetError(), KE_AddFileFailed);
    QCOMPARE(file.GetGuid().size(), 36);
    QCOMPARE(file.GetFileId(), 0u);
    QCOMPARE(m_peer->requests(QStringLiteral("CreateFileGroup")).size(), 1);
    QVERIFY(m_peer->requests(QStringLiteral("AddFile")).isEmpty());
    QVERIFY(!m_traces.filter(QStringLiteral("Failed to add file")).isEmpty());
}

void KeldaFileTest::createNewAdoptsAGuid()
{
    unsigned int days = 1;
    KeldaFile file(m_client, kGuid, QString(), days, QString(), QString(), FT_Image, 0);
    QCOMPARE(file.GetGuid(), kGuid);
    QVERIFY(file.fileName().isEmpty());
    QVERIFY(m_peer->requests(QStringLiteral("CreateFileGroup")).isEmpty());
}

QTEST_GUILESS_MAIN(KeldaFileTest)
#include "tst_keldafile.moc"
