// The GUI thread's cost of the QML preview against the widget preview, in
// the same run: the same 720x1280 clip played as a camera into a 540x960
// window, in a real X server (the benchmark starts Xvfb for itself when it
// has no display).
//
//   bench_quick_preview [seconds]
//
// Each preview runs for the given seconds (default 5) once it has shown ten
// frames. Every event the GUI thread handles meanwhile is timed; the sum is
// divided by the camera frames the preview presented (widget: frames
// painted; QML: frames turned into textures). The QML preview is measured
// with the basic render loop (everything, rendering included, on the GUI
// thread) in this process and with the threaded loop (the GUI thread only
// polishes and waits for the sync) in a child process, since the loop is
// chosen once per process.
#include "BenchSupport.h"
#include "camera/CaptureSession.h"
#include "camera/CaptureVideoPreviewLayer.h"
#include "camera/file/FileCaptureDevice.h"
#include "quick/CameraPreviewItem.h"
#include "shell/CaptureVideoPreviewView_p.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QProcess>
#include <QQuickWindow>
#include <QStandardPaths>
#include <QThread>
#include <QTimer>
#include <QWidget>

#include <chrono>
#include <cstdio>
#include <functional>
#include <unistd.h>

using namespace zavo;
using Clock = std::chrono::steady_clock;

namespace {

const QString kClip = QStringLiteral(ZAVO_TEST_DATA_DIR "/A_zoom_blur_dark.mp4");
constexpr QSize kWindowSize(540, 960);
constexpr char kInXvfb[] = "ZAVO_BENCH_IN_XVFB";
constexpr char kQmlOnly[] = "--qml-only";

double ms(Clock::duration duration) { return std::chrono::duration<double, std::milli>(duration).count(); }

/// Times the outermost events of the GUI thread while recording.
class TimedApplication final : public QApplication {
public:
    using QApplication::QApplication;

    bool recording = false;
    double busyMs = 0;
    int events = 0;

    bool notify(QObject* receiver, QEvent* event) override
    {
        if (depth_ > 0 || !recording || QThread::currentThread() != thread()) {
            ++depth_;
            const bool result = QApplication::notify(receiver, event);
            --depth_;
            return result;
        }
        ++depth_;
        const Clock::time_point began = Clock::now();
        const bool result = QApplication::notify(receiver, event);
        busyMs += ms(Clock::now() - began);
        ++events;
        --depth_;
        return result;
    }

private:
    int depth_ = 0;
};

/// The clip as a front camera, streaming into a preview layer.
struct Camera {
    std::shared_ptr<platform::FileCaptureDevice> device;
    std::shared_ptr<platform::CaptureSession> session = platform::CaptureSession::create();
    platform::CaptureVideoPreviewLayerPtr layer = platform::CaptureVideoPreviewLayer::layerWithSession(session);

