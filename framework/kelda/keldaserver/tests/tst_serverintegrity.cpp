#include "e2ehelpers.h"
#include "keldaclient.h"
#include "keldaxml.h"
#include "rawclient.h"
#include "replyfields.h"
#include "serverprocess.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QUuid>
#include <QtTest>

using namespace Kelda;
using namespace E2e;

namespace {

// The columns of one file's record in GetFileChecksums and VerifyFileGroup.
enum Column { Id, Name, Size, Algorithm, Digest, LastCheck, State, Fields };

QString sha256(const QByteArray &content)
{
    return QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
}

// Changes one byte of a file in place, as a failing disk would.
bool flipByte(const QString &path, qint64 at)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite) || !file.seek(at))
        return false;
    char byte = 0;
    if (!file.getChar(&byte) || !file.seek(at))
        return false;
    return file.putChar(char(byte ^ 0x01));
}

QStringList column(const QStringList &records, Column which)
{
    QStringList values;
    for (int i = which; i < records.size(); i += Fields)
        values.append(records.at(i));
    return values;
}

} // namespace

// The archive proves its files intact: digests recorded when files are
// added, checked on every read of the background check and on request,
// before a move to network storage lets go of the source, and across an
// export and import.
class TestServerIntegrity : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void corruptionIsReported_data();
    void corruptionIsReported();
    void differingCopyStaysLocal();
    void importChecksManifest_data();
    void importChecksManifest();
    void interruptedCheckResumes();
    void unknownCommandAnswers41();
    void digestRecordedAtAdd_data();
    void digestRecordedAtAdd();

private:
    // A group of files named f0.bin, f1.bin, ... with these contents.
    QString addGroup(KeldaClient &client, const QList<QByteArray> &contents, QString *directory);
    int status(QSignalSpy &spy, const QString &requestId);

    // For the tests that need no options of their own.
    ServerProcess m_server;
    std::unique_ptr<KeldaClient> m_client;
};

void TestServerIntegrity::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_client = connectClient(m_server.port(), QStringLiteral("alice"));
}

QString TestServerIntegrity::addGroup(KeldaClient &client, const QList<QByteArray> &contents, QString *directory)
{
    const QString guid = client.CreateFileGroup(QStringLiteral("1.0"), QDateTime(), QStringLiteral("detail"), QString(),
                                                FT_Image, 0, QStringLiteral("Kept"), *directory);
    for (int i = 0; i < contents.size() && !guid.isEmpty(); ++i) {
        const QString path = *directory + QStringLiteral("f%1.bin").arg(i);
        if (!writeFile(path, contents.at(i)) || client.AddFile(path, guid) == 0)
            return QString();
    }
    return guid;
}

int TestServerIntegrity::status(QSignalSpy &spy, const QString &requestId)
{
    return waitForRequest(spy, requestId).value(1, -1).toInt();
}

void TestServerIntegrity::corruptionIsReported_data()
{
    QTest::addColumn<bool>("background");
    QTest::newRow("background check") << true;
    QTest::newRow("VerifyFileGroup") << false;
}

void TestServerIntegrity::corruptionIsReported()
{
    QFETCH(bool, background);
    ServerProcess server;
    // About four seconds between checks of a file.
    if (background)
        server.setExtraArguments({QStringLiteral("--verify-interval"), QStringLiteral("0.001")});
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    auto client = connectClient(server.port(), QStringLiteral("alice"));
    QString directory;
    const QString guid = addGroup(*client, {"first content", "second content", "third content"}, &directory);
    QVERIFY(!guid.isEmpty());
    QVERIFY(flipByte(directory + QStringLiteral("f0.bin"), 3));
    QVERIFY(QFile::remove(directory + QStringLiteral("f2.bin")));
    const QStringList expected{QStringLiteral("mismatch"), QStringLiteral("ok"), QStringLiteral("missing")};
    if (background) {
        QTRY_COMPARE_WITH_TIMEOUT(column(client->GetFileChecksums(guid), State), expected, Wait);
    } else {
        QCOMPARE(column(client->VerifyFileGroup(guid), State), expected);
        QCOMPARE(column(client->GetFileChecksums(guid), State), expected);
    }
    // The recorded digest stays what was stored, not what was found.
    QCOMPARE(client->GetFileChecksums(guid).at(Digest), sha256("first content"));
}

