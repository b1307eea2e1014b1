#include "commandsendersocket.h"
#include "xmlseparator.h"

#include "errorhandler.h"

#include <QChildEvent>
#include <QDate>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

using Kelda::CommandSenderSocket;

namespace {

const char kSocketSource[] = "framework/kelda/keldaclient/src/commandsendersocket";
const QString kLocalHost = QStringLiteral("127.0.0.1");

// The server end of the connection, speaking the same framing.
class Peer : public QObject
{
public:
    Peer()
    {
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                m_connection = socket;
                m_framer = new XmlSeparator(socket, XmlSeparator::LittleEndianMode, socket);
                connect(m_framer, &XmlSeparator::xmlReceived, this, [this](const QByteArray &m) { requests << m; });
                ++connections;
            }
        });
    }

    bool listen(quint16 port = 0) { return m_server.listen(QHostAddress::LocalHost, port); }
    quint16 port() const { return m_server.serverPort(); }
    void reply(const QByteArray &message) { m_framer->sendXml(message); }
    void dropConnection() { m_connection->abort(); }

    QByteArrayList requests;
    int connections = 0;

private:
    QTcpServer m_server;
    QPointer<QTcpSocket> m_connection;
    QPointer<XmlSeparator> m_framer;
};

// Counts the children an object gains and loses; each connection attempt
// gives the socket object a new QTcpSocket child.
class ChildCounter : public QObject
{
public:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::ChildAdded)
            ++added;
        else if (event->type() == QEvent::ChildRemoved)
            ++removed;
        return false;
    }
    int added = 0;
    int removed = 0;
};

} // namespace

class TestCommandSenderSocket : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void burstSendsOneRequestAtATime();
    void requestQueuedDuringFailureWaitsForNextReply();
    void refusedConnectionIsTracedOnceAndRetried();
    void messageLogOnItsOwnThread_data();
    void messageLogOnItsOwnThread();

private:
    QTemporaryDir m_dir;
};

void TestCommandSenderSocket::initTestCase()
{
    QVERIFY(m_dir.isValid());
    qputenv("KELDA_CONFIG_FILE", QFile::encodeName(m_dir.filePath(QStringLiteral("kelda.ini"))));
}

void TestCommandSenderSocket::cleanup()
{
    ErrorHandler::Instance()->SetTraceHook({});
}

void TestCommandSenderSocket::burstSendsOneRequestAtATime()
{
    Peer peer;
    QVERIFY(peer.listen());
    CommandSenderSocket socket(kLocalHost, peer.port());
    QSignalSpy connected(&socket, &CommandSenderSocket::si_connected);
    QVERIFY(connected.wait(5000));
    QVERIFY(socket.CheckIsConnected());
    auto *tcp = socket.findChild<QTcpSocket *>();
    QVERIFY(tcp);

    const QByteArrayList requests{"<r1/>", "<r2>two</r2>", "<r3>three</r3>"};
    for (const QByteArray &request : requests)
        socket.sl_sendMessage(request);
    // Frames leave the socket's buffer only when the event loop turns.
    QCOMPARE(tcp->bytesToWrite(), qint64(4 + requests.at(0).size()));

    // What has been handed to the socket when each reply is passed on.
    QList<qint64> pendingAtReply;
    QByteArrayList replies;
    connect(&socket, &CommandSenderSocket::si_newMessage, this, [&](const QByteArray &message) {
        pendingAtReply << tcp->bytesToWrite();
        replies << message;
    });

    for (int i = 0; i < requests.size(); ++i) {
        QTRY_COMPARE_WITH_TIMEOUT(peer.requests.size(), i + 1, 5000);
        QCOMPARE(peer.requests.at(i), requests.at(i));
        peer.reply("<reply" + QByteArray::number(i) + "/>");
        QTRY_COMPARE_WITH_TIMEOUT(replies.size(), i + 1, 5000);
        QCOMPARE(replies.at(i), "<reply" + QByteArray::number(i) + "/>");
    }
    const QList<qint64> expected{4 + requests.at(1).size(), 4 + requests.at(2).size(), 0};
    QCOMPARE(pendingAtReply, expected);
}

void TestCommandSenderSocket::requestQueuedDuringFailureWaitsForNextReply()
{
    Peer peer;
    QVERIFY(peer.listen());
    CommandSenderSocket socket(kLocalHost, peer.port());
    QSignalSpy connected(&socket, &CommandSenderSocket::si_connected);
    QVERIFY(connected.wait(5000));

    peer.dropConnection();
    QTRY_VERIFY_WITH_TIMEOUT(!socket.CheckIsConnected(), 5000);
    socket.sl_sendMessage("<queued/>");

    QVERIFY(connected.wait(8000));
    QTRY_COMPARE_WITH_TIMEOUT(peer.connections, 2, 5000);
    socket.sl_sendMessage("<direct/>");
    QTRY_COMPARE_WITH_TIMEOUT(peer.requests.size(), 1, 5000);
    QCOMPARE(peer.requests.at(0), QByteArray("<direct/>"));

    peer.reply("<answer/>");
    QTRY_COMPARE_WITH_TIMEOUT(peer.requests.size(), 2, 5000);
    QCOMPARE(peer.requests.at(1), QByteArray("<queued/>"));
}

