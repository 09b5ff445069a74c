#pragma once
// Camera frames turned and mirrored the way a connection shows them. The data
// output, the movie output and the preview each keep one on the queue that
// converts their frames.
#include "base/ZavoExport.h"
#include "camera/CaptureSession.h"
#include "media/PixelBuffer.h"
#include "media/SampleBuffer.h"
#include "media/VideoFrameConverter_p.h"

#include <memory>

namespace zavo::platform {

/// Not thread-safe: one per queue.
class ZAVO_EXPORT OrientedFrameConverter {
public:
    /// What becomes of a frame that needs neither a turn nor a mirror.
    enum class Upright {
        Kept,         // the source itself, whatever its format (the encoder takes any)
        KeptInFormat, // the source itself when it is in the format, else converted
        Copied,       // always a converted copy: a consumer that keeps frames
                      // must not hold on to the camera's own buffers
    };

    /// source turned and mirrored as connection shows frames from position
    /// (as delivered when there is no connection), in format. A converted
    /// frame comes from a pool kept for its size and format, so a steady
    /// stream of frames cycles through a few buffers. Null when the frame
    /// cannot be converted.
    std::shared_ptr<PixelBuffer> convert(const std::shared_ptr<PixelBuffer>& source, const CaptureConnection* connection,
                                         CaptureDevicePosition position, PixelFormat format, Upright upright);

    /// The format of the buffers the last conversion made.
    const std::shared_ptr<const FormatDescription>& description() const { return description_; }

private:
    VideoFrameConverter converter_;
    std::shared_ptr<PixelBufferPool> pool_;
    std::shared_ptr<const FormatDescription> description_;
};

}  // namespace zavo::platform
