#pragma once
// The capture session of one camera screen: camera permission, session
// configuration for a camera position (device, exact format or preset,
// focus, BGRA frame output with its mirroring and orientation, recorder),
// preview layer, start and stop, camera switching, frame delivery to one
// handler and, while recording, to the session-video recorder.
//
// Queues: configuration, start, stop, switching and preview-layer lookups run
// on the serial queue "CaptureSessionQueue" in the order they are called, and
// their completions run there too; frames arrive one at a time, in capture
// order, on the serial queue "SampleBufferDelegateQueue". Recorder callbacks
// are forwarded to the delegate on whatever thread the recorder uses.
//
// Lifetime: held by std::shared_ptr; queued tasks keep the manager alive
// until they have run. Once the last holder lets go, the session stops, the
// camera closes and both queue threads end.
#include "base/ZavoExport.h"
#include "capture/ZMCameraCaptureProtocol_p.h"
#include "camera/CaptureDevice.h"
#include "camera/CaptureSession.h"
#include "camera/CaptureVideoDataOutput_p.h"
#include "camera/CaptureVideoPreviewLayer.h"
#include "base/DispatchQueue.h"
#include "recording/ZMSaveVideoServiceProtocol_p.h"
#include "base/ThreadSafety.h"

#include <QPointF>
#include <QString>
#include <QVariantMap>
#include <atomic>
#include <functional>
#include <memory>

