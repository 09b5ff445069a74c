#include "camera/CaptureMovieFileOutput_p.h"

#include "media/AssetWriter_p.h"
#include "base/Log_p.h"
#include "base/ConsumerThread_p.h"
#include "base/FrameHandoff_p.h"
#include "camera/OrientedFrameConverter_p.h"
#include "base/ThreadSafety.h"

#include <QStringList>

#include <map>

namespace zavo::platform {

void CaptureFileOutputRecordingDelegate::captureOutputDidStartRecording(
    CaptureMovieFileOutput&, const QUrl&, const std::vector<std::shared_ptr<CaptureConnection>>&)
{
}

/// Everything the recording thread needs; shared with that thread so that it
/// can outlive the output object for the last steps of a recording.
struct CaptureMovieFileOutput::Recorder : std::enable_shared_from_this<Recorder> {
    static constexpr uint32_t kRingSize = 16;

    std::weak_ptr<CaptureMovieFileOutput> owner;
    std::shared_ptr<CaptureConnection> connection;

    // Capture thread to recording thread; the thread is woken for every
    // frame and command.
    struct Pending {
        SampleBuffer frame;
        CaptureDevicePosition position = CaptureDevicePosition::Unspecified;
    };
    SpscRing<Pending, kRingSize> ring;
    ConsumerThread thread;
    std::atomic<bool> accepting{false};
    std::atomic<int64_t> offered{0};
    std::atomic<int64_t> recorded{0};
    std::atomic<int64_t> dropped{0};

    // Commands from the owner's queue.
    mutable Mutex mutex;
    bool startRequested ZAVO_GUARDED_BY(mutex) = false;
    bool stopRequested ZAVO_GUARDED_BY(mutex) = false;
    bool quitRequested ZAVO_GUARDED_BY(mutex) = false;
    bool recording ZAVO_GUARDED_BY(mutex) = false;
    QUrl url ZAVO_GUARDED_BY(mutex);
    std::shared_ptr<CaptureFileOutputRecordingDelegate> delegate ZAVO_GUARDED_BY(mutex);
    std::map<const CaptureConnection*, QVariantMap> settings ZAVO_GUARDED_BY(mutex);

    // Recording thread only.
    QUrl fileURL;
    std::shared_ptr<CaptureFileOutputRecordingDelegate> fileDelegate;
    bool active = false;
    AssetWriterPtr writer;
    AssetWriterInputPtr input;
    AssetWriterInputPixelBufferAdaptorPtr adaptor;

