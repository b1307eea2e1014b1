#include "commandsendersocket.h"
#include "errorhandler.h"
#include "transporttimings.h"
#include "xmlseparator.h"

#include <QDate>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSettings>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QtEndian>

using Kelda::CommandSenderSocket;
using Kelda::TransportTimings;

namespace {

const QString kLocalHost = QStringLiteral("127.0.0.1");
const int kSignalWaitMs = 10000;
// Short, so that no test sits through the real interval between attempts.
const int kReconnectIntervalMs = 100;

// The server end of the connection, speaking the same framing.
struct Peer : QObject
{
    Peer()
    {
        server.listen(QHostAddress::LocalHost);
        connect(&server, &QTcpServer::newConnection, this, [this] {
            connection = server.nextPendingConnection();
            framer = new XmlSeparator(connection, XmlSeparator::LittleEndianMode, connection);
            connect(framer, &XmlSeparator::xmlReceived, this, [this](const QByteArray &m) { requests << m; });
        });
    }

    QTcpServer server;
    QTcpSocket *connection = nullptr;
    XmlSeparator *framer = nullptr;
    QByteArrayList requests;
};

// Each connection attempt gives the socket object a new QTcpSocket child.
struct ChildCounter : QObject
{
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::ChildAdded)
            ++added;
        return false;
    }
    int added = 0;
};

} // namespace

class TestCommandSenderSocket : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void requestsWaitForTheReplyAndAreLogged();
    void refusedConnectionIsTracedOnceAndRetried();
    void queryAnswerIsHandedOnInParts();

private:
    QTemporaryDir m_dir;
};

void TestCommandSenderSocket::initTestCase()
{
    QVERIFY(m_dir.isValid());
    const QString ini = m_dir.filePath(QStringLiteral("kelda.ini"));
    QSettings(ini, QSettings::IniFormat).setValue(QStringLiteral("Admin/SulvaDataDir"), m_dir.path());
    qputenv("KELDA_CONFIG_FILE", QFile::encodeName(ini));
    QVERIFY(QDir(m_dir.path()).mkpath(QStringLiteral("Logging")));
    QVERIFY(QFile(m_dir.filePath(QStringLiteral("Logging/logkeldamessages.txt"))).open(QIODevice::WriteOnly));
    TransportTimings::SetReconnectIntervalMs(kReconnectIntervalMs);
}

// One request on the wire at a time: the next one goes out when a message arrives.
void TestCommandSenderSocket::requestsWaitForTheReplyAndAreLogged()
{
    Peer peer;
    CommandSenderSocket socket(kLocalHost, peer.server.serverPort());
    QSignalSpy connected(&socket, &CommandSenderSocket::si_connected);
    QVERIFY(connected.wait(kSignalWaitMs));
    QCOMPARE(socket.GetLocalAddress(), kLocalHost);
    auto *tcp = socket.findChild<QTcpSocket *>();

    // The message log tells what has been written to the socket so far.
    const QDir logging(m_dir.filePath(QStringLiteral("Logging")));
    const QString today = QDate::currentDate().toString(QStringLiteral("yyyyMMdd"));
    const auto sentSoFar = [&] {
        QFile log(logging.filePath(logging.entryList({today + QStringLiteral("_*_keldamessages.txt")}).value(0)));
        return log.open(QIODevice::ReadOnly) ? log.readAll().count(": TX (") : -1;
    };

    const QByteArrayList requests{"<r1>\xc3\xa4</r1>", "<r2>two</r2>", "<r3>three</r3>"};
    for (const QByteArray &request : requests)
        socket.sl_sendMessage(request);
    QCOMPARE(sentSoFar(), 1);
    // What has been sent when each reply is passed on.
    QList<int> sentAtReply;
    connect(&socket, &CommandSenderSocket::si_newMessage, tcp, [&] { sentAtReply << sentSoFar(); });
    const QByteArrayList replies{"<a1>\xe2\x82\xac</a1>", "<a2/>", "<a3/>"};
    for (int i = 0; i < requests.size(); ++i) {
        QTRY_COMPARE(peer.requests, requests.mid(0, i + 1));
        peer.framer->sendXml(replies.at(i));
        QTRY_COMPARE(sentAtReply.size(), i + 1);
    }
    QCOMPARE(sentAtReply, (QList<int>{2, 3, 3}));

    // A request made while the connection is down is not sent on reconnecting, only after the next reply.
    peer.connection->abort();
    QTRY_VERIFY(!socket.CheckIsConnected());
    socket.sl_sendMessage("<queued/>");
    QVERIFY(connected.wait(kSignalWaitMs));
    peer.requests.clear();
    socket.sl_sendMessage("<direct/>");
    QTRY_COMPARE(peer.requests, QByteArrayList{"<direct/>"});
    peer.framer->sendXml("<answer/>");
    QTRY_COMPARE(peer.requests, (QByteArrayList{"<direct/>", "<queued/>"}));

    QFile log(logging.filePath(logging.entryList({today + QStringLiteral("_*_keldamessages.txt")}).value(0)));
    QVERIFY(log.open(QIODevice::ReadOnly));
    QString text = QString::fromLatin1(log.readAll());
    text.replace(QRegularExpression(QStringLiteral("\\d\\d\\.\\d\\d\\.\\d{4} T \\d\\d:\\d\\d:\\d\\d\\.\\d{3}")),
                 QStringLiteral("<time>"));
    QVERIFY2(text.startsWith(QStringLiteral("\n\n<time>: TX ('127.0.0.1' -> '127.0.0.1')\n<r1>\u00e4</r1>"
                                            "\n\n<time>: RX ('127.0.0.1' -> '127.0.0.1')\n<a1>?</a1>\n\n<time>: TX")),
             qPrintable(text));
}

