// The list that every frame's block passes through: order across wrap-around
// and growth, release of what a block holds, and the main queue's hand-off
// when a block spins an event loop of its own.
#include "base/DispatchQueue.h"
#include "base/RingQueue_p.h"

#include <QEventLoop>
#include <QtTest>

#include <algorithm>
#include <memory>
#include <vector>

using namespace zavo::platform;

class TstQueueRing : public QObject {
    Q_OBJECT

private slots:
    void keepsOrderWhenItGrowsWhileWrapped()
    {
        // Fill, drain part of the front so the ring wraps, then overfill: the
        // growth must unroll the wrapped elements in their order.
        RingQueue<int> ring;
        int next = 0;
        int expected = 0;
        for (int round = 0; round < 6; ++round) {
            while (ring.size() < ring.capacity() || ring.capacity() == 0)
                ring.push(next++);
            for (int i = 0; i < 5; ++i)
                QCOMPARE(ring.pop(), expected++);
            for (int i = 0; i < 9; ++i)
                ring.push(next++);  // wraps, then grows with head in the middle
        }
        while (!ring.empty())
            QCOMPARE(ring.pop(), expected++);
        QCOMPARE(expected, next);
    }

    void keepsItsSlotsAndReleasesWhatItHeld()
    {
        RingQueue<std::shared_ptr<int>> ring;
        auto held = std::make_shared<int>(7);
        for (int i = 0; i < 40; ++i)
            ring.push(held);
        const size_t capacity = ring.capacity();
        QVERIFY(capacity >= 40);
        while (!ring.empty())
            ring.pop();
        // Nothing lingers in an emptied slot: a block's captures must go when
        // the block has run, not when its slot is reused much later.
        QCOMPARE(held.use_count(), 1L);
        // A steady stream at the old high-water mark needs no new storage.
        for (int round = 0; round < 100; ++round) {
            for (int i = 0; i < 40; ++i)
                ring.push(held);
            for (int i = 0; i < 40; ++i)
                ring.pop();
        }
        QCOMPARE(ring.capacity(), capacity);
    }

    void mainQueueBlockThatSpinsAnEventLoopKeepsTheOrder()
    {
        // The first block runs a nested loop, which drains the rest of the
        // list meanwhile; afterwards the outer drain must neither run a block
        // twice nor lose one.
        std::vector<int> order;
        bool done = false;
        DispatchQueue::main().async([&] {
            order.push_back(0);
            QEventLoop nested;
            DispatchQueue::main().async([&] { nested.quit(); });
            nested.exec();
            order.push_back(1);
        });
        for (int i = 2; i < 6; ++i)
            DispatchQueue::main().async([&, i] { order.push_back(i); });
        DispatchQueue::main().async([&] { done = true; });
        QTRY_VERIFY(done);
        // Whether the nested loop runs the later blocks is up to the event
        // loop; that each runs once, in order, is not.
        QCOMPARE(std::count(order.begin(), order.end(), 1), 1L);
        order.erase(std::find(order.begin(), order.end(), 1));
        QCOMPARE(order, (std::vector<int>{0, 2, 3, 4, 5}));
    }
};

QTEST_GUILESS_MAIN(TstQueueRing)
#include "tst_queue_ring.moc"
