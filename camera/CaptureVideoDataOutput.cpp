#include "camera/CaptureVideoDataOutput_p.h"

#include "base/Log_p.h"
#include "base/FrameHandoff_p.h"
#include "camera/OrientedFrameConverter_p.h"
#include "base/ThreadSafety.h"

namespace zavo::platform {

struct CaptureVideoDataOutput::Core {
    static constexpr int kSlotCount = 4;

    std::weak_ptr<CaptureVideoDataOutput> owner;  // set once, before the first frame

    Mutex mutex;
    std::weak_ptr<CaptureVideoDataOutputSampleBufferDelegate> delegate ZAVO_GUARDED_BY(mutex);
    DispatchQueuePtr queue ZAVO_GUARDED_BY(mutex);
    QVariantMap settings ZAVO_GUARDED_BY(mutex);

    // The capture thread pushes, the delegate queue pops, one delivery block
    // for each frame. A frame's keepAlive holds the core while its block
    // waits, so the block itself captures a plain pointer and is small enough
    // to be stored without an allocation. inFlight counts frames from their
    // push until the delegate is done with them, which is what makes a frame
    // late; it never exceeds the ring's places.
    struct Delivery {
        SampleBuffer frame;
        std::shared_ptr<Core> keepAlive;
    };
    SpscRing<Delivery, kSlotCount> ring;
    std::atomic<int> inFlight{0};

    OrientedFrameConverter converter;  // capture thread only

    std::atomic<int64_t> delivered{0};
    std::atomic<int64_t> dropped{0};

    void deliver()
    {
        auto next = ring.tryPop();
        if (!next)
            return;  // a block for every push: not reached
        SampleBuffer frame = std::move(next->frame);
        const std::shared_ptr<Core> self = std::move(next->keepAlive);
        next.reset();
        std::shared_ptr<CaptureVideoDataOutputSampleBufferDelegate> target;
        {
            MutexLocker lock(mutex);
            target = delegate.lock();
        }
        auto output = owner.lock();
        if (target && output) {
            target->captureOutputDidOutputSampleBuffer(*output, frame, *output->connection());
            delivered.fetch_add(1, std::memory_order_relaxed);
        }
        frame = SampleBuffer();
        // The slot is free only once the delegate is done with the frame:
        // that is what makes a frame arriving meanwhile late.
        inFlight.fetch_sub(1, std::memory_order_acq_rel);
    }
};

std::shared_ptr<CaptureVideoDataOutput> CaptureVideoDataOutput::create()
{
    auto output = std::make_shared<CaptureVideoDataOutput>(ConstructionKey{});
    output->core_->owner = output;
    return output;
}

CaptureVideoDataOutput::CaptureVideoDataOutput(ConstructionKey) : core_(std::make_shared<Core>()) {}

CaptureVideoDataOutput::~CaptureVideoDataOutput() = default;

QVariantMap CaptureVideoDataOutput::videoSettings() const
{
    MutexLocker lock(core_->mutex);
    return core_->settings;
}

void CaptureVideoDataOutput::setVideoSettings(const QVariantMap& settings)
{
    const auto format = settings.value(kPixelBufferPixelFormatTypeKey);
    if (!settings.isEmpty() && format.isValid() && format.toUInt() != uint32_t(PixelFormat::BGRA32))
        qCWarning(lcCameraOutput) << "video data output: only BGRA frames are offered; pixel format"
                            << Qt::hex << format.toUInt() << "ignored";
    MutexLocker lock(core_->mutex);
    core_->settings = settings;
}

void CaptureVideoDataOutput::setSampleBufferDelegate(
    const std::weak_ptr<CaptureVideoDataOutputSampleBufferDelegate>& delegate, const DispatchQueuePtr& queue)
{
    MutexLocker lock(core_->mutex);
    core_->delegate = delegate;
    core_->queue = queue;
}

int64_t CaptureVideoDataOutput::deliveredFrameCount() const { return core_->delivered.load(); }

int64_t CaptureVideoDataOutput::droppedFrameCount() const { return core_->dropped.load(); }

void CaptureVideoDataOutput::captureFrame(const SampleBuffer& frame, CaptureDevicePosition position)
{
    Core& core = *core_;
    // Only a weak look at the delegate here: the capture thread must never be
    // the one that releases it (its owner may own this very session).
    bool hasDelegate;
    DispatchQueuePtr queue;
    {
        MutexLocker lock(core.mutex);
        hasDelegate = !core.delegate.expired();
        queue = core.queue;
    }
    if (!hasDelegate || !queue || !frame.imageBuffer())
        return;
    const int capacity = discardsLateFrames_.load(std::memory_order_relaxed) ? 1 : Core::kSlotCount;
    if (core.inFlight.load(std::memory_order_acquire) >= capacity) {
        core.dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    // Always a copy in BGRA: the delegate may keep frames as long as it likes.
    auto converted = core.converter.convert(frame.imageBuffer(), connection().get(), position, PixelFormat::BGRA32,
                                            OrientedFrameConverter::Upright::Copied);
    if (!converted) {
        core.dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    SampleBuffer sample(std::move(converted), frame.presentationTimeStamp(), core.converter.description(),
                        frame.duration());
    sample.setMirrored(OrientedFrameConverter::orientationOf(connection().get(), position).mirrored);
    if (!core.ring.tryPush({std::move(sample), core_})) {
        core.dropped.fetch_add(1, std::memory_order_relaxed);  // not reached while inFlight bounds the ring
        return;
    }
    core.inFlight.fetch_add(1, std::memory_order_acq_rel);
    queue->async([corePointer = &core] { corePointer->deliver(); });
}

}  // namespace zavo::platform
