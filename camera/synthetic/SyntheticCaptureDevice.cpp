#include "camera/synthetic/SyntheticCaptureDevice.h"

#include "camera/CaptureDevice_p.h"
#include "camera/CaptureMovieFileOutput_p.h"
#include "camera/CaptureVideoDataOutput_p.h"
#include "base/ThreadSafety.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>

namespace zavo::platform {

struct SyntheticCaptureDevice::Shared {
    Mutex mutex;
    std::condition_variable wake;
    std::deque<std::pair<std::shared_ptr<PixelBuffer>, std::optional<MediaTime>>> pushed ZAVO_GUARDED_BY(mutex);
    bool vanished ZAVO_GUARDED_BY(mutex) = false;
    bool stopped ZAVO_GUARDED_BY(mutex) = false;
};

namespace {

PixelFormat bufferFormatFor(uint32_t mediaSubType)
{
    switch (static_cast<PixelFormat>(mediaSubType)) {
    case PixelFormat::BGRA32: return PixelFormat::BGRA32;
    case PixelFormat::NV12FullRange: return PixelFormat::NV12FullRange;
    default: return PixelFormat::NV12VideoRange;  // any other code is drawn as "420v"
    }
}

/// Horizontal bands that move down by a few rows per frame: cheap to draw
/// (one memset per row) and visibly alive in a preview.
void drawPattern(PixelBuffer& buffer, int64_t index)
{
    buffer.lockBaseAddress();
    const int bytesPerPixel = platform::bytesPerPixel(buffer.pixelFormat());
    for (int row = 0; row < buffer.height(); ++row) {
        const int value = int((row / 4 + index * 2) & 0xff);
        std::memset(buffer.baseAddress(0) + size_t(row) * buffer.bytesPerRow(0), value,
                    size_t(buffer.width()) * size_t(bytesPerPixel));
    }
    if (buffer.planeCount() == 2) {
        for (int row = 0; row < buffer.heightOfPlane(1); ++row)
            std::memset(buffer.baseAddress(1) + size_t(row) * buffer.bytesPerRow(1), 128,
                        size_t((buffer.width() + 1) / 2 * 2));
    }
    buffer.unlockBaseAddress();
}

}  // namespace

class SyntheticStream final : public CaptureDeviceStream {
public:
    SyntheticStream(std::shared_ptr<SyntheticCaptureDevice> device, const CaptureDeviceFormatPtr& format)
        : device_(std::move(device))
        , shared_(device_->shared_)
        , fps_(format->captureFrameRate())
        , bufferFormat_(bufferFormatFor(format->mediaSubType()))
        , description_(std::make_shared<const FormatDescription>(bufferFormat_, format->width(), format->height()))
        , start_(std::chrono::steady_clock::now())
    {
        if (device_->configuration_.frameSource == SyntheticCaptureDevice::FrameSource::Pattern)
            pool_ = PixelBufferPool::create({bufferFormat_, format->width(), format->height()});
        device_->openStreams_.fetch_add(1);
        device_->opened_.fetch_add(1);
    }

    ~SyntheticStream() override { device_->openStreams_.fetch_sub(1); }

    ReadResult read(SampleBuffer& frame) override
    {
        const auto& configuration = device_->configuration_;
        const bool manual = configuration.frameSource == SyntheticCaptureDevice::FrameSource::Manual;
        MutexLocker lock(shared_->mutex);
        for (;;) {
            if (interrupted_)
                return ReadResult::Interrupted;
            if (shared_->vanished)
                return ReadResult::Ended;
            const bool silenced
                = shared_->stopped || (configuration.stopAfterFrames >= 0 && index_ >= configuration.stopAfterFrames);
            if (silenced || (manual && shared_->pushed.empty())) {
                shared_->mutex.wait(shared_->wake);
                continue;
            }
            if (!manual && std::chrono::steady_clock::now() < deadlineOf(index_)) {
                const auto deadline = deadlineOf(index_);
                while (!interrupted_ && !shared_->vanished) {
                    if (shared_->mutex.waitUntil(shared_->wake, deadline) == std::cv_status::timeout)
                        break;
                }
                continue;
            }
            break;
        }

        std::shared_ptr<PixelBuffer> pixels;
        std::optional<MediaTime> time;
        if (manual) {
            pixels = std::move(shared_->pushed.front().first);
            time = shared_->pushed.front().second;
            shared_->pushed.pop_front();
            lock.unlock();
        } else {
            lock.unlock();
            pixels = pool_ ? pool_->createPixelBuffer() : nullptr;
            if (!pixels)
                return ReadResult::Ended;
            drawPattern(*pixels, index_);
        }
        const bool sameShape = pixels->width() == description_->width() && pixels->height() == description_->height()
            && pixels->pixelFormat() == description_->pixelFormat();
        const auto description = sameShape ? description_ : FormatDescription::forImageBuffer(*pixels);
        frame = SampleBuffer(std::move(pixels), time.value_or(timeOf(index_)), description);
        ++index_;
        const int delivered = device_->delivered_.fetch_add(1) + 1;
        if (configuration.vanishAfterFrames >= 0 && delivered >= configuration.vanishAfterFrames)
            device_->disconnect();
        return ReadResult::Frame;
    }

