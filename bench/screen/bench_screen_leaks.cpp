// The leak check: many whole sessions in one process.
//
//   bench_screen_leaks [sessions]
//
// Builds a camera screen, runs it on the file camera until the best shot,
// waits for the session video to be final, releases the screen; 50 times by
// default. Prints threads (/proc/self/task), open file descriptors
// (/proc/self/fd), resident memory (/proc/self/statm) and the heap in use
// (malloc's own count, over all its arenas) at the start and after every 10
// sessions, and exits non-zero when threads or descriptors have grown by the
// end. Resident memory also counts free memory the allocator keeps in the
// arenas of threads that have come and gone, which swings by tens of MiB
// from sample to sample; the heap in use is what shows a real leak. The first session is a warm-up: what lives for the
// whole process (the detector's cascades, FFmpeg's and Qt's own state) is in
// place after it.
#include "BenchSupport.h"
#include "DemoSession.h"
#include "ProcessCounters.h"

#include <QApplication>
#include <QWidget>
#include <malloc.h>

using namespace zavo;
using namespace zavo::demo;
using zavo::testing::ProcessCounters;

namespace {

double heapInUseMiB()
{
    const struct mallinfo2 info = mallinfo2();
    return double(info.uordblks + info.hblkhd) / (1024.0 * 1024.0);
}

void print(const char* when, int sessions, const ProcessCounters& counters, double heapMiB, double seconds)
{
    std::printf("%-10s %3d sessions  threads %3d (+%d pooled)  fds %3d  rss %7.1f MiB  heap %6.2f MiB  %6.1f s\n",
                when, sessions, counters.threads, counters.pooledThreads, counters.fileDescriptors, counters.rssMiB,
                heapMiB, seconds);
    std::fflush(stdout);
}

bool runSession(DetectorTiming& timing, int index)
{
    DemoSession session(SessionOptions{}, &timing);
    bool settled = false;
    QObject::connect(&session, &DemoSession::videoSettled, [&] { settled = true; });
    QWidget* view = session.view();
    view->resize(bench::kScreenSize);
    view->show();
    session.start();
    if (!bench::runUntil([&] { return settled; }, 60000)) {
        std::fprintf(stderr, "session %d did not end\n", index);
        return false;
    }
    const auto& outcome = *session.outcome();
    if (!outcome.bestShot || !session.video() || !session.video()->finished) {
        std::fprintf(stderr, "session %d: %s\n", index,
                     outcome.error ? qPrintable(outcome.error->localizedDescription())
                                   : qPrintable(session.video() ? session.video()->problem : QString()));
        return false;
    }
    session.release();
    return true;
}

// Threads of a released screen end on their own shortly after. Freed heap
// is handed back to the system first, so that resident memory shows what is
// still in use rather than what the allocator keeps for later.
ProcessCounters settledCounters(const ProcessCounters& target)
{
    malloc_trim(0);
    bench::runUntil([&] {
        const ProcessCounters now = ProcessCounters::now();
        return now.threads <= target.threads && now.fileDescriptors <= target.fileDescriptors;
    }, 10000);
    return ProcessCounters::now();
}

}  // namespace

int main(int argc, char** argv)
{
    bench::prepareEnvironment();
    QApplication app(argc, argv);
    const int sessions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 50;
    bench::Fixture fixture;
    if (!fixture.install())
        return 1;
    DetectorTiming timing;
    const Clock::time_point began = Clock::now();
    auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - began).count(); };

    print("start", 0, ProcessCounters::now(), heapInUseMiB(), 0);
    if (!runSession(timing, 0))
        return 1;
    const ProcessCounters baseline = settledCounters(ProcessCounters::now());
    const double baselineHeap = heapInUseMiB();
    print("warmed up", 1, baseline, baselineHeap, elapsed());
    double lastHeap = baselineHeap;
    ProcessCounters last = baseline;
    for (int index = 1; index <= sessions; ++index) {
        if (!runSession(timing, index))
            return 1;
        if (index % 10 == 0 || index == sessions) {
            last = settledCounters(baseline);
            lastHeap = heapInUseMiB();
            print("after", index, last, lastHeap, elapsed());
        }
    }
    const bool grew = last.threads > baseline.threads || last.fileDescriptors > baseline.fileDescriptors;
    std::printf("%s: threads %+d, fds %+d, rss %+.1f MiB, heap %+.2f MiB over %d sessions after the warm-up\n",
                grew ? "LEAK" : "ok", last.threads - baseline.threads, last.fileDescriptors - baseline.fileDescriptors,
                last.rssMiB - baseline.rssMiB, lastHeap - baselineHeap, sessions);
    return grew ? 1 : 0;
}
