#include "filequery.h"
#include "fileselectdialog.h"
#include "keldaclient.h"
#include "keldafile.h"
#include "modalwaiter.h"
#include "scriptedpeer.h"
#include "trace.h"

#include <QFile>
#include <QFileDialog>
#include <QLineEdit>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <memory>

using namespace Kelda;

using MakeFile = std::function<KeldaFile *(KeldaClient *, const QString &)>;
Q_DECLARE_METATYPE(MakeFile)

namespace {

const int kSignalWaitMs = 10000;

} // namespace

// A process whose configuration names no server: the client never starts a
// sender, and every operation fails at once without sending anything; a
// KeldaFile is a plain local file, and the open helpers are the platform's
// open-file dialog. The configuration is process-wide, hence a test program
// of its own.
class NoServerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void operationsFailAtOnce();
    void stateOfAClientThatNeverStarted();
    void fileBehavesAsALocalFile_data();
    void fileBehavesAsALocalFile();
    void openDialog_data();
    void openDialog();
    // Last: an explicit server makes the configuration available for good.
    void onlyTheExplicitClientConnects();
    void fileAvailableButNotConnected();

private:
    QTemporaryDir m_dir;
    ScriptedPeer *m_peer = nullptr;
    QStringList m_traces;
};

void NoServerTest::initTestCase()
{
    m_peer = new ScriptedPeer;
    // The port is configured, the host is not: that is no server.
    const QString ini = m_dir.filePath(QStringLiteral("kelda.ini"));
    QFile file(ini);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QStringLiteral("[KELDA]\nXmlPort=%1\n").arg(m_peer->port()).toUtf8());
    file.close();
    qputenv("KELDA_CONFIG_FILE", QFile::encodeName(ini));
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
    ErrorHandler::Instance()->SetTraceHook([this](const QString &text, const char *, int) { m_traces.append(text); });
}

void NoServerTest::cleanupTestCase()
{
    ErrorHandler::Instance()->SetTraceHook({});
    delete m_peer;
}

void NoServerTest::operationsFailAtOnce()
{
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure | ErrorHandler::Detail);
    KeldaClient client;
    const QString guid = KeldaClient::CreateGuid();
    QString localPath;
    unsigned int count = 0;

    m_traces.clear();
    QCOMPARE(client.RequestFile(1, guid, LOCK_Read), QString());
    QCOMPARE(client.RequestFileAsync(1, guid, LOCK_Read), QString());
    QCOMPARE(client.AddFile(QStringLiteral("/tmp/a.bin"), guid), 0u);
    QCOMPARE(client.GetUserList(), QStringList());
    QCOMPARE(client.GetApplicationListAsync(), QString());
    QCOMPARE(client.QueryFiles(FileQuery(), count), QStringList());
    QCOMPARE(client.CreateFileGroup(QString(), QDateTime(), QString(), QString(), FT_Image, 0, QStringLiteral("g"),
                                    localPath),
             QString());
    QCOMPARE(client.MoveToNas(guid), QString());
    client.CloseFile(1, guid);
    QVERIFY(!client.IsValidURL(KeldaUrl(QStringLiteral("file:///tmp/x"))));

    QVERIFY(m_traces.contains(QStringLiteral("KeldaClient::RequestFile: no kelda available")));
    QVERIFY(m_traces.contains(QStringLiteral("KeldaClient::RequestFileAsync: no kelda available")));
    QVERIFY(m_traces.contains(QStringLiteral("KeldaClient::CreateFileGroupHelper: no kelda available")));
    QVERIFY(!m_traces.contains(QStringLiteral("KeldaClient::RequestFile: Start (1, %1)").arg(guid)));
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
}

void NoServerTest::stateOfAClientThatNeverStarted()
{
    KeldaClient client(QString(), 0);
    QVERIFY(!KeldaClient::IsKeldaAvailable());
    QVERIFY(!client.IsConnected());
    QCOMPARE(client.GetHost(), QString());
    QCOMPARE(client.GetPort(), quint16(0));
    QCOMPARE(client.GetError(), KE_NoError);
    QCOMPARE(client.GetErrorString(), QStringLiteral("No error"));
    QCOMPARE(KeldaClient::GetCompressionRate(), -1);
    // Nothing to wait for: no event loop runs, so a zero timer stays pending.
    QTimer zero;
    zero.setSingleShot(true);
    zero.start(0);
    QVERIFY(!client.WaitForConnected(kSignalWaitMs));
    QVERIFY(zero.isActive());
}

void NoServerTest::fileBehavesAsALocalFile_data()
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

void NoServerTest::fileBehavesAsALocalFile()
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

void NoServerTest::openDialog_data()
{
    QTest::addColumn<bool>("accept");
    QTest::addColumn<bool>("asFile");
    QTest::newRow("GetOpenUrl, chosen") << true << false;
    QTest::newRow("GetOpenUrl, cancelled") << false << false;
    QTest::newRow("GetOpenFile, chosen") << true << true;
    QTest::newRow("GetOpenFile, cancelled") << false << true;
}

void NoServerTest::openDialog()
{
    QFETCH(bool, accept);
    QFETCH(bool, asFile);
    QVERIFY(!KeldaClient::IsKeldaAvailable());

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("local.txt"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();

    QString caption;
    whenModal<QFileDialog>([&](QFileDialog *dialog) {
        caption = dialog->windowTitle();
        // Typed rather than selected: the dialog's file list fills in the
        // background, and a selection made before that may be lost.
        dialog->findChild<QLineEdit *>(QStringLiteral("fileNameEdit"))->setText(path);
        QMetaObject::invokeMethod(dialog, accept ? "accept" : "reject");
    });
    const QString caption0 = QStringLiteral("Open a file");
    const QString filter = QStringLiteral("Text (*.txt)");
    if (asFile) {
        const boost::shared_ptr<KeldaFile> chosen = KeldaFileDialog::GetOpenFile(nullptr, caption0, dir.path(), filter);
        QCOMPARE(bool(chosen), accept);
        if (chosen) {
            QCOMPARE(chosen->fileName(), path);
            QVERIFY(chosen->GetGuid().isEmpty());
            QVERIFY(chosen->open(QIODevice::ReadOnly));
        }
    } else {
        const KeldaUrl url = KeldaFileDialog::GetOpenUrl(nullptr, caption0, dir.path(), filter);
        QCOMPARE(QUrl(url), accept ? QUrl::fromLocalFile(path) : QUrl());
    }
    QCOMPARE(caption, caption0);
}

void NoServerTest::onlyTheExplicitClientConnects()
{
    KeldaClient idle;
    KeldaClient explicitServer(QStringLiteral("127.0.0.1"), m_peer->port(), QStringLiteral("app"),
                               QStringLiteral("user"), QString());
    QSignalSpy connected(&explicitServer, &KeldaClient::connected);
    QVERIFY(connected.wait(kSignalWaitMs));
    QCOMPARE(m_peer->connectionCount(), 1);
    QVERIFY(!idle.IsConnected());
    QVERIFY(!idle.WaitForConnected(kSignalWaitMs));
}

void NoServerTest::fileAvailableButNotConnected()
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

QTEST_MAIN(NoServerTest)
#include "tst_keldaclient_noserver.moc"
