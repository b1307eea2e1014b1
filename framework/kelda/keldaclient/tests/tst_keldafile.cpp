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

QString field(const ScriptedPeer::Request &request, const QString &name)
{
    QXmlStreamReader reader(request.document);
    while (reader.readNextStartElement() || !reader.atEnd()) {
        if (reader.isStartElement() && reader.name() == name)
            return reader.readElementText();
    }
    return QString();
}

} // namespace

// The create-new form against a scripted peer: the requests behind it, which
// the real server's answers alone do not show.
class KeldaFileTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void createNew_data();
    void createNew();

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
    delete m_peer;
    ErrorHandler::Instance()->SetTraceHook({});
}

void KeldaFileTest::createNew_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<bool>("exists");
    QTest::addColumn<QString>("groupName");
    QTest::newRow("one dot") << QStringLiteral("scan.bin") << true << QStringLiteral("scan.bin");
    QTest::newRow("two dots") << QStringLiteral("day.scan.bin") << true << QStringLiteral("scan.bin");
    QTest::newRow("no dot") << QStringLiteral("in/scan") << true << QStringLiteral("scan");
    QTest::newRow("missing file") << QStringLiteral("gone.bin") << false << QStringLiteral("gone.bin");
}

void KeldaFileTest::createNew()
{
    QFETCH(QString, fileName);
    QFETCH(bool, exists);
    QFETCH(QString, groupName);
    const QString source = m_dir.filePath(fileName);
    QVERIFY(QDir().mkpath(QFileInfo(source).path()));
    QFile in(source);
    QVERIFY(!exists || (in.open(QIODevice::WriteOnly) && in.write("recorded") == 8));
    in.close();
    m_peer->setReplyChildren(QStringLiteral("AddFile"), QStringLiteral("<m:FileId>4</m:FileId>"));

    unsigned int days = 10;
    auto file = std::make_unique<KeldaFile>(m_client, source, QStringLiteral("2.1"), days, QString(), QString(),
                                            FT_AudioRecording, 1024);
    QCOMPARE(file->GetGuid().size(), 36);
    QCOMPARE(file->fileName(), QDir::toNativeSeparators(source));
    const QList<ScriptedPeer::Request> creates = m_peer->requests(QStringLiteral("CreateFileGroup"));
    QCOMPARE(creates.size(), 1);
    QCOMPARE(field(creates[0], QStringLiteral("FileGroupName")), groupName);
    QFile copy(QDir(field(creates[0], QStringLiteral("Path"))).filePath(QFileInfo(source).fileName()));
    QCOMPARE(copy.open(QIODevice::ReadOnly), exists);
    const QList<ScriptedPeer::Request> adds = m_peer->requests(QStringLiteral("AddFile"));
    if (exists) {
        QCOMPARE(copy.readAll(), QByteArray("recorded"));
        QCOMPARE(file->GetError(), KE_NoError);
        QCOMPARE(file->GetName(), QStringLiteral("kelda:///%1/4").arg(file->GetGuid()));
        QCOMPARE(adds.size(), 1);
        QCOMPARE(field(adds[0], QStringLiteral("FileName")), QFileInfo(source).fileName());
        QVERIFY(m_traces.contains(QStringLiteral("ASSERT failed: (m_uFileId == 0)")));
    } else {
        QCOMPARE(file->GetError(), KE_AddFileFailed);
        QVERIFY(adds.isEmpty());
        QCOMPARE(m_traces.filter(QStringLiteral("Failed to add file")).size(), 1);
    }
    // The destructor hands the new group to network storage.
    file.reset();
    QTRY_COMPARE_WITH_TIMEOUT(m_peer->requests(QStringLiteral("MoveToNas")).size(), 1, kSignalWaitMs);

    // A name without ".", "/" or "\\" is an existing group's GUID.
    KeldaFile adopted(m_client, kGuid, QString(), days, QString(), QString(), FT_Image, 0);
    QCOMPARE(adopted.GetGuid(), kGuid);
    QCOMPARE(m_peer->requests(QStringLiteral("CreateFileGroup")).size(), 1);
}

QTEST_GUILESS_MAIN(KeldaFileTest)
#include "tst_keldafile.moc"
