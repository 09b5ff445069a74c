#include "camera/file/FileCaptureDevice.h"

#include "media/Asset.h"
#include "camera/CaptureDevice_p.h"
#include "base/ThreadSafety.h"

#include <QFileInfo>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <optional>

namespace zavo::platform {

namespace {

using Clock = std::chrono::steady_clock;

int64_t nanosecondsOf(MediaTime time)
{
    const MediaTime converted = time.convertScale(1000000000);
    return converted.isValid() ? converted.value : 0;
}

}  // namespace

class FileStream final : public CaptureDeviceStream {
public:
    FileStream(std::shared_ptr<FileCaptureDevice> device, const CaptureDeviceFormatPtr& format)
        : device_(std::move(device))
        , width_(format->width())
        , height_(format->height())
        , frameDurationNs_(int64_t(1e9 / format->captureFrameRate()))
        , description_(std::make_shared<const FormatDescription>(PixelFormat::NV12VideoRange, width_, height_))
    {
    }

    ~FileStream() override
    {
        if (counted_)
            device_->openStreams_.fetch_sub(1);
    }

    /// Counted as open only once the file is, so that a watcher who sees
    /// the camera open knows the file has been read from.
    void countAsOpen()
    {
        counted_ = true;
        device_->openStreams_.fetch_add(1);
    }

    /// Opens the reader for one pass over the file.
    bool rewind(ErrorPtr* error)
    {
        auto asset = Asset::assetWithPath(device_->path());
        const auto tracks = asset->tracksWithMediaType(MediaType::Video, error);
        if (tracks.empty())
            return false;
        auto reader = AssetReader::create(asset, error);
        auto output = reader ? AssetReaderTrackOutput::create(
                                   tracks.front(), {PixelFormat::NV12VideoRange, width_, height_})
                             : nullptr;
        if (!output)
            return false;
        // Pooled buffers: the pipeline hands each frame back promptly.
        output->setAlwaysCopiesSampleData(false);
        reader->addOutput(output);
        if (!reader->startReading()) {
            if (error)
                *error = reader->error();
            return false;
        }
        reader_ = std::move(reader);
        output_ = std::move(output);
        framesThisPass_ = 0;
        passStartNs_.reset();
        return true;
    }

    ReadResult read(SampleBuffer& frame) override
    {
        SampleBuffer decoded = output_ ? output_->copyNextSampleBuffer() : SampleBuffer();
        if (!decoded.isValid()) {
            if (!loop())
                return ReadResult::Ended;
            decoded = output_->copyNextSampleBuffer();
            if (!decoded.isValid()) {
                endReason_ = QStringLiteral("%1 has no frame to play").arg(device_->path());
                return ReadResult::Ended;
            }
        }
        const int64_t fileNs = nanosecondsOf(decoded.presentationTimeStamp());
        if (!passStartNs_)
            passStartNs_ = fileNs;
        const int64_t streamNs = loopOffsetNs_ + (fileNs - *passStartNs_);
        lastStreamNs_ = streamNs;
        ++framesThisPass_;

        // Real time: the frame is due when its time has come since the start.
        if (!start_)
            start_ = Clock::now() - std::chrono::nanoseconds(streamNs);
        const auto due = *start_ + std::chrono::nanoseconds(streamNs);
        {
            MutexLocker lock(mutex_);
            while (!interrupted_) {
                if (mutex_.waitUntil(wake_, due) == std::cv_status::timeout)
                    break;
            }
            if (interrupted_)
                return ReadResult::Interrupted;
        }
        frame = SampleBuffer(decoded.imageBuffer(), MediaTime::make(streamNs, 1000000000), description_);
        return ReadResult::Frame;
    }

    void interrupt() override
    {
        {
            MutexLocker lock(mutex_);
            interrupted_ = true;
        }
        wake_.notify_all();
    }

    QString endReason() const override { return endReason_; }

private:
    /// Back to the first frame after the end of the file (or after a decode
    /// failure mid-way), with time running on.
    bool loop()
    {
        if (framesThisPass_ == 0) {
            const ErrorPtr error = reader_ ? reader_->error() : nullptr;
            endReason_ = QStringLiteral("cannot decode %1%2")
                             .arg(device_->path(), error ? QStringLiteral(": ") + error->localizedDescription()
                                                         : QString());
            return false;
        }
        loopOffsetNs_ = lastStreamNs_ + frameDurationNs_;
        output_.reset();
        reader_.reset();
        ErrorPtr error;
        if (!rewind(&error)) {
            endReason_ = QStringLiteral("cannot reopen %1: %2")
                             .arg(device_->path(), error ? error->localizedDescription() : QString());
            return false;
        }
        device_->loops_.fetch_add(1);
        return true;
    }

    const std::shared_ptr<FileCaptureDevice> device_;
    const int width_;
    const int height_;
    const int64_t frameDurationNs_;
    const std::shared_ptr<const FormatDescription> description_;

    // Capture thread only.
    AssetReaderPtr reader_;
    AssetReaderTrackOutputPtr output_;
    int framesThisPass_ = 0;
    std::optional<int64_t> passStartNs_;
    int64_t loopOffsetNs_ = 0;
    int64_t lastStreamNs_ = 0;
    std::optional<Clock::time_point> start_;
    QString endReason_;
    bool counted_ = false;

    Mutex mutex_;
    std::condition_variable wake_;
    bool interrupted_ ZAVO_GUARDED_BY(mutex_) = false;
};

std::shared_ptr<FileCaptureDevice> FileCaptureDevice::create(const QString& path, CaptureDevicePosition position,
                                                             ErrorPtr* error, const QString& uniqueID)
{
    const auto tracks = Asset::assetWithPath(path)->tracksWithMediaType(MediaType::Video, error);
    if (tracks.empty())
        return nullptr;
    const auto& track = *tracks.front();
    const QSize size = track.naturalSize();
    if (size.isEmpty()) {
        if (error)
            *error = makeCaptureError(CaptureErrorCode::DeviceOpenFailed,
                                      QStringLiteral("%1 has no picture size").arg(path));
        return nullptr;
    }
    const double fps = track.nominalFrameRate() > 0 ? double(track.nominalFrameRate()) : 30.0;
    auto format = std::make_shared<const CaptureDeviceFormat>(uint32_t(PixelFormat::NV12VideoRange), size.width(),
                                                              size.height(), std::vector<FrameRateRange>{{1.0, fps}});
    return std::make_shared<FileCaptureDevice>(ConstructionKey{}, path,
                                               uniqueID.isEmpty() ? QStringLiteral("file:") + path : uniqueID,
                                               position, std::move(format));
}

FileCaptureDevice::FileCaptureDevice(ConstructionKey, const QString& path, const QString& uniqueID,
                                     CaptureDevicePosition position, CaptureDeviceFormatPtr format)
    : CaptureDevice(uniqueID, QFileInfo(path).fileName(), position, {format}, format), path_(path)
{
}

FileCaptureDevice::~FileCaptureDevice() = default;

std::unique_ptr<CaptureDeviceStream> FileCaptureDevice::openStream(const CaptureDeviceFormatPtr& format,
                                                                   ErrorPtr* error)
{
    auto stream = std::make_unique<FileStream>(std::static_pointer_cast<FileCaptureDevice>(shared_from_this()),
                                               format ? format : activeFormat());
    if (!stream->rewind(error))
        return nullptr;
    stream->countAsOpen();
    return stream;
}

}  // namespace zavo::platform
