#pragma once
// The frame-dump recorder: while recording it writes each frame's raw bytes
// to a file of its own in the recording folder; when the recording ends it
// reads the files back in order and encodes them into the session video.
//
// Recording itself does no encoding, so the capture queue pays only for one
// copy and one file write per frame; all encoding happens afterwards at
// background priority.
#include "base/ZavoExport.h"
#include "media/AssetWriter_p.h"
#include "base/DispatchQueue.h"
#include "recording/ZMSaveVideoServiceProtocol_p.h"
#include "base/ThreadSafety.h"

#include <QByteArray>
#include <QSize>
#include <QUrl>
#include <atomic>
#include <memory>

namespace zavo {

class ZAVO_EXPORT ZMSaveVideoService : public ZMSaveVideoServiceProtocol,
                           public std::enable_shared_from_this<ZMSaveVideoService> {
public:
    /// The shared factory: the initializer, then the delegate (held weakly).
    static std::shared_ptr<ZMSaveVideoService> videoServiceWithDelegate(std::weak_ptr<ZMSaveVideoServiceDelegate> delegate,
                                                                        double frameWidth, double frameHeight,
                                                                        double fps);
    /// The initializer: makes the background processingQueue, sets the
    /// fields and removes frame files an earlier session left behind.
    static std::shared_ptr<ZMSaveVideoService> create(double frameWidth, double frameHeight, double fps);

    // ZMSaveVideoServiceProtocol
    /// Resets the frame counter and keeps the URL; touches no file.
    void beginRecordWithFileURL(const QUrl& fileURL) override;
    /// Writes the frame's bytes to its frame file, on the caller's thread.
    void appendStorageWithSampleBuffer(const platform::SampleBuffer& sampleBuffer) override;
    /// Tells the delegate the flush begins, then encodes the frame files on
    /// processingQueue and a flush queue; completion runs when the file is
    /// written (or could not be set up).
    void endRecordWithCompletion(std::function<void()> completion) override;

    // Fields. framesCounter is atomic only so that a flush reading it while
    // frames still arrive (a misuse the pump tolerates) is not a data race.
    std::shared_ptr<ZMSaveVideoServiceDelegate> delegate() const { return delegate_.lock(); }
    void setDelegate(std::weak_ptr<ZMSaveVideoServiceDelegate> delegate) { delegate_ = std::move(delegate); }
    platform::DispatchQueuePtr processingQueue() const { return processingQueue_; }
    void setProcessingQueue(platform::DispatchQueuePtr queue) { processingQueue_ = std::move(queue); }
    int64_t framesCounter() const { return framesCounter_.load(std::memory_order_relaxed); }
    void setFramesCounter(int64_t value) { framesCounter_.store(value, std::memory_order_relaxed); }
    double fps() const { return fps_; }
    void setFps(double fps) { fps_ = fps; }
    double frameWidth() const { return frameWidth_; }
    void setFrameWidth(double width) { frameWidth_ = width; }
    double frameHeight() const { return frameHeight_; }
    void setFrameHeight(double height) { frameHeight_ = height; }
    QUrl recordVideoFileURL() const { return recordVideoFileURL_; }
    void setRecordVideoFileURL(const QUrl& url) { recordVideoFileURL_ = url; }

    /// The Documents folder, as zavocamera_documentsFolder() finds it.
    QUrl documentURL() const;
    /// A copy of the frame's bytes as they lie in memory: height x
    /// bytesPerRow, rows with their padding. This is what a frame file holds.
    QByteArray imageToBuffer(const platform::SampleBuffer& sampleBuffer);
    /// Path of frame file index (cut to 32 bits); makes the folder if missing.
    QString frameFilePathWithFrameIndex(int64_t index);
    /// Creates the recording folder when nothing exists at its path.
    void recreateBrightfoldFolder();
    /// Removes every ".dat" file from the recording folder.
    void deleteFramesFiles();
    /// A writer for a 180x320 H.264 MP4 at path, with its input and an adaptor
    /// whose pool has the capture size in 32-bit ARGB: the size of the
    /// recording's first frame, or frameWidth x frameHeight before any frame
    /// came. Removes any file at path first. Null when the writer cannot be
    /// made.
    platform::AssetWriterPtr createWriterWithVideoOutputURL(const QString& path,
                                                            platform::AssetWriterInputPtr* videoWriterInput,
                                                            platform::AssetWriterInputPixelBufferAdaptorPtr* pixelBufferAdaptor);
    /// Fills a pool buffer from the frame file at path and appends it at
    /// presentationTime, then removes the file. A missing file leaves the
    /// pool buffer as it was, and that buffer is appended all the same.
    void appendPixelBufferWithImageFullFilePath(const QString& path,
                                                const platform::AssetWriterInputPixelBufferAdaptorPtr& pixelBufferAdaptor,
                                                platform::MediaTime presentationTime);

    struct ConstructionKey {};
    explicit ZMSaveVideoService(ConstructionKey) {}

private:
    void flush(const QUrl& videoURL, std::function<void()> completion);
    void failFlush(const std::function<void()>& completion);
    void pump(const platform::AssetWriterPtr& writer, const platform::AssetWriterInputPtr& input,
              const platform::AssetWriterInputPixelBufferAdaptorPtr& adaptor, const std::function<void()>& completion);

    std::weak_ptr<ZMSaveVideoServiceDelegate> delegate_;
    platform::DispatchQueuePtr processingQueue_;
    std::atomic<int64_t> framesCounter_{0};
    double fps_ = 0;
    double frameWidth_ = 0;
    double frameHeight_ = 0;
    QUrl recordVideoFileURL_;
    // The size the camera really delivers: a desktop webcam on the fallback
    // preset is often landscape where frameWidth x frameHeight is portrait,
    // and its files are read back at the size they were written with.
    // The recording's first frame: its size and row length are how every
    // frame file of the recording is written and read back.
    struct CaptureShape {
        QSize size;
        qint64 bytesPerRow = 0;
    };
    Guarded<CaptureShape> captureShape_;
};

}  // namespace zavo
