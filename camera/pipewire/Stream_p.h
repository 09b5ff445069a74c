#pragma once
// One PipeWire camera streaming into the capture thread. PipeWire hands the
// newest filled buffer over on its loop thread; the capture thread decodes
// it straight from the mapped memory (the one conversion every camera frame
// gets) and gives the buffer back. A buffer the capture thread has not taken
// yet is returned as soon as a newer one arrives, so a slow reader sees the
// latest picture rather than a queue.
#include "base/ThreadSafety.h"
#include "base/ZavoExport.h"
#include "camera/CaptureDevice_p.h"
#include "camera/pipewire/Connection_p.h"
#include "camera/v4l2/FrameDecoder_p.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <vector>

struct pw_stream;
struct pw_buffer;
struct spa_hook;

namespace zavo::platform::pipewire {

class ZAVO_EXPORT Stream final : public CaptureDeviceStream {
public:
    /// Connects to camera in format and waits (up to two seconds) for
    /// PipeWire to agree on it. Null with an error when the daemon refuses
    /// the stream or the format (FormatRefused: the caller tries its next).
    static std::unique_ptr<Stream> open(std::shared_ptr<Connection> connection, const CameraNode& camera,
                                        const NodeFormat& format, ErrorPtr* error);
    ~Stream() override;

    ReadResult read(SampleBuffer& frame) override;
    void interrupt() override;
    QString endReason() const override;
    CameraFailureReason endCause() const override;

    /// How long read() waits for a picture before it ends the stream.
    static constexpr std::chrono::milliseconds kStallTimeout{2000};

    /// Buffers PipeWire marked corrupted, or empty, that were skipped.
    int64_t skippedBuffers() const;

private:
    struct Mapping;
    struct Negotiated {
        uint32_t v4l2Format = 0;
        int width = 0;
        int height = 0;
    };
    Stream() = default;

    // On PipeWire's loop thread.
    void stateChanged(int state, const char* error) ZAVO_REQUIRES(connection_->loop());
    void formatChanged(const struct spa_pod* param) ZAVO_REQUIRES(connection_->loop());
    void process() ZAVO_REQUIRES(connection_->loop());
    void addBuffer(pw_buffer* buffer) ZAVO_REQUIRES(connection_->loop());
    void removeBuffer(pw_buffer* buffer) ZAVO_REQUIRES(connection_->loop());
    void endWith(const QString& reason, CameraFailureReason cause) ZAVO_EXCLUDES(mutex_);

    // On the capture thread.
    enum class Made { Frame, Damaged, Dropped };
    Made makeFrame(pw_buffer* buffer, int64_t nanoseconds, SampleBuffer& frame);
    void giveBack(pw_buffer* buffer) ZAVO_EXCLUDES(mutex_);

    std::shared_ptr<Connection> connection_;
    QString name_;
    NodeFormat wanted_;
    pw_stream* stream_ = nullptr;  // made and destroyed under the loop's lock
    std::unique_ptr<struct spa_hook> listener_;
    uint64_t removalWatch_ = 0;
    int state_ = 0;           // pw_stream_state, loop thread
    QString stateError_;      // loop thread
    bool closing_ = false;    // set under the loop's lock: our own disconnect is not an end

    mutable Mutex mutex_;
    std::condition_variable wake_;
    pw_buffer* pending_ ZAVO_GUARDED_BY(mutex_) = nullptr;
    // The buffer the capture thread decodes from: PipeWire must not take it
    // away (unmap it) until the decoder is done with it.
    pw_buffer* inUse_ ZAVO_GUARDED_BY(mutex_) = nullptr;
    std::vector<pw_buffer*> live_ ZAVO_GUARDED_BY(mutex_);  // between add_buffer and remove_buffer
    int64_t pendingTime_ ZAVO_GUARDED_BY(mutex_) = 0;
    bool interrupted_ ZAVO_GUARDED_BY(mutex_) = false;
    QString ended_ ZAVO_GUARDED_BY(mutex_);
    CameraFailureReason cause_ ZAVO_GUARDED_BY(mutex_) = CameraFailureReason::None;
    Negotiated negotiated_ ZAVO_GUARDED_BY(mutex_);
    int64_t skipped_ ZAVO_GUARDED_BY(mutex_) = 0;

    // Capture thread only.
    Negotiated decoding_;
    std::unique_ptr<v4l2::FrameDecoder> decoder_;
    std::shared_ptr<PixelBufferPool> pool_;
    std::shared_ptr<const FormatDescription> description_;
    int64_t firstTimestamp_ = -1;
};

}  // namespace zavo::platform::pipewire