void TestServerIntegrity::differingCopyStaysLocal()
{
    KeldaClient *client = m_client.get();
    QString directory;
    const QString guid = addGroup(*client, {"stored as it was given"}, &directory);
    QVERIFY(!guid.isEmpty());
    const QString file = directory + QStringLiteral("f0.bin");
    QVERIFY(flipByte(file, 0));
    const QByteArray changed = readFile(file);

    QSignalSpy moved(client, &KeldaClient::MoveToNasSg);
    QCOMPARE(status(moved, client->MoveToNas(guid)), int(KE_NoError));
    QSignalSpy location(client, &KeldaClient::queryLocationStateProgressSg);
    QVariantList reply;
    QTRY_VERIFY_WITH_TIMEOUT(
        (reply = waitForRequest(location, client->QueryLocationStateProgress(guid))).value(3).toInt() ==
            KE_MoveFileGroupFailed,
        Wait);
    QCOMPARE(reply.value(1).toInt(), int(LS_Local));
    QCOMPARE(readFile(file), changed);
    QVERIFY(QDir(m_server.basePath() + QStringLiteral("/nas")).entryList(QDir::Files | QDir::NoDotAndDotDot).isEmpty());
}

void TestServerIntegrity::importChecksManifest_data()
{
    QTest::addColumn<QString>("tamper");
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("state");
    QTest::newRow("untouched") << QString() << int(KE_NoError) << QStringLiteral("ok");
    QTest::newRow("file changed") << QStringLiteral("file") << int(KE_ImportFileGroupIncomplete) << QString();
    QTest::newRow("manifest changed") << QStringLiteral("manifest") << int(KE_ImportFileGroupIncomplete) << QString();
    QTest::newRow("no manifest") << QStringLiteral("nomanifest") << int(KE_NoError) << QStringLiteral("unverified");
}

void TestServerIntegrity::importChecksManifest()
{
    QFETCH(QString, tamper);
    QFETCH(int, error);
    QFETCH(QString, state);
    KeldaClient *client = m_client.get();
    QString directory;
    const QByteArray second(100 * 1000, 'b');
    const QString guid = addGroup(*client, {"a", second}, &directory);
    QVERIFY(!guid.isEmpty());
    // A folder of its own: an export overwrites nothing.
    const QString folder = QStringLiteral("out") + tamper;
    QSignalSpy exported(client, &KeldaClient::exportArchiveSg);
    QCOMPARE(status(exported, client->ExportArchiveAsync({guid}, folder)), int(KE_NoError));
    const QString out = m_server.basePath() + QStringLiteral("/exchange/%1/").arg(folder);
    const QByteArray manifest = readFile(out + QStringLiteral("SHA256SUMS"));
    QVERIFY(manifest.contains(sha256(second).toLatin1() + "  " + guid.toLatin1() + "/f1.bin\n"));
    QSignalSpy deleted(client, &KeldaClient::deleteFileGroupSg);
    QCOMPARE(status(deleted, client->DeleteFileGroupAsync(guid)), int(KE_NoError));

    if (tamper == QLatin1String("file")) {
        QVERIFY(flipByte(out + guid + QStringLiteral("/f1.bin"), 50 * 1000));
    } else if (tamper == QLatin1String("manifest")) {
        QByteArray changed = manifest;
        changed.replace(sha256("a").toLatin1(), sha256("A").toLatin1());
        QVERIFY(QFile::remove(out + QStringLiteral("SHA256SUMS")));
        QVERIFY(writeFile(out + QStringLiteral("SHA256SUMS"), changed));
    } else if (tamper == QLatin1String("nomanifest")) {
        QVERIFY(QFile::remove(out + QStringLiteral("SHA256SUMS")));
    }
    QSignalSpy imported(client, &KeldaClient::importArchiveSg);
    QCOMPARE(status(imported, client->ImportArchiveAsync({folder})), error);
    const QStringList records = client->GetFileChecksums(guid);
    if (error != KE_NoError) {
        QCOMPARE(int(client->GetError()), int(KE_GuidNotFound));
        return;
    }
    QCOMPARE(column(records, State), (QStringList{state, state}));
}