void TestCommandSenderSocket::refusedConnectionIsTracedOnceAndRetried()
{
    const quint16 port = Peer().server.serverPort();
    QStringList traces;
    ErrorHandler::Instance()->SetTraceHook([&traces](const QString &text, const char *, int) { traces << text; });
    const auto unhook = qScopeGuard([] { ErrorHandler::Instance()->SetTraceHook({}); });
    CommandSenderSocket socket(kLocalHost, port);
    ChildCounter children;
    socket.installEventFilter(&children);

    QTRY_COMPARE(traces.size(), 1);
    QCOMPARE(traces.at(0), QStringLiteral("CommandSender::HandleTcpError: Connection refused"));
    // The retry waits for the reconnect timer.
    const auto *retry = socket.findChild<QTimer *>(QString(), Qt::FindDirectChildrenOnly);
    QVERIFY(retry);
    QCOMPARE(retry->interval(), kReconnectIntervalMs);

    // The retry makes a second socket, which is refused again without a second trace and deleted.
    QTRY_COMPARE_WITH_TIMEOUT(children.added, 3, kSignalWaitMs);
    QTRY_VERIFY(socket.findChildren<QTcpSocket *>().isEmpty());
    QTRY_VERIFY(retry->isActive());
    QCOMPARE(traces.size(), 1);
}

// While a query answer arrives, what is in goes on in parts that end behind a group, then the answer whole;
// the next message goes on whole as ever.
void TestCommandSenderSocket::queryAnswerIsHandedOnInParts()
{
    Peer peer;
    CommandSenderSocket socket(kLocalHost, peer.server.serverPort());
    QSignalSpy connected(&socket, &CommandSenderSocket::si_connected);
    QVERIFY(connected.wait(kSignalWaitMs));
    QSignalSpy parts(&socket, &CommandSenderSocket::si_messagePart);
    QSignalSpy parted(&socket, &CommandSenderSocket::si_partedMessage);
    QSignalSpy whole(&socket, &CommandSenderSocket::si_newMessage);

    QByteArray answer = "<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\"><s:Body>"
                        "<m:QueryFileGroupsReply xmlns:m=\"http://kelda.archive/8SP/KELDA\">";
    for (int i = 0; i < 200; ++i)
        answer += "<m:FileGroup><m:Guid>g" + QByteArray::number(i) + "</m:Guid></m:FileGroup>";
    answer += "</m:QueryFileGroupsReply></s:Body></s:Envelope>";
    QByteArray frame(4, '\0');
    qToLittleEndian<quint32>(quint32(answer.size()), frame.data());
    frame += answer;
    peer.connection->write(frame.left(frame.size() / 2));
    QTRY_VERIFY(!parts.isEmpty());
    QByteArray next(4, '\0');
    qToLittleEndian<quint32>(7, next.data());
    peer.connection->write(frame.mid(frame.size() / 2) + next + "<next/>");
    QTRY_COMPARE(whole.count(), 1);

    QCOMPARE(whole.first().first().toByteArray(), QByteArray("<next/>"));
    QCOMPARE(parted.count(), 1);
    QCOMPARE(parted.first().first().toByteArray(), answer);
    QByteArray joined;
    for (const QList<QVariant> &part : parts) {
        QCOMPARE(part.at(1).toLongLong(), qint64(joined.size()));
        joined += part.at(0).toByteArray();
        QVERIFY(joined.endsWith("</m:FileGroup>"));
    }
    QVERIFY(answer.startsWith(joined));
}

QTEST_GUILESS_MAIN(TestCommandSenderSocket)
#include "tst_commandsendersocket.moc"
