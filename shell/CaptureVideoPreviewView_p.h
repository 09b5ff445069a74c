#pragma once
// The widget that shows a CaptureVideoPreviewLayer (see that header for why
// the two are separate). Create it on the GUI thread, as a child of the
// widget in whose coordinates the layer's frame is given; it places itself at
// that frame and paints the newest frame with the layer's gravity, turned and
// mirrored by the layer's connection.
//
// Frames are turned into BGRA on a queue of the view's own, never on the GUI
// thread and never holding up the capture thread: a frame that arrives while
// one is being converted waits, and only the newest waiting one is converted.
// Repaints are coalesced the same way: however fast frames arrive, at most one
// repaint is waiting on the GUI thread. Painting only draws, and only the
// parts that need it.
#include "base/ZavoExport.h"
#include "camera/CaptureVideoPreviewLayer.h"
#include "base/DispatchQueue.h"

#include <QImage>
#include <QWidget>
#include <atomic>
#include <memory>

namespace zavo::platform {

class ZAVO_EXPORT CaptureVideoPreviewView : public QWidget {
    Q_OBJECT

public:
    CaptureVideoPreviewView(std::shared_ptr<CaptureVideoPreviewLayer> layer, QWidget* parent = nullptr);
    /// Waits for a conversion under way to finish.
    ~CaptureVideoPreviewView() override;

    const std::shared_ptr<CaptureVideoPreviewLayer>& layer() const { return layer_; }
    /// Frames painted so far (for tests and diagnostics).
    int paintedFrameCount() const { return paintedFrames_; }

    /// Where an image of imageSize lands for gravity inside bounds: the part
    /// of the image that is shown, and the rectangle it is drawn into.
    static void placeImage(const QSizeF& imageSize, const QRectF& bounds,
                           CaptureVideoPreviewLayer::VideoGravity gravity, QRectF& source, QRectF& target);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    struct Conversion;

    void requestUpdate();
    Q_INVOKABLE void layerChanged();
    void convertNewest();
    bool takeConverted();

    const std::shared_ptr<CaptureVideoPreviewLayer> layer_;
    const std::unique_ptr<Conversion> conversion_;
    std::shared_ptr<DispatchQueue> convertQueue_;
    int listenerToken_ = 0;
    std::atomic<bool> updatePending_{false};

    // GUI thread only.
    std::shared_ptr<PixelBuffer> shown_;  // keeps the pixels of image_ alive
    QImage image_;
    int paintedFrames_ = 0;
};

}  // namespace zavo::platform
