#pragma once
// Frames, clips and a recording delegate for the detector suites.
#include "media/Asset.h"
#include "media/SampleBuffer.h"
#include "zavocore/ZCBestShotDetectorProtocol.h"
#include "zavocore/ZCErrorCodes.h"

#include <QImage>
#include <QMutex>
#include <QMutexLocker>
#include <QString>
#include <cstring>
#include <functional>

namespace zavo::testing {

inline QString dataPath(const QString& name) { return QStringLiteral(ZAVO_TEST_DATA_DIR "/") + name; }

/// A test photo in 32-bit pixels; a missing one ends the run, since the
/// photos are part of the tree.
inline QImage photo(const QString& name)
{
    QImage image(dataPath(name));
    if (image.isNull())
        qFatal("missing test photo %s", qPrintable(name));
    return image.convertToFormat(QImage::Format_ARGB32);
}

/// A frame with image's pixels, in BGRA32 (as the capture pipeline delivers
/// them) or ARGB32.
inline platform::SampleBuffer frameFromImage(const QImage& source, platform::MediaTime pts,
                                             platform::PixelFormat format = platform::PixelFormat::BGRA32)
{
    const QImage image = source.convertToFormat(QImage::Format_ARGB32);  // B, G, R, A bytes
    auto buffer = platform::PixelBuffer::create(image.width(), image.height(), format);
    buffer->lockBaseAddress();
    for (int y = 0; y < image.height(); ++y) {
        const uchar* in = image.constScanLine(y);
        uint8_t* out = buffer->baseAddress() + y * buffer->bytesPerRow();
        if (format == platform::PixelFormat::BGRA32) {
            std::memcpy(out, in, size_t(image.width()) * 4);
            continue;
        }
        for (int x = 0; x < image.width(); ++x) {
            const uchar* p = in + 4 * x;
            uint8_t* q = out + 4 * x;
            q[0] = p[3];
            q[1] = p[2];
            q[2] = p[1];
            q[3] = p[0];
        }
    }
    buffer->unlockBaseAddress();
    return platform::SampleBuffer(buffer, pts, platform::FormatDescription::forImageBuffer(*buffer));
}

/// Decodes a clip in BGRA32 and hands over its frames in order; false when
/// the clip cannot be read.
inline bool forEachFrame(const QString& path, const std::function<void(const platform::SampleBuffer&)>& take)
{
    auto asset = platform::Asset::assetWithPath(path);
    auto tracks = asset->tracksWithMediaType(platform::MediaType::Video);
    auto reader = platform::AssetReader::create(asset);
    if (tracks.empty() || !reader)
        return false;
    auto output = platform::AssetReaderTrackOutput::create(tracks.front(), {platform::PixelFormat::BGRA32});
    reader->addOutput(output);
    if (!reader->startReading())
        return false;
    while (true) {
        const platform::SampleBuffer frame = output->copyNextSampleBuffer();
        if (!frame.isValid())
            break;
        take(frame);
    }
    return reader->status() == platform::AssetReader::Status::Completed;
}

/// Records what a detector reports, from whatever thread it reports on.
class RecordingDelegate final : public core::ZCBestShotDelegate {
public:
    struct Report {
        long code = 0;
        QString domain;
        QString key;  // string-table key, for core errors
        QString text;
        platform::ErrorPtr error;
    };

    void detectionRect(const QRectF& rect, const QSizeF& frameSize) override
    {
        QMutexLocker lock(&mutex_);
        rects_.append(rect);
        frameSize_ = frameSize;
        events_.append(rect.isNull() ? QStringLiteral("rect:none") : QStringLiteral("rect"));
    }
    bool bestShot(core::ZCBestShotPtr shot) override
    {
        QMutexLocker lock(&mutex_);
        shots_.append(shot);
        events_.append(QStringLiteral("shot"));
        return acceptShots_;
    }
    void bestShotError(platform::ErrorPtr error) override
    {
        QMutexLocker lock(&mutex_);
        Report report;
        report.code = error->code();
        report.domain = error->domain();
        report.key = error->userInfo().value(QString::fromLatin1(core::kZCMessageKeyInfoKey)).toString();
        report.text = error->localizedDescription();
        report.error = error;
        errors_.append(report);
        events_.append(QStringLiteral("error:%1").arg(report.code));
    }
    void livenessIsActive(bool active) override
    {
        QMutexLocker lock(&mutex_);
        events_.append(active ? QStringLiteral("liveness:on") : QStringLiteral("liveness:off"));
    }

    void setAcceptShots(bool accept)
    {
        QMutexLocker lock(&mutex_);
        acceptShots_ = accept;
    }
    // Each accessor copies under the lock into a list of its own: a shared
    // copy would be detached later, outside the lock, while the detector's
    // thread appends.
    QList<core::ZCBestShotPtr> shots() const { return copied(shots_); }
    QList<Report> errors() const { return copied(errors_); }
    QList<long> codes() const
    {
        QMutexLocker lock(&mutex_);
        QList<long> codes;
        for (const Report& r : errors_)
            codes.append(r.code);
        return codes;
    }
    QStringList keys() const
    {
        QMutexLocker lock(&mutex_);
        QStringList keys;
        for (const Report& r : errors_)
            keys.append(r.key);
        return keys;
    }
    QList<QRectF> rects() const { return copied(rects_); }
    QStringList events() const { return copied(events_); }

private:
    template <typename T>
    QList<T> copied(const QList<T>& list) const
    {
        QMutexLocker lock(&mutex_);
        return QList<T>(list.cbegin(), list.cend());
    }

    mutable QMutex mutex_;
    bool acceptShots_ = true;
    QList<core::ZCBestShotPtr> shots_;
    QList<Report> errors_;
    QList<QRectF> rects_;
    QSizeF frameSize_;
    QStringList events_;
};

/// A reference detector, its recording delegate, and a feed of frames with
/// timestamps.
struct DetectorRig {
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    core::ZCBestShotDetectorPtr detector;
    /// Frames as a front camera delivers them: mirrored.
    bool mirrored = false;

    explicit DetectorRig(core::ZCDetectorSettings settings,
                         std::shared_ptr<core::ZCOnlineLivenessProtocol> liveness = nullptr)
    {
        auto configuration = std::make_shared<core::ZCZavoConfiguration>();
        configuration->detector = settings;
        detector = core::ZCBestShotBuilder::buildWithDelegate(delegate, std::move(liveness), configuration);
    }

    /// Frames of image from `from` to `to` seconds, 30 a second.
    void feed(const QImage& image, double from, double to,
              platform::PixelFormat format = platform::PixelFormat::BGRA32)
    {
        const platform::SampleBuffer first = frameFromImage(image, platform::MediaTime::zero(), format);
        for (double t = from; t < to - 1e-9; t += 1.0 / 30) {
            platform::SampleBuffer frame(first.imageBuffer(), platform::MediaTime::fromSeconds(t, 600),
                                         first.formatDescription());
            frame.setMirrored(mirrored);
            detector->pushFrame(frame);
        }
    }
};

}  // namespace zavo::testing
