#pragma once
// How a host hears how a camera session ended.
#include "base/ZavoExport.h"
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
/// videoFile names this session's recording: set when the session was
/// built with recording on and the camera delivered at least one frame while
/// it recorded; nullopt when recording was off or this session recorded
/// nothing (permission refused, closed or failed before the first frame). A
/// file at that path from an earlier session is never named. When the
/// outcome arrives the video may still be being finished (assembled or
/// recompressed): videoFinished says when it is final.
class ZAVO_EXPORT ZMCameraDelegate {
public:
    virtual ~ZMCameraDelegate() = default;
    virtual void bestShot(core::ZCBestShotPtr bestShot, std::optional<QString> videoFile) = 0;
    virtual void error(const ZMCameraError& error, std::optional<QString> videoFile) = 0;
    /// The session video named by the outcome is final (assembled, or
    /// recompressed and swapped in): called once, after the outcome, on a
    /// recorder thread. videoFile is the file left at the outcome's path;
    /// nullopt when it was deleted (the configuration keeps only videos with
    /// a face and none was seen) or never written. error says what failed,
    /// if anything (a failed recompression leaves the recording as it was).
    /// Not called when the outcome named no video.
    virtual void videoFinished(std::optional<QString> videoFile, platform::ErrorPtr error)
    {
        (void)videoFile;
        (void)error;
    }
};

}  // namespace zavo
