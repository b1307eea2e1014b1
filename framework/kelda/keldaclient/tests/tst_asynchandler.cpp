#include "asynchandler.h"
#include "commandsender.h"
#include "scriptedpeer.h"

#include <QElapsedTimer>
#include <QThread>
#include <QTimer>
#include <QtTest>

using namespace Kelda;

// The wait of a blocking call, driven by a command sender that is not
// connected anywhere: replies are fed to it on its own thread.
class AsyncHandlerTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void wait_data();
    void wait();

private:
    // Runs action on the sender's thread a little later, while the test's
    // thread is already blocked in Wait.
    void later(std::function<void()> action);

    QThread m_thread;
    CommandSender *m_sender = nullptr;
};

void AsyncHandlerTest::init()
{
    m_sender = new CommandSender(QStringLiteral("127.0.0.1"), 1, QString(), QString(), QString());
    m_sender->moveToThread(&m_thread);
    m_thread.start();
}

void AsyncHandlerTest::cleanup()
{
    m_thread.quit();
    m_thread.wait();
    delete m_sender;
    m_sender = nullptr;
}

void AsyncHandlerTest::later(std::function<void()> action)
{
    QMetaObject::invokeMethod(m_sender, [action] { QTimer::singleShot(50, action); }, Qt::QueuedConnection);
}

void AsyncHandlerTest::wait_data()
{
    QTest::addColumn<QString>("replyId");
    QTest::addColumn<bool>("withHeader");
    QTest::addColumn<bool>("expected");

    QTest::newRow("awaited id") << QStringLiteral("awaited") << true << true;
    QTest::newRow("another request") << QStringLiteral("other") << true << false;
    QTest::newRow("reply without header") << QString() << false << false;
}

void AsyncHandlerTest::wait()
{
    QFETCH(QString, replyId);
    QFETCH(bool, withHeader);
    QFETCH(bool, expected);

    const QByteArray reply = ScriptedPeer::replyDocument(replyId, QStringLiteral("GetUserListReply"),
                                                         QStringLiteral("<m:Error>0</m:Error>"), withHeader);
    CommandSender *sender = m_sender;
    AsyncHandler handler(m_sender, 1000);
    later([sender, reply] { sender->SlotHandleXmlReply(reply); });
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(handler.Wait(QStringLiteral("awaited")), expected);
    // Another request's reply must not cut the wait short.
    if (!expected)
        QVERIFY(clock.elapsed() >= 900);
}

QTEST_GUILESS_MAIN(AsyncHandlerTest)
#include "tst_asynchandler.moc"
