#include "recording/ZMSaveVideoService.h"

#include "resources/ZMBundleLink_p.h"
#include "base/FileSystem.h"
#include "base/FileSystem_p.h"
#include "base/Log_p.h"
#include "media/VideoFrameConverter_p.h"
#include "recording/ZMRecordingStorage_p.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <unistd.h>

namespace zavo {

using namespace platform;

namespace {

/// The encoded size is fixed, whatever the capture size.
constexpr int kEncodedWidth = 180;
constexpr int kEncodedHeight = 320;

/// Renders a frame file (BGRA rows) into an ARGB pool buffer. The file's rows
/// are taken at the pool buffer's stride, not the stride they were captured
/// with, so a capture whose rows were padded differently comes out skewed.
/// A file that cannot be opened leaves the buffer as it was.
void renderFrameFile(const QString& path, PixelBuffer& buffer)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return;
    buffer.lockBaseAddress();
    const size_t stride = buffer.bytesPerRow();
    // The buffer's rows are contiguous at that stride: one read fills them all.
    const qint64 read = file.read(reinterpret_cast<char*>(buffer.baseAddress()), qint64(stride) * buffer.height());
    const int fullRows = read > 0 ? int(size_t(read) / stride) : 0;
    for (int y = 0; y < fullRows; ++y)
        VideoFrameConverter::reverseBytesOfPixels(buffer.baseAddress() + size_t(y) * stride, buffer.width());
    if (read > 0 && fullRows < buffer.height())
        VideoFrameConverter::reverseBytesOfPixels(buffer.baseAddress() + size_t(fullRows) * stride,
                             std::min(buffer.width(), int((size_t(read) % stride) / 4)));
    buffer.unlockBaseAddress();
}

/// Removes a file, reporting why it could not be removed.
ErrorPtr removeFile(const QString& path)
{
    if (::unlink(QFile::encodeName(path).constData()) == 0)
        return nullptr;
    const int code = errno;
    return std::make_shared<ErrorObject>(QStringLiteral("POSIX"), code,
                                         QVariantMap{{kLocalizedDescriptionKey, QString::fromLocal8Bit(std::strerror(code))}});
}

}  // namespace

std::shared_ptr<ZMSaveVideoService> ZMSaveVideoService::videoServiceWithDelegate(
    std::weak_ptr<ZMSaveVideoServiceDelegate> delegate, double frameWidth, double frameHeight, double fps)
{
    auto service = create(frameWidth, frameHeight, fps);
    service->setDelegate(std::move(delegate));
    return service;
}

std::shared_ptr<ZMSaveVideoService> ZMSaveVideoService::create(double frameWidth, double frameHeight, double fps)
{
    auto service = std::make_shared<ZMSaveVideoService>(ConstructionKey{});
    service->processingQueue_ = DispatchQueue::create(kZavoCameraBundleIdentifier + QStringLiteral(".ZMSaveVideoService"),
                                                      QualityOfService::Background, -1);
    service->setFramesCounter(0);
    service->frameWidth_ = frameWidth;
    service->frameHeight_ = frameHeight;
    service->fps_ = fps;
    // Frames of an earlier session must not be taken for this one's.
    service->deleteFramesFiles();
    return service;
}

// ------------------------------------------------------------------ recording

void ZMSaveVideoService::beginRecordWithFileURL(const QUrl& fileURL)
{
    setFramesCounter(0);
    recordVideoFileURL_ = fileURL;
    captureShape_.set({});
}

