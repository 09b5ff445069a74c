// Ordering and threading promises of the work queues.
#include "base/DispatchQueue.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

using namespace zavo::platform;
using namespace std::chrono_literals;

class TstDispatch : public QObject {
    Q_OBJECT

private slots:
    void serialQueueRunsInSubmissionOrderOnOneThread()
    {
        auto queue = DispatchQueue::create(QStringLiteral("com.zavo.test.serial"));
        std::vector<int> order;  // touched only on the queue
        std::set<std::thread::id> threads;
        std::atomic<bool> done{false};
        for (int i = 0; i < 2000; ++i)
            queue->async([&, i] {
                order.push_back(i);
                threads.insert(std::this_thread::get_id());
            });
        queue->async([&] { done = true; });
        QTRY_VERIFY(done.load());
        QCOMPARE(order.size(), size_t(2000));
        QVERIFY(std::is_sorted(order.begin(), order.end()));
        QCOMPARE(threads.size(), size_t(1));
        QVERIFY(threads.count(std::this_thread::get_id()) == 0);
    }

    void syncWaitsForTheBlockAndRunsInlineOnItsOwnQueue()
    {
        auto queue = DispatchQueue::create(QStringLiteral("com.zavo.test.sync"));
        int value = 0;
        bool nestedRan = false;
        queue->sync([&] {
            value = 1;
            QVERIFY(queue->isCurrent());
            // GCD would deadlock here; this queue runs the nested block at once.
            queue->sync([&] { nestedRan = true; });
        });
        QCOMPARE(value, 1);
        QVERIFY(nestedRan);
        QVERIFY(!queue->isCurrent());
    }

    void syncToMainFromAnotherThreadRunsOnTheGuiThread()
    {
        auto queue = DispatchQueue::create(QStringLiteral("com.zavo.test.tomain"));
        std::atomic<bool> ranOnMain{false};
        std::atomic<bool> returned{false};
        queue->async([&] {
            DispatchQueue::main().sync([&] { ranOnMain = QThread::currentThread() == QCoreApplication::instance()->thread(); });
            // sync returns only after the block ran
            returned = ranOnMain.load();
        });
        QTRY_VERIFY(returned.load());
        QVERIFY(DispatchQueue::main().isCurrent());
    }

    void delayedWorkRunsAfterItsDelayAndInDeadlineOrder()
    {
        auto queue = DispatchQueue::create(QStringLiteral("com.zavo.test.after"));
        std::mutex mutex;
        std::vector<int> order;
        QElapsedTimer clock;
        clock.start();
        std::atomic<qint64> lateElapsed{-1};
        queue->asyncAfter(120ms, [&] {
            std::lock_guard lock(mutex);
            order.push_back(2);
            lateElapsed = clock.elapsed();
        });
        queue->asyncAfter(30ms, [&] {
            std::lock_guard lock(mutex);
            order.push_back(1);
        });
        queue->async([&] {
            std::lock_guard lock(mutex);
            order.push_back(0);
        });
        QTRY_VERIFY(lateElapsed.load() >= 0);
        QVERIFY(lateElapsed.load() >= 120);
        std::lock_guard lock(mutex);
        QCOMPARE(order, (std::vector<int>{0, 1, 2}));
    }

    void mainQueueDelayedWorkRunsOnTheGuiThread()
    {
        bool ran = false;
        QElapsedTimer clock;
        clock.start();
        DispatchQueue::main().asyncAfter(0.05, [&] {
            QVERIFY(QThread::currentThread() == QCoreApplication::instance()->thread());
            ran = true;
        });
        QVERIFY(!ran);
        QTRY_VERIFY(ran);
        QVERIFY(clock.elapsed() >= 50);
    }

