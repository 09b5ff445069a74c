// Throttler: bursts collapse, the action runs on the queue it was given.
#include "zavoweb/Throttler_p.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QTest>
#include <QThread>
#include <atomic>

using namespace zavo;
using platform::DispatchQueue;
using web::Throttler;

class TestThrottler : public QObject {
    Q_OBJECT

private slots:
    void firstCallRunsPromptlyAndABurstRunsOnce()
    {
        Throttler throttler;
        QStringList ran;
        for (const char* name : {"a", "b", "c"})
            throttler.throttle(0.3, DispatchQueue::main(), [&ran, name] { ran << name; })();
        // Nothing runs inside the call: the action waits for the queue's turn.
        QVERIFY(ran.isEmpty());
        QTRY_COMPARE(ran, QStringList{"c"});
    }

    void callsWithinTheDelayCollapseIntoOneTrailingRun()
    {
        const double delay = 0.3;
        Throttler throttler;
        QStringList ran;
        QElapsedTimer sinceFirst;
        qint64 trailingAt = 0;
        throttler.throttle(delay, DispatchQueue::main(), [&] { ran << "first"; sinceFirst.start(); })();
        QTRY_COMPARE(ran.size(), 1);
        for (const char* name : {"x", "y", "z"}) {
            throttler.throttle(delay, DispatchQueue::main(), [&ran, &trailingAt, &sinceFirst, name] {
                ran << name;
                trailingAt = sinceFirst.elapsed();
            })();
        }
        QTRY_COMPARE(ran, (QStringList{"first", "z"}));
        // Never twice within the delay.
        QVERIFY2(trailingAt >= qint64(delay * 1000) - 20, qPrintable(QString::number(trailingAt)));
    }

    void runsOnTheGivenQueueFromAnyThread()
    {
        auto queue = DispatchQueue::create(QStringLiteral("test.throttle"));
        Throttler throttler;
        std::atomic<int> runs{0};
        std::atomic<bool> onQueue{false};
        auto call = throttler.throttle(0.05, *queue, [&] {
            onQueue = queue->isCurrent();
            ++runs;
        });
        call();  // from the main thread: hops to the queue
        QTRY_COMPARE(runs.load(), 1);
        QVERIFY(onQueue);
        queue->async(call);  // from the queue itself
        QTRY_COMPARE(runs.load(), 2);
    }

    void aGivenPendingItemIsCancelledByTheNextCall()
    {
        bool stale = false;
        auto pending = std::make_shared<platform::DispatchWorkItem>([&] { stale = true; });
        DispatchQueue::main().asyncAfter(0.05, [pending] { pending->perform(); });
        Throttler throttler(0.0, pending);
        bool fresh = false;
        throttler.throttle(0.05, DispatchQueue::main(), [&] { fresh = true; })();
        bool later = false;
        DispatchQueue::main().asyncAfter(0.1, [&] { later = true; });
        QTRY_VERIFY(fresh);
        QVERIFY(pending->isCancelled());
        QTRY_VERIFY(later);  // the cancelled item's own timer has fired by now
        QVERIFY(!stale);
    }

    void aRecentLastFireDelaysTheFirstRun()
    {
        Throttler throttler(Throttler::now(), nullptr);
        bool ran = false;
        QElapsedTimer timer;
        timer.start();
        throttler.throttle(0.2, DispatchQueue::main(), [&] { ran = true; })();
        QTRY_VERIFY(ran);
        QVERIFY(timer.elapsed() >= 180);
    }
};

QTEST_GUILESS_MAIN(TestThrottler)
#include "tst_throttler.moc"
