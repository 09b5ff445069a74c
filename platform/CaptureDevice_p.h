#pragma once
// The frame source behind a running capture: one open camera. The session's
// capture thread owns the stream and is the only caller of read(); stop
// requests come from other threads through interrupt().
#include "platform/CaptureDevice.h"
#include "platform/SampleBuffer.h"

#include <QString>

namespace zavo::platform {

class CaptureDeviceStream {
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
