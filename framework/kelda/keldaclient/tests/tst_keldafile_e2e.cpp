#include "keldaclient.h"
#include "keldafile.h"
#include "serverprocess.h"
#include "trace.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace Kelda;

namespace {

const int kSignalWaitMs = 15000;

// close() does not wait; the lock is gone once the server answered.
bool closeAndWait(KeldaFile &file, KeldaClient &client)
{
    QSignalSpy closed(&client, &KeldaClient::CloseFileSg);
    file.close();
    return closed.wait(kSignalWaitMs) && closed.at(0).at(1).toInt() == KE_NoError;
}

} // namespace

// KeldaFile against the real server process: the create-new form, and the
// open-existing form under both locks.
class KeldaFileServerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void createNew_data();
    void createNew();
    void locksFollowTheOpenMode_data();
    void locksFollowTheOpenMode();

private:
    std::unique_ptr<KeldaClient> connectedClient(const QString &user);
    QString archive(const QByteArray &bytes);
    bool waitUntilCentral(const QString &guid);

    QTemporaryDir m_dir;
    std::unique_ptr<ServerProcess> m_server;
    std::unique_ptr<KeldaClient> m_client;
    std::unique_ptr<KeldaClient> m_other;
};

void KeldaFileServerTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    ErrorHandler::Instance()->SetLevel(0);
    m_server = std::make_unique<ServerProcess>();
    QVERIFY2(m_server->start(), qPrintable(m_server->errorString()));
    // Two lock holders: a lock belongs to an address, application and user.
    m_client = connectedClient(QStringLiteral("ann"));
    m_other = connectedClient(QStringLiteral("bob"));
    QVERIFY(m_client && m_other);
}

void KeldaFileServerTest::cleanupTestCase()
{
    m_other.reset();
    m_client.reset();
    m_server.reset();
}

std::unique_ptr<KeldaClient> KeldaFileServerTest::connectedClient(const QString &user)
{
    auto client = std::make_unique<KeldaClient>(QStringLiteral("127.0.0.1"), m_server->port(),
                                                QStringLiteral("tst_keldafile_e2e"), user, QStringLiteral("team"));
    QSignalSpy connected(client.get(), &KeldaClient::connected);
    return client->IsConnected() || connected.wait(kSignalWaitMs) ? std::move(client) : nullptr;
}

// A new group holding one file with these bytes; its GUID.
QString KeldaFileServerTest::archive(const QByteArray &bytes)
{
    QFile source(m_dir.filePath(QStringLiteral("scan.%1.bin").arg(KeldaClient::CreateGuid())));
    if (!source.open(QIODevice::WriteOnly) || source.write(bytes) != bytes.size())
        return QString();
    source.close();
    unsigned int days = 7;
    KeldaFile file(m_client.get(), source.fileName(), QStringLiteral("1.0"), days, QStringLiteral("detail"),
                   QStringLiteral("comment"), FT_ScanRecording, quint64(bytes.size()));
    return file.GetError() == KE_NoError && file.GetFileId() == 1 ? file.GetGuid() : QString();
}

// The creating file's destructor started a move; the group cannot be
// requested while it runs.
bool KeldaFileServerTest::waitUntilCentral(const QString &guid)
{
    QDeadlineTimer deadline(kSignalWaitMs);
    while (!deadline.hasExpired()) {
        QSignalSpy state(m_client.get(), &KeldaClient::queryLocationStateProgressSg);
        if (m_client->QueryLocationStateProgress(guid).isEmpty() || !state.wait(kSignalWaitMs))
            return false;
        if (state.last().at(1).toInt() == LS_Central)
            return true;
        QTest::qWait(20);
    }
    return false;
}

void KeldaFileServerTest::createNew_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<bool>("exists");
    QTest::addColumn<QString>("groupName");
    QTest::newRow("one dot") << QStringLiteral("a/scan.bin") << true << QStringLiteral("scan.bin");
    QTest::newRow("two dots") << QStringLiteral("b/day.scan.bin") << true << QStringLiteral("scan.bin");
    QTest::newRow("no dot") << QStringLiteral("c/scan") << true << QStringLiteral("scan");
    QTest::newRow("missing file") << QStringLiteral("d/gone.bin") << false << QStringLiteral("gone.bin");
}

