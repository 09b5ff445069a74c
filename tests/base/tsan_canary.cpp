// A race the ThreadSanitizer job must report: two threads of ours write one
// QByteArray with no lock between them. It runs with the suite's own
// suppressions, so a suppression that grows wide enough to hide our own
// writes to Qt's value types turns this test red.
#include <QByteArray>

#include <thread>

namespace {

// Writes through the inline accessors, as our code writes a frame's bytes or
// a string's characters; no call into Qt orders the two threads.
Q_NEVER_INLINE void scribble(QByteArray& shared, char mark)
{
    for (int i = 0; i < 4096; ++i)
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
