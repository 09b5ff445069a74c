#pragma once
// Capture sessions: a camera input, the outputs that consume its frames, and
// a capture thread that reads the camera while the session runs.
//
// Threads. Configuration (inputs, outputs, preset, begin/commit) and
// startRunning/stopRunning are meant for one queue, the owner's session
// queue; they are synchronous, like on the phone platform: startRunning
// returns once the camera is open, stopRunning once it is closed and the
// capture thread has ended. isRunning() and the read accessors are safe from
// any thread.
//
// The capture thread never waits for anyone: it hands each frame to the
// outputs (which either take it without blocking or drop it) and to the
// preview layers (which keep only the newest). A camera that stops delivering
// or vanishes while running is logged and leaves the session running without
// frames, so that stopping it ends recordings the usual way. A camera that
// cannot be opened at start is logged the same way.
//
// Frame times are session times in nanoseconds: they start at 0 and keep
// growing across restarts of the capture (a camera switch), so recorders
// never see time go backwards.
#include "base/ZavoExport.h"
#include "camera/CaptureDevice.h"
#include "media/SampleBuffer.h"
#include "base/ThreadSafety.h"

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace zavo::platform {

/// Posted with the session as sender when its capture stops for good while
/// it runs (the camera cannot be opened, is busy, was unplugged); the error
/// is the session's runtimeError(). Posted on the thread that noticed: the
/// session queue or the capture thread.
inline const QString kCaptureSessionRuntimeErrorNotification = QStringLiteral("CaptureSessionRuntimeErrorNotification");

class CaptureSession;
class CaptureVideoPreviewLayer;

/// How frames travel from a camera to one consumer: mirroring and turning.
/// Thread-safe; the consumer reads the settings for every frame.
class ZAVO_EXPORT CaptureConnection {
public:
    CaptureConnection() = default;
    CaptureConnection(const CaptureConnection&) = delete;
    CaptureConnection& operator=(const CaptureConnection&) = delete;

    bool isVideoMirroringSupported() const { return true; }
    bool isVideoMirrored() const { return mirrored_.load(std::memory_order_relaxed); }
    /// Ignored while automaticallyAdjustsVideoMirroring is on.
    void setVideoMirrored(bool mirrored) { mirrored_.store(mirrored, std::memory_order_relaxed); }
    /// On: frames are mirrored exactly when they come from a front camera
    /// (what a preview shows). Off for outputs, on for preview layers.
    bool automaticallyAdjustsVideoMirroring() const { return autoMirroring_.load(std::memory_order_relaxed); }
    void setAutomaticallyAdjustsVideoMirroring(bool automatic) { autoMirroring_.store(automatic, std::memory_order_relaxed); }

    bool isVideoOrientationSupported() const { return true; }
    VideoOrientation videoOrientation() const { return VideoOrientation(orientation_.load(std::memory_order_relaxed)); }
    void setVideoOrientation(VideoOrientation orientation) { orientation_.store(int(orientation), std::memory_order_relaxed); }

    /// Whether a frame from a camera at position comes out mirrored.
    bool mirrorsFramesFrom(CaptureDevicePosition position) const
    {
        return automaticallyAdjustsVideoMirroring() ? position == CaptureDevicePosition::Front : isVideoMirrored();
    }
    /// Degrees clockwise a frame is turned for orientation. Cameras deliver
    /// frames upright for the device held in portrait, so portrait turns
    /// nothing; holding the device landscape-right (turned to the left) needs
    /// the picture turned back by 90 degrees counter-clockwise, and so on.
    static int rotationDegreesFor(VideoOrientation orientation);

private:
    std::atomic<bool> mirrored_{false};
    std::atomic<bool> autoMirroring_{false};
    std::atomic<int> orientation_{int(VideoOrientation::Portrait)};
};

// ------------------------------------------------------------------ inputs

class ZAVO_EXPORT CaptureInput {
public:
    virtual ~CaptureInput() = default;

protected:
    CaptureInput() = default;

private:
    friend class CaptureSession;
    // Read and written only with the owning session's mutex_ held; the
    // annotation cannot name another object's mutex.
    std::weak_ptr<CaptureSession> session_;
};

class ZAVO_EXPORT CaptureDeviceInput final : public CaptureInput {
public:
    /// Null with an error when the device is missing, gone or refuses.
    static std::shared_ptr<CaptureDeviceInput> deviceInputWithDevice(const CaptureDevicePtr& device, ErrorPtr* error);
    const CaptureDevicePtr& device() const { return device_; }

    struct ConstructionKey {};
    CaptureDeviceInput(ConstructionKey, CaptureDevicePtr device) : device_(std::move(device)) {}

private:
    const CaptureDevicePtr device_;
};

// ----------------------------------------------------------------- outputs

/// Base of everything that consumes a session's frames.
class ZAVO_EXPORT CaptureOutput : public std::enable_shared_from_this<CaptureOutput> {
public:
    virtual ~CaptureOutput();
    CaptureOutput(const CaptureOutput&) = delete;
    CaptureOutput& operator=(const CaptureOutput&) = delete;

    /// The output's video connection, once it is in a session that has a
    /// camera input; null otherwise. The same object for the output's life.
    std::shared_ptr<CaptureConnection> connectionWithMediaType(MediaType mediaType) const;
    /// The session the output was added to, if it still exists.
    std::shared_ptr<CaptureSession> session() const;

protected:
    CaptureOutput();

    /// One frame from the capture thread. Must return quickly and never
    /// wait: take the frame (it is a shared handle) or drop it.
    virtual void captureFrame(const SampleBuffer& frame, CaptureDevicePosition position) = 0;
    /// The session stopped (called on the thread that stopped it, after the
    /// capture thread has ended).
    virtual void sessionDidStopRunning() {}
    /// The connection that frames reach this output through.
    const std::shared_ptr<CaptureConnection>& connection() const { return connection_; }

private:
    friend class CaptureSession;
    void setSession(const std::weak_ptr<CaptureSession>& session);
    bool isInSession() const;

    const std::shared_ptr<CaptureConnection> connection_;
    mutable Mutex sessionMutex_;
    std::weak_ptr<CaptureSession> session_ ZAVO_GUARDED_BY(sessionMutex_);
};

// ----------------------------------------------------------------- session

class ZAVO_EXPORT CaptureSession : public std::enable_shared_from_this<CaptureSession> {
public:
    static std::shared_ptr<CaptureSession> create();
    /// Stops a running session: the capture thread ends and the camera closes.
    ~CaptureSession();
    CaptureSession(const CaptureSession&) = delete;
    CaptureSession& operator=(const CaptureSession&) = delete;

    /// Changes between begin and commit take effect together at the
    /// outermost commit; a running session then restarts its capture.
    void beginConfiguration();
    void commitConfiguration();

    QString sessionPreset() const;
    /// True when every camera input's device supports preset.
    bool canSetSessionPreset(const QString& preset) const;
    void setSessionPreset(const QString& preset);

    /// One camera input per session; an input belongs to one session.
    bool canAddInput(const std::shared_ptr<CaptureInput>& input) const;
    void addInput(const std::shared_ptr<CaptureInput>& input);
    /// Like addInput; outputs added later still connect to it (as on the
    /// phone platform, where addOutput forms connections with every input).
    void addInputWithNoConnections(const std::shared_ptr<CaptureInput>& input);
    void removeInput(const std::shared_ptr<CaptureInput>& input);
    std::vector<std::shared_ptr<CaptureInput>> inputs() const;

    /// An output belongs to one session, and a camera may refuse it.
    bool canAddOutput(const std::shared_ptr<CaptureOutput>& output) const;
    void addOutput(const std::shared_ptr<CaptureOutput>& output);
    void removeOutput(const std::shared_ptr<CaptureOutput>& output);
    std::vector<std::shared_ptr<CaptureOutput>> outputs() const;

    /// Opens the camera and starts the capture thread.
    void startRunning();
    /// Ends the capture thread and closes the camera.
    void stopRunning();
    bool isRunning() const { return running_.load(); }

    /// The device of the camera input, if any.
    CaptureDevicePtr videoDevice() const;
    /// Why capture stopped delivering while running (camera gone, failed to
    /// open); null when it did not.
    ErrorPtr runtimeError() const;
    /// Frames read from the camera since the session was made.
    int64_t capturedFrameCount() const { return capturedFrames_.load(); }
    /// Whether the capture thread is alive (for tests of clean shutdown).
    bool isCapturing() const;

    struct ConstructionKey {};
    explicit CaptureSession(ConstructionKey);

private:
    friend class CaptureVideoPreviewLayer;
    friend class CaptureOutput;
    struct Run;

    void addInputLocked(const std::shared_ptr<CaptureInput>& input) ZAVO_REQUIRES(mutex_);
    void configurationChanged();
    void applyConfiguration();
    void startCapture();
    void stopCapture();
    static void captureLoop(Run* run);
    SampleBuffer retimed(Run& run, const SampleBuffer& frame);
    bool hasVideoInput() const;
    void registerPreviewLayer(const std::weak_ptr<CaptureVideoPreviewLayer>& layer);
    void postRuntimeError();

    mutable Mutex mutex_;
    std::vector<std::shared_ptr<CaptureInput>> inputs_ ZAVO_GUARDED_BY(mutex_);
    std::vector<std::shared_ptr<CaptureOutput>> outputs_ ZAVO_GUARDED_BY(mutex_);
    QString preset_ ZAVO_GUARDED_BY(mutex_) = CaptureSessionPreset::High;
    int configurationDepth_ ZAVO_GUARDED_BY(mutex_) = 0;
    bool pendingChange_ ZAVO_GUARDED_BY(mutex_) = false;
    ErrorPtr runtimeError_ ZAVO_GUARDED_BY(mutex_);

    std::atomic<bool> running_{false};
    std::atomic<int64_t> capturedFrames_{0};
    int64_t nextPtsNs_ = 0;  // capture threads only, one after the other
    std::unique_ptr<Run> run_;  // session queue only

    // Preview layers hold the session weakly, and the session them; the
    // capture thread walks this list for every frame.
    mutable Mutex layersMutex_;
    std::vector<std::weak_ptr<CaptureVideoPreviewLayer>> layers_ ZAVO_GUARDED_BY(layersMutex_);
};

using CaptureSessionPtr = std::shared_ptr<CaptureSession>;

}  // namespace zavo::platform
