#pragma once
// The live preview as a scene-graph item: the newest camera frame as a
// texture, aspect-filled into the item.
//
// Frames take the same road as in the widget preview: the capture thread only
// marks that a frame waits, a queue of the item's own turns, mirrors and
// converts the newest one into a pooled BGRA buffer, and that buffer waits in
// a NewestSlot. The GUI thread only asks for an update; the scene graph's
// sync (updatePaintNode, on the render thread while the GUI thread waits)
// wraps the buffer in an image without copying it and hands it to a texture.
// The buffer stays with the node until the texture made from it has been
// replaced, since the upload happens after the sync.
#include "base/ZavoExport.h"
#include "base/DispatchQueue.h"
#include "camera/CaptureVideoPreviewLayer.h"

#include <QQuickItem>
#include <QtQml/qqmlregistration.h>
#include <atomic>
#include <memory>

namespace zavo::quick {

class ZAVO_EXPORT CameraPreviewItem : public QQuickItem {
    Q_OBJECT
    QML_NAMED_ELEMENT(CameraPreview)
    /// On (the default): the picture as the session's preview shows it, front
    /// cameras mirrored. Off: the camera's own picture, never mirrored.
    Q_PROPERTY(bool mirrored READ mirrored WRITE setMirrored NOTIFY mirroredChanged)
    /// The picture shown is the mirror image of the session's preview (a
    /// front camera shown unmirrored): overlays placed for the preview must
    /// be mirrored too.
    Q_PROPERTY(bool mirrorUndone READ mirrorUndone NOTIFY mirrorUndoneChanged)
    /// Camera frames turned into textures so far.
    Q_PROPERTY(int uploadedFrames READ uploadedFrames NOTIFY uploadedFramesChanged)

public:
    explicit CameraPreviewItem(QQuickItem* parent = nullptr);
    /// Waits for a conversion under way.
    ~CameraPreviewItem() override;

    /// GUI thread. The layer to show; null shows black.
    void setPreviewLayer(platform::CaptureVideoPreviewLayerPtr layer);
    const platform::CaptureVideoPreviewLayerPtr& previewLayer() const { return layer_; }

    bool mirrored() const { return mirrored_.load(); }
    void setMirrored(bool mirrored);
    bool mirrorUndone() const { return mirrorUndoneShown_; }
    int uploadedFrames() const { return uploaded_.load(); }

    /// The part of an image of imageSize that aspect fill shows in bounds.
    static QRectF aspectFillSource(const QSizeF& imageSize, const QSizeF& bounds);

Q_SIGNALS:
    void mirroredChanged();
    void mirrorUndoneChanged();
    void uploadedFramesChanged();

protected:
    QSGNode* updatePaintNode(QSGNode* old, UpdatePaintNodeData* data) override;
    void geometryChange(const QRectF& newGeometry, const QRectF& oldGeometry) override;

private:
    struct Conversion;
    class FrameNode;

    void requestConversion();
    void convertNewest();
    /// Any thread; at most one queued at a time.
    void requestUpdate();
    Q_INVOKABLE void frameConverted();
    Q_INVOKABLE void announceUploads();

    platform::CaptureVideoPreviewLayerPtr layer_;  // GUI thread
    int listenerToken_ = 0;                        // GUI thread
    std::shared_ptr<Conversion> conversion_;
    const std::shared_ptr<platform::DispatchQueue> convertQueue_;
    std::atomic<bool> mirrored_{true};  // read by the convert queue
    std::atomic<bool> updatePending_{false};
    std::atomic<int> uploaded_{0};      // counted in the sync, read anywhere
    bool mirrorUndoneShown_ = false;    // GUI thread
    int uploadedShown_ = 0;             // GUI thread: the count last announced
};

}  // namespace zavo::quick
