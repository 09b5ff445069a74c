#pragma once
// What the camera screen calls on its capture manager, and what the manager
// calls back.
#include "platform/CaptureTypes.h"
#include "platform/Error.h"
#include "platform/SampleBuffer.h"

#include <QRectF>
#include <functional>
#include <memory>

namespace zavo::platform {
class CaptureVideoPreviewLayer;
}

namespace zavo {

using SampleBufferHandler = std::function<void(const platform::SampleBuffer&)>;
using PreviewLayerCompletion = std::function<void(std::shared_ptr<platform::CaptureVideoPreviewLayer>)>;

class ZMCameraCaptureProtocol {
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
class ZMCameraCaptureManagerDelegate {
public:
    virtual ~ZMCameraCaptureManagerDelegate() = default;
    virtual bool shouldDeleteResultingVideo() = 0;
    virtual void videoSaveProcessBegan() = 0;
    virtual void videoSavedWithError(platform::ErrorPtr error) = 0;
};

}  // namespace zavo
