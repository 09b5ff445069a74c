// How long the camera stays on after the user closes the screen's window.
//
//   bench_session_close [runs]      (in a real X server: xvfb-run ... bench_session_close)
//
// Each run shows a ZMCameraSession as a window on the sample clip's file
// camera, waits for frames, closes the window through QWindow::close (what
// the window manager's close does) and times until the camera is closed,
// then times the session's destructor (which waits for the component's
// threads). The goal for the first is 200 ms.
#include "BenchSupport.h"

#include "camera-screen/ZMCameraSession.h"
#include "camera/file/FileCaptureDevice.h"

#include <QApplication>
#include <QWidget>
#include <QWindow>
#include <chrono>

using namespace zavo;
using Clock = std::chrono::steady_clock;

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        bench::prepareEnvironment();
    else
        qputenv("QT_LOGGING_RULES", "zavo.*.info=false;qt.qpa.*=false");
    QApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 10;
    bench::Fixture fixture;
    if (!fixture.install())
        return 2;
    platform::CaptureAuthorization::setPolicy(std::make_shared<platform::FixedCaptureAuthorizationPolicy>(
        platform::AuthorizationStatus::Authorized));
    std::shared_ptr<platform::FileCaptureDevice> camera;
    for (const auto& device : platform::CaptureDeviceRegistry::shared().allDevices()) {
        if (auto file = std::dynamic_pointer_cast<platform::FileCaptureDevice>(device))
            camera = file;
    }
    if (!camera) {
        std::fprintf(stderr, "no file camera\n");
        return 2;
    }

    std::vector<double> released;
    std::vector<double> destroyed;
    for (int run = 0; run < runs; ++run) {
        auto session = std::make_unique<ZMCameraSession>();
        session->setRecordVideo(run % 2 == 1);  // with and without a recording to finish
        session->view()->resize(bench::kScreenSize);
        session->start();
        if (!bench::runUntil([&] { return camera->isOpen(); }, 10000)
            || !bench::runUntil([&] { return session->view()->isVisible(); }, 10000)) {
            std::fprintf(stderr, "run %d: the camera did not open\n", run);
            return 1;
        }
        // Frames flowing for a moment, as when a user closes a running screen.
        bench::runUntil([] { return false; }, 300);
        const auto closing = Clock::now();
        session->view()->window()->windowHandle()->close();
        if (!bench::runUntil([&] { return !camera->isOpen(); }, 5000)) {
            std::fprintf(stderr, "run %d: the camera stayed open\n", run);
            return 1;
        }
        released.push_back(std::chrono::duration<double, std::milli>(Clock::now() - closing).count());
        bench::runUntil([&] { return session->state() != ZMCameraSession::State::Running; }, 5000);
        const auto deleting = Clock::now();
        session.reset();
        destroyed.push_back(std::chrono::duration<double, std::milli>(Clock::now() - deleting).count());
    }
    std::printf("window closed -> camera closed: median %.1f ms, max %.1f ms (goal 200 ms), %d runs\n",
                bench::percentile(released, 0.5), bench::percentile(released, 1.0), runs);
    std::printf("session destructor (waits for threads): median %.1f ms, max %.1f ms\n",
                bench::percentile(destroyed, 0.5), bench::percentile(destroyed, 1.0));
    return 0;
}