void KeldaFileServerTest::createNew()
{
    QFETCH(QString, fileName);
    QFETCH(bool, exists);
    QFETCH(QString, groupName);
    const QString source = m_dir.filePath(fileName);
    QVERIFY(QDir().mkpath(QFileInfo(source).path()));
    QFile in(source);
    QVERIFY(!exists || (in.open(QIODevice::WriteOnly) && in.write("recorded") == 8));
    in.close();
    QStringList traces;
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
    ErrorHandler::Instance()->SetTraceHook([&](const QString &text, const char *, int) { traces.append(text); });
    unsigned int days = 10;
    auto file = std::make_unique<KeldaFile>(m_client.get(), source, QString(), days, QString(), QString(), FT_Image, 0);
    ErrorHandler::Instance()->SetTraceHook({});
    ErrorHandler::Instance()->SetLevel(0);

    QCOMPARE(file->GetError(), exists ? KE_NoError : KE_AddFileFailed);
    QCOMPARE(file->GetFileId(), exists ? 1u : 0u);
    QCOMPARE(file->fileName(), QDir::toNativeSeparators(source));
    // The report fires after every successful add, deliberately.
    QCOMPARE(traces.contains(QStringLiteral("ASSERT failed: (m_uFileId == 0)")), exists);
    const QString guid = file->GetGuid();
    QSignalSpy record(m_client.get(), &KeldaClient::QueryMetaDataSg);
    m_client->QueryMetaDataAsync(guid, QString());
    QVERIFY(record.wait(kSignalWaitMs));
    const FileGroupData group = record.at(0).at(1).value<FileGroupData>();
    QCOMPARE(group.getFileGroupName(), groupName);
    QCOMPARE(int(group.getFileList().size()), exists ? 1 : 0);

    // The destructor hands the group to network storage; it arrives there.
    file.reset();
    QVERIFY(waitUntilCentral(guid));
    // A name without ".", "/" or "\\" is an existing group's GUID.
    KeldaFile adopted(m_client.get(), guid, QString(), days, QString(), QString(), FT_Image, 0);
    QCOMPARE(adopted.GetGuid(), guid);
    QVERIFY(adopted.fileName().isEmpty());
}

void KeldaFileServerTest::locksFollowTheOpenMode_data()
{
    QTest::addColumn<int>("firstMode");
    QTest::addColumn<int>("secondMode");
    QTest::addColumn<int>("whileOpen");
    QTest::newRow("read, read") << int(QIODevice::ReadOnly) << int(QIODevice::ReadOnly) << int(KE_NoError);
    QTest::newRow("read, write") << int(QIODevice::ReadOnly) << int(QIODevice::ReadWrite) << int(KE_FileGroupLocked);
    QTest::newRow("write, read") << int(QIODevice::ReadWrite) << int(QIODevice::ReadOnly)
                                 << int(KE_FileGroupWriteLocked);
    QTest::newRow("append, write") << int(QIODevice::WriteOnly | QIODevice::Append) << int(QIODevice::WriteOnly)
                                   << int(KE_FileGroupWriteLocked);
}

void KeldaFileServerTest::locksFollowTheOpenMode()
{
    QFETCH(int, firstMode);
    QFETCH(int, secondMode);
    QFETCH(int, whileOpen);
    const QByteArray bytes = QByteArray("recorded ").repeated(10000);
    const QString guid = archive(bytes);
    QVERIFY(!guid.isEmpty());
    QVERIFY(waitUntilCentral(guid));

    KeldaFile first(m_client.get(), guid, 1);
    QVERIFY2(first.open(QIODevice::OpenMode(firstMode)), qPrintable(first.GetErrorString()));
    if (first.isReadable())
        QVERIFY(first.readAll() == bytes);
    {
        KeldaFile second(m_other.get(), guid, 1);
        QCOMPARE(second.open(QIODevice::OpenMode(secondMode)), whileOpen == KE_NoError);
        QCOMPARE(int(second.GetError()), whileOpen);
        QVERIFY(!second.isOpen() || closeAndWait(second, *m_other));
    }
    QVERIFY(closeAndWait(first, *m_client));

    // The lock went with close(): now the other holder gets a write lock.
    KeldaFile after(m_other.get(), guid, 1);
    QVERIFY2(after.open(QIODevice::ReadWrite), qPrintable(after.GetErrorString()));
    QVERIFY(closeAndWait(after, *m_other));
}

QTEST_GUILESS_MAIN(KeldaFileServerTest)
#include "tst_keldafile_e2e.moc"
