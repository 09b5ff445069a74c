#pragma once
// Camera frames turned and mirrored the way a connection shows them. The data
// output and the preview each keep one on the queue that converts their
// frames; the movie output hands the orientation to the encoder's conversion.
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
        Kept,    // the source itself when it is in the format, else converted
        Copied,  // always a converted copy: a consumer that keeps frames
                 // must not hold on to the camera's own buffers
    };

    /// source turned and mirrored as connection shows frames from position
    /// (as delivered when there is no connection), in format. A converted
    /// frame comes from a pool kept for its size and format, so a steady
    /// stream of frames cycles through a few buffers. Null when the frame
    /// cannot be converted.
    std::shared_ptr<PixelBuffer> convert(const std::shared_ptr<PixelBuffer>& source, const CaptureConnection* connection,
                                         CaptureDevicePosition position, PixelFormat format, Upright upright);

    /// How connection shows frames from position: turned clockwise by
    /// rotation degrees, then mirrored left to right (as delivered when there
    /// is no connection). For a consumer that turns frames itself, in a pass
    /// it makes anyway.
    struct Orientation {
        int rotation = 0;
        bool mirrored = false;
    };
    static Orientation orientationOf(const CaptureConnection* connection, CaptureDevicePosition position);

    /// The format of the buffers the last conversion made.
    const std::shared_ptr<const FormatDescription>& description() const { return description_; }

private:
    VideoFrameConverter converter_;
    std::shared_ptr<PixelBufferPool> pool_;
    std::shared_ptr<const FormatDescription> description_;
};

}  // namespace zavo::platform