    void push(const SampleBuffer& frame, CaptureDevicePosition position)
    {
        if (!accepting.load(std::memory_order_acquire))
            return;
        offered.fetch_add(1, std::memory_order_relaxed);
        if (!ring.tryPush({frame, position})) {
            dropped.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        thread.wake();
    }

    /// One round of the recording thread: commands, then the frames waiting.
    ConsumerThread::Next round()
    {
        bool start = false;
        bool stop = false;
        bool quit = false;
        {
            MutexLocker lock(mutex);
            start = std::exchange(startRequested, false);
            stop = std::exchange(stopRequested, false);
            quit = quitRequested;
            if (start) {
                fileURL = url;
                fileDelegate = delegate;
            }
        }
        if (start) {
            resetCounts();
            active = true;
            accepting.store(true, std::memory_order_release);
        }
        drainRing();
        if (stop || quit)
            finish(quit);
        return quit ? ConsumerThread::Next::end() : ConsumerThread::Next::whenWoken();
    }

    void resetCounts()
    {
        offered.store(0);
        recorded.store(0);
        dropped.store(0);
    }

    void drainRing()
    {
        while (auto next = ring.tryPop()) {
            if (active)
                write(next->frame, next->position);
        }
    }

    /// shown: the first frame's size as it is shown, which the file keeps.
    bool openWriter(QSize shown, MediaTime startTime)
    {
        ErrorPtr error;
        writer = AssetWriter::create(fileURL, FileType::MPEG4, &error);
        if (writer) {
            input = AssetWriterInput::create(MediaType::Video, {VideoCodec::H264, shown.width() & ~1, shown.height() & ~1});
            if (input) {
                input->setExpectsMediaDataInRealTime(true);
                writer->addInput(input);
                adaptor = AssetWriterInputPixelBufferAdaptor::create(input);
            }
            if (!input || !adaptor || !writer->startWriting())
                error = writer->error() ? writer->error()
                                        : makeMediaError(MediaErrorCode::EncoderNotFound,
                                                         QStringLiteral("Cannot record %1x%2 frames")
                                                             .arg(shown.width())
                                                             .arg(shown.height()));
        }
        if (error) {
            qCWarning(lcCameraOutput, "Movie recording to <%s> failed: %s", qUtf8Printable(fileURL.toLocalFile()),
                      qUtf8Printable(error->localizedDescription()));
            fail(error);
            return false;
        }
        writer->startSessionAtSourceTime(startTime);
        if (auto output = owner.lock())
            fileDelegate->captureOutputDidStartRecording(*output, fileURL, {connection});
        return true;
    }

    void write(const SampleBuffer& frame, CaptureDevicePosition position)
    {
        const auto& pixels = frame.imageBuffer();
        if (!pixels) {
            dropped.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        // The encoder's conversion turns and mirrors the frame in the same
        // pass, instead of a turned copy being made first.
        const auto [rotation, mirrored] = OrientedFrameConverter::orientationOf(connection.get(), position);
        const bool sideways = rotation % 180 != 0;
        const QSize shown = sideways ? QSize(pixels->height(), pixels->width()) : QSize(pixels->width(), pixels->height());
        if (!writer && !openWriter(shown, frame.presentationTimeStamp()))
            return;
        // The adaptor waits while the encoder catches up; the capture thread
        // never does, since it only ever touches the ring.
        if (adaptor->appendPixelBuffer(pixels, frame.presentationTimeStamp(), rotation, mirrored)) {
            recorded.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        dropped.fetch_add(1, std::memory_order_relaxed);
        if (writer->status() == AssetWriter::Status::Failed) {
            qCWarning(lcCameraOutput, "Movie recording to <%s> failed: %s", qUtf8Printable(fileURL.toLocalFile()),
                      qUtf8Printable(writer->error() ? writer->error()->localizedDescription() : QString()));
            writer->cancelWriting();
            fail(writer->error());
        }
    }

    /// Ends the recording at once with error (recording thread).
    void fail(ErrorPtr error)
    {
        active = false;
        accepting.store(false);
        auto delegateToTell = std::move(fileDelegate);
        writer.reset();
        input.reset();
        adaptor.reset();
        {
            MutexLocker lock(mutex);
            recording = false;
            delegate.reset();
        }
        auto output = owner.lock();
        if (output && delegateToTell)
            delegateToTell->captureOutputDidFinishRecording(*output, fileURL, {connection}, std::move(error));
    }

    /// Finishes the file of the recording under way. When the output is
    /// going away (quitting) nobody is told.
    void finish(bool quitting)
    {
        accepting.store(false);
        drainRing();
        if (!active)
            return;
        active = false;
        if (!writer) {
            if (quitting)
                fileDelegate.reset();
            fail(makeCaptureError(CaptureErrorCode::NoDataCaptured, QStringLiteral("No frames were captured")));
            return;
        }
        input->markAsFinished();
        auto finishedWriter = std::move(writer);
        input.reset();
        adaptor.reset();
        auto delegateToTell = std::move(fileDelegate);
        // The output is kept until the delegate has heard about the file,
        // since the delegate is handed the output itself.
        auto output = quitting ? nullptr : owner.lock();
        finishedWriter->finishWriting([self = shared_from_this(), finishedWriter, delegateToTell, output,
                                       url = fileURL] {
            ErrorPtr error;
            if (finishedWriter->status() != AssetWriter::Status::Completed)
                error = finishedWriter->error() ? finishedWriter->error()
                                                : makeMediaError(MediaErrorCode::CannotWrite,
                                                                 QStringLiteral("The movie file was not finished"));
            {
                MutexLocker lock(self->mutex);
                self->recording = false;
                self->delegate.reset();
            }
            if (output && delegateToTell)
                delegateToTell->captureOutputDidFinishRecording(*output, url, {self->connection}, error);
        });
    }
};

std::shared_ptr<CaptureMovieFileOutput> CaptureMovieFileOutput::create()
{
    auto output = std::make_shared<CaptureMovieFileOutput>(ConstructionKey{});
    output->recorder_->owner = output;
    return output;
}

CaptureMovieFileOutput::CaptureMovieFileOutput(ConstructionKey) : recorder_(std::make_shared<Recorder>())
{
    recorder_->connection = connection();
}

CaptureMovieFileOutput::~CaptureMovieFileOutput()
{
    {
        MutexLocker lock(recorder_->mutex);
        recorder_->quitRequested = true;
    }
    recorder_->thread.wake();
    // The last reference can be dropped by the recording thread itself (from
    // a delegate call); it then ends on its own.
    recorder_->thread.join();
}

QStringList CaptureMovieFileOutput::availableVideoCodecTypes() const { return {kVideoCodecTypeH264}; }

QVariantMap CaptureMovieFileOutput::outputSettingsForConnection(const std::shared_ptr<CaptureConnection>& connection) const
{
    MutexLocker lock(recorder_->mutex);
    auto it = recorder_->settings.find(connection.get());
    if (it != recorder_->settings.end())
        return it->second;
    return {{kVideoCodecKey, kVideoCodecTypeH264}};
}

void CaptureMovieFileOutput::setOutputSettings(const QVariantMap& settings,
                                               const std::shared_ptr<CaptureConnection>& connection)
{
    const QString codec = settings.value(kVideoCodecKey, kVideoCodecTypeH264).toString();
    if (codec != kVideoCodecTypeH264)
        qCWarning(lcCameraOutput) << "movie file output: codec" << codec << "is not available; recording H.264";
    MutexLocker lock(recorder_->mutex);
    recorder_->settings[connection.get()] = settings;
}

void CaptureMovieFileOutput::startRecordingToOutputFileURL(const QUrl& url,
                                                           std::shared_ptr<CaptureFileOutputRecordingDelegate> delegate)
{
    {
        MutexLocker lock(recorder_->mutex);
        if (recorder_->recording || !delegate)
            return;
        recorder_->recording = true;
        recorder_->startRequested = true;
        recorder_->url = url;
        recorder_->delegate = std::move(delegate);
    }
    // The thread keeps the recorder for the last steps of a recording that
    // outlives this output; it starts with the first recording.
    recorder_->thread.start("MovieFileOutput", [recorder = recorder_] { return recorder->round(); });
    recorder_->thread.wake();
}

void CaptureMovieFileOutput::stopRecording()
{
    {
        MutexLocker lock(recorder_->mutex);
        if (!recorder_->recording)
            return;
        recorder_->stopRequested = true;
    }
    recorder_->accepting.store(false, std::memory_order_release);
    recorder_->thread.wake();
}

bool CaptureMovieFileOutput::isRecording() const
{
    MutexLocker lock(recorder_->mutex);
    return recorder_->recording;
}

QUrl CaptureMovieFileOutput::outputFileURL() const
{
    MutexLocker lock(recorder_->mutex);
    return recorder_->url;
}

int64_t CaptureMovieFileOutput::offeredFrameCount() const { return recorder_->offered.load(); }

int64_t CaptureMovieFileOutput::recordedFrameCount() const { return recorder_->recorded.load(); }

int64_t CaptureMovieFileOutput::droppedFrameCount() const { return recorder_->dropped.load(); }

void CaptureMovieFileOutput::captureFrame(const SampleBuffer& frame, CaptureDevicePosition position)
{
    recorder_->push(frame, position);
}

void CaptureMovieFileOutput::sessionDidStopRunning() { stopRecording(); }

}  // namespace zavo::platform