void ZMSaveVideoService::appendStorageWithSampleBuffer(const SampleBuffer& sampleBuffer)
{
    const QString path = frameFilePathWithFrameIndex(framesCounter());
    // The frame's rows go straight from the locked buffer into the file:
    // the same bytes imageToBuffer() would copy, without a second copy of
    // several megabytes per frame on the capture queue. A frame that cannot
    // be written leaves a gap, which the flush fills with the pool buffer.
    // The files are read back and deleted within seconds, so they are not
    // synced to the disk: that sync cost more than the write itself.
    if (const std::shared_ptr<PixelBuffer>& image = sampleBuffer.imageBuffer()) {
        const QSize frameSize(image->width(), image->height());
        const CaptureShape shape = captureShape_.with([&](CaptureShape& first) {
            if (first.size.isEmpty())
                first = {frameSize, qint64(image->bytesPerRow())};
            return first;
        });
        image->lockBaseAddress(PixelBuffer::ReadWrite);
        if (frameSize == shape.size) {
            writeScratchFileAtomically(path, reinterpret_cast<const char*>(image->baseAddress()),
                                       qint64(image->bytesPerRow()) * image->height());
        } else {
            // The files carry no size and are read back at the first frame's:
            // a camera switched to one of another size would be read as
            // garbage. Its frames are fitted, whole, into the first frame's
            // shape; only a switch pays for this.
            const QImage frame(image->baseAddress(), frameSize.width(), frameSize.height(), int(image->bytesPerRow()),
                               QImage::Format_ARGB32);
            QByteArray bytes(qsizetype(shape.bytesPerRow * shape.size.height()), '\0');
            QImage fitted(reinterpret_cast<uchar*>(bytes.data()), shape.size.width(), shape.size.height(),
                          qsizetype(shape.bytesPerRow), QImage::Format_ARGB32);
            fitted.fill(Qt::black);
            const QImage scaled = frame.scaled(shape.size, Qt::KeepAspectRatio, Qt::SmoothTransformation);
            QPainter(&fitted).drawImage(QPoint((shape.size.width() - scaled.width()) / 2,
                                               (shape.size.height() - scaled.height()) / 2),
                                        scaled);
            writeScratchFileAtomically(path, bytes.constData(), bytes.size());
        }
        image->unlockBaseAddress(PixelBuffer::ReadWrite);
    }
    framesCounter_.fetch_add(1, std::memory_order_relaxed);
}

QByteArray ZMSaveVideoService::imageToBuffer(const SampleBuffer& sampleBuffer)
{
    const std::shared_ptr<PixelBuffer>& image = sampleBuffer.imageBuffer();
    if (!image)
        return {};
    image->lockBaseAddress(PixelBuffer::ReadWrite);
    QByteArray data(reinterpret_cast<const char*>(image->baseAddress()),
                    qsizetype(image->bytesPerRow()) * image->height());
    image->unlockBaseAddress(PixelBuffer::ReadWrite);
    return data;
}

QUrl ZMSaveVideoService::documentURL() const { return zavocamera_documentsFolder(); }

QString ZMSaveVideoService::frameFilePathWithFrameIndex(int64_t index)
{
    const QString folder = documentURL().path() + QLatin1Char('/') + ZMRecordingStorage::kFolderName;
    recreateBrightfoldFolder();
    return folder + QLatin1Char('/') + ZMRecordingStorage::frameFileName(static_cast<int32_t>(index));
}

void ZMSaveVideoService::recreateBrightfoldFolder() { ZMRecordingStorage::createFolderIfMissing(); }

void ZMSaveVideoService::deleteFramesFiles()
{
    const QString folder = documentURL().path() + QLatin1Char('/') + ZMRecordingStorage::kFolderName;
    const QStringList names = QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString& name : names) {
        if (!name.endsWith(QLatin1String(".dat")))
            continue;
        std::error_code error;
        std::filesystem::remove_all(QFile::encodeName(folder + QLatin1Char('/') + name).toStdString(), error);
        if (error)
            qCWarning(lcRecordingFrames, "failed to delete old frame file <%s>", qUtf8Printable(name));
    }
}

// ------------------------------------------------------------------- flushing

void ZMSaveVideoService::endRecordWithCompletion(std::function<void()> completion)
{
    if (auto delegate = delegate_.lock())
        delegate->videoFlushingWillBegin();
    // The URL is taken now, on the thread that owns it, rather than read on
    // the processing queue while a new recording might set it again.
    processingQueue_->async([self = shared_from_this(), url = recordVideoFileURL_, completion = std::move(completion)] {
        self->flush(url, completion);
    });
}

