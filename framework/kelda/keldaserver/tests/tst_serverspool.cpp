#include "attacker.h"
#include "e2ehelpers.h"
#include "keldaclient.h"
#include "keldaxml.h"
#include "rawclient.h"
#include "replyfields.h"
#include "serverprocess.h"

#include <QDir>
#include <QFile>
#include <QtTest>

#include <memory>

#include <unistd.h>

using namespace Kelda;
using namespace E2e;

namespace {

// An answer of all groups is three times what the server keeps of an
// answer in memory, and more than one write to the socket.
constexpr int kGroups = 48;
constexpr int kCommentLength = 64 * 1024;

QByteArray queryAll(const QString &requestId)
{
    return RawClient::request(Tag::QueryFileGroups, requestId, QString());
}

} // namespace

// Query answers large enough to wait on disk, sent by the real server as
// the client takes them: complete, the same whatever the request's framing,
// and their files gone with the connection.
class TestServerSpool : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void wholeAnswer_data();
    void wholeAnswer();
    void spoolGoneWithConnection();

private:
    // Files the server holds open in its spool folder.
    int spoolFiles() const;

    ServerProcess m_server;
    QByteArray m_firstAnswer;
};

void TestServerSpool::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    const auto client = connectClient(m_server.port(), QStringLiteral("alice"));
    QVERIFY(client->IsConnected());
    for (int i = 0; i < kGroups; ++i) {
        QString directory;
        const QString comment(kCommentLength, QLatin1Char('a' + i % 26));
        QVERIFY2(!client
                      ->CreateFileGroup(QString(), QDateTime(), QString(), comment, FT_Image, 0,
                                        QStringLiteral("group %1").arg(i), directory)
                      .isEmpty(),
                 qPrintable(client->GetErrorString()));
    }
}

void TestServerSpool::wholeAnswer_data()
{
    QTest::addColumn<bool>("compressed");
    QTest::newRow("plain request") << false;
    QTest::newRow("compressed request") << true;
}

void TestServerSpool::wholeAnswer()
{
    QFETCH(bool, compressed);
    RawClient raw;
    QVERIFY(raw.connectTo(m_server.port()));
    const QByteArray request = queryAll(QStringLiteral("all"));
    raw.sendFrame(compressed ? qCompress(request) : request);
    const QByteArray answer = raw.receive(Wait);
    const ReplyFields fields = ReplyFields::read(answer);
    QCOMPARE(fields.error, int(KE_NoError));
    QCOMPARE(fields.all(Tag::FileGroupName).size(), kGroups);
    const QStringList comments = fields.all(Tag::Comment);
    QCOMPARE(comments.size(), kGroups);
    for (const QString &comment : comments)
        QVERIFY(comment.size() == kCommentLength && comment.count(comment.front()) == kCommentLength);
    if (m_firstAnswer.isEmpty())
        m_firstAnswer = answer;
    QCOMPARE(answer, m_firstAnswer);
    // The connection goes on with the next request.
    raw.sendFrame(RawClient::request(Tag::GetBasePath, QStringLiteral("next"), QString()));
    QVERIFY(raw.receive(Wait).contains("GetBasePathReply"));
}

int TestServerSpool::spoolFiles() const
{
    const QString spool = QDir(m_server.basePath()).filePath(QStringLiteral("spool")) + QLatin1Char('/');
    const QDir descriptors(QStringLiteral("/proc/%1/fd").arg(m_server.processId()));
    int count = 0;
    for (const QString &descriptor : descriptors.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)) {
        char target[4096];
        const ssize_t length =
            ::readlink(QFile::encodeName(descriptors.filePath(descriptor)).constData(), target, sizeof target);
        count += length > 0 && QFile::decodeName(QByteArray(target, int(length))).startsWith(spool) ? 1 : 0;
    }
    return count;
}

void TestServerSpool::spoolGoneWithConnection()
{
    if (ServerProcess::usesTls())
        QSKIP("The stalled client speaks plain TCP; what is spooled does not depend on the transport");
    Attacker stalled(m_server.port());
    // More than the sockets on both sides take, and never read: the
    // answers wait on disk.
    stalled.start([](Attacker &attacker) {
        if (attacker.connectNow()) {
            for (int i = 0; i < 8; ++i)
                attacker.sendAll(Attacker::frame(queryAll(QStringLiteral("q%1").arg(i))));
        }
        attacker.idle();
    });
    QTRY_VERIFY_WITH_TIMEOUT(spoolFiles() >= 2, Wait);
    stalled.stop();
    QTRY_COMPARE_WITH_TIMEOUT(spoolFiles(), 0, Wait);
}

QTEST_GUILESS_MAIN(TestServerSpool)
#include "tst_serverspool.moc"
