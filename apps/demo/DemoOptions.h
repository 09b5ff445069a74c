#pragma once
// The demo's command line.
#include "DemoCamera.h"

#include "camera/CaptureTypes.h"
#include "zavocore/ZCBestShotDetectorProtocol.h"

#include <QCommandLineParser>
#include <QStringList>
#include <optional>
#include <vector>

namespace zavo::demo {

struct DemoOptions {
    CameraChoice camera;
    bool recordVideo = true;
    /// Empty: a new folder under the system's temporary folder, kept.
    QString outputDirectory;
    /// 0: no guard.
    int timeoutSeconds = 120;
    /// With a display: end after the first outcome with the summary line, as
    /// without one.
    bool quitAfterSession = false;
    /// Print the webcams and exit.
    bool listCameras = false;
    /// nullopt: follow the screen.
    std::optional<platform::DeviceOrientation> orientation;
    /// The interaction steps, in order; empty: the detector's one "look at
    /// the camera" step.
    std::vector<core::ZCStepKind> steps;
    bool shuffleSteps = false;
};

/// Declares the options (and --help) on parser.
void addDemoOptions(QCommandLineParser& parser);
/// Reads arguments (argv, program name first). nullopt with problem set on a
/// bad value; --help is left to the caller.
std::optional<DemoOptions> parseDemoOptions(QCommandLineParser& parser, const QStringList& arguments,
                                            QString* problem);

}  // namespace zavo::demo
