#pragma once
// The demo's command line.
#include "DemoCamera.h"

#include "platform/CaptureTypes.h"

#include <QCommandLineParser>
#include <QStringList>
#include <optional>

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
    /// nullopt: follow the screen.
    std::optional<platform::DeviceOrientation> orientation;
};

/// Declares the options (and --help) on parser.
void addDemoOptions(QCommandLineParser& parser);
/// Reads arguments (argv, program name first). nullopt with problem set on a
/// bad value; --help is left to the caller.
std::optional<DemoOptions> parseDemoOptions(QCommandLineParser& parser, const QStringList& arguments,
                                            QString* problem);

}  // namespace zavo::demo
