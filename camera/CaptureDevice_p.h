#pragma once
// The frame source behind a running capture: one open camera. The session's
// capture thread owns the stream and is the only caller of read(); stop
// requests come from other threads through interrupt().
#include "base/ZavoExport.h"
#include "camera/CaptureDevice.h"
#include "media/SampleBuffer.h"

#include <QString>

namespace zavo::platform {

/// Formats ranked for a session that wants about width x height (either way
/// round; sizes that cover it are measured in the camera's own orientation,
/// that of its largest format). Best first: a frame rate of 24 fps or more,
/// else 15 or more, else the fastest; then the wanted size, else the
/// smallest size that covers it, else the largest smaller one; then
/// uncompressed over compressed, "420v" over other raw formats; then the
/// faster; then the camera's own order.
ZAVO_EXPORT std::vector<CaptureDeviceFormatPtr> rankCaptureFormats(const std::vector<CaptureDeviceFormatPtr>& formats, int width,
                                                       int height);
/// Why the first of ranked (formatsForSessionPreset(preset)) was chosen, in
/// words for the log.
ZAVO_EXPORT QString captureFormatChoiceReason(const std::vector<CaptureDeviceFormatPtr>& ranked, const QString& preset);
/// A four-character code as text, most significant byte first ("420v").
ZAVO_EXPORT QString fourCharCodeText(uint32_t code);

class ZAVO_EXPORT CaptureDeviceStream {
public:
    enum class ReadResult {
        Frame,        // frame holds the next frame
        Interrupted,  // interrupt() was called
        Ended,        // the camera stopped for good (gone, failed); see endReason()
    };

    /// Closing the stream closes the camera.
    virtual ~CaptureDeviceStream() = default;

    /// Waits for the next frame, paced by the camera. Frames come as
    /// NV12 (video or full range) or BGRA pixel buffers, from a pool, with a
    /// presentation time that grows through the whole stream.
    virtual ReadResult read(SampleBuffer& frame) = 0;
    /// Makes a waiting or the next read() return Interrupted. Thread-safe;
    /// never blocks.
    virtual void interrupt() = 0;
    /// Why read() ended, for the log.
    virtual QString endReason() const { return {}; }
};

}  // namespace zavo::platform
