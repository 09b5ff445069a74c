#pragma once
// What the camera screen calls on its capture manager, and what the manager
// calls back.
#include "base/ZavoExport.h"
#include "camera/CaptureTypes.h"
#include "base/Error.h"
#include "media/SampleBuffer.h"

#include <QRectF>
#include <functional>
#include <optional>
#include <memory>

namespace zavo::platform {
class CaptureVideoPreviewLayer;
}

namespace zavo {

using SampleBufferHandler = std::function<void(const platform::SampleBuffer&)>;
using PreviewLayerCompletion = std::function<void(std::shared_ptr<platform::CaptureVideoPreviewLayer>)>;

class ZAVO_EXPORT ZMCameraCaptureProtocol {
public:
    virtual ~ZMCameraCaptureProtocol() = default;
    virtual void start() = 0;
    virtual void stopWithCompletion(std::function<void()> completion) = 0;
    virtual void updateLayerFrameWithRect(const QRectF& rect) = 0;
    virtual void configureWithCameraPosition(platform::CaptureDevicePosition position,
                                             std::function<void()> completion) = 0;
    virtual void findPreviewLayerWithCompletion(PreviewLayerCompletion completion) = 0;
    virtual void switchCameraType() = 0;
    virtual void defineSampleBufferhandler(SampleBufferHandler handler) = 0;
};

/// Held weakly by the manager; called on the recorder's threads.
class ZAVO_EXPORT ZMCameraCaptureManagerDelegate {
public:
    virtual ~ZMCameraCaptureManagerDelegate() = default;
    virtual bool shouldDeleteResultingVideo() = 0;
    virtual void videoSaveProcessBegan() = 0;
    virtual void videoSavedWithError(platform::ErrorPtr error) = 0;
    /// The camera stopped delivering for good while the session ran: it
    /// could not be opened, is busy elsewhere, or was unplugged. Called on
    /// the session queue or the capture thread.
    virtual void captureDidFailWithError(platform::ErrorPtr error) { (void)error; }
    /// The recording is final: after its last report (the movie-output
    /// recorder reports the recording and then its recompression), with the
    /// file when one is left and the last error, if any. Once per recording,
    /// on the recorder's thread.
    virtual void recordingDidFinish(std::optional<QString> videoFile, platform::ErrorPtr error)
    {
        (void)videoFile;
        (void)error;
    }
};

}  // namespace zavo
