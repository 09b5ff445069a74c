#pragma once
// Records a session's frames live into an H.264 MP4 file.
//
// The capture thread only drops each frame (a shared handle) into a ring of
// its own; a recording thread takes frames from there and feeds the media
// writer, which encodes on its own queue. When the writer falls behind and
// the ring is full, frames are dropped and counted, never waited for. The
// file has the frames' own size (the camera's format, turned and mirrored as
// this output's connection says).
//
// A recording ends when stopRecording() is called or the session stops; the
// delegate then hears about the finished file (or the error that stopped it:
// an unwritable folder, a full disk, no frames at all) on the writer's queue.
// The delegate is held until then.
#include "base/ZavoExport.h"
#include "camera/CaptureSession.h"

#include <QUrl>
#include <QVariantMap>
#include <atomic>
#include <memory>

namespace zavo::platform {

/// Output settings key of the codec, and the H.264 codec's name.
inline const QString kVideoCodecKey = QStringLiteral("AVVideoCodecKey");
inline const QString kVideoCodecTypeH264 = QStringLiteral("avc1");

class CaptureMovieFileOutput;

class ZAVO_EXPORT CaptureFileOutputRecordingDelegate {
public:
    virtual ~CaptureFileOutputRecordingDelegate() = default;
    /// The first frame went into the file (recording thread).
    virtual void captureOutputDidStartRecording(CaptureMovieFileOutput& output, const QUrl& fileURL,
                                                const std::vector<std::shared_ptr<CaptureConnection>>& connections);
    /// The file is finished (error null) or failed (writer's queue, or the
    /// recording thread when the file could not even be started).
    virtual void captureOutputDidFinishRecording(CaptureMovieFileOutput& output, const QUrl& fileURL,
                                                 const std::vector<std::shared_ptr<CaptureConnection>>& connections,
                                                 ErrorPtr error) = 0;
};

class ZAVO_EXPORT CaptureMovieFileOutput final : public CaptureOutput {
public:
    static std::shared_ptr<CaptureMovieFileOutput> create();
    /// A recording under way is finished (without telling anyone if the
    /// delegate has gone).
    ~CaptureMovieFileOutput() override;

    /// Codecs the output can record with: H.264 ("avc1").
    QStringList availableVideoCodecTypes() const;
    /// Settings per connection; only kVideoCodecKey is read. The connection
    /// may belong to another output of the session: settings are accepted for
    /// any connection, and the codec applies to this output's recordings.
    QVariantMap outputSettingsForConnection(const std::shared_ptr<CaptureConnection>& connection) const;
    void setOutputSettings(const QVariantMap& settings, const std::shared_ptr<CaptureConnection>& connection);

    /// Starts recording the session's frames into the file at url (a local
    /// file URL; nothing may exist there yet). The delegate is held until the
    /// recording has finished. Ignored while a recording is under way.
    void startRecordingToOutputFileURL(const QUrl& url, std::shared_ptr<CaptureFileOutputRecordingDelegate> delegate);
    /// Ends the recording; the file is finished in the background.
    void stopRecording();
    bool isRecording() const;
    QUrl outputFileURL() const;

    /// Counts for the current or last recording: frames that reached the
    /// output while recording, frames written, frames dropped as late.
    int64_t offeredFrameCount() const;
    int64_t recordedFrameCount() const;
    int64_t droppedFrameCount() const;

    struct Recorder;
    struct ConstructionKey {};
    explicit CaptureMovieFileOutput(ConstructionKey);

protected:
    void captureFrame(const SampleBuffer& frame, CaptureDevicePosition position) override;
    void sessionDidStopRunning() override;

private:
    std::shared_ptr<Recorder> recorder_;
};

}  // namespace zavo::platform
