#pragma once
// The movie-output recorder: adds a live movie file output to the capture
// session, lets it record the session video straight into the file given at
// begin, and when that file is finished has ZMVideoCompresion re-encode it
// into the small rendition that takes the recorded file's place.
//
// One recording reports its end at least twice: once when the recorded file
// is finished (with the output's error, if any) and once per report of the
// compressor (nil, or the 1001 "bad quality" error). Frames handed to
// appendStorageWithSampleBuffer are ignored: the output takes them from the
// session itself.
#include "base/ZavoExport.h"
#include "camera/CaptureMovieFileOutput_p.h"
#include "camera/CaptureSession.h"
#include "base/DispatchQueue.h"
#include "recording/ZMSaveVideoServiceProtocol_p.h"
#include "recording/ZMVideoCompresion_p.h"
#include "base/ThreadSafety.h"

#include <atomic>
#include <memory>
#include <optional>

namespace zavo {

class ZAVO_EXPORT ZMSaveVideoExService final : public ZMSaveVideoServiceProtocol,
                                   public platform::CaptureFileOutputRecordingDelegate,
                                   public std::enable_shared_from_this<ZMSaveVideoExService> {
public:
    /// The shared factory: the initializer, then the delegate (held weakly).
    static std::shared_ptr<ZMSaveVideoExService> videoServiceWithDelegate(
        std::weak_ptr<ZMSaveVideoServiceDelegate> delegate, double frameWidth, double frameHeight, double fps);
    /// The initializer: the compressor, then the background processingQueue
    /// (which nothing in this recorder uses), then the fields.
    static std::shared_ptr<ZMSaveVideoExService> create(double frameWidth, double frameHeight, double fps);

    /// Adds a new movie file output to session when the session accepts it,
    /// and asks for H.264 on connection when the output offers it. Called by
    /// the capture manager while it configures the session.
    void attachWithSession(const platform::CaptureSessionPtr& session,
                           const std::shared_ptr<platform::CaptureConnection>& connection);

    // ZMSaveVideoServiceProtocol
    /// Empties the recording folder (the previous session video goes too) and
    /// starts the output recording into fileURL.
    void beginRecordWithFileURL(const QUrl& fileURL) override;
    void appendStorageWithSampleBuffer(const platform::SampleBuffer& sampleBuffer) override;
    /// Stops the output; with a delegate, reports that flushing begins and
    /// calls completion at once, while the file is still being finished.
    /// Without a delegate completion is never called.
    void endRecordWithCompletion(std::function<void()> completion) override;

    // CaptureFileOutputRecordingDelegate
    void captureOutputDidStartRecording(platform::CaptureMovieFileOutput& output, const QUrl& fileURL,
                                        const std::vector<std::shared_ptr<platform::CaptureConnection>>& connections) override;
    /// With a delegate: passes the output's result on, then recompresses.
    void captureOutputDidFinishRecording(platform::CaptureMovieFileOutput& output, const QUrl& fileURL,
                                         const std::vector<std::shared_ptr<platform::CaptureConnection>>& connections,
                                         platform::ErrorPtr error) override;

    /// Removes the recording folder with everything in it (problems are
    /// logged), then creates it again.
    void recreateBrightfoldFolder();

    // Fields. The delegate is read on the output's and the compressor's
    // threads, so it sits behind a lock; the rest is set once.
    std::shared_ptr<ZMSaveVideoServiceDelegate> delegate() const;
    void setDelegate(std::weak_ptr<ZMSaveVideoServiceDelegate> delegate);
    platform::DispatchQueuePtr processingQueue() const { return processingQueue_; }
    int64_t framesCounter() const { return framesCounter_.load(); }
    double fps() const { return fps_; }
    double frameWidth() const { return frameWidth_; }
    double frameHeight() const { return frameHeight_; }
    std::shared_ptr<platform::CaptureMovieFileOutput> videoFileOutput() const { return videoFileOutput_; }
    std::shared_ptr<ZMVideoCompresion> compressionService() const { return compressionService_; }

    struct ConstructionKey {};
    explicit ZMSaveVideoExService(ConstructionKey) {}

private:
    mutable Mutex mutex_;
    std::weak_ptr<ZMSaveVideoServiceDelegate> delegate_ ZAVO_GUARDED_BY(mutex_);
    // The output may finish a short file on its own thread before the
    // stopping caller has said "will begin"; its report is held here and
    // passed on by the caller, so the delegate always hears the two in order.
    struct FinishedRecording {
        QUrl fileURL;
        platform::ErrorPtr error;
    };
    bool announcingStop_ ZAVO_GUARDED_BY(mutex_) = false;
    // Whether "will begin" has been said for the current recording. The
    // session's stop ends the recording on the movie output's own thread and
    // can get there before endRecordWithCompletion: a clean finish that
    // comes before the stop was announced is held as well. A failure
    // mid-session is passed on at once.
    bool stopAnnounced_ ZAVO_GUARDED_BY(mutex_) = false;
    std::optional<FinishedRecording> heldFinish_ ZAVO_GUARDED_BY(mutex_);
    void reportFinishedRecording(const QUrl& fileURL, platform::ErrorPtr error);
    platform::DispatchQueuePtr processingQueue_;
    std::atomic<int64_t> framesCounter_{0};
    double fps_ = 0;
    double frameWidth_ = 0;
    double frameHeight_ = 0;
    std::shared_ptr<platform::CaptureMovieFileOutput> videoFileOutput_;
    std::shared_ptr<ZMVideoCompresion> compressionService_;
};

}  // namespace zavo