    void cancelledWorkItemsNeverRun()
    {
        auto queue = DispatchQueue::create(QStringLiteral("com.zavo.test.cancel"));
        std::atomic<int> runs{0};
        auto immediate = std::make_shared<DispatchWorkItem>([&] { ++runs; });
        auto delayed = std::make_shared<DispatchWorkItem>([&] { ++runs; });
        auto onMain = std::make_shared<DispatchWorkItem>([&] { ++runs; });
        std::atomic<bool> gate{false};
        queue->async([&] {
            while (!gate.load())
                std::this_thread::yield();
        });
        queue->async(immediate);
        queue->asyncAfter(10ms, delayed);
        DispatchQueue::main().asyncAfter(0.01, [onMain] { onMain->perform(); });
        immediate->cancel();
        delayed->cancel();
        onMain->cancel();
        gate = true;
        std::atomic<bool> drained{false};
        queue->asyncAfter(40ms, [&] { drained = true; });
        bool mainDrained = false;  // main timers fire in deadline order
        DispatchQueue::main().asyncAfter(0.03, [&] { mainDrained = true; });
        QTRY_VERIFY(drained.load());
        QTRY_VERIFY(mainDrained);
        QCOMPARE(runs.load(), 0);
        QVERIFY(immediate->isCancelled());
    }

    void releasedQueueFinishesItsWorkAndItsThreadEnds()
    {
        QTRY_COMPARE(DispatchQueue::liveThreadCount(), 0);  // earlier tests' queues have ended
        const int before = 0;
        std::atomic<int> ran{0};
        {
            auto queue = DispatchQueue::create(QStringLiteral("com.zavo.test.release"));
            QCOMPARE(DispatchQueue::liveThreadCount(), before + 1);
            for (int i = 0; i < 10; ++i)
                queue->async([&] { ++ran; });
            queue->asyncAfter(20ms, [&] { ++ran; });
        }
        QTRY_COMPARE(ran.load(), 11);
        QTRY_COMPARE(DispatchQueue::liveThreadCount(), before);
    }

    void queueCanBeReleasedFromItsOwnBlock()
    {
        QTRY_COMPARE(DispatchQueue::liveThreadCount(), 0);  // earlier tests' queues have ended
        const int before = 0;
        auto queue = DispatchQueue::create(QStringLiteral("com.zavo.test.selfrelease"));
        std::atomic<bool> released{false};
        auto* raw = queue.get();
        raw->async([queue = std::move(queue), &released]() mutable {
            queue.reset();  // last reference dropped on the queue's own thread
            released = true;
        });
        QTRY_VERIFY(released.load());
        QTRY_COMPARE(DispatchQueue::liveThreadCount(), before);
    }

    void releasingAQueueBlockedOnTheMainQueueDoesNotDeadlock()
    {
        // The frame path: a queue waits synchronously on the main queue while
        // the main thread drops the last reference to that queue.
        QTRY_COMPARE(DispatchQueue::liveThreadCount(), 0);  // earlier tests' queues have ended
        const int before = 0;
        auto queue = DispatchQueue::create(QStringLiteral("com.zavo.test.backpressure"));
        std::atomic<bool> entered{false};
        std::atomic<bool> finished{false};
        queue->async([&] {
            entered = true;
            DispatchQueue::main().sync([] {});
            finished = true;
        });
        while (!entered.load())
            std::this_thread::yield();
        queue.reset();  // must not wait for the block above
        QTRY_VERIFY(finished.load());
        QTRY_COMPARE(DispatchQueue::liveThreadCount(), before);
    }

    void labelNamesTheThread()
    {
        auto queue = DispatchQueue::create(QStringLiteral("CaptureSessionQueue"), QualityOfService::Background, -1);
        QCOMPARE(queue->label(), QStringLiteral("CaptureSessionQueue"));
        QCOMPARE(queue->qualityOfService(), QualityOfService::Background);
        QByteArray name;
        queue->sync([&] {
            char buffer[32] = {};
            pthread_getname_np(pthread_self(), buffer, sizeof buffer);
            name = buffer;
        });
        QCOMPARE(name, QByteArray("ureSessionQueue"));  // the last 15 characters
    }
};

QTEST_GUILESS_MAIN(TstDispatch)
#include "tst_dispatch.moc"
