// Frame hand-offs between threads: the single-producer ring and the newest slot.
#include "base/FrameHandoff_p.h"

#include <QtTest>
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
};

QTEST_GUILESS_MAIN(TstHandoff)
#include "tst_handoff.moc"