    void interrupt() override
    {
        {
            MutexLocker lock(shared_->mutex);
            interrupted_ = true;
        }
        shared_->wake.notify_all();
    }

    QString endReason() const override { return QStringLiteral("the device was disconnected"); }

private:
    std::chrono::steady_clock::time_point deadlineOf(int64_t index) const
    {
        return start_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(double(index) / fps_));
    }
    MediaTime timeOf(int64_t index) const
    {
        return MediaTime::make(std::llround(double(index) * 1e9 / fps_), 1000000000);
    }

    const std::shared_ptr<SyntheticCaptureDevice> device_;
    const std::shared_ptr<SyntheticCaptureDevice::Shared> shared_;
    const double fps_;
    const PixelFormat bufferFormat_;
    const std::shared_ptr<const FormatDescription> description_;
    const std::chrono::steady_clock::time_point start_;
    std::shared_ptr<PixelBufferPool> pool_;
    int64_t index_ = 0;         // capture thread only
    bool interrupted_ ZAVO_GUARDED_BY(shared_->mutex) = false;
};

CaptureDeviceFormatPtr SyntheticCaptureDevice::makeFormat(const char (&code)[5], int width, int height,
                                                         std::vector<FrameRateRange> frameRates)
{
    return std::make_shared<const CaptureDeviceFormat>(fourCharCode(code), width, height, std::move(frameRates));
}

std::shared_ptr<SyntheticCaptureDevice> SyntheticCaptureDevice::create(Configuration configuration)
{
    auto formats = configuration.formats;
    if (formats.empty())
        formats.push_back(makeFormat("420v", 720, 1280));
    return std::shared_ptr<SyntheticCaptureDevice>(new SyntheticCaptureDevice(std::move(configuration), formats));
}

SyntheticCaptureDevice::SyntheticCaptureDevice(Configuration configuration, std::vector<CaptureDeviceFormatPtr> formats)
    : CaptureDevice(configuration.uniqueID, configuration.localizedName, configuration.position, formats,
                    formats.at(size_t(std::clamp(configuration.activeFormatIndex, 0, int(formats.size()) - 1))))
    , configuration_(std::move(configuration))
    , shared_(std::make_shared<Shared>())
{
    if (configuration_.focusSupported)
        setFocusCapabilities({FocusMode::Locked, FocusMode::AutoFocus, FocusMode::ContinuousAutoFocus}, true);
}

SyntheticCaptureDevice::~SyntheticCaptureDevice() = default;

void SyntheticCaptureDevice::pushFrame(std::shared_ptr<PixelBuffer> pixels, std::optional<MediaTime> presentationTime)
{
    if (!pixels)
        return;
    {
        MutexLocker lock(shared_->mutex);
        shared_->pushed.emplace_back(std::move(pixels), presentationTime);
    }
    shared_->wake.notify_all();
}

void SyntheticCaptureDevice::disconnect()
{
    {
        MutexLocker lock(shared_->mutex);
        shared_->vanished = true;
    }
    shared_->wake.notify_all();
    setConnected(false);
    CaptureDeviceRegistry::shared().unregisterDevice(uniqueID());
}

void SyntheticCaptureDevice::stopFrames()
{
    {
        MutexLocker lock(shared_->mutex);
        shared_->stopped = true;
    }
    shared_->wake.notify_all();
}

bool SyntheticCaptureDevice::supportsSessionPreset(const QString& preset) const
{
    return !configuration_.unsupportedPresets.contains(preset) && CaptureDevice::supportsSessionPreset(preset);
}

std::unique_ptr<CaptureDeviceStream> SyntheticCaptureDevice::openStream(const CaptureDeviceFormatPtr& format,
                                                                        ErrorPtr* error)
{
    if (configuration_.openFails || !isConnected() || !format) {
        if (error)
            *error = makeCaptureError(CaptureErrorCode::DeviceOpenFailed,
                                      QStringLiteral("Cannot open %1").arg(localizedName()));
        return nullptr;
    }
    return std::make_unique<SyntheticStream>(std::static_pointer_cast<SyntheticCaptureDevice>(shared_from_this()),
                                             format);
}

bool SyntheticCaptureDevice::acceptsOutput(const CaptureOutput& output) const
{
    if (configuration_.refusesVideoDataOutput && dynamic_cast<const CaptureVideoDataOutput*>(&output))
        return false;
    if (configuration_.refusesMovieFileOutput && dynamic_cast<const CaptureMovieFileOutput*>(&output))
        return false;
    return true;
}

bool SyntheticCaptureDevice::canMakeInput(ErrorPtr* error) const
{
    if (!configuration_.inputFails)
        return CaptureDevice::canMakeInput(error);
    if (error)
        *error = makeCaptureError(CaptureErrorCode::InputRefused,
                                  QStringLiteral("Cannot use %1 as an input").arg(localizedName()));
    return false;
}

}  // namespace zavo::platform
