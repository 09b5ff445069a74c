// The main thread's cost of a running camera screen, and how fast a session
// gets going.
//
//   bench_screen_session [seconds]
//
// 1. A session on the file camera (720x1280, 30 fps) with the preview shown
//    offscreen and repainting, kept running for the given seconds (default 5)
//    by a detector that never settles on a shot. Every event the main thread
//    handles is timed: the frame hop (the queued call that gives a frame to
//    the detector), painting (update requests and paint events), and the
//    rest. Goal: under 4 ms of main-thread time per frame.
// 2. Builder call to first frame at the detector, over 10 sessions. Goal:
//    under 300 ms.
#include "BenchSupport.h"
#include "DemoSession.h"

#include <QApplication>
#include <QThread>
#include <QWidget>
#include <map>

using namespace zavo;
using namespace zavo::demo;
using bench::percentile;

namespace {

constexpr double kFrameGoalMs = 4.0;
constexpr double kFirstFrameGoalMs = 300.0;
constexpr int kFirstFrameRuns = 10;

double ms(Clock::duration duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

/// Times the outermost events of the main thread while recording is on.
class TimedApplication final : public QApplication {
public:
    using QApplication::QApplication;

    bool recording = false;
    bool frameInEvent = false;  // set by the detector's frame observer
    std::vector<double> hopMs, paintMs, otherMs;
    std::map<QByteArray, double> paintByReceiver;  // "class event-type": total ms

    bool notify(QObject* receiver, QEvent* event) override
    {
        if (depth_ > 0 || !recording || QThread::currentThread() != thread()) {
            ++depth_;
            const bool result = QApplication::notify(receiver, event);
            --depth_;
            return result;
        }
        frameInEvent = false;
        const auto type = event->type();
        ++depth_;
        const Clock::time_point began = Clock::now();
        const bool result = QApplication::notify(receiver, event);
        const double spent = ms(Clock::now() - began);
        --depth_;
        if (frameInEvent)
            hopMs.push_back(spent);
        else if (type == QEvent::UpdateRequest || type == QEvent::Paint || type == QEvent::UpdateLater) {
            paintMs.push_back(spent);
            paintByReceiver[QByteArray(receiver->metaObject()->className()) + " " + QByteArray::number(int(type))] += spent;
        }
        else
            otherMs.push_back(spent);
        return result;
    }

private:
    int depth_ = 0;
};

void printSeries(const char* name, const std::vector<double>& values, int frames)
{
    double total = 0;
    for (double value : values)
        total += value;
    std::printf("  %-22s %6zu events  median %6.3f ms  p95 %6.3f ms  per frame %6.3f ms\n", name, values.size(),
                percentile(values, 0.5), percentile(values, 0.95), frames ? total / frames : 0.0);
}

int measureRunningSession(TimedApplication& app, DetectorTiming& timing, int seconds)
{
    SessionOptions options;
    options.recordVideo = true;
    // A shot that can never be steady enough: the session runs until closed.
    options.adjustConfiguration = [](core::ZCZavoConfiguration& configuration) {
        configuration.detector.steadyDuration = 1e6;
        configuration.detector.stepTimeout = 1e6;
    };
    DemoSession session(options, &timing);
    std::vector<double> pushMs;
    timing.setFrameObserver([&](Clock::duration push) {
        pushMs.push_back(ms(push));
        app.frameInEvent = true;
    });
    QWidget* view = session.view();
    view->resize(bench::kScreenSize);
    view->show();
    session.start();
    if (!bench::runUntil([&] { return timing.framesPushed() >= 10; }, 10000)) {
        std::fprintf(stderr, "no frames reached the detector\n");
        return 1;
    }
    const int framesBefore = timing.framesPushed();
    pushMs.clear();
    app.recording = true;
    const Clock::time_point began = Clock::now();
    bench::runUntil([] { return false; }, seconds * 1000);
    app.recording = false;
    const double wallMs = ms(Clock::now() - began);
    const int frames = timing.framesPushed() - framesBefore;
    timing.setFrameObserver({});
    bool settled = false;
    QObject::connect(&session, &DemoSession::videoSettled, [&] { settled = true; });
    session.cancel();
    bench::runUntil([&] { return settled; }, 30000);
    session.release();

    double busy = 0;
    for (const auto* series : {&app.hopMs, &app.paintMs, &app.otherMs})
        for (double value : *series)
            busy += value;
    std::printf("running session, %d s, preview %dx%d device pixels: %d frames (%.1f fps)\n", seconds,
                int(bench::kScreenSize.width() * app.devicePixelRatio()),
                int(bench::kScreenSize.height() * app.devicePixelRatio()), frames, frames * 1000.0 / wallMs);
    printSeries("frame hop (pushFrame)", app.hopMs, frames);
    printSeries("  of it pushFrame", pushMs, frames);
    printSeries("painting", app.paintMs, frames);
    printSeries("other events", app.otherMs, frames);
    for (const auto& [receiver, total] : app.paintByReceiver)
        std::printf("    painting by %-40s %6.3f ms per frame\n", receiver.constData(), frames ? total / frames : 0.0);
    const double hopAndPaint = percentile(app.hopMs, 0.5) + percentile(app.paintMs, 0.5);
    const double perFrame = frames ? busy / frames : 0;
    std::printf("  main thread busy per frame %.3f ms (%.1f%% of the time); hop + paint medians %.3f ms\n", perFrame,
                100.0 * busy / wallMs, hopAndPaint);
    std::printf("  ratio to the %.0f ms goal: per frame %.2f, hop+paint p95 %.2f\n", kFrameGoalMs, perFrame / kFrameGoalMs,
                (percentile(app.hopMs, 0.95) + percentile(app.paintMs, 0.95)) / kFrameGoalMs);
    return 0;
}

int measureFirstFrame(DetectorTiming& timing)
{
    std::vector<double> firstFrameMs;
    for (int run = 0; run < kFirstFrameRuns; ++run) {
        SessionOptions options;
        options.recordVideo = true;
        DemoSession session(options, &timing);
        QWidget* view = session.view();
        view->resize(bench::kScreenSize);
        view->show();
        session.start();
        if (!bench::runUntil([&] { return timing.timeToFirstFrame().has_value(); }, 10000)) {
            std::fprintf(stderr, "run %d: no first frame\n", run);
            return 1;
        }
        firstFrameMs.push_back(ms(*timing.timeToFirstFrame()));
        // The next session empties the recording folder: let this one's
        // video be finished first.
        bool settled = false;
        QObject::connect(&session, &DemoSession::videoSettled, [&] { settled = true; });
        session.cancel();
        bench::runUntil([&] { return settled; }, 20000);
        session.release();
    }
    const double median = percentile(firstFrameMs, 0.5);
    std::printf("builder call to first frame at the detector, %d sessions: median %.1f ms, min %.1f, max %.1f;"
                " ratio to the %.0f ms goal %.2f\n",
                kFirstFrameRuns, median, percentile(firstFrameMs, 0), percentile(firstFrameMs, 1), kFirstFrameGoalMs,
                median / kFirstFrameGoalMs);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    bench::prepareEnvironment();
    TimedApplication app(argc, argv);
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    bench::Fixture fixture;
    if (!fixture.install())
        return 1;
    DetectorTiming timing;
    if (const int status = measureFirstFrame(timing))
        return status;
    return measureRunningSession(app, timing, seconds);
}
