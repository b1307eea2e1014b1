#include "attacker.h"
#include "e2ehelpers.h"
#include "keldaclient.h"
#include "keldaxml.h"
#include "rawclient.h"
#include "serverprocess.h"

#include <QDir>
#include <QFile>
#include <QtTest>

using namespace Kelda;
using namespace E2e;

// Bad input from one client: answered where it can be, never disturbing
// another client; paths that would leave a group's directory are refused.
class TestServerRobustness : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void badMessage_data();
    void badMessage();
    void refusedPath_data();
    void refusedPath();
    void convertersHearOfNewGroups();

private:
    // What becomes of the bad sender's connection.
    enum After { Usable, Closed, Stuck };

    // A plain request the raw client's connection must still get answered.
    bool answersBasePath(RawClient &raw);

    ServerProcess m_server;
    std::unique_ptr<KeldaClient> m_client;
};

void TestServerRobustness::initTestCase()
{
    m_server.setExtraArguments({QStringLiteral("--max-frame"), QStringLiteral("1048576")});
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_client = connectClient(m_server.port(), QStringLiteral("steady"));
    QVERIFY(m_client->IsConnected());
}

bool TestServerRobustness::answersBasePath(RawClient &raw)
{
    raw.sendFrame(RawClient::request(Tag::GetBasePath, QStringLiteral("bp"), QString()));
    return raw.receive().contains("<m:GetBasePathReply");
}

void TestServerRobustness::badMessage_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QByteArray>("answer"); // empty: no answer expected
    QTest::addColumn<int>("after");
    const auto frame = &Attacker::frame;
    const auto prefix = [](quint32 length) { return Attacker::lengthPrefix(length) + "<?xml"; };
    const QByteArray addFile =
        RawClient::request(Tag::AddFile, QStringLiteral("r1"), QStringLiteral("<m:Guid>g</m:Guid>"));

    QTest::newRow("not XML") << frame("hello, server") << QByteArray() << int(Usable);
    QTest::newRow("empty frame") << frame(QByteArray()) << QByteArray() << int(Usable);
    QTest::newRow("cut off after the command")
        << frame(addFile.left(addFile.indexOf("</m:AddFile>"))) << QByteArray("<m:AddFileReply") << int(Usable);
    QTest::newRow("command in a foreign namespace")
        << frame(QByteArray(addFile).replace("xmlns:m=\"http", "xmlns:m=\"urn:other:http"))
        << QByteArray("<m:AddFileReply") << int(Usable);
    QTest::newRow("nested too deep") << frame(RawClient::request(Tag::AddFile, QStringLiteral("r3"),
                                                                 QStringLiteral("<m:a><m:b><m:c>x</m:c></m:b></m:a>")))
                                     << QByteArray("<m:AddFileReply") << int(Usable);
    QTest::newRow("text inside the command")
        << frame(RawClient::request(Tag::GetUserList, QStringLiteral("r4"), QStringLiteral("stray")))
        << QByteArray("<m:GetUserListReply") << int(Usable);
    QTest::newRow("length just over the limit") << prefix(1048577) << QByteArray() << int(Closed);
    QTest::newRow("huge length prefix") << prefix(0xFFFFFFF0u) << QByteArray() << int(Closed);
    QTest::newRow("silent in the middle of a frame") << prefix(1000) << QByteArray() << int(Stuck);
}

void TestServerRobustness::badMessage()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, answer);
    QFETCH(int, after);
    RawClient raw;
    QVERIFY(raw.connectTo(m_server.port()));
    raw.sendBytes(bytes);
    if (!answer.isEmpty()) {
        const QByteArray reply = raw.receive();
        QVERIFY2(reply.contains(answer), reply.constData());
        QVERIFY2(reply.contains("<m:Error>57</m:Error>"), reply.constData());
    }
    if (after == Closed)
        QVERIFY(raw.waitForClose());
    else if (after == Usable)
        QVERIFY(answersBasePath(raw));

    // Everyone else carries on.
    unsigned int fileId = 0;
    const QString guid = createGroupWithFile(*m_client, QStringLiteral("Unharmed"), FT_Image, "ok", &fileId);
    QVERIFY2(!guid.isEmpty(), qPrintable(m_client->GetErrorString()));
}

// Group directories outside the server's folders: tst_serverconfinement.
void TestServerRobustness::refusedPath_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::newRow("file up and out") << QStringLiteral("../escape.bin");
    QTest::newRow("file in a subfolder") << QStringLiteral("sub/x.bin");
    QTest::newRow("file with a backslash") << QStringLiteral("..\\x.bin");
    QTest::newRow("file named dot dot") << QStringLiteral("..");
    QTest::newRow("link leading outside") << QStringLiteral("link");
}

void TestServerRobustness::refusedPath()
{
    QFETCH(QString, fileName);
    RawClient raw;
    QVERIFY(raw.connectTo(m_server.port()));
    const QString guid = KeldaClient::CreateGuid();
    const ReplyFields created =
        raw.ask(Tag::CreateFileGroup, element(Tag::Guid, guid) + element(Tag::FileType, QStringLiteral("1")));
    QCOMPARE(created.error, 0);
    QVERIFY(
        QFile::link(QStringLiteral("/etc/hostname"), QDir(created.value(Tag::Path)).filePath(QStringLiteral("link"))));
    QCOMPARE(raw.ask(Tag::AddFile,
                     element(Tag::Guid, guid) + element(Tag::FileName, fileName) +
                         element(Tag::FileId, QStringLiteral("0")))
                 .error,
             int(KE_AddFileFailed));
}

void TestServerRobustness::convertersHearOfNewGroups()
{
    RawClient converter;
    QVERIFY(converter.connectTo(m_server.port()));
    converter.sendFrame(RawClient::request(Tag::RegisterConverter, QStringLiteral("reg"),
                                           QStringLiteral("<m:ConverterId>audio</m:ConverterId>"
                                                          "<m:FileType>10</m:FileType><m:FileType>9</m:FileType>")));
    QVERIFY(converter.receive().contains("<m:RegisterConverterReply"));

    QString directory;
    QVERIFY(!m_client
                 ->CreateFileGroup(QString(), QDateTime(), QString(), QString(), FT_Image, 0,
                                   QStringLiteral("Not for it"), directory)
                 .isEmpty());
    const QString audio = m_client->CreateFileGroup(QString(), QDateTime(), QString(), QString(), FT_AudioRecording, 0,
                                                    QStringLiteral("For it"), directory);
    QVERIFY(!audio.isEmpty());
    const QByteArray notice = converter.receive();
    QVERIFY2(notice.contains("<m:ConvertFileGroup"), notice.constData());
    QVERIFY2(notice.contains(QStringLiteral("<m:Guid>%1</m:Guid>").arg(audio).toUtf8()), notice.constData());
    QVERIFY(notice.contains("<m:FileType>10</m:FileType>"));

    // The converter's answer gets no answer of its own.
    converter.sendFrame(RawClient::request(Tag::ConvertFileGroupReply, QStringLiteral("cv"),
                                           QStringLiteral("<m:Guid>%1</m:Guid><m:Error>0</m:Error>").arg(audio)));
    QVERIFY(answersBasePath(converter));
}

QTEST_GUILESS_MAIN(TestServerRobustness)
#include "tst_serverrobustness.moc"