void TestServerIntegrity::interruptedCheckResumes()
{
    QTemporaryDir base;
    ServerProcess server(base.path());
    // Files never read come first: an import without a manifest makes them.
    server.setExtraArguments({QStringLiteral("--verify-interval"), QStringLiteral("0")});
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    auto client = connectClient(server.port(), QStringLiteral("alice"));
    QList<QByteArray> contents;
    for (int i = 0; i < 6; ++i)
        contents.append(QByteArray(500 * 1000, char('a' + i)));
    QString directory;
    const QString guid = addGroup(*client, contents, &directory);
    QVERIFY(!guid.isEmpty());
    QSignalSpy exported(client.get(), &KeldaClient::exportArchiveSg);
    QCOMPARE(status(exported, client->ExportArchiveAsync({guid}, QStringLiteral("out"))), int(KE_NoError));
    QSignalSpy deleted(client.get(), &KeldaClient::deleteFileGroupSg);
    QCOMPARE(status(deleted, client->DeleteFileGroupAsync(guid)), int(KE_NoError));
    QVERIFY(QFile::remove(server.basePath() + QStringLiteral("/exchange/out/SHA256SUMS")));
    QSignalSpy imported(client.get(), &KeldaClient::importArchiveSg);
    QCOMPARE(status(imported, client->ImportArchiveAsync({QStringLiteral("out")})), int(KE_NoError));
    client.reset();
    server.stop();

    // Half a second a file: stopped after the first, well before the last.
    server.setExtraArguments({QStringLiteral("--verify-rate"), QStringLiteral("1")});
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    client = connectClient(server.port(), QStringLiteral("alice"));
    QStringList before;
    QTRY_VERIFY_WITH_TIMEOUT(column(before = client->GetFileChecksums(guid), State).contains(QStringLiteral("ok")),
                             Wait);
    client.reset();
    server.stop();
    const int checked = column(before, State).count(QStringLiteral("ok"));
    QVERIFY2(checked < contents.size(), "the check was not cut short");

    QVERIFY2(server.start(), qPrintable(server.errorString()));
    client = connectClient(server.port(), QStringLiteral("alice"));
    QStringList after;
    QTRY_VERIFY_WITH_TIMEOUT(
        !column(after = client->GetFileChecksums(guid), State).contains(QStringLiteral("unverified")), Wait);
    // What was checked before the stop was not read again.
    for (int i = 0; i < contents.size(); ++i) {
        if (before.at(i * Fields + State) == QLatin1String("ok"))
            QCOMPARE(after.at(i * Fields + LastCheck), before.at(i * Fields + LastCheck));
    }
    QCOMPARE(column(after, Digest).at(5), sha256(contents.at(5)));
}

void TestServerIntegrity::unknownCommandAnswers41()
{
    RawClient raw;
    QVERIFY(raw.connectTo(m_server.port()));
    raw.sendFrame(RawClient::request(QStringLiteral("ListSnapshots"), QStringLiteral("r41"),
                                     QStringLiteral("<m:Guid>x</m:Guid>")));
    // Well inside the client's 60 s wait for any answer.
    const QByteArray reply = raw.receive(5000);
    QVERIFY(reply.contains("ListSnapshotsReply"));
    QCOMPARE(ReplyFields::read(reply).error, int(KE_UnknownReplyCommand));
}

// A client that names its group's directory sends AddFile right behind
// CreateFileGroup without waiting: the file is read from that directory
// while the creation is still under way, and the digest recorded is the
// file's. A creation refused takes its AddFile with it.
void TestServerIntegrity::digestRecordedAtAdd_data()
{
    QTest::addColumn<QString>("parent");
    QTest::addColumn<bool>("taken"); // a group of that GUID exists elsewhere, with other files of the same names
    QTest::addColumn<int>("created");
    QTest::addColumn<int>("added");
    QTest::newRow("below the base path") << QStringLiteral("pipelined") << false << int(KE_NoError) << int(KE_NoError);
    QTest::newRow("in the exchange folder")
        << QStringLiteral("exchange") << false << int(KE_CreatePathFailed) << int(KE_GuidNotFound);
    QTest::newRow("the GUID taken") << QStringLiteral("pipelined") << true << int(KE_AddFileGroupFailed)
                                    << int(KE_NoError);
}