void TestCommandSenderSocket::refusedConnectionIsTracedOnceAndRetried()
{
    quint16 port = 0;
    {
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        port = probe.serverPort();
    }
    QStringList traces;
    ErrorHandler::Instance()->SetTraceHook([&traces](const QString &text, const char *source, int) {
        if (qstrcmp(source, kSocketSource) == 0)
            traces << text;
    });
    CommandSenderSocket socket(kLocalHost, port);
    ChildCounter children;
    socket.installEventFilter(&children);

    QTRY_COMPARE_WITH_TIMEOUT(traces.size(), 1, 5000);
    QCOMPARE(traces.at(0), QStringLiteral("CommandSender::HandleTcpError: Connection refused"));
    QElapsedTimer sinceFailure;
    sinceFailure.start();
    QCOMPARE(children.added, 2); // reconnect timer and first socket

    // The retry makes a second socket, which is refused again and deleted.
    QTRY_COMPARE_WITH_TIMEOUT(children.added, 3, 8000);
    QVERIFY2(sinceFailure.elapsed() >= 4500, qPrintable(QString::number(sinceFailure.elapsed())));
    QTRY_COMPARE_WITH_TIMEOUT(children.removed, 2, 5000);
    QCOMPARE(traces.size(), 1);
    QVERIFY(!socket.IsConnected());
}

void TestCommandSenderSocket::messageLogOnItsOwnThread_data()
{
    QTest::addColumn<bool>("markerPresent");
    QTest::newRow("marker present") << true;
    QTest::newRow("marker absent") << false;
}

// The owner moves the socket to its thread before starting it, and reaches it
// by queued calls only.
void TestCommandSenderSocket::messageLogOnItsOwnThread()
{
    QFETCH(bool, markerPresent);
    const QString dataFolder = m_dir.filePath(QString::fromLatin1(QTest::currentDataTag()));
    const QDir logging(dataFolder + QStringLiteral("/Logging"));
    QVERIFY(QDir().mkpath(logging.path()));
    QFile marker(logging.filePath(QStringLiteral("logkeldamessages.txt")));
    QVERIFY(!markerPresent || marker.open(QIODevice::WriteOnly));
    QFile ini(m_dir.filePath(QStringLiteral("kelda.ini")));
    QVERIFY(ini.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ini.write("[Admin]\nSulvaDataDir=" + QFile::encodeName(dataFolder) + "\n");
    ini.close();

    Peer peer;
    QVERIFY(peer.listen());
    const QString today = QDate::currentDate().toString(QStringLiteral("yyyyMMdd"));
    QThread thread;
    auto *socket = new CommandSenderSocket(kLocalHost, peer.port());
    socket->moveToThread(&thread);
    connect(&thread, &QThread::finished, socket, &QObject::deleteLater);
    QByteArrayList replies;
    QObject receiver;
    connect(socket, &CommandSenderSocket::si_newMessage, &receiver, [&](const QByteArray &m) { replies << m; });
    thread.start();

    QTRY_VERIFY_WITH_TIMEOUT(socket->CheckIsConnected(), 5000);
    QCOMPARE(socket->GetLocalAddress(), kLocalHost);
    QCOMPARE(socket->GetPeerAddress(), kLocalHost);
    QMetaObject::invokeMethod(socket, "sl_sendMessage", Qt::QueuedConnection, Q_ARG(QByteArray, "<req>\xc3\xa4</req>"));
    QTRY_COMPARE_WITH_TIMEOUT(peer.requests.size(), 1, 5000);
    const QByteArray reply = "<reply>\xe2\x82\xac \xc3\xbc</reply>";
    peer.reply(reply);
    QTRY_COMPARE_WITH_TIMEOUT(replies, QByteArrayList{reply}, 5000);

    QPointer<CommandSenderSocket> watch(socket);
    thread.quit();
    QVERIFY(thread.wait(5000));
    QVERIFY(watch.isNull());

    const QStringList logs = logging.entryList({QStringLiteral("*_keldamessages.txt")}, QDir::Files);
    QCOMPARE(logs.size(), markerPresent ? 1 : 0);
    if (!markerPresent)
        return;
    const QRegularExpressionMatch name =
        QRegularExpression(QStringLiteral("^(\\d{8})_\\d+_keldamessages\\.txt$")).match(logs.at(0));
    QVERIFY(name.hasMatch());
    QCOMPARE(name.captured(1), today);

    QFile log(logging.filePath(logs.at(0)));
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QString text = QString::fromLatin1(log.readAll());
    const QString stamp = QStringLiteral("\\d\\d\\.\\d\\d\\.\\d{4} T \\d\\d:\\d\\d:\\d\\d\\.\\d{3}");
    const QRegularExpression expected(QStringLiteral("^\n\n%1: TX \\('127\\.0\\.0\\.1' -> '127\\.0\\.0\\.1'\\)\n<req>\u00e4</req>"
                                                     "\n\n%1: RX \\('127\\.0\\.0\\.1' -> '127\\.0\\.0\\.1'\\)\n<reply>\\? \u00fc</reply>$")
                                          .arg(stamp));
    QVERIFY2(expected.match(text).hasMatch(), qPrintable(text));
}

QTEST_GUILESS_MAIN(TestCommandSenderSocket)
#include "tst_commandsendersocket.moc"
