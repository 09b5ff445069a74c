// A race the ThreadSanitizer job must report: two threads of ours write one
// QByteArray with no lock between them. It runs with the suite's own
// suppressions, so a suppression that grows wide enough to hide our own
// writes to Qt's value types turns this test red.
#include <QByteArray>

#include <atomic>
#include <thread>

namespace {

std::atomic<int> arrived{0};

// Writes through the inline accessors, as our code writes a frame's bytes or
// a string's characters. The two threads first wait for each other with
// relaxed atomics, which order nothing: the sanitizer reports a race only
// between accesses whose threads both still run, and this one must not
// depend on how the scheduler starts them.
Q_NEVER_INLINE void scribble(QByteArray& shared, char mark)
{
    arrived.fetch_add(1, std::memory_order_relaxed);
    while (arrived.load(std::memory_order_relaxed) < 2) {
    }
    for (int i = 0; i < 100000; ++i)
        shared[i % shared.size()] = mark;
}

}  // namespace

int main()
{
    QByteArray shared(64, '.');
    shared.detach();
    std::thread first(scribble, std::ref(shared), 'a');
    std::thread second(scribble, std::ref(shared), 'b');
    first.join();
    second.join();
    return shared.isEmpty() ? 1 : 0;
}
