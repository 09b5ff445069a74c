#pragma once
// The live preview of a capture session.
//
// Why a layer object and a separate widget: the capture manager makes its
// preview layer on its session queue, but Qt widgets may only be created and
// touched on the GUI thread. So CaptureVideoPreviewLayer is a plain
// thread-safe object that any queue can make, size and query; it keeps the
// session's newest frame (a shared handle, swapped under a small lock, never
// copied). CaptureVideoPreviewView is the widget that the screen makes on the
// GUI thread to show a layer: it paints the layer's newest frame and follows
// the layer's frame rectangle.
//
// Ownership: whoever shows the preview holds the layer strongly; the capture
// manager holds it weakly, and the layer holds its session weakly, so a
// preview left on screen never keeps a camera open.
#include "base/ZavoExport.h"
#include "camera/CaptureSession.h"
#include "media/SampleBuffer.h"
#include "base/ThreadSafety.h"

#include <QRectF>
#include <functional>
#include <memory>
#include <vector>

namespace zavo::platform {

class ZAVO_EXPORT CaptureVideoPreviewLayer : public std::enable_shared_from_this<CaptureVideoPreviewLayer> {
public:
    enum class VideoGravity {
        ResizeAspectFill,  // fills the frame, cropping the overflow (the default)
        ResizeAspect,      // fits inside the frame, with bars
        Resize,            // stretches to the frame
    };

    enum class Change { NewFrame, Geometry };
    /// Told about changes; runs on the thread that made the change (the
    /// capture thread for frames) and must not block.
    using Listener = std::function<void(Change)>;

    /// A layer showing session's frames; session may be null (a layer that
    /// shows nothing).
    static std::shared_ptr<CaptureVideoPreviewLayer> layerWithSession(const std::shared_ptr<CaptureSession>& session);
    ~CaptureVideoPreviewLayer();

    std::shared_ptr<CaptureSession> session() const { return session_.lock(); }

    /// In the coordinates of the widget that shows the preview's view.
    QRectF frame() const;
    void setFrame(const QRectF& frame);
    VideoGravity videoGravity() const;
    void setVideoGravity(VideoGravity gravity);

    /// Turns and mirrors the preview (front cameras are mirrored
    /// automatically). Null while the session is gone or has no camera.
    std::shared_ptr<CaptureConnection> connection() const;

    struct Frame {
        SampleBuffer sample;
        CaptureDevicePosition position = CaptureDevicePosition::Unspecified;
    };
    /// The newest frame, as the camera delivered it (not yet turned).
    Frame newestFrame() const;
    /// Frames received so far.
    int64_t receivedFrameCount() const;

    int addListener(Listener listener);
    /// After it returns the listener is never called again.
    void removeListener(int token);

    struct ConstructionKey {};
    CaptureVideoPreviewLayer(ConstructionKey, const std::shared_ptr<CaptureSession>& session);

private:
    friend class CaptureSession;
    /// From the capture thread.
    void enqueueFrame(const SampleBuffer& frame, CaptureDevicePosition position);
    void notify(Change change);

    const std::weak_ptr<CaptureSession> session_;
    const std::shared_ptr<CaptureConnection> connection_;

    mutable Mutex mutex_;
    Frame newest_ ZAVO_GUARDED_BY(mutex_);
    int64_t received_ ZAVO_GUARDED_BY(mutex_) = 0;
    QRectF frame_ ZAVO_GUARDED_BY(mutex_);
    VideoGravity gravity_ ZAVO_GUARDED_BY(mutex_) = VideoGravity::ResizeAspectFill;

    mutable Mutex listenersMutex_;
    std::vector<std::pair<int, Listener>> listeners_ ZAVO_GUARDED_BY(listenersMutex_);
    int nextToken_ ZAVO_GUARDED_BY(listenersMutex_) = 1;
};

using CaptureVideoPreviewLayerPtr = std::shared_ptr<CaptureVideoPreviewLayer>;

}  // namespace zavo::platform
