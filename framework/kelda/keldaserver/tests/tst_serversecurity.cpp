#include "attacker.h"
#include "e2ehelpers.h"
#include "errorhandler.h"
#include "filequery.h"
#include "keldaclient.h"
#include "keldaxml.h"
#include "rawclient.h"
#include "replyfields.h"
#include "serverprocess.h"
#include "testcertificates.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QUuid>
#include <QtTest>

#include <algorithm>
#include <set>

using namespace Kelda;
using namespace E2e;

namespace {

// What a user does to alice's group in the ownership cases.
enum class Action { DeleteGroup, DeleteFile, MoveToNas, Export, Import, ReleaseLock, WriteLock, ReadLock, Register };

const QString kApplication = QStringLiteral("tests");
const QString kAlice = QStringLiteral("alice");

QString lockIdentity(const QString &user)
{
    return QStringLiteral("127.0.0.1|%1|%2").arg(kApplication, user);
}

} // namespace

Q_DECLARE_METATYPE(Action)

// Who may use the archive: TLS with the server's and the clients'
// certificates, the networks clients may come from, who may change whose
// groups, and the audit trail of it all.
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
    void ownership_data();
    void ownership();
    void auditAfterKill();

private:
    // A connection identified by the user's certificate; null when it
    // cannot be made.
    std::unique_ptr<RawClient> connectAs(quint16 port, const QString &user);
    // alice's group with the file "f.bin" (id 1); empty on failure.
    static QString createGroup(RawClient &client, const QString &user);
    // A request of the action, and the user it claims (empty for none).
    struct Step
    {
        QLatin1String command;
        QString children;
        QString claimed;
    };
    static Step stepOf(Action action, const QString &guid, const QString &claimed);

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
    QTest::newRow("plain client, TLS server")
        << false << 0 << QString() << false << false << QStringLiteral("TLS handshake with client");
    QTest::newRow("server verified") << false << 1 << QString() << false << true << QString();
    QTest::newRow("server from another authority")
        << false << 2 << QString() << false << false << QStringLiteral("is not trusted");
    QTest::newRow("user certificate") << true << 1 << QStringLiteral("alice") << false << true << QString();
    QTest::newRow("no user certificate") << true << 1 << QString() << false << false
                                         << QStringLiteral("its certificate does not verify");
    QTest::newRow("foreign user certificate")
        << true << 1 << QStringLiteral("mallory") << true << false << QStringLiteral("its certificate does not verify");
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
    ErrorHandler::Instance()->SetTraceHook(
        [&clientTraces](const QString &text, const char *, int) { clientTraces << text; });
    const QString authority = caFile == 0 ? QString()
        : caFile == 1                     ? m_certificates->authority()
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
    QTest::newRow("one address, that one")
        << QStringList{QStringLiteral("127.0.0.1/32")} << QByteArray("127.0.0.1") << true;
    QTest::newRow("one address, another")
        << QStringList{QStringLiteral("127.0.0.1/32")} << QByteArray("127.0.0.2") << false;
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
        answered = peer.connectNow() &&
            peer.sendAll(Attacker::frame(RawClient::request(Tag::GetBasePath, QStringLiteral("bp"), QString()))) &&
            peer.receiveFrame(5000).contains("GetBasePathReply");
    });
    QTRY_VERIFY_WITH_TIMEOUT(answered != -1, 10000);
    QCOMPARE(bool(answered), served);
    if (!served)
        QTRY_VERIFY_WITH_TIMEOUT(traces().contains(QStringLiteral("Refused client %1").arg(QString::fromLatin1(from))),
                                 5000);
    server.stop();
}

std::unique_ptr<RawClient> TestServerSecurity::connectAs(quint16 port, const QString &user)
{
    auto client = std::make_unique<RawClient>();
    client->setIdentity(m_certificates->userCertificate(user), m_certificates->userKey(user));
    return client->connectTo(port) ? std::move(client) : nullptr;
}

QString TestServerSecurity::createGroup(RawClient &client, const QString &user)
{
    const QString guid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    const ReplyFields created =
        client.ask(Tag::CreateFileGroup,
                   element(Tag::Guid, guid) + element(Tag::FileGroupName, QStringLiteral("owned")) +
                       element(Tag::FileType, QString::number(FT_Image)) +
                       element(Tag::LifeCycle, QStringLiteral("2030-01-01 00:00:00.000")) +
                       element(Tag::UserName, user) + element(Tag::TeamMembership, QStringLiteral("team")));
    if (created.error != KE_NoError ||
        !writeFile(QDir(created.value(Tag::Path)).filePath(QStringLiteral("f.bin")), "data"))
        return QString();
    const ReplyFields added = client.ask(Tag::AddFile,
                                         element(Tag::Guid, guid) + element(Tag::FileName, QStringLiteral("f.bin")) +
                                             element(Tag::FileId, QStringLiteral("1")));
    return added.error == KE_NoError ? guid : QString();
}

