#pragma once
// One V4L2 camera streaming: format negotiation, mmap buffers, the capture
// thread's wait for the next frame, and its decoding into NV12.
#include "base/ZavoExport.h"
#include "camera/CaptureDevice_p.h"
#include "camera/v4l2/BufferQueue_p.h"
#include "camera/v4l2/Enumeration_p.h"
#include "camera/v4l2/FrameDecoder_p.h"

#include <atomic>
#include <memory>

namespace zavo::platform::v4l2 {

class ZAVO_EXPORT Stream final : public CaptureDeviceStream {
public:
    /// Opens the node and starts streaming in format. Null with an error
    /// when the camera is busy (DeviceBusy), forbidden (AccessDenied), does
    /// not keep the format it listed (FormatRefused) or fails otherwise.
    static std::unique_ptr<Stream> open(std::shared_ptr<Kernel> kernel, const QString& path, const QString& card,
                                        const DriverFormat& format, ErrorPtr* error);
    ~Stream() override;

    ReadResult read(SampleBuffer& frame) override;
    void interrupt() override;
    QString endReason() const override { return endReason_; }

    /// Frames the driver delivered that could not be decoded.
    int64_t damagedFrames() const { return decoder_ ? decoder_->damagedFrames() : 0; }

private:
    Stream() = default;
    ReadResult end(const QString& reason);
    bool makeFrame(const v4l2_buffer& buffer, SampleBuffer& frame);

    std::shared_ptr<Kernel> kernel_;
    QString path_;
    UniqueFd fd_;
    UniqueFd wake_;
    BufferQueue buffers_;  // after fd_: released while the node is still open
    bool streaming_ = false;
    std::atomic<bool> interrupted_{false};
    QString endReason_;

    int64_t firstTimestamp_ = -1;
    std::unique_ptr<FrameDecoder> decoder_;
    std::shared_ptr<PixelBufferPool> pool_;
    std::shared_ptr<const FormatDescription> description_;
};

}  // namespace zavo::platform::v4l2
