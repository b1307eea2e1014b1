#include "asynchandler.h"
#include "commandsender.h"
#include "scriptedpeer.h"
#include "threadrunner.h"
#include "transporttimings.h"
#include "workerthread.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QSemaphore>
#include <QThread>
#include <QtTest>

#include <memory>
#include <mutex>

using namespace Kelda;

namespace {

const int kSignalWaitMs = 10000;

// A worker whose thread the test can keep busy: post() runs an action there.
using Worker = ThreadRunner;

QString ThreadName(const QObject *worker)
{
    return worker->thread()->objectName();
}

} // namespace

// The wait of a blocking call, driven by a command sender that is not
// connected anywhere: replies and disconnections are fed to it on its own
// thread, before or while the test's thread waits. And the worker thread
// the sender runs on: replaced, stopped, and abandoned when hung.
class AsyncHandlerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void wait_data();
    void wait();
    void severalWaitersWakeOnlyTheirOwn();
    void startReplacesTheWorker();
    void stop_data();
    void stop();

private:
    // Runs action on the sender's thread: at once and to its end when
    // blocking, else queued behind the test's Wait.
    void onSenderThread(std::function<void()> action, bool blocking);
    QByteArray reply(const QString &requestId, bool withHeader = true) const;

    QThread m_thread;
    // Both live on m_thread; the sender is deleted there.
    CommandSender *m_sender = nullptr;
    ThreadRunner *m_runner = nullptr;
};

void AsyncHandlerTest::initTestCase()
{
    TransportTimings::SetThreadStopWaitMs(50);
}

void AsyncHandlerTest::init()
{
    m_sender = new CommandSender(QStringLiteral("127.0.0.1"), 1, QString(), QString(), QString());
    m_sender->moveToThread(&m_thread);
    m_runner = new ThreadRunner;
    m_runner->moveToThread(&m_thread);
    m_thread.start();
}

void AsyncHandlerTest::cleanup()
{
    m_runner->run([this] { delete m_sender; });
    m_thread.quit();
    m_thread.wait();
    delete m_runner;
    m_sender = nullptr;
    m_runner = nullptr;
}

void AsyncHandlerTest::onSenderThread(std::function<void()> action, bool blocking)
{
    if (blocking)
        m_runner->run(std::move(action));
    else
        m_runner->post(std::move(action));
}

QByteArray AsyncHandlerTest::reply(const QString &requestId, bool withHeader) const
{
    return ScriptedPeer::replyDocument(requestId, QStringLiteral("GetUserListReply"),
                                       QStringLiteral("<m:Error>0</m:Error>"), withHeader);
}

void AsyncHandlerTest::wait_data()
{
    QTest::addColumn<QString>("replyId"); // empty: no reply, a disconnection
    QTest::addColumn<bool>("withHeader");
    QTest::addColumn<bool>("beforeWait"); // handled before Wait is entered
    QTest::addColumn<bool>("expected");
    QTest::addColumn<bool>("endsEarly"); // well before the time limit

    QTest::newRow("awaited id, while waiting") << QStringLiteral("awaited") << true << false << true << true;
    QTest::newRow("awaited id, before the wait") << QStringLiteral("awaited") << true << true << true << true;
    QTest::newRow("another request") << QStringLiteral("other") << true << false << false << false;
    QTest::newRow("another request, before the wait") << QStringLiteral("other") << true << true << false << false;
    QTest::newRow("reply without header") << QString() << false << false << false << false;
    QTest::newRow("disconnection, while waiting") << QString() << true << false << false << true;
    QTest::newRow("disconnection, before the wait") << QString() << true << true << false << true;
}