TestServerSecurity::Step TestServerSecurity::stepOf(Action action, const QString &guid, const QString &claimed)
{
    const QString group = element(Tag::Guid, guid);
    const QString file = group + element(Tag::FileId, QStringLiteral("1"));
    switch (action) {
    case Action::DeleteGroup:
        return {Tag::DeleteFileGroup, group + element(Tag::ShallowDelete, QStringLiteral("false")), QString()};
    case Action::DeleteFile:
        return {Tag::DeleteFile, file, QString()};
    case Action::MoveToNas:
        return {Tag::MoveToNas, group + element(Tag::UserName, claimed), claimed};
    case Action::Export:
        return {Tag::ExportArchive, element(Tag::Path, QStringLiteral("out")) + group, QString()};
    case Action::Import:
        return {Tag::ImportArchive, element(Tag::Path, QStringLiteral("in")), QString()};
    case Action::ReleaseLock:
        return {Tag::CloseFile,
                group + element(Tag::FileId, QStringLiteral("-1")) + element(Tag::UserName, lockIdentity(claimed)),
                claimed};
    case Action::WriteLock:
    case Action::ReadLock:
        return {Tag::RequestFile,
                file + element(Tag::WriteLock, QLatin1String(action == Action::WriteLock ? "true" : "false")) +
                    element(Tag::UserName, lockIdentity(claimed)),
                claimed};
    case Action::Register:
        return {Tag::RegisterConverter,
                element(Tag::ConverterId, QStringLiteral("conv")) + element(Tag::FileType, QString::number(FT_Image)),
                QString()};
    }
    return {};
}

void TestServerSecurity::ownership_data()
{
    QTest::addColumn<QString>("user"); // whose certificate
    QTest::addColumn<QString>("claimed"); // the user the request names
    QTest::addColumn<Action>("action");
    QTest::addColumn<int>("code");
    const QString bob = QStringLiteral("bob");
    const QString root = QStringLiteral("root");
    QTest::newRow("another user deletes the group") << bob << bob << Action::DeleteGroup << int(KE_NoWritePermission);
    QTest::newRow("another user deletes a file") << bob << bob << Action::DeleteFile << int(KE_NoWritePermission);
    QTest::newRow("another user moves the group") << bob << bob << Action::MoveToNas << int(KE_NoWritePermission);
    QTest::newRow("another user exports the group") << bob << bob << Action::Export << int(KE_NoWritePermission);
    QTest::newRow("another user releases the lock")
        << bob << kAlice << Action::ReleaseLock << int(KE_NoWritePermission);
    QTest::newRow("a forged write lock") << bob << kAlice << Action::WriteLock << int(KE_NoWritePermission);
    QTest::newRow("a forged read lock") << bob << kAlice << Action::ReadLock << int(KE_NoReadPermission);
    QTest::newRow("another user's own read lock") << bob << bob << Action::ReadLock << int(KE_FileGroupWriteLocked);
    QTest::newRow("a converter not listed") << bob << bob << Action::Register << int(KE_NoWritePermission);
    QTest::newRow("a user imports") << kAlice << kAlice << Action::Import << int(KE_NoWritePermission);
    QTest::newRow("the creator deletes a file") << kAlice << kAlice << Action::DeleteFile << int(KE_NoError);
    QTest::newRow("the creator releases the lock") << kAlice << kAlice << Action::ReleaseLock << int(KE_NoError);
    QTest::newRow("the admin deletes the group") << root << root << Action::DeleteGroup << int(KE_NoError);
    QTest::newRow("the admin moves the group") << root << root << Action::MoveToNas << int(KE_NoError);
    QTest::newRow("a listed converter") << QStringLiteral("audio") << QStringLiteral("audio") << Action::Register
                                        << int(KE_NoError);
}

