#pragma once
// Delivers a session's frames, one at a time, to a delegate on a queue of the
// delegate's choosing, converted to BGRA and turned and mirrored as the
// output's connection says.
//
// Back-pressure without blocking: the capture thread converts a frame only
// when a delivery slot is free and otherwise drops it. With
// alwaysDiscardsLateVideoFrames (the default) there is one slot, so a frame
// that arrives while the delegate is still busy with the previous one is
// dropped, never queued; without it a few frames may wait. Buffers come from
// a pool, and the hand-over allocates nothing, so steady capture makes no
// heap allocation here.
#include "base/ZavoExport.h"
#include "camera/CaptureSession.h"
#include "base/DispatchQueue.h"

#include <QVariantMap>
#include <atomic>
#include <memory>

namespace zavo::platform {

/// Key of the pixel format entry in videoSettings; its value is a
/// four-character code as an unsigned 32-bit number.
inline const QString kPixelBufferPixelFormatTypeKey = QStringLiteral("PixelFormatType");

class CaptureVideoDataOutput;

class ZAVO_EXPORT CaptureVideoDataOutputSampleBufferDelegate {
public:
    virtual ~CaptureVideoDataOutputSampleBufferDelegate() = default;
    /// On the delegate queue, in capture order. The frame's buffer goes back
    /// to its pool when the last holder lets go.
    virtual void captureOutputDidOutputSampleBuffer(CaptureVideoDataOutput& output, const SampleBuffer& sampleBuffer,
                                                    CaptureConnection& connection) = 0;
};

class ZAVO_EXPORT CaptureVideoDataOutput final : public CaptureOutput {
public:
    static std::shared_ptr<CaptureVideoDataOutput> create();
    ~CaptureVideoDataOutput() override;

    /// Only kPixelBufferPixelFormatTypeKey = BGRA (0x42475241) is honoured;
    /// frames are always delivered as BGRA.
    QVariantMap videoSettings() const;
    void setVideoSettings(const QVariantMap& settings);

    bool alwaysDiscardsLateVideoFrames() const { return discardsLateFrames_.load(); }
    void setAlwaysDiscardsLateVideoFrames(bool discard) { discardsLateFrames_.store(discard); }

    /// The delegate is held weakly; frames are dropped while either is null.
    void setSampleBufferDelegate(const std::weak_ptr<CaptureVideoDataOutputSampleBufferDelegate>& delegate,
                                 const DispatchQueuePtr& queue);

    /// Frames delivered to the delegate, and frames dropped as late.
    int64_t deliveredFrameCount() const;
    int64_t droppedFrameCount() const;

    struct Core;
    struct ConstructionKey {};
    explicit CaptureVideoDataOutput(ConstructionKey);

protected:
    void captureFrame(const SampleBuffer& frame, CaptureDevicePosition position) override;

private:
    std::shared_ptr<Core> core_;
    std::atomic<bool> discardsLateFrames_{true};
};

}  // namespace zavo::platform
