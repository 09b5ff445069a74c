// A host that shuts its application down while the component still has work
// in flight: a background queue posting to the main queue afterwards must
// neither stop the process nor destroy what the block holds without an
// application (the block would have run on the GUI thread). Own main():
// the test needs the application object to end before the process does.
#include "base/DispatchQueue.h"

#include <QCoreApplication>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>

using zavo::platform::DispatchQueue;

namespace {

// Stands for a GUI object: only valid to destroy while the application exists.
struct NeedsApplication {
    ~NeedsApplication()
    {
        if (!QCoreApplication::instance()) {
            std::fputs("FAIL: destroyed after the application\n", stderr);
            std::abort();
        }
    }
};

}  // namespace

int main(int argc, char** argv)
{
    auto queue = DispatchQueue::create(QStringLiteral("com.zavo.tests.late"));
    {
        QCoreApplication app(argc, argv);
        // Queued while the application lives, but its loop never runs again.
        DispatchQueue::main().async([held = std::make_shared<NeedsApplication>()] {
            std::fputs("FAIL: ran without an event loop\n", stderr);
            std::abort();
        });
    }
    std::atomic<bool> posted{false};
    queue->sync([&] {
        DispatchQueue::main().async([held = std::make_shared<NeedsApplication>()] {
            std::fputs("FAIL: ran after the application\n", stderr);
            std::abort();
        });
        posted = true;
    });
    std::puts(posted ? "PASS: late work to the main queue is kept, never run" : "FAIL: not posted");
    return posted ? 0 : 1;
}
