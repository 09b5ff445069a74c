#pragma once
// One V4L2 camera streaming: format negotiation, mmap buffers, the capture
// thread's wait for the next frame, and its decoding into NV12.
#include "base/ZavoExport.h"
#include "camera/CaptureDevice_p.h"
#include "camera/v4l2/BufferQueue_p.h"
#include "camera/v4l2/Enumeration_p.h"
#include "camera/v4l2/FrameDecoder_p.h"

#include <atomic>
#include <chrono>
#include <memory>

namespace zavo::platform::v4l2 {

/// When a camera that still streams counts as one that sends no pictures.
struct ZAVO_EXPORT StreamLimits {
    /// No buffer at all for this long.
    std::chrono::milliseconds stallTimeout{2000};
    /// This many buffers in a row without a picture: flagged as erroneous
    /// by the driver, empty, or not decodable.
    int unusableRun = 30;
};

class ZAVO_EXPORT Stream final : public CaptureDeviceStream {
public:
    /// Opens the node and starts streaming in format. Null with an error
    /// when the camera is busy (DeviceBusy), forbidden (AccessDenied), does
    /// not keep the format it listed (FormatRefused), has not enough USB
    /// bandwidth for it (NoBandwidth) or fails otherwise; each with its
    /// CameraFailureReason where the user can act on it.
    static std::unique_ptr<Stream> open(std::shared_ptr<Kernel> kernel, const QString& path, const QString& card,
                                        const DriverFormat& format, const StreamLimits& limits, ErrorPtr* error);
    ~Stream() override;

    ReadResult read(SampleBuffer& frame) override;
    void interrupt() override;
    QString endReason() const override { return endReason_; }
    CameraFailureReason endCause() const override { return endCause_; }
    double frameRate() const override { return frameRate_; }

    /// Frames the driver delivered that could not be decoded.
    int64_t damagedFrames() const { return decoder_ ? decoder_->damagedFrames() : 0; }
    /// Buffers the driver flagged as erroneous, and those it returned empty.
    int64_t erroneousBuffers() const { return erroneous_; }
    int64_t emptyBuffers() const { return empty_; }

private:
    enum class Take { Frame, Unusable, NoRoom };

    Stream() = default;
    ReadResult end(const QString& reason, CameraFailureReason cause);
    Take makeFrame(const v4l2_buffer& buffer, SampleBuffer& frame);
    void setFrameRate(int fd, double wanted);
    void setControls(int fd);

    std::shared_ptr<Kernel> kernel_;
    QString path_;
    StreamLimits limits_;
    UniqueFd fd_;
    UniqueFd wake_;
    BufferQueue buffers_;  // after fd_: released while the node is still open
    bool streaming_ = false;
    std::atomic<bool> interrupted_{false};
    double frameRate_ = 0;  // set while opening, read-only afterwards

    // The capture thread's alone once streaming.
    QString endReason_;
    CameraFailureReason endCause_ = CameraFailureReason::None;
    int64_t erroneous_ = 0;
    int64_t empty_ = 0;
    int unusableInARow_ = 0;
    std::chrono::steady_clock::time_point lastBuffer_;
    int64_t firstTimestamp_ = -1;
    std::unique_ptr<FrameDecoder> decoder_;
    std::shared_ptr<PixelBufferPool> pool_;
    std::shared_ptr<const FormatDescription> description_;
};

}  // namespace zavo::platform::v4l2