    bool start()
    {
        platform::ErrorPtr error;
        device = platform::FileCaptureDevice::create(kClip, platform::CaptureDevicePosition::Front, &error);
        if (!device) {
            std::fprintf(stderr, "cannot play %s\n", qPrintable(kClip));
            return false;
        }
        session->addInput(platform::CaptureDeviceInput::deviceInputWithDevice(device, nullptr));
        session->startRunning();
        layer->setFrame(QRectF(QPointF(0, 0), kWindowSize));
        return true;
    }
    ~Camera() { session->stopRunning(); }
};

struct Result {
    double perFrameMs = 0;
    int frames = 0;
    double seconds = 0;
};

/// Records the GUI thread while frames() counts presented frames.
Result measure(TimedApplication& app, const std::function<int()>& frames, int seconds)
{
    if (!bench::runUntil([&] { return frames() >= 10; }, 20000))
        return {};
    const int before = frames();
    app.busyMs = 0;
    app.events = 0;
    app.recording = true;
    QElapsedTimer wall;
    wall.start();
    bench::runUntil([] { return false; }, seconds * 1000);
    app.recording = false;
    Result result;
    result.frames = frames() - before;
    result.seconds = wall.elapsed() / 1000.0;
    result.perFrameMs = result.frames ? app.busyMs / result.frames : 0;
    return result;
}

Result widgetPreview(TimedApplication& app, int seconds)
{
    Camera camera;
    if (!camera.start())
        return {};
    QWidget window;
    window.resize(kWindowSize);
    auto* view = new platform::CaptureVideoPreviewView(camera.layer, &window);  // the window's child
    window.show();
    return measure(app, [view] { return view->paintedFrameCount(); }, seconds);
}

Result qmlPreview(TimedApplication& app, int seconds)
{
    Camera camera;
    if (!camera.start())
        return {};
    QQuickWindow window;
    window.resize(kWindowSize);
    window.setColor(Qt::black);
    quick::CameraPreviewItem preview(window.contentItem());
    preview.setSize(QSizeF(kWindowSize));
    preview.setPreviewLayer(camera.layer);
    window.show();
    const Result result = measure(app, [&preview] { return preview.uploadedFrames(); }, seconds);
    preview.setPreviewLayer(nullptr);
    return result;
}

void print(const char* name, const Result& result)
{
    std::printf("  %-34s %7.3f ms per frame (%d frames in %.1f s, %.1f fps)\n", name, result.perFrameMs,
                result.frames, result.seconds, result.seconds > 0 ? result.frames / result.seconds : 0.0);
}

/// The QML preview with the threaded render loop, from a child process.
std::optional<Result> threadedInChild(const char* self, int seconds)
{
    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QSG_RENDER_LOOP"), QStringLiteral("threaded"));
    child.setProcessEnvironment(environment);
    child.start(QString::fromLocal8Bit(self), {QString::fromLatin1(kQmlOnly), QString::number(seconds)});
    if (!child.waitForFinished(120000) || child.exitCode() != 0)
        return std::nullopt;
    const QList<QByteArray> fields = child.readAllStandardOutput().trimmed().split(' ');
    if (fields.size() != 3)
        return std::nullopt;
    return Result{fields[0].toDouble(), fields[1].toInt(), fields[2].toDouble()};
}

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY") && !qEnvironmentVariableIsSet(kInXvfb)) {
        const QString xvfbRun = QStandardPaths::findExecutable(QStringLiteral("xvfb-run"));
        if (xvfbRun.isEmpty()) {
            std::fprintf(stderr, "needs an X server: install xvfb, or run with DISPLAY set\n");
            return 1;
        }
        qputenv(kInXvfb, "1");
        // -a looks for a free display from -n on; starting where this process's
        // id points keeps programs started together from racing for the same one.
        const QByteArray firstDisplay = QByteArray::number(100 + getpid() % 800);
        std::vector<QByteArray> arguments{xvfbRun.toLocal8Bit(), "-a", "-n", firstDisplay, "-s",
                                          "-screen 0 1920x1080x24", argv[0]};
        for (int i = 1; i < argc; ++i)
            arguments.emplace_back(argv[i]);
        std::vector<char*> pointers;
        for (QByteArray& argument : arguments)
            pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        execv(pointers.front(), pointers.data());
        return 1;
    }
    qputenv("QT_QPA_PLATFORM", "xcb");
    if (qEnvironmentVariableIsEmpty("QT_LOGGING_RULES"))
        qputenv("QT_LOGGING_RULES", "zavo.*.info=false;qt.qpa.*=false");
    const bool qmlOnly = argc > 1 && qstrcmp(argv[1], kQmlOnly) == 0;
    if (!qmlOnly && qEnvironmentVariableIsEmpty("QSG_RENDER_LOOP"))
        qputenv("QSG_RENDER_LOOP", "basic");
    const int seconds = std::max(1, argc > (qmlOnly ? 2 : 1) ? std::atoi(argv[qmlOnly ? 2 : 1]) : 5);

    TimedApplication app(argc, argv);
    platform::CaptureDeviceRegistry::shared().setProviders({});
    if (qmlOnly) {
        const Result qml = qmlPreview(app, seconds);
        std::printf("%.4f %d %.2f\n", qml.perFrameMs, qml.frames, qml.seconds);
        return qml.frames > 0 ? 0 : 1;
    }

    std::printf("preview of a 720x1280 clip in a %dx%d window, GUI-thread time per presented frame:\n",
                kWindowSize.width(), kWindowSize.height());
    const Result widget = widgetPreview(app, seconds);
    print("widget (paint events, X flush)", widget);
    const Result basic = qmlPreview(app, seconds);
    print(qPrintable(QStringLiteral("QML, %1 render loop").arg(qEnvironmentVariable("QSG_RENDER_LOOP"))), basic);
    const auto threaded = threadedInChild(argv[0], seconds);
    if (threaded)
        print("QML, threaded render loop", *threaded);
    else
        std::printf("  QML, threaded render loop: the child run failed\n");
    if (widget.perFrameMs > 0) {
        std::printf("  ratio QML basic / widget: %.2f\n", basic.perFrameMs / widget.perFrameMs);
        if (threaded)
            std::printf("  ratio QML threaded / widget: %.2f\n", threaded->perFrameMs / widget.perFrameMs);
    }
    return widget.frames > 0 && basic.frames > 0 ? 0 : 1;
}
