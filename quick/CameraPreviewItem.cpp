#include "quick/CameraPreviewItem.h"

#include "base/Affinity_p.h"
#include "base/FrameHandoff_p.h"
#include "camera/OrientedFrameConverter_p.h"

#include <QImage>
#include <QQuickWindow>
#include <QSGImageNode>
#include <QSGNode>

namespace zavo::quick {

using platform::CaptureConnection;
using platform::CaptureVideoPreviewLayer;
using platform::OrientedFrameConverter;
using platform::PixelBuffer;

/// What the capture thread's listener, the convert queue and the scene
/// graph's sync share.
struct CameraPreviewItem::Conversion {
    std::atomic<bool> pending{false};       // a conversion is queued and has not started
    std::atomic<bool> mirrorUndone{false};  // as of the newest converted frame

    // Convert queue only.
    platform::CaptureVideoPreviewLayerPtr layer;
    OrientedFrameConverter converter;
    CaptureConnection connection;  // the layer's turn, with the item's own mirroring

    platform::NewestSlot<std::shared_ptr<PixelBuffer>> ready;  // the newest BGRA frame
};

/// The scene graph's side: the image node and the frame its texture was made
/// from. Render thread (or the GUI thread with the basic render loop).
class CameraPreviewItem::FrameNode final : public QSGNode {
public:
    explicit FrameNode(QSGImageNode* image) : image(image)
    {
        image->setOwnsTexture(true);
        appendChildNode(image);  // owned by this node, as its child
    }

