#include "DemoOptions.h"

#include <algorithm>

namespace zavo::demo {

namespace {
const QString kCamera = QStringLiteral("camera");
const QString kNoRecord = QStringLiteral("no-record");
const QString kOutput = QStringLiteral("output");
const QString kTimeout = QStringLiteral("timeout");
const QString kQuitAfterSession = QStringLiteral("quit-after-session");
const QString kOrientation = QStringLiteral("orientation");

struct OrientationName {
    const char* name;
    std::optional<platform::DeviceOrientation> orientation;
};
constexpr OrientationName kOrientations[] = {
    {"screen", std::nullopt},
    {"portrait", platform::DeviceOrientation::Portrait},
    {"landscape-left", platform::DeviceOrientation::LandscapeLeft},
    {"landscape-right", platform::DeviceOrientation::LandscapeRight},
    {"upside-down", platform::DeviceOrientation::PortraitUpsideDown},
};
}  // namespace

void addDemoOptions(QCommandLineParser& parser)
{
    parser.setApplicationDescription(QStringLiteral(
        "Runs a face-capture session with the ZavoCamera screen. With a display it shows the screen and then the "
        "best shot; without one (QT_QPA_PLATFORM=offscreen) it runs one session, saves the best shot and a "
        "screenshot, and prints a one-line JSON summary (exit 0 on a best shot)."));
    parser.addHelpOption();
    parser.addOption({kCamera,
                      QStringLiteral("The front camera: 'default' (the built-in sample face clip), 'synthetic' (a "
                                     "test pattern), a webcam such as /dev/video0, or a video file."),
                      QStringLiteral("camera"), QStringLiteral("default")});
    parser.addOption({kNoRecord, QStringLiteral("Do not record the session video.")});
    parser.addOption({kOutput,
                      QStringLiteral("Folder for the best shot, the screenshot and the session video (under "
                                     "bright_fold/). Default: a new folder in the system's temporary folder."),
                      QStringLiteral("dir")});
    parser.addOption({kTimeout,
                      QStringLiteral("Give up on a session after this many seconds, with an error summary "
                                     "(0: never). Default 120."),
                      QStringLiteral("seconds"), QStringLiteral("120")});
    parser.addOption({kQuitAfterSession,
                      QStringLiteral("With a display too: quit after the first outcome, printing the one-line JSON "
                                     "summary and exiting as without a display.")});
    parser.addOption({kOrientation,
                      QStringLiteral("How the camera is turned: 'screen' (follow the rotation of the screen showing "
                                     "the camera, the default), or pinned to 'portrait', 'landscape-left', "
                                     "'landscape-right' or 'upside-down' (a camera mounted turned)."),
                      QStringLiteral("orientation"), QStringLiteral("screen")});
}

std::optional<DemoOptions> parseDemoOptions(QCommandLineParser& parser, const QStringList& arguments,
                                            QString* problem)
{
    if (!parser.parse(arguments)) {
        *problem = parser.errorText();
        return std::nullopt;
    }
    if (!parser.positionalArguments().isEmpty()) {
        *problem = QStringLiteral("unexpected argument: %1").arg(parser.positionalArguments().constFirst());
        return std::nullopt;
    }
    DemoOptions options;
    const auto camera = parseCameraChoice(parser.value(kCamera), problem);
    if (!camera)
        return std::nullopt;
    options.camera = *camera;
    options.recordVideo = !parser.isSet(kNoRecord);
    options.outputDirectory = parser.value(kOutput);
    bool ok = false;
    options.timeoutSeconds = parser.value(kTimeout).toInt(&ok);
    if (!ok || options.timeoutSeconds < 0) {
        *problem = QStringLiteral("--timeout needs a whole number of seconds, 0 or more: %1").arg(parser.value(kTimeout));
        return std::nullopt;
    }
    options.quitAfterSession = parser.isSet(kQuitAfterSession);
    const QString orientation = parser.value(kOrientation);
    const auto named = std::find_if(std::begin(kOrientations), std::end(kOrientations),
                                    [&](const OrientationName& entry) { return orientation == QLatin1String(entry.name); });
    if (named == std::end(kOrientations)) {
        *problem = QStringLiteral("--orientation takes screen, portrait, landscape-left, landscape-right or "
                                  "upside-down: %1")
                       .arg(orientation);
        return std::nullopt;
    }
    options.orientation = named->orientation;
    return options;
}

}  // namespace zavo::demo
