#include "shell/CaptureVideoPreviewView_p.h"
#include "base/Affinity_p.h"

#include "base/FrameHandoff_p.h"
#include "camera/OrientedFrameConverter_p.h"

#include <QPaintEvent>
#include <QPainter>

namespace zavo::platform {

/// The state shared by the capture thread's listener, the convert queue and
/// painting.
struct CaptureVideoPreviewView::Conversion {
    std::atomic<bool> pending{false};  // a conversion is queued and has not started

    OrientedFrameConverter converter;  // convert queue only
    NewestSlot<std::shared_ptr<PixelBuffer>> ready;  // the newest BGRA frame, for painting
};

CaptureVideoPreviewView::CaptureVideoPreviewView(std::shared_ptr<CaptureVideoPreviewLayer> layer, QWidget* parent)
    : QWidget(parent), layer_(std::move(layer)), conversion_(std::make_unique<Conversion>())
{
    setAttribute(Qt::WA_OpaquePaintEvent);
    setAttribute(Qt::WA_NoSystemBackground);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    if (!layer_)
        return;
    if (const QRectF frame = layer_->frame(); frame.isValid())
        setGeometry(frame.toAlignedRect());
    convertQueue_ = DispatchQueue::create(QStringLiteral("CaptureVideoPreviewView.convert"),
                                          QualityOfService::UserInteractive);
    listenerToken_ = layer_->addListener([this](CaptureVideoPreviewLayer::Change change) {
        if (change == CaptureVideoPreviewLayer::Change::Geometry)
            requestUpdate();
        else if (!conversion_->pending.exchange(true))
            convertQueue_->async([this] { convertNewest(); });
    });
}

CaptureVideoPreviewView::~CaptureVideoPreviewView()
{
    if (!layer_)
        return;
    // No new conversion is queued once the listener is gone; the one that may
    // be under way uses this view, so it must be over before the view is.
    layer_->removeListener(listenerToken_);
    convertQueue_->sync([] {});
}

/// Any thread.
void CaptureVideoPreviewView::requestUpdate()
{
    if (updatePending_.exchange(true))
        return;
    // By name, so that the queued call is built and freed inside Qt: a functor
    // queued from the conversion thread would be our memory handed over
    // through Qt's event-queue locks, which a thread checker cannot see.
    QMetaObject::invokeMethod(this, "layerChanged", Qt::QueuedConnection);
}

void CaptureVideoPreviewView::convertNewest()
{
    ZAVO_ASSERT_ON(convertQueue_);
    // Cleared first: a frame that arrives from now on needs a conversion of
    // its own, and gets one after this.
    conversion_->pending.store(false);
    // A BGRA frame that needs no turn is shown as delivered, with no copy.
    const auto frame = layer_->newestFrame();
    std::shared_ptr<PixelBuffer> converted = conversion_->converter.convert(
        frame.sample.imageBuffer(), layer_->connection().get(), frame.position, PixelFormat::BGRA32,
        OrientedFrameConverter::Upright::Kept);
    if (!converted)
        return;
    converted = conversion_->ready.put(std::move(converted));
    converted.reset();  // an unpainted frame goes back to its pool outside the lock
    requestUpdate();
}

void CaptureVideoPreviewView::layerChanged()
{
    ZAVO_ASSERT_ON_MAIN();
    updatePending_.store(false);
    if (const QRectF frame = layer_->frame(); frame.isValid() && frame.toAlignedRect() != geometry())
        setGeometry(frame.toAlignedRect());
    update();
}

void CaptureVideoPreviewView::placeImage(const QSizeF& imageSize, const QRectF& bounds,
                                         CaptureVideoPreviewLayer::VideoGravity gravity, QRectF& source, QRectF& target)
{
    source = QRectF(QPointF(0, 0), imageSize);
    target = bounds;
    if (imageSize.isEmpty() || bounds.isEmpty() || gravity == CaptureVideoPreviewLayer::VideoGravity::Resize)
        return;
    const double scaleX = bounds.width() / imageSize.width();
    const double scaleY = bounds.height() / imageSize.height();
    if (gravity == CaptureVideoPreviewLayer::VideoGravity::ResizeAspectFill) {
        // Scale to cover, then show the centre part of the image.
        const double scale = std::max(scaleX, scaleY);
        const QSizeF visible(bounds.width() / scale, bounds.height() / scale);
        source = QRectF(QPointF((imageSize.width() - visible.width()) / 2, (imageSize.height() - visible.height()) / 2),
                        visible);
        return;
    }
    const double scale = std::min(scaleX, scaleY);
    const QSizeF drawn(imageSize.width() * scale, imageSize.height() * scale);
    target = QRectF(QPointF(bounds.x() + (bounds.width() - drawn.width()) / 2,
                            bounds.y() + (bounds.height() - drawn.height()) / 2),
                    drawn);
}

/// Picks up the newest converted frame; false while there is none.
bool CaptureVideoPreviewView::takeConverted()
{
    ZAVO_ASSERT_ON_MAIN();
    std::shared_ptr<PixelBuffer> ready = conversion_->ready.newest();
    if (ready && ready != shown_) {
        // BGRA bytes are Qt's 32-bit xRGB on a little-endian machine; the
        // image only points at the buffer.
        image_ = QImage(ready->baseAddress(), ready->width(), ready->height(), qsizetype(ready->bytesPerRow()),
                        QImage::Format_RGB32);
        shown_ = std::move(ready);
        ++paintedFrames_;
    }
    return !image_.isNull();
}

void CaptureVideoPreviewView::paintEvent(QPaintEvent* event)
{
    ZAVO_ASSERT_ON_MAIN();
    QPainter painter(this);
    if (!layer_ || !takeConverted()) {
        painter.fillRect(rect(), Qt::black);
        return;
    }
    QRectF source;
    QRectF target;
    placeImage(image_.size(), QRectF(rect()), layer_->videoGravity(), source, target);
    if (!target.contains(QRectF(rect())))
        painter.fillRect(rect(), Qt::black);
    // One image pixel to one device pixel is a copy: filtering would only
    // cost time. The overlay's small moving views repaint small parts, so
    // only those are drawn.
    const double ratio = devicePixelRatioF();
    const bool oneToOne = qFuzzyCompare(target.width() * ratio, source.width())
        && qFuzzyCompare(target.height() * ratio, source.height());
    painter.setRenderHint(QPainter::SmoothPixmapTransform, !oneToOne);
    const double scaleX = source.width() / target.width();
    const double scaleY = source.height() / target.height();
    for (const QRect& dirty : event->region()) {
        const QRectF part = QRectF(dirty) & target;
        if (part.isEmpty())
            continue;
        const QRectF from(source.x() + (part.x() - target.x()) * scaleX, source.y() + (part.y() - target.y()) * scaleY,
                          part.width() * scaleX, part.height() * scaleY);
        painter.drawImage(part, image_, from);
    }
}

}  // namespace zavo::platform
