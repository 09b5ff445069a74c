// zavocamera-demo: a host application of the ZavoCamera screen.
//
// With a display it shows the camera screen on the chosen front camera and
// then the best shot or the error; without one (or with --quit-after-session)
// it runs one session, saves a screenshot of the running screen and the best
// shot, and prints a one-line JSON summary. See --help.
#include "DemoOptions.h"
#include "DemoWindow.h"
#include "SessionRun.h"
#include "WindowPlacement.h"
#include "capture/ZMCameraDevices.h"

#include "camera/CaptureAuthorization_p.h"
#include "zavocore/ZCStepConfig.h"
#include "shell/DeviceScreen.h"
#include "base/FileSystem.h"

#include <QApplication>
#include <QDir>
#include <QGuiApplication>
#include <QTemporaryDir>
#include <QTextStream>

using namespace zavo;
using namespace zavo::demo;

namespace {

void describeHost()
{
    QCoreApplication::setApplicationName(QStringLiteral("ZavoCamera Demo"));
    QCoreApplication::setApplicationVersion(QStringLiteral("0.1.0"));
    qApp->setProperty("CFBundleVersion", QStringLiteral("1"));
}

// Without a display there is nothing for the default xcb plug-in to open,
// and Qt would abort before --help could be read: run offscreen instead.
void chooseOffscreenWithoutDisplay()
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY")
        && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
}

bool isHeadless()
{
    const QString platform = QGuiApplication::platformName();
    return platform == QLatin1String("offscreen") || platform == QLatin1String("minimal");
}

// Where results go; the component's Documents folder points there too, so the
// session video lands beside the pictures instead of in the user's Documents.
std::optional<QDir> prepareOutput(const QString& requested)
{
    QString path = requested;
    if (path.isEmpty()) {
        QTemporaryDir made(QDir::temp().filePath(QStringLiteral("zavocamera-demo-XXXXXX")));
        if (!made.isValid())
            return std::nullopt;
        made.setAutoRemove(false);
        path = made.path();
    }
    if (!QDir().mkpath(path))
        return std::nullopt;
    const QDir dir(QDir(path).absolutePath());
    platform::setDocumentsDirectory(dir.path());
    return dir;
}

// The offscreen platform warns about every window it cannot pass size hints
// on for; that says nothing about the session.
QtMessageHandler previousHandler = nullptr;
void dropOffscreenNoise(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (message == QLatin1String("This plugin does not support propagateSizeHints()"))
        return;
    previousHandler(type, context, message);
}

}  // namespace

/// --list-cameras: one tab-separated line per camera of the machine.
int listCameras()
{
    QTextStream out(stdout);
    const auto cameras = ZMCameraDevices::availableCameras();
    for (const auto& camera : cameras) {
        const char* position = camera.position == platform::CaptureDevicePosition::Front  ? "front"
                               : camera.position == platform::CaptureDevicePosition::Back ? "back"
                                                                                          : "unspecified";
        out << camera.location << '\t' << position << '\t' << camera.name << '\t' << camera.uniqueID << '\n';
    }
    if (cameras.empty())
        QTextStream(stderr) << "zavocamera-demo: no camera found\n";
    return 0;
}

int main(int argc, char** argv)
{
    chooseOffscreenWithoutDisplay();
    // Without a display the screenshots are taken at twice the point size, as
    // a phone's screen shows the camera: the preview at the clip's 720x1280.
    if (qgetenv("QT_QPA_PLATFORM") == "offscreen" && qEnvironmentVariableIsEmpty("QT_SCALE_FACTOR"))
        qputenv("QT_SCALE_FACTOR", "2");
    previousHandler = qInstallMessageHandler(dropOffscreenNoise);
    QApplication app(argc, argv);
    describeHost();

    QCommandLineParser parser;
    addDemoOptions(parser);
    QString problem;
    const auto options = parseDemoOptions(parser, app.arguments(), &problem);
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp(0);
    if (!options) {
        QTextStream(stderr) << "zavocamera-demo: " << problem << '\n';
        return 2;
    }
    if (options->listCameras)
        return listCameras();
    const auto camera = FrontCamera::install(options->camera, &problem);
    if (!camera) {
        QTextStream(stderr) << "zavocamera-demo: " << problem << '\n';
        return 2;
    }
    const auto output = prepareOutput(options->outputDirectory);
    if (!output) {
        QTextStream(stderr) << "zavocamera-demo: cannot create the output folder " << options->outputDirectory << '\n';
        return 2;
    }
    // Linux asks nobody for the camera; the host answers the component's
    // request itself, the way a user would tap "Allow".
    platform::CaptureAuthorization::setPolicy(std::make_shared<platform::FixedCaptureAuthorizationPolicy>(
        platform::AuthorizationStatus::NotDetermined, true));
    if (options->orientation)
        platform::Device::setOrientationOverride(options->orientation);

    SessionOptions sessionOptions;
    sessionOptions.recordVideo = options->recordVideo;
    for (const core::ZCStepKind kind : options->steps)
        sessionOptions.steps.push_back(std::make_shared<core::ZCStepConfig>(kind));
    if (options->shuffleSteps)
        sessionOptions.adjustConfiguration = [](core::ZCZavoConfiguration& configuration) {
            configuration.detector.shuffleSteps = true;
        };
    if (isHeadless() || options->quitAfterSession) {
        SessionRun run(sessionOptions, *output, options->timeoutSeconds,
                       isHeadless() ? SessionRun::Display::Offscreen : SessionRun::Display::Window);
        QObject::connect(&run, &SessionRun::exitRequested, &app, [](int status) { QCoreApplication::exit(status); },
                         Qt::QueuedConnection);
        // The run says when to quit, with its status: the session's view
        // closing as it winds down is not the end.
        app.setQuitOnLastWindowClosed(false);
        run.start();
        return app.exec();
    }
    QTextStream(stderr) << "zavocamera-demo: camera " << camera->description() << ", output " << output->path() << '\n';
    DemoWindow window(sessionOptions);
    showPlaced(&window);
    window.startSession();
    return app.exec();
}
