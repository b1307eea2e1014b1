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

// close() does not wait; the lock is gone once the server answered.
bool closeAndWait(KeldaFile &file, KeldaClient &client)
{
    QSignalSpy closed(&client, &KeldaClient::CloseFileSg);
    file.close();
    return closed.wait(kSignalWaitMs) && closed.at(0).at(1).toInt() == KE_NoError;
}

} // namespace

// KeldaFile against the real server process: a group made by the
// create-new form, opened by the open-existing form under both locks.
class KeldaFileServerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void locksFollowTheOpenMode_data();
    void locksFollowTheOpenMode();
    void anUnknownGroupCannotBeOpened();

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

void KeldaFileServerTest::anUnknownGroupCannotBeOpened()
{
    KeldaFile file(m_client.get(), KeldaClient::CreateGuid(), 1);
    QVERIFY(!file.open(QIODevice::ReadOnly));
    QCOMPARE(file.GetError(), KE_GuidNotFound);
}

QTEST_GUILESS_MAIN(KeldaFileServerTest)
#include "tst_keldafile_e2e.moc"
