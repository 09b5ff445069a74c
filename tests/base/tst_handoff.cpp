// Frame hand-offs between threads: the single-producer ring, the newest slot
// and the consumer thread.
#include "base/ConsumerThread_p.h"
#include "base/FrameHandoff_p.h"

#include <QtTest>
#include <atomic>
#include <future>
#include <memory>
#include <thread>

using namespace zavo::platform;

class TstHandoff : public QObject {
    Q_OBJECT

private slots:
    void ringKeepsOrderAndRefusesWhenFullWithoutTakingTheValue()
    {
        SpscRing<std::unique_ptr<int>, 4> ring;
        QVERIFY(!ring.tryPop());
        for (int i = 0; i < 4; ++i)
            QVERIFY(ring.tryPush(std::make_unique<int>(i)));
        auto fifth = std::make_unique<int>(4);
        QVERIFY(!ring.tryPush(std::move(fifth)));
        QVERIFY(fifth && *fifth == 4);  // still the caller's, to drop and count
        QCOMPARE(ring.size(), 4u);
        // Around the end of the slots and back, in order.
        for (int i = 0; i < 10; ++i) {
            auto oldest = ring.tryPop();
            QVERIFY(oldest && *oldest && **oldest == i);
            QVERIFY(ring.tryPush(std::make_unique<int>(i + 4)));
        }
        QCOMPARE(ring.size(), 4u);
    }

    void ringLetsGoOfAPoppedValueAtOnce()
    {
        // A frame popped and dropped must go back to its pool then, not when
        // its slot happens to be reused.
        SpscRing<std::shared_ptr<int>, 2> ring;
        auto frame = std::make_shared<int>(7);
        QVERIFY(ring.tryPush(std::shared_ptr<int>(frame)));
        QCOMPARE(frame.use_count(), 2);
        ring.tryPop();
        QCOMPARE(frame.use_count(), 1);
    }

    void ringHandsEveryValueAcrossThreadsInOrder()
    {
        // Run under ThreadSanitizer in CI: the ring's orderings are what make
        // the slot's contents visible to the other thread.
        constexpr int kCount = 200000;
        SpscRing<std::unique_ptr<int>, 8> ring;
        std::thread producer([&] {
            for (int i = 0; i < kCount; ++i) {
                auto value = std::make_unique<int>(i);
                while (!ring.tryPush(std::move(value)))
                    std::this_thread::yield();
            }
        });
        int expected = 0;
        bool inOrder = true;
        while (expected < kCount) {
            if (auto value = ring.tryPop()) {
                inOrder = inOrder && *value && **value == expected;
                ++expected;
            } else {
                std::this_thread::yield();
            }
        }
        producer.join();
        QVERIFY(inOrder);
        QVERIFY(!ring.tryPop());
    }

    void newestSlotReplacesAndKeeps()
    {
        NewestSlot<std::shared_ptr<int>> slot;
        QVERIFY(!slot.newest());
        auto first = std::make_shared<int>(1);
        QVERIFY(!slot.put(first));
        const auto replaced = slot.put(std::make_shared<int>(2));
        QCOMPARE(replaced, first);  // handed back for release outside the lock
        QCOMPARE(*slot.newest(), 2);
        QCOMPARE(*slot.newest(), 2);  // reading leaves it there for the next paint
    }

    void consumerThreadRunsAgainForAWakeThatCameDuringARound()
    {
        // The producer's work arrives while a round is under way and after
        // it looked: the thread must not sleep on it.
        std::promise<void> inFirstRound, wokenMeanwhile, secondRound;
        auto inFirst = inFirstRound.get_future();
        auto woken = wokenMeanwhile.get_future().share();
        auto second = secondRound.get_future();
        std::atomic<int> rounds{0};
        ConsumerThread thread;
        thread.start("test", [&]() {
            const int round = ++rounds;
            if (round == 1) {
                inFirstRound.set_value();
                woken.wait();
                return ConsumerThread::Next::whenWoken();
            }
            if (round == 2)
                secondRound.set_value();
            return ConsumerThread::Next::end();
        });
        QVERIFY(inFirst.wait_for(std::chrono::seconds(30)) == std::future_status::ready);
        thread.wake();
        wokenMeanwhile.set_value();
        QVERIFY(second.wait_for(std::chrono::seconds(30)) == std::future_status::ready);
        thread.join();
        QCOMPARE(rounds.load(), 2);
    }

    void consumerThreadRunsAgainWhenARoundsTimeIsUp()
    {
        std::promise<void> secondRound;
        auto second = secondRound.get_future();
        int rounds = 0;  // the thread's only
        ConsumerThread thread;
        thread.start("test", [&]() {
            if (++rounds == 1)
                return ConsumerThread::Next::wokenOrAfter(std::chrono::milliseconds(1));
            secondRound.set_value();
            return ConsumerThread::Next::end();
        });
        // Nobody wakes it: the round's own time brings the next.
        QVERIFY(second.wait_for(std::chrono::seconds(30)) == std::future_status::ready);
        thread.join();
    }

    void consumerThreadLetsGoOfItsRoundOnItsOwnThreadAndEndsFromWithin()
    {
        // The detector's worker and the recorder are released by their
        // round, on their thread; an owner dropped inside a round joins from
        // that very thread, which must let it end instead of deadlocking.
        struct Marker {
            explicit Marker(std::promise<std::thread::id>* promise) : destroyedOn(promise) {}
            ~Marker() { destroyedOn->set_value(std::this_thread::get_id()); }
            std::promise<std::thread::id>* destroyedOn;
        };
        std::promise<std::thread::id> destroyedOn, ranOn;
        auto destroyed = destroyedOn.get_future();
        auto ran = ranOn.get_future();
        auto thread = std::make_unique<ConsumerThread>();
        ConsumerThread* raw = thread.get();
        std::mutex ownerMutex;
        std::unique_ptr<ConsumerThread> owner;
        {
            std::lock_guard lock(ownerMutex);
            raw->start("test", [&, marker = std::make_shared<Marker>(&destroyedOn)]() {
                ranOn.set_value(std::this_thread::get_id());
                std::lock_guard lock(ownerMutex);
                owner.reset();  // the last reference, dropped inside the round
                return ConsumerThread::Next::end();
            });
            owner = std::move(thread);
        }
        QVERIFY(ran.wait_for(std::chrono::seconds(30)) == std::future_status::ready);
        QVERIFY(destroyed.wait_for(std::chrono::seconds(30)) == std::future_status::ready);
        QCOMPARE(destroyed.get(), ran.get());
    }
};

QTEST_GUILESS_MAIN(TstHandoff)
#include "tst_handoff.moc"