void AsyncHandlerTest::wait()
{
    QFETCH(QString, replyId);
    QFETCH(bool, withHeader);
    QFETCH(bool, beforeWait);
    QFETCH(bool, expected);
    QFETCH(bool, endsEarly);

    // Waits that must end early get a limit no run comes near; the others
    // run into a short one. A timed wait never ends before its limit.
    const unsigned int limitMs = endsEarly ? 60000 : 200;
    AsyncHandler handler(m_sender, limitMs);
    CommandSender *sender = m_sender;
    const QByteArray message = reply(replyId, withHeader);
    if (!replyId.isEmpty() || !withHeader)
        onSenderThread([sender, message] { sender->SlotHandleXmlReply(message); }, beforeWait);
    else
        onSenderThread([sender] { sender->SlotDisconnected(); }, beforeWait);

    QElapsedTimer clock;
    clock.start();
    QCOMPARE(handler.Wait(QStringLiteral("awaited")), expected);
    if (endsEarly)
        QVERIFY2(clock.elapsed() < limitMs / 2, "the wait ran into its time limit");
    else
        QVERIFY2(clock.elapsed() >= limitMs, "a reply of another request ended the wait");
}

// Blocking calls on several threads share one sender: each wakes on its own
// reply only, whatever order the replies come in.
void AsyncHandlerTest::severalWaitersWakeOnlyTheirOwn()
{
    constexpr int kWaiters = 8;
    QVector<bool> results(kWaiters, false);
    std::mutex resultsMutex; // QThread::wait's ordering is invisible to thread checkers
    QVector<QThread *> threads;
    QSemaphore listening;
    CommandSender *sender = m_sender;
    for (int i = 0; i < kWaiters; ++i) {
        threads << QThread::create([sender, i, &results, &resultsMutex, &listening] {
            bool handled = false;
            {
                AsyncHandler handler(sender, 60000);
                listening.release(); // as a blocking call's request would leave now
                handled = handler.Wait(QStringLiteral("id-%1").arg(i));
            }
            const std::lock_guard<std::mutex> lock(resultsMutex);
            results[i] = handled;
        });
        threads.last()->start();
    }
    listening.acquire(kWaiters);
    for (int i = kWaiters - 1; i >= 0; --i) {
        const QByteArray message = reply(QStringLiteral("id-%1").arg(i));
        onSenderThread([sender, message] { sender->SlotHandleXmlReply(message); }, false);
    }
    for (QThread *thread : threads) {
        QVERIFY(thread->wait(30000));
        delete thread;
    }
    const std::lock_guard<std::mutex> lock(resultsMutex);
    QCOMPARE(results, QVector<bool>(kWaiters, true));
}

void AsyncHandlerTest::startReplacesTheWorker()
{
    WorkerThread thread(QStringLiteral("workerTestThread"));
    QPointer<Worker> first = new Worker;
    thread.Start(first);
    QCOMPARE(ThreadName(first), QStringLiteral("workerTestThread"));
    QPointer<Worker> second = new Worker;
    thread.Start(second);
    QVERIFY(first.isNull());
    QCOMPARE(ThreadName(second), QStringLiteral("workerTestThread"));
    thread.Stop();
    QVERIFY(second.isNull());
}

void AsyncHandlerTest::stop_data()
{
    QTest::addColumn<bool>("hung");
    QTest::newRow("idle worker") << false;
    QTest::newRow("hung worker") << true;
}

// A hung thread is abandoned, not waited for, and takes its worker with it
// once it ends.
void AsyncHandlerTest::stop()
{
    QFETCH(bool, hung);
    QSemaphore entered;
    auto release = std::make_shared<QSemaphore>();
    auto thread = std::make_unique<WorkerThread>(QStringLiteral("workerTestThread"));
    QPointer<Worker> worker = new Worker;
    thread->Start(worker);
    if (hung) {
        worker->post([&entered, release] {
            entered.release();
            release->acquire();
        });
        QVERIFY(entered.tryAcquire(1, kSignalWaitMs));
    }
    thread->Stop();
    QCOMPARE(worker.isNull(), !hung);
    thread->Stop();
    thread.reset();
    release->release();
    QTRY_VERIFY_WITH_TIMEOUT(worker.isNull(), kSignalWaitMs);
    // The abandoned thread object deletes itself through this thread's queue.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

QTEST_GUILESS_MAIN(AsyncHandlerTest)
#include "tst_asynchandler.moc"
