#include "platform/CaptureVideoPreviewView.h"

#include "platform/VideoFrameConverter.h"

#include <QImage>
#include <QPainter>

namespace zavo::platform {

/// What painting needs between frames: the converter and the BGRA buffer
/// turned frames are drawn from (reused while the frame shape stays).
struct CaptureVideoPreviewView::Painter {
    VideoFrameConverter converter;
    std::shared_ptr<PixelBufferPool> pool;
    std::shared_ptr<PixelBuffer> converted;
    SampleBuffer shown;  // keeps the pixels of image alive
    QImage image;
};

CaptureVideoPreviewView::CaptureVideoPreviewView(std::shared_ptr<CaptureVideoPreviewLayer> layer, QWidget* parent)
    : QWidget(parent), layer_(std::move(layer)), painter_(std::make_unique<Painter>())
{
    setAttribute(Qt::WA_OpaquePaintEvent);
    setAttribute(Qt::WA_NoSystemBackground);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    if (!layer_)
        return;
    if (const QRectF frame = layer_->frame(); frame.isValid())
        setGeometry(frame.toAlignedRect());
    listenerToken_ = layer_->addListener([this](CaptureVideoPreviewLayer::Change) {
        if (updatePending_.exchange(true))
            return;
        QMetaObject::invokeMethod(this, &CaptureVideoPreviewView::layerChanged, Qt::QueuedConnection);
    });
}

CaptureVideoPreviewView::~CaptureVideoPreviewView()
{
    if (layer_)
        layer_->removeListener(listenerToken_);
}

void CaptureVideoPreviewView::layerChanged()
{
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

bool CaptureVideoPreviewView::prepareImage(const CaptureVideoPreviewLayer::Frame& frame)
{
    Painter& p = *painter_;
    const auto& source = frame.sample.imageBuffer();
    if (!source)
        return false;
    const auto connection = layer_->connection();
    const int rotation = connection ? CaptureConnection::rotationDegreesFor(connection->videoOrientation()) : 0;
    const bool mirrored = connection && connection->mirrorsFramesFrom(frame.position);

    std::shared_ptr<PixelBuffer> bgra;
    if (source->pixelFormat() == PixelFormat::BGRA32 && rotation == 0 && !mirrored) {
        bgra = source;  // shown as delivered: no conversion at all
    } else {
        const bool turned = rotation == 90 || rotation == 270;
        const int width = turned ? source->height() : source->width();
        const int height = turned ? source->width() : source->height();
        if (!p.pool || p.pool->attributes().width != width || p.pool->attributes().height != height)
            p.pool = PixelBufferPool::create({PixelFormat::BGRA32, width, height});
        if (!p.pool)
            return false;
        // The pool hands back the previous buffer once the image lets go of it.
        p.image = QImage();
        p.converted.reset();
        p.converted = p.pool->createPixelBuffer();
        p.converter.setRotation(rotation);
        p.converter.setMirrored(mirrored);
        if (!p.converted || !p.converter.convert(*source, *p.converted))
            return false;
        bgra = p.converted;
    }
    p.shown = frame.sample;
    // BGRA bytes are Qt's 32-bit xRGB on a little-endian machine; the image
    // only points at the buffer.
    p.image = QImage(bgra->baseAddress(), bgra->width(), bgra->height(), qsizetype(bgra->bytesPerRow()),
                     QImage::Format_RGB32);
    return true;
}

void CaptureVideoPreviewView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), Qt::black);
    if (!layer_)
        return;
    const auto frame = layer_->newestFrame();
    if (frame.sample.imageBuffer() != painter_->shown.imageBuffer() || painter_->image.isNull()) {
        if (!prepareImage(frame))
            return;
        ++paintedFrames_;
    }
    QRectF source;
    QRectF target;
    placeImage(painter_->image.size(), QRectF(rect()), layer_->videoGravity(), source, target);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(target, painter_->image, source);
}

}  // namespace zavo::platform
