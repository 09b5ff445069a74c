#pragma once
// How a host hears how a camera session ended.
#include "camera-screen/ZMCameraError.h"
#include "zavocore/ZCBestShot.h"

#include <QString>
#include <optional>

namespace zavo {

/// The host's callback object. The screen holds it weakly: once the host lets
/// go of it, outcomes are dropped silently.
///
/// Threads: called from the capture manager's stop completion, on the main
/// thread when the session was not running and otherwise on one of the
/// capture manager's queues. Move interface work to the main thread yourself.
///
/// videoFile is the session video's path when the session was built with
/// recording on (for every outcome, cancel and refused permission included),
/// and nullopt when it was off.
class ZMCameraDelegate {
public:
    virtual ~ZMCameraDelegate() = default;
    virtual void bestShot(core::ZCBestShotPtr bestShot, std::optional<QString> videoFile) = 0;
    virtual void error(const ZMCameraError& error, std::optional<QString> videoFile) = 0;
};

}  // namespace zavo