void ZMSaveVideoService::flush(const QUrl& videoURL, std::function<void()> completion)
{
    AssetWriterInputPtr input;
    AssetWriterInputPixelBufferAdaptorPtr adaptor;
    const QString path = videoURL.isLocalFile() ? videoURL.toLocalFile() : videoURL.path();
    AssetWriterPtr writer = createWriterWithVideoOutputURL(path, &input, &adaptor);
    if (!writer || !writer->startWriting())
        return failFlush(completion);
    writer->startSessionAtSourceTime(MediaTime::zero());
    if (!adaptor->pixelBufferPool())
        return failFlush(completion);
    qCInfo(lcRecordingFrames, "Totally captured %i frames", static_cast<int32_t>(framesCounter()));
    auto flushQueue = DispatchQueue::create(kZavoCameraBundleIdentifier + QStringLiteral(".ZMSaveVideoService.VideoFlush"));
    input->requestMediaDataWhenReady(flushQueue, [self = shared_from_this(), writer, input, adaptor, completion] {
        self->pump(writer, input, adaptor, completion);
    });
}

void ZMSaveVideoService::failFlush(const std::function<void()>& completion)
{
    if (auto delegate = delegate_.lock()) {
        const auto error = ZMRecordingStorage::videoFlushFailedError();
        delegate->videoFlushingDidEndWithError(error);
        delegate->videoRecordingDidFinish(error);
    }
    if (completion)
        completion();
}

void ZMSaveVideoService::pump(const AssetWriterPtr& writer, const AssetWriterInputPtr& input,
                              const AssetWriterInputPixelBufferAdaptorPtr& adaptor,
                              const std::function<void()>& completion)
{
    // Frames 0..N-1 were written, yet the loop runs to N: the last append
    // finds no file and repeats the pool buffer as it stands. The timescale
    // is the frame rate cut to a whole number. Both are kept on purpose.
    const auto timescale = static_cast<int32_t>(fps_);
    int64_t index = -1;
    do {
        if (!input->isReadyForMoreMediaData())
            break;
        ++index;
        const QString path = frameFilePathWithFrameIndex(index);
        appendPixelBufferWithImageFullFilePath(path, adaptor, MediaTime::make(index, timescale));
    } while (index < framesCounter());
    input->markAsFinished();
    // The writer's outcome is not looked at: the flush reports success.
    writer->finishWriting([self = shared_from_this(), completion] {
        if (auto delegate = self->delegate_.lock()) {
            delegate->videoFlushingDidEndWithError(nullptr);
            delegate->videoRecordingDidFinish(nullptr);
        }
        if (completion)
            completion();
    });
}

AssetWriterPtr ZMSaveVideoService::createWriterWithVideoOutputURL(const QString& path,
                                                                 AssetWriterInputPtr* videoWriterInput,
                                                                 AssetWriterInputPixelBufferAdaptorPtr* pixelBufferAdaptor)
{
    // A missing file is reported too; the line is harmless then.
    if (ErrorPtr error = removeFile(path))
        qCWarning(lcRecordingFrames, "Error while deleting old video <%s>", qUtf8Printable(describeError(*error)));
    AssetWriterPtr writer = AssetWriter::create(QUrl::fromLocalFile(path), FileType::MPEG4);

    auto input = AssetWriterInput::create(MediaType::Video, {VideoCodec::H264, kEncodedWidth, kEncodedHeight});
    *videoWriterInput = input;
    QSize size = captureShape_.get().size;
    if (size.isEmpty())
        size = QSize(static_cast<int>(frameWidth_), static_cast<int>(frameHeight_));
    const PixelBufferAttributes source{PixelFormat::ARGB32, size.width(), size.height()};
    *pixelBufferAdaptor = AssetWriterInputPixelBufferAdaptor::create(input, source);
    if (writer)
        writer->addInput(input);
    return writer;
}

void ZMSaveVideoService::appendPixelBufferWithImageFullFilePath(const QString& path,
                                                                const AssetWriterInputPixelBufferAdaptorPtr& pixelBufferAdaptor,
                                                                MediaTime presentationTime)
{
    const std::shared_ptr<PixelBufferPool> pool = pixelBufferAdaptor->pixelBufferPool();
    if (!pool)
        return;
    std::shared_ptr<PixelBuffer> buffer = pool->createPixelBuffer();
    if (!buffer)
        return;
    renderFrameFile(path, *buffer);
    pixelBufferAdaptor->appendPixelBuffer(buffer, presentationTime);
    buffer.reset();
    removeFile(path);
}

}  // namespace zavo