void TestServerSecurity::ownership()
{
    QFETCH(QString, user);
    QFETCH(QString, claimed);
    QFETCH(Action, action);
    QFETCH(int, code);
    ServerProcess server;
    server.setExtraArguments(tlsArguments(true) +
                             QStringList{QStringLiteral("--admin"), QStringLiteral("root"),
                                         QStringLiteral("--converter"), QStringLiteral("audio")});
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    const auto alice = connectAs(server.port(), kAlice);
    QVERIFY(alice);
    const QString guid = createGroup(*alice, kAlice);
    QVERIFY(!guid.isEmpty());
    if (action == Action::ReleaseLock || action == Action::WriteLock || action == Action::ReadLock) {
        const Step lock = stepOf(Action::WriteLock, guid, kAlice);
        QCOMPARE(alice->ask(lock.command, lock.children).error, int(KE_NoError));
    }

    const auto actor = connectAs(server.port(), user);
    QVERIFY(actor);
    const Step step = stepOf(action, guid, claimed);
    const ReplyFields reply = actor->ask(step.command, step.children);
    QCOMPARE(reply.error, code);
    // Whose lock is in the way, but not the identity a forger would need.
    if (user != kAlice)
        QVERIFY2(!reply.value(QStringLiteral("ErrorString")).contains(lockIdentity(kAlice)),
                 qPrintable(reply.value(QStringLiteral("ErrorString"))));
    const bool deleted = action == Action::DeleteGroup && code == KE_NoError;
    QCOMPARE(alice->ask(Tag::CheckFileGroupExists, element(Tag::Guid, guid)).value(Tag::Exists),
             QLatin1String(deleted ? "false" : "true"));

    QStringList filter{QStringLiteral("--user"), user};
    if (action != Action::Import && action != Action::Register)
        filter << QStringLiteral("--guid") << guid;
    const auto recorded = [&] {
        QJsonArray records;
        audit(server.basePath(), filter, &records);
        for (const QJsonValue &value : qAsConst(records)) {
            const QJsonObject record = value.toObject();
            if (record.value(QStringLiteral("command")).toString() == step.command &&
                record.value(QStringLiteral("certificateUser")).toString() == user &&
                record.value(QStringLiteral("claimedUser")).toString() == step.claimed &&
                record.value(QStringLiteral("peerAddress")).toString() == QLatin1String("127.0.0.1") &&
                record.value(QStringLiteral("result")).toInt() == code)
                return true;
        }
        return false;
    };
    // A refused read is recorded by the writer after its answer left.
    QTRY_VERIFY_WITH_TIMEOUT(recorded(), Wait);
    server.stop();
}

void TestServerSecurity::auditAfterKill()
{
    ServerProcess server;
    server.setExtraArguments(tlsArguments(true));
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    auto alice = connectAs(server.port(), kAlice);
    QVERIFY(alice);
    constexpr int Groups = 1000;
    QStringList guids;
    QByteArray frames;
    for (int i = 0; i < Groups; ++i) {
        guids.append(QUuid::createUuid().toString(QUuid::WithoutBraces));
        frames += Attacker::frame(
            RawClient::request(Tag::CreateFileGroup, guids.back(),
                               element(Tag::Guid, guids.back()) + element(Tag::FileType, QString::number(FT_Image)) +
                                   element(Tag::LifeCycle, QStringLiteral("2030-01-01 00:00:00.000")) +
                                   element(Tag::UserName, kAlice)));
    }
    alice->sendBytes(frames);
    // The first answers, then the crash with the rest under way.
    std::set<QString> confirmed;
    for (int i = 0; i < 10; ++i) {
        const ReplyFields reply = ReplyFields::read(alice->receive(Wait));
        QCOMPARE(reply.error, int(KE_NoError));
        confirmed.insert(reply.value(Tag::Guid));
    }
    server.kill();
    alice.reset();
    QVERIFY2(server.start(), qPrintable(server.errorString()));

    alice = connectAs(server.port(), kAlice);
    QVERIFY(alice);
    std::set<QString> stored;
    for (const QString &guid : qAsConst(guids)) {
        if (alice->ask(Tag::CheckFileGroupExists, element(Tag::Guid, guid)).value(Tag::Exists) == QLatin1String("true"))
            stored.insert(guid);
    }
    std::set<QString> recorded;
    QJsonArray records;
    QCOMPARE(audit(server.basePath(), {QStringLiteral("--user"), kAlice}, &records), 0);
    for (const QJsonValue &value : qAsConst(records)) {
        const QJsonObject record = value.toObject();
        if (record.value(QStringLiteral("command")).toString() == QLatin1String(Tag::CreateFileGroup) &&
            record.value(QStringLiteral("result")).toInt() == KE_NoError)
            recorded.insert(record.value(QStringLiteral("guid")).toString());
    }
    QVERIFY(std::includes(stored.begin(), stored.end(), confirmed.begin(), confirmed.end()));
    QCOMPARE(recorded.size(), stored.size());
    QVERIFY(recorded == stored);
    server.stop();
}

QTEST_GUILESS_MAIN(TestServerSecurity)
#include "tst_serversecurity.moc"