void TestServerIntegrity::digestRecordedAtAdd()
{
    QFETCH(QString, parent);
    QFETCH(bool, taken);
    QFETCH(int, created);
    QFETCH(int, added);
    const QString guid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    const QString directory =
        QDir::cleanPath(m_server.basePath() + QLatin1Char('/') + parent + QLatin1Char('/') + guid);
    QVERIFY(QDir().mkpath(directory));
    // Files of such different sizes that their reads may end in any order.
    const QList<QByteArray> contents{QByteArray(300 * 1000, 'x') + "sent behind its group", "small",
                                     QByteArray(1000 * 1000, 'y'), "last"};
    // What the group of a taken GUID holds: other bytes, the same sizes.
    const auto other = [&contents](int i) { return QByteArray(contents.at(i).size(), 'o'); };
    const QByteArray lead(8 * 1000 * 1000, 'l');
    for (int i = 0; i < contents.size(); ++i)
        QVERIFY(writeFile(directory + QStringLiteral("/data%1.bin").arg(i), contents.at(i)));

    RawClient raw;
    QVERIFY(raw.connectTo(m_server.port()));
    if (taken) {
        const QString elsewhere = QDir::cleanPath(m_server.basePath() + QStringLiteral("/taken/") + guid);
        QVERIFY(QDir().mkpath(elsewhere));
        for (int i = 0; i < contents.size(); ++i)
            QVERIFY(writeFile(elsewhere + QStringLiteral("/data%1.bin").arg(i), other(i)));
        QCOMPARE(raw.ask(QStringLiteral("CreateFileGroup"),
                         QStringLiteral("<m:Guid>%1</m:Guid><m:FileGroupName>first</m:FileGroupName>"
                                        "<m:FileType>1</m:FileType><m:UserName>alice</m:UserName>"
                                        "<m:Path>%2</m:Path>")
                             .arg(guid, elsewhere))
                     .error,
                 int(KE_NoError));
        // Read while the requests behind it come in, which wait for it:
        // the creation fails then, and the files are added to the group
        // that has the GUID, from its own folder.
        QVERIFY(writeFile(elsewhere + QStringLiteral("/lead.bin"), lead));
        raw.sendFrame(RawClient::request(
            QStringLiteral("AddFile"), QStringLiteral("lead"),
            QStringLiteral("<m:Guid>%1</m:Guid><m:FileName>lead.bin</m:FileName><m:FileId>0</m:FileId>").arg(guid)));
    }
    raw.sendFrame(RawClient::request(
        QStringLiteral("CreateFileGroup"), QStringLiteral("c"),
        QStringLiteral("<m:Guid>%1</m:Guid><m:FileGroupName>pipelined</m:FileGroupName><m:FileType>1</m:FileType>"
                       "<m:UserName>alice</m:UserName><m:Path>%2</m:Path>")
            .arg(guid, directory)));
    // The server numbers the files: in the order they were carried out.
    for (int i = 0; i < contents.size(); ++i)
        raw.sendFrame(RawClient::request(
            QStringLiteral("AddFile"), QStringLiteral("a%1").arg(i),
            QStringLiteral("<m:Guid>%1</m:Guid><m:FileName>data%2.bin</m:FileName><m:FileId>0</m:FileId>")
                .arg(guid)
                .arg(i)));
    // A read behind them sees what they added.
    raw.sendFrame(RawClient::request(QStringLiteral("GetFileChecksums"), QStringLiteral("read"),
                                     QStringLiteral("<m:Guid>%1</m:Guid>").arg(guid)));
    int recorded = 0;
    if (taken) {
        QCOMPARE(ReplyFields::read(raw.receive()).error, int(KE_NoError));
        ++recorded;
    }
    QCOMPARE(ReplyFields::read(raw.receive()).error, created);
    for (int i = 0; i < contents.size(); ++i) {
        const ReplyFields reply = ReplyFields::read(raw.receive());
        QCOMPARE(reply.error, added);
        if (added == KE_NoError) {
            QCOMPARE(reply.value(Tag::FileId), QString::number(recorded + 1));
            ++recorded;
        }
    }
    const QByteArray checksums = raw.receive();
    if (added == KE_NoError) {
        QCOMPARE(ReplyFields::read(checksums).error, int(KE_NoError));
        QVERIFY(checksums.contains("data3.bin"));
    }

    const QStringList records = m_client->GetFileChecksums(guid);
    QCOMPARE(records.size(), int(Fields) * recorded);
    for (int i = 0; i < recorded; ++i) {
        const QStringList record = records.mid(i * int(Fields), int(Fields));
        // Never the content of the folder the failed creation named.
        const QString name = record.at(Name);
        const QByteArray content = !taken       ? contents.at(i)
            : name == QLatin1String("lead.bin") ? lead
                                                : other(name.mid(4, 1).toInt());
        QCOMPARE(record.at(Name),
                 taken && i == 0 ? QStringLiteral("lead.bin") : QStringLiteral("data%1.bin").arg(taken ? i - 1 : i));
        QCOMPARE(record.at(Size), QString::number(content.size()));
        QCOMPARE(record.at(Algorithm), QStringLiteral("SHA-256"));
        QCOMPARE(record.at(Digest), sha256(content));
        QCOMPARE(record.at(State), QStringLiteral("ok"));
        QVERIFY(!record.at(LastCheck).isEmpty());
    }
}

QTEST_GUILESS_MAIN(TestServerIntegrity)
#include "tst_serverintegrity.moc"
