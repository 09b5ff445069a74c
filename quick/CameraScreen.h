#pragma once
// The camera screen as a Qt Quick item: a ZMCameraSession drawn by the scene
// graph. The item owns its session; the preview is a CameraPreviewItem child,
// and the face frame, banner, busy bar and close button are QML
// (CameraScreenOverlay.qml) over it, fed from the session's presentation.
//
// The session's state is `state`, which hides QQuickItem's QML states: a
// screen has no states of its own to switch, and hosts read the session's.
#include "base/ZavoExport.h"
#include "camera-screen/ZMCameraSession.h"

#include <QFont>
#include <QPointer>
#include <QQuickItem>
#include <QtQml/qqmlregistration.h>
#include <memory>

namespace zavo {
class ZMSessionPresentation;
}

namespace zavo::quick {

class CameraPreviewItem;

class ZAVO_EXPORT CameraScreen : public QQuickItem {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(State state READ sessionState NOTIFY stateChanged)
    Q_PROPERTY(bool recordVideo READ recordVideo WRITE setRecordVideo NOTIFY settingsChanged)
    Q_PROPERTY(QVariantList steps READ steps WRITE setSteps NOTIFY settingsChanged)
    Q_PROPERTY(QString cameraLocation READ cameraLocation WRITE setCameraLocation NOTIFY settingsChanged)
    Q_PROPERTY(QString videoFolder READ videoFolder WRITE setVideoFolder NOTIFY settingsChanged)
    Q_PROPERTY(VideoPolicy videoPolicy READ videoPolicy WRITE setVideoPolicy NOTIFY settingsChanged)
    /// On (the default): front cameras shown mirrored, as the widget screen
    /// shows them. Off: the camera's own picture; the face frame follows.
    Q_PROPERTY(bool mirroredPreview READ mirroredPreview WRITE setMirroredPreview NOTIFY mirroredPreviewChanged)

    // What the overlay draws, in the item's coordinates.
    Q_PROPERTY(QRectF faceRect READ faceRect NOTIFY faceChanged)
    Q_PROPERTY(bool faceVisible READ faceVisible NOTIFY faceChanged)
    Q_PROPERTY(bool faceGood READ faceGood NOTIFY faceChanged)
    /// The banner's text; empty while no banner is up.
    Q_PROPERTY(QString message READ message NOTIFY messageChanged)
    Q_PROPERTY(bool livenessActive READ livenessActive NOTIFY livenessActiveChanged)
    /// The banner's font: the brand face at 15 points when installed, else
    /// the application's font.
    Q_PROPERTY(QFont messageFont READ messageFont CONSTANT)
    Q_PROPERTY(zavo::quick::CameraPreviewItem* preview READ preview CONSTANT)

public:
    enum class State {
        Idle = int(ZMCameraSession::State::Idle),
        Running = int(ZMCameraSession::State::Running),
        Finishing = int(ZMCameraSession::State::Finishing),
        Finished = int(ZMCameraSession::State::Finished),
    };
    Q_ENUM(State)
    enum class VideoPolicy {
        ReplacePrevious = int(ZMCameraSession::VideoPolicy::ReplacePrevious),
        KeepEach = int(ZMCameraSession::VideoPolicy::KeepEach),
    };
    Q_ENUM(VideoPolicy)

    explicit CameraScreen(QQuickItem* parent = nullptr);
    /// Destroys the session: a running one is cancelled, and the component's
    /// threads are waited for.
    ~CameraScreen() override;

    State sessionState() const;
    bool recordVideo() const { return session_->recordVideo(); }
    void setRecordVideo(bool record) { session_->setRecordVideo(record); }
    QVariantList steps() const { return session_->steps(); }
    void setSteps(const QVariantList& steps) { session_->setSteps(steps); }
    QString cameraLocation() const { return session_->cameraLocation(); }
    void setCameraLocation(const QString& location) { session_->setCameraLocation(location); }
    QString videoFolder() const { return session_->videoFolder(); }
    void setVideoFolder(const QString& folder) { session_->setVideoFolder(folder); }
    VideoPolicy videoPolicy() const { return VideoPolicy(session_->videoPolicy()); }
    void setVideoPolicy(VideoPolicy policy) { session_->setVideoPolicy(ZMCameraSession::VideoPolicy(policy)); }
    bool mirroredPreview() const;
    void setMirroredPreview(bool mirrored);

    QRectF faceRect() const { return faceRect_; }
    bool faceVisible() const;
    bool faceGood() const;
    QString message() const;
    bool livenessActive() const;
    QFont messageFont() const;
    CameraPreviewItem* preview() const { return preview_; }

    /// The session, for C++ hosts that want more than the properties (its
    /// configuration, its last best shot). Owned by the item.
    ZMCameraSession* session() const { return session_.get(); }

public Q_SLOTS:
    /// Starts the session; false, and nothing happens, unless it is Idle.
    bool start();
    /// Ends a running session as the close button does.
    void cancel();

Q_SIGNALS:
    void bestShot(const QImage& image, const QVariantMap& metadata, const QString& videoPath);
    void failed(const zavo::ZMSessionError& error, const QString& videoPath);
    void videoFinished(const QString& path, const QString& error);
    void stateChanged(zavo::quick::CameraScreen::State state);
    void settingsChanged();
    void mirroredPreviewChanged();
    void faceChanged();
    void messageChanged();
    void livenessActiveChanged();

protected:
    void classBegin() override;
    void componentComplete() override;
    void geometryChange(const QRectF& newGeometry, const QRectF& oldGeometry) override;
    void itemChange(ItemChange change, const ItemChangeData& value) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void updateFaceRect();
    void followWindow(QQuickWindow* window);
    void windowVisibilityChanged(bool visible);

    // Reset first in the destructor: it cancels and waits, and takes its
    // presentation (a child of it) with it, while the preview still listens.
    std::unique_ptr<ZMCameraSession> session_;
    QPointer<ZMSessionPresentation> presentation_;  // the session's child
    CameraPreviewItem* preview_ = nullptr;           // a child item
    QPointer<QQuickItem> overlay_;                    // a child item, made from QML
    QPointer<QQuickWindow> window_;                   // the window the item is in
    QMetaObject::Connection windowVisibility_;
    QRectF faceRect_;
};

}  // namespace zavo::quick
