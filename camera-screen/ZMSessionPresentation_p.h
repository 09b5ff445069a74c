#pragma once
// A session drawn by a front end of its own (the QML item) instead of the
// widget screen. The screen still runs the session, with its root widget
// kept off screen; what it would have shown comes out here as values: the
// preview layer, the face frame's rectangle and state, the banner's message
// and the liveness indicator. GUI thread only.
#include "base/ZavoExport.h"
#include "camera/CaptureVideoPreviewLayer.h"

#include <QObject>
#include <QRectF>
#include <QString>

namespace zavo {

class ZAVO_EXPORT ZMSessionPresentation : public QObject {
    Q_OBJECT
    /// In the coordinates of the drawn area (see setViewSize); moves as the
    /// screen animates it.
    Q_PROPERTY(QRectF faceRect READ faceRect NOTIFY faceChanged)
    Q_PROPERTY(bool faceVisible READ faceVisible NOTIFY faceChanged)
    /// The detection is good (the screen's green frame) or not (red).
    Q_PROPERTY(bool faceGood READ faceGood NOTIFY faceChanged)
    /// The banner's text; empty while no banner is up.
    Q_PROPERTY(QString message READ message NOTIFY messageChanged)
    Q_PROPERTY(bool livenessActive READ livenessActive NOTIFY livenessActiveChanged)
public:
    explicit ZMSessionPresentation(QObject* parent = nullptr) : QObject(parent) {}

    QRectF faceRect() const { return faceRect_; }
    bool faceVisible() const { return faceVisible_; }
    bool faceGood() const { return faceGood_; }
    QString message() const { return message_; }
    bool livenessActive() const { return livenessActive_; }
    /// The session's preview; null until the camera is configured.
    const platform::CaptureVideoPreviewLayerPtr& previewLayer() const { return previewLayer_; }

    /// The size of the area the front end draws the preview in (aspect fill):
    /// face rectangles come in its coordinates.
    void setViewSize(const QSizeF& size);
    QSizeF viewSize() const { return viewSize_; }

    // Set by the session's screen.
    void setFace(const QRectF& rect, bool visible);
    void setFaceGood(bool good);
    void setMessage(const QString& message);
    void setLivenessActive(bool active);
    void setPreviewLayer(platform::CaptureVideoPreviewLayerPtr layer);

Q_SIGNALS:
    void faceChanged();
    void messageChanged();
    void livenessActiveChanged();
    void previewLayerChanged();
    void viewSizeChanged(const QSizeF& size);

private:
    QRectF faceRect_;
    bool faceVisible_ = false;
    bool faceGood_ = false;
    QString message_;
    bool livenessActive_ = false;
    QSizeF viewSize_;
    platform::CaptureVideoPreviewLayerPtr previewLayer_;
};

}  // namespace zavo
