#include "threadrunner.h"
#include "transporttimings.h"
#include "workerthread.h"

#include <QPointer>
#include <QSemaphore>
#include <QThread>
#include <QtTest>

#include <memory>

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

class WorkerThreadTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void startReplacesTheWorker();
    void stop_data();
    void stop();
};

void WorkerThreadTest::initTestCase()
{
    TransportTimings::SetThreadStopWaitMs(50);
}

void WorkerThreadTest::startReplacesTheWorker()
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

void WorkerThreadTest::stop_data()
{
    QTest::addColumn<bool>("hung");
    QTest::newRow("idle worker") << false;
    QTest::newRow("hung worker") << true;
}

// A hung thread is abandoned, not waited for, and takes its worker with it
// once it ends.
void WorkerThreadTest::stop()
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

QTEST_GUILESS_MAIN(WorkerThreadTest)
#include "tst_workerthread.moc"