namespace zavo {

/// Class operations on capture sessions.
struct ZAVO_EXPORT CaptureSessionHelpers {
    /// The video orientation for how the device is held: landscape left (3)
    /// gives landscape right (3), landscape right (4) gives landscape left
    /// (4), and every other orientation, upside down and flat included,
    /// gives portrait.
    static platform::VideoOrientation currentOrientation();
};

/// The four characters of a four-character code, most significant byte
/// first: 0x34323076 is "420v".
ZAVO_EXPORT QString FourCharCodetoString(uint32_t code);

class ZAVO_EXPORT ZMCameraCaptureManager final : public ZMCameraCaptureProtocol,
                                     public ZMSaveVideoServiceDelegate,
                                     public platform::CaptureVideoDataOutputSampleBufferDelegate,
                                     public std::enable_shared_from_this<ZMCameraCaptureManager> {
public:
    using AuthorizationCompletion = std::function<void(platform::AuthorizationStatus status)>;

    /// Makes the two queues and starts observing the device orientation.
    static std::shared_ptr<ZMCameraCaptureManager> create();
    /// Stops observing; the session (stopped by its own destructor), the
    /// queues and the recorder go with the manager.
    ~ZMCameraCaptureManager() override;
    ZMCameraCaptureManager(const ZMCameraCaptureManager&) = delete;
    ZMCameraCaptureManager& operator=(const ZMCameraCaptureManager&) = delete;

    // ------------------------------------------------------------ permission

    /// Asks for camera permission when it is not decided yet. The completion
    /// always runs later on the main queue, with the status read afresh at
    /// that moment (never the raw answer of the request).
    static void requestAccessForVideoWithCompletion(AuthorizationCompletion completion);
    static platform::AuthorizationStatus cameraAuthorizationStatus();
    /// Why the status is not authorized, in the user's terms (no permission,
    /// refused by the desktop's portal); None when not known.
    static platform::CameraFailureReason cameraAccessDenialReason();

    // ------------------------------------------------------------ properties
    // Set from the caller's thread, normally before configuration and start.

    bool orientationEnabled() const { return orientationEnabled_.load(); }
    void setOrientationEnabled(bool enabled) { orientationEnabled_.store(enabled); }
    bool recordVideo() const { return recordVideo_.load(); }
    void setRecordVideo(bool record) { recordVideo_.store(record); }
    /// Held weakly.
    std::shared_ptr<ZMCameraCaptureManagerDelegate> delegate() const;
    void setDelegate(const std::weak_ptr<ZMCameraCaptureManagerDelegate>& delegate);
    /// Upper bound of the wanted frame rate; passed to the recorder.
    double fps() const { return fps_.load(); }
    void setFps(double fps) { fps_.store(fps); }
    /// Wanted frame size in pixels; passed to the recorder.
    double frameWidth() const { return frameWidth_.load(); }
    void setFrameWidth(double width) { frameWidth_.store(width); }
    double frameHeight() const { return frameHeight_.load(); }
    void setFrameHeight(double height) { frameHeight_.store(height); }

    /// Where recordings go: empty for the component's own folder
    /// (Documents/bright_fold, emptied at each recording), else a host's
    /// folder, never emptied, with one video name or (keepEach) a new name
    /// per recording.
    void setVideoDestination(const QString& folder, bool keepEach);

    /// Path of the session video of the current recording; empty before the
    /// first recording.
    QString videoFile() const;
    /// Frames captured since the current recording began (0 when nothing
    /// was recorded: the camera sent nothing, or recording is off).
    int64_t recordedFrameCount() const { return recordedFrames_.load(); }

    // ------------------------------------------------- ZMCameraCaptureProtocol

    void start() override;
    void stopWithCompletion(std::function<void()> completion) override;
    void updateLayerFrameWithRect(const QRectF& rect) override;
    void configureWithCameraPosition(platform::CaptureDevicePosition position,
                                     std::function<void()> completion) override;
    void findPreviewLayerWithCompletion(PreviewLayerCompletion completion) override;
    void switchCameraType() override;
    void defineSampleBufferhandler(SampleBufferHandler handler) override;

    // ------------------------------------------------------------ internals
    // Public so that tests can drive each step; the screen never calls them.

    const platform::DispatchQueuePtr& captureSessionQueue() const { return captureSessionQueue_; }
    platform::DispatchQueuePtr setSampleBufferDelegateQueue() const;
    void setSetSampleBufferDelegateQueue(platform::DispatchQueuePtr queue);

    platform::CaptureSessionPtr session() const;
    /// The device of the last configuration (a switch does not change it).
    platform::CaptureDevicePtr camera() const;
    platform::CaptureDevicePosition cameraPosition() const { return platform::CaptureDevicePosition(cameraPosition_.load()); }
    std::shared_ptr<ZMSaveVideoServiceProtocol> saveVideoService() const;

    /// The one dictionary entry: pixel format = BGRA. Built anew each call.
    QVariantMap videoSettings() const;
    void setupVideoService(const platform::CaptureSessionPtr& session,
                           const std::shared_ptr<platform::CaptureConnection>& connection);
    void startVideoFileRecord();
    void stopVideoFileRecordWithCompletion(std::function<void()> completion);

    // Device discovery and format choice, on the session queue; the choice
    // itself (findRequiredFormatWithDevice) only reads the device it is
    // given and may run anywhere.
    platform::CaptureDevicePtr cameraDeviceWithPosition(platform::CaptureDevicePosition position);
    platform::CaptureDeviceFormatPtr findRequiredFormatWithDevice(const platform::CaptureDevicePtr& device,
                                                                  double width, double height, double maximumFPS);
    void configureActiveFormat(const platform::CaptureDevicePtr& device);
    bool useSessionPreset(const QString& preset);

    // Focus, orientation and the preview layer.
    void setupFocusForCamera(const platform::CaptureDevicePtr& device);
    void setupFocus(QPointF point, const platform::CaptureDevicePtr& device);
    void setupObservation();
    void didChangeOrientation();
    /// The preview layer for the session, made when none is alive; null
    /// (with a log line) before configuration. Caller's thread.
    platform::CaptureVideoPreviewLayerPtr previewLayer();

    // ZMSaveVideoServiceDelegate (any thread).
    void videoFlushingWillBegin() override;
    void videoFlushingDidEndWithError(platform::ErrorPtr error) override;
    void videoRecordingDidFinish(platform::ErrorPtr error) override;

    // Frames (setSampleBufferDelegateQueue).
    void captureOutputDidOutputSampleBuffer(platform::CaptureVideoDataOutput& output,
                                            const platform::SampleBuffer& sampleBuffer,
                                            platform::CaptureConnection& connection) override;

    struct ConstructionKey {};
    explicit ZMCameraCaptureManager(ConstructionKey);

private:
    void configureTask(platform::CaptureDevicePosition position, const std::function<void()>& completion);
    void switchTask();
    platform::CaptureVideoPreviewLayerPtr previewLayerForSession(const platform::CaptureSessionPtr& session);

    std::atomic<bool> orientationEnabled_{false};
    std::atomic<bool> recordVideo_{false};
    std::atomic<double> fps_{30.0};
    std::atomic<double> frameWidth_{720.0};
    std::atomic<double> frameHeight_{1280.0};
    std::atomic<int> cameraPosition_{0};
    std::atomic<int64_t> recordedFrames_{0};
    std::atomic<bool> recordingFinal_{false};  // the host was told this recording is final

    platform::DispatchQueuePtr captureSessionQueue_;

    // The phone version shares these between queues without locks and asks
    // its users to set them before start. The locks keep that usage free of
    // data races (and a handler changed while frames flow safe); they are
    // held only to copy a pointer, never across a call out.
    mutable Mutex mutex_;
    platform::DispatchQueuePtr sampleBufferDelegateQueue_ ZAVO_GUARDED_BY(mutex_);
    std::weak_ptr<ZMCameraCaptureManagerDelegate> delegate_ ZAVO_GUARDED_BY(mutex_);
    platform::CaptureSessionPtr session_ ZAVO_GUARDED_BY(mutex_);
    platform::CaptureDevicePtr camera_ ZAVO_GUARDED_BY(mutex_);
    std::shared_ptr<ZMSaveVideoServiceProtocol> saveVideoService_ ZAVO_GUARDED_BY(mutex_);
    QString videoFile_ ZAVO_GUARDED_BY(mutex_);
    QString videoFolder_ ZAVO_GUARDED_BY(mutex_);
    bool keepEachVideo_ ZAVO_GUARDED_BY(mutex_) = false;
    std::shared_ptr<const SampleBufferHandler> sampleBufferHandler_ ZAVO_GUARDED_BY(mutex_);
    std::weak_ptr<platform::CaptureVideoPreviewLayer> previewLayer_ ZAVO_GUARDED_BY(mutex_);
};

}  // namespace zavo