    QSGImageNode* const image;
    // The texture is uploaded after the sync that made it, from the pixels
    // of this buffer, which the image only points at: kept until the
    // texture is replaced.
    std::shared_ptr<PixelBuffer> shown;
};

CameraPreviewItem::CameraPreviewItem(QQuickItem* parent)
    : QQuickItem(parent),
      conversion_(std::make_shared<Conversion>()),
      // Made with the item, before any session starts: a session waits at its
      // end for the threads it saw start, and this one lives with the item.
      convertQueue_(platform::DispatchQueue::create(QStringLiteral("CameraPreviewItem.convert"),
                                                    platform::QualityOfService::UserInteractive))
{
    setFlag(ItemHasContents, true);
}

CameraPreviewItem::~CameraPreviewItem()
{
    // No conversion is queued once the listener is gone; one under way uses
    // this item, so it must be over before the item is.
    if (layer_)
        layer_->removeListener(listenerToken_);
    convertQueue_->sync([this] { conversion_->layer.reset(); });
}

QRectF CameraPreviewItem::aspectFillSource(const QSizeF& imageSize, const QSizeF& bounds)
{
    if (imageSize.isEmpty() || bounds.isEmpty())
        return QRectF(QPointF(0, 0), imageSize);
    // Scale to cover, then show the middle of the image.
    const double scale = std::max(bounds.width() / imageSize.width(), bounds.height() / imageSize.height());
    const QSizeF visible(bounds.width() / scale, bounds.height() / scale);
    return QRectF(QPointF((imageSize.width() - visible.width()) / 2, (imageSize.height() - visible.height()) / 2),
                  visible);
}

void CameraPreviewItem::setPreviewLayer(platform::CaptureVideoPreviewLayerPtr layer)
{
    ZAVO_ASSERT_ON_MAIN();
    if (layer == layer_)
        return;
    if (layer_)
        layer_->removeListener(listenerToken_);
    layer_ = std::move(layer);
    if (!layer_)
        return;  // the last frame stays up, as on the widget screen
    // The queue is first in, first out: conversions asked for from here on
    // read the new layer.
    convertQueue_->async([this, layer = layer_] { conversion_->layer = layer; });
    listenerToken_ = layer_->addListener([this](CaptureVideoPreviewLayer::Change change) {
        if (change == CaptureVideoPreviewLayer::Change::NewFrame)
            requestConversion();
    });
    requestConversion();  // a layer that already has a frame shows it at once
}

void CameraPreviewItem::setMirrored(bool mirrored)
{
    if (mirrored_.exchange(mirrored) == mirrored)
        return;
    emit mirroredChanged();
    // A camera that has stopped sends no new frame: turn the last one again.
    requestConversion();
}

/// Any thread.
void CameraPreviewItem::requestConversion()
{
    if (!conversion_->pending.exchange(true))
        convertQueue_->async([this] { convertNewest(); });
}

void CameraPreviewItem::convertNewest()
{
    ZAVO_ASSERT_ON(convertQueue_);
    Conversion& c = *conversion_;
    // Cleared first: a frame that arrives from now on needs a conversion of
    // its own, and gets one after this.
    c.pending.store(false);
    if (!c.layer)
        return;
    const CaptureVideoPreviewLayer::Frame frame = c.layer->newestFrame();
    if (!frame.sample.imageBuffer())
        return;
    // The session's preview mirrors front cameras; the item may show the
    // camera's own picture instead, turned all the same.
    const auto shown = c.layer->connection();
    const bool sessionMirrors = shown && shown->mirrorsFramesFrom(frame.position);
    const bool mirror = sessionMirrors && mirrored_.load();
    c.connection.setVideoOrientation(shown ? shown->videoOrientation() : platform::VideoOrientation::Portrait);
    c.connection.setVideoMirrored(mirror);
    std::shared_ptr<PixelBuffer> converted = c.converter.convert(
        frame.sample.imageBuffer(), &c.connection, frame.position, platform::PixelFormat::BGRA32,
        OrientedFrameConverter::Upright::Kept);
    if (!converted)
        return;
    c.mirrorUndone.store(sessionMirrors && !mirror);
    converted = c.ready.put(std::move(converted));
    converted.reset();  // an unshown frame goes back to its pool outside the lock
    requestUpdate();
}

/// Any thread.
void CameraPreviewItem::requestUpdate()
{
    if (updatePending_.exchange(true))
        return;
    // By name, so that the queued call is built and freed inside Qt (see
    // "Why the main queue has its own hand-off" in docs/ARCHITECTURE.md).
    QMetaObject::invokeMethod(this, "frameConverted", Qt::QueuedConnection);
}

void CameraPreviewItem::frameConverted()
{
    ZAVO_ASSERT_ON_MAIN();
    updatePending_.store(false);
    if (const bool undone = conversion_->mirrorUndone.load(); undone != mirrorUndoneShown_) {
        mirrorUndoneShown_ = undone;
        emit mirrorUndoneChanged();
    }
    update();
}

void CameraPreviewItem::announceUploads()
{
    ZAVO_ASSERT_ON_MAIN();
    if (const int uploaded = uploaded_.load(); uploaded != uploadedShown_) {
        uploadedShown_ = uploaded;
        emit uploadedFramesChanged();
    }
}

void CameraPreviewItem::geometryChange(const QRectF& newGeometry, const QRectF& oldGeometry)
{
    QQuickItem::geometryChange(newGeometry, oldGeometry);
    update();
}

QSGNode* CameraPreviewItem::updatePaintNode(QSGNode* old, UpdatePaintNodeData*)
{
    // The render thread, while the GUI thread waits (or the GUI thread with
    // the basic render loop): the item is not touched from elsewhere now.
    auto* node = static_cast<FrameNode*>(old);
    std::shared_ptr<PixelBuffer> newest = conversion_->ready.newest();
    if (!newest && !node)
        return nullptr;  // nothing to show yet: the screen's black shows through
    if (!node)
        node = new FrameNode(window()->createImageNode());  // handed to the scene graph, which deletes it
    if (newest && newest != node->shown) {
        // BGRA bytes are Qt's 32-bit xRGB on a little-endian machine; the
        // image only points at the buffer, which the node keeps.
        const QImage image(newest->baseAddress(), newest->width(), newest->height(), qsizetype(newest->bytesPerRow()),
                           QImage::Format_RGB32);
        node->image->setTexture(window()->createTextureFromImage(image));
        node->shown = std::move(newest);  // the previous buffer goes after its texture
        ++uploaded_;
        // Told on the GUI thread, by name, like the conversions.
        QMetaObject::invokeMethod(this, "announceUploads", Qt::QueuedConnection);
    }
    const QSizeF textureSize = node->image->texture()->textureSize();
    const QRectF bounds = boundingRect();
    const QRectF source = aspectFillSource(textureSize, bounds.size());
    // One texel to one pixel needs no filtering; anything scaled is smoothed.
    const double ratio = window()->effectiveDevicePixelRatio();
    const bool oneToOne = qFuzzyCompare(bounds.width() * ratio, source.width())
        && qFuzzyCompare(bounds.height() * ratio, source.height());
    node->image->setFiltering(oneToOne ? QSGTexture::Nearest : QSGTexture::Linear);
    node->image->setRect(bounds);
    node->image->setSourceRect(source);
    return node;
}

}  // namespace zavo::quick
