#include "DemoOptions.h"

#include <algorithm>

namespace zavo::demo {

namespace {
const QString kCamera = QStringLiteral("camera");
const QString kNoRecord = QStringLiteral("no-record");
const QString kOutput = QStringLiteral("output");
const QString kTimeout = QStringLiteral("timeout");
const QString kQuitAfterSession = QStringLiteral("quit-after-session");
const QString kListCameras = QStringLiteral("list-cameras");
const QString kOrientation = QStringLiteral("orientation");
const QString kSteps = QStringLiteral("steps");
const QString kShuffleSteps = QStringLiteral("shuffle-steps");

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

struct StepName {
    const char* name;
    core::ZCStepKind kind;
};
constexpr StepName kStepNames[] = {
    {"look", core::ZCStepKind::LookAtCamera},
    {"left", core::ZCStepKind::TurnHeadLeft},
    {"right", core::ZCStepKind::TurnHeadRight},
    {"closer", core::ZCStepKind::MoveCloser},
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
                                     "test pattern), 'webcam' (the machine's front webcam), a webcam such as "
                                     "/dev/video0, a desktop camera such as pipewire:<node name>, or a video file."),
                      QStringLiteral("camera"), QStringLiteral("default")});
    parser.addOption({kListCameras, QStringLiteral("List the machine's cameras, V4L2 and PipeWire (location, position, name, unique ID) and exit.")});
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
    parser.addOption({kSteps,
                      QStringLiteral("Interaction steps, comma-separated, in order: 'look' (at the camera; the best "
                                     "shot is taken there), 'left', 'right' (turn the head), 'closer' (come closer). "
                                     "Default: one 'look' step."),
                      QStringLiteral("steps")});
    parser.addOption({kShuffleSteps, QStringLiteral("Take the steps in a new random order every session.")});
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
    options.listCameras = parser.isSet(kListCameras);
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
    if (parser.isSet(kSteps)) {
        for (const QString& name : parser.value(kSteps).split(QLatin1Char(','))) {
            const auto step = std::find_if(std::begin(kStepNames), std::end(kStepNames),
                                           [&](const StepName& entry) { return name.trimmed() == QLatin1String(entry.name); });
            if (step == std::end(kStepNames)) {
                *problem = QStringLiteral("--steps takes look, left, right and closer, comma-separated: %1").arg(name);
                return std::nullopt;
            }
            options.steps.push_back(step->kind);
        }
    }
    options.shuffleSteps = parser.isSet(kShuffleSteps);
    return options;
}

}  // namespace zavo::demo
