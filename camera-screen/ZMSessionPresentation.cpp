#include "camera-screen/ZMSessionPresentation_p.h"

namespace zavo {

void ZMSessionPresentation::setViewSize(const QSizeF& size)
{
    if (size == viewSize_)
        return;
    viewSize_ = size;
    emit viewSizeChanged(size);
}

void ZMSessionPresentation::setFace(const QRectF& rect, bool visible)
{
    if (rect == faceRect_ && visible == faceVisible_)
        return;
    faceRect_ = rect;
    faceVisible_ = visible;
    emit faceChanged();
}

void ZMSessionPresentation::setFaceGood(bool good)
{
    if (good == faceGood_)
        return;
    faceGood_ = good;
    emit faceChanged();
}

void ZMSessionPresentation::setMessage(const QString& message)
{
    if (message == message_)
        return;
    message_ = message;
    emit messageChanged();
}

void ZMSessionPresentation::setLivenessActive(bool active)
{
    if (active == livenessActive_)
        return;
    livenessActive_ = active;
    emit livenessActiveChanged();
}

void ZMSessionPresentation::setPreviewLayer(platform::CaptureVideoPreviewLayerPtr layer)
{
    if (layer == previewLayer_)
        return;
    previewLayer_ = std::move(layer);
    emit previewLayerChanged();
}

}  // namespace zavo
