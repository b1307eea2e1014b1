#include "keldaclient.h"
#include "keldafile.h"
#include "serverprocess.h"
#include "trace.h"

#include <QDeadlineTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace Kelda;

namespace {

const int kSignalWaitMs = 15000;

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

} // namespace

// KeldaFile against the real server process: both forms, both locks, and a
// lock that only close() gives back.
class KeldaFileServerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void createNewArchivesTheBytes();
    void locksFollowTheOpenMode_data();
    void locksFollowTheOpenMode();
    void anUnknownGroupCannotBeOpened();

private:
    std::unique_ptr<KeldaClient> connectedClient(const QString &user);
    // A group holding one file with these bytes, made through the create-new
    // form; returns its GUID.
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
    m_client = connectedClient(QStringLiteral("ann"));
    QVERIFY(m_client);
    // A second holder: locks are per user, application and address.
    m_other = connectedClient(QStringLiteral("bob"));
    QVERIFY(m_other);
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
    if (!client->IsConnected() && !connected.wait(kSignalWaitMs))
        return nullptr;
    return client;
}

QString KeldaFileServerTest::archive(const QByteArray &bytes)
{
    const QString source = m_dir.filePath(QStringLiteral("scan.%1.bin").arg(KeldaClient::CreateGuid()));
    if (!writeFile(source, bytes))
        return QString();
    unsigned int days = 7;
    KeldaFile file(m_client.get(), source, QStringLiteral("1.0"), days, QStringLiteral("detail"),
                   QStringLiteral("comment"), FT_ScanRecording, quint64(bytes.size()));
    if (file.GetError() != KE_NoError || file.GetFileId() == 0)
        return QString();
    return file.GetGuid();
}

bool KeldaFileServerTest::waitUntilCentral(const QString &guid)
{
    // The destructor of the creating file started a move; the group cannot
    // be requested while it runs.
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

void KeldaFileServerTest::createNewArchivesTheBytes()
{
    const QByteArray bytes = QByteArray("recorded ").repeated(10000);
    QSignalSpy moved(m_client.get(), &KeldaClient::MoveToNasSg);
    const QString guid = archive(bytes);
    QCOMPARE(guid.size(), 36);
    // The destructor handed the new group to network storage.
    QVERIFY(moved.wait(kSignalWaitMs));
    QCOMPARE(moved.at(0).at(1).toInt(), int(KE_NoError));
    QVERIFY(waitUntilCentral(guid));

    KeldaFile archived(m_other.get(), guid, 1);
    QVERIFY2(archived.open(QIODevice::ReadOnly), qPrintable(archived.GetErrorString()));
    QVERIFY(archived.fileName().endsWith(QStringLiteral(".bin")));
    QCOMPARE(archived.readAll(), bytes);
    QSignalSpy closed(m_other.get(), &KeldaClient::CloseFileSg);
    archived.close();
    QVERIFY(closed.wait(kSignalWaitMs));
    QCOMPARE(closed.at(0).at(1).toInt(), int(KE_NoError));
}

void KeldaFileServerTest::locksFollowTheOpenMode_data()
{
    QTest::addColumn<int>("firstMode");
    QTest::addColumn<int>("secondMode");
    QTest::addColumn<int>("whileOpen");
    QTest::newRow("read, then read") << int(QIODevice::ReadOnly) << int(QIODevice::ReadOnly) << int(KE_NoError);
    QTest::newRow("read, then write") << int(QIODevice::ReadOnly) << int(QIODevice::ReadWrite)
                                      << int(KE_FileGroupLocked);
    QTest::newRow("write, then read") << int(QIODevice::ReadWrite) << int(QIODevice::ReadOnly)
                                      << int(KE_FileGroupWriteLocked);
    QTest::newRow("write, then write") << int(QIODevice::WriteOnly | QIODevice::Append) << int(QIODevice::ReadWrite)
                                       << int(KE_FileGroupWriteLocked);
}

void KeldaFileServerTest::locksFollowTheOpenMode()
{
    QFETCH(int, firstMode);
    QFETCH(int, secondMode);
    QFETCH(int, whileOpen);
    const QString guid = archive("bytes");
    QVERIFY(!guid.isEmpty());
    QVERIFY(waitUntilCentral(guid));

    KeldaFile first(m_client.get(), guid, 1);
    QVERIFY2(first.open(QIODevice::OpenMode(firstMode)), qPrintable(first.GetErrorString()));
    {
        KeldaFile second(m_other.get(), guid, 1);
        QCOMPARE(second.open(QIODevice::OpenMode(secondMode)), whileOpen == KE_NoError);
        QCOMPARE(int(second.GetError()), whileOpen);
        if (second.isOpen()) {
            QSignalSpy closed(m_other.get(), &KeldaClient::CloseFileSg);
            second.close();
            QVERIFY(closed.wait(kSignalWaitMs));
        }
    }

    QSignalSpy closed(m_client.get(), &KeldaClient::CloseFileSg);
    first.close();
    QVERIFY(closed.wait(kSignalWaitMs));
    QCOMPARE(closed.at(0).at(1).toInt(), int(KE_NoError));

    // The lock went with close(): the other holder now gets any lock.
    KeldaFile after(m_other.get(), guid, 1);
    QVERIFY2(after.open(QIODevice::ReadWrite), qPrintable(after.GetErrorString()));
    QSignalSpy closedAfter(m_other.get(), &KeldaClient::CloseFileSg);
    after.close();
    QVERIFY(closedAfter.wait(kSignalWaitMs));
}

void KeldaFileServerTest::anUnknownGroupCannotBeOpened()
{
    KeldaFile file(m_client.get(), KeldaClient::CreateGuid(), 1);
    QVERIFY(!file.open(QIODevice::ReadOnly));
    QCOMPARE(file.GetError(), KE_GuidNotFound);
    QVERIFY(!file.isOpen());
}

QTEST_GUILESS_MAIN(KeldaFileServerTest)
#include "tst_keldafile_e2e.moc"
