#pragma once
// The widget that shows a CaptureVideoPreviewLayer (see that header for why
// the two are separate). Create it on the GUI thread, as a child of the
// widget in whose coordinates the layer's frame is given; it places itself at
// that frame and paints the newest frame with the layer's gravity, turned and
// mirrored by the layer's connection.
//
// Repaints are coalesced: however fast frames arrive, at most one repaint is
// waiting on the GUI thread, and a frame is converted only when painted.
#include "platform/CaptureVideoPreviewLayer.h"

#include <QWidget>
#include <atomic>
#include <memory>

namespace zavo::platform {

class CaptureVideoPreviewView : public QWidget {
    Q_OBJECT

public:
    CaptureVideoPreviewView(std::shared_ptr<CaptureVideoPreviewLayer> layer, QWidget* parent = nullptr);
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
    void layerChanged();
    bool prepareImage(const CaptureVideoPreviewLayer::Frame& frame);

    const std::shared_ptr<CaptureVideoPreviewLayer> layer_;
    int listenerToken_ = 0;
    std::atomic<bool> updatePending_{false};
    int paintedFrames_ = 0;
    struct Painter;
    std::unique_ptr<Painter> painter_;  // GUI thread only
};

}  // namespace zavo::platform
