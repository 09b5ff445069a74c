#include "quick/CameraScreen.h"

#include "base/Affinity_p.h"
#include "camera-screen/ZMSessionPresentation_p.h"
#include "quick/CameraPreviewItem.h"
#include "quick/QuickLog_p.h"
#include "quick/ZavoImageProvider_p.h"
#include "ui/ZavoFonts.h"

#include <QGuiApplication>
#include <QKeyEvent>
#include <QQmlComponent>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickWindow>

namespace zavo::quick {

namespace {

/// The size of the banner's text on the widget screen.
constexpr double kMessageFontSize = 15.0;

const QUrl kOverlay(QStringLiteral("qrc:/qt/qml/ZavoCamera/CameraScreenOverlay.qml"));

}  // namespace

CameraScreen::CameraScreen(QQuickItem* parent)
    : QQuickItem(parent), session_(std::make_unique<ZMCameraSession>())
{
    ZAVO_ASSERT_ON_MAIN();
    presentation_ = session_->presentation();
    preview_ = new CameraPreviewItem(this);
    setFlag(ItemIsFocusScope);
    setActiveFocusOnTab(true);
    setFocus(true);

    connect(session_.get(), &ZMCameraSession::bestShot, this, &CameraScreen::bestShot);
    connect(session_.get(), &ZMCameraSession::failed, this, &CameraScreen::failed);
    connect(session_.get(), &ZMCameraSession::videoFinished, this, &CameraScreen::videoFinished);
    connect(session_.get(), &ZMCameraSession::settingsChanged, this, &CameraScreen::settingsChanged);
    connect(session_.get(), &ZMCameraSession::stateChanged, this,
            [this](ZMCameraSession::State state) { emit stateChanged(State(state)); });

    connect(presentation_, &ZMSessionPresentation::faceChanged, this, &CameraScreen::updateFaceRect);
    connect(presentation_, &ZMSessionPresentation::messageChanged, this, &CameraScreen::messageChanged);
    connect(presentation_, &ZMSessionPresentation::livenessActiveChanged, this, &CameraScreen::livenessActiveChanged);
    connect(presentation_, &ZMSessionPresentation::previewLayerChanged, this,
            [this] { preview_->setPreviewLayer(presentation_->previewLayer()); });
    // The screen places the face frame for a mirrored front camera; shown
    // unmirrored, the frame is mirrored with the picture.
    connect(preview_, &CameraPreviewItem::mirrorUndoneChanged, this, &CameraScreen::updateFaceRect);
    connect(preview_, &CameraPreviewItem::mirroredChanged, this, &CameraScreen::mirroredPreviewChanged);
}

CameraScreen::~CameraScreen()
{
    ZAVO_ASSERT_ON_MAIN();
    disconnect(windowVisibility_);
    if (presentation_)
        presentation_->disconnect(this);
    // Cancels a running session and waits for the component's threads; no
    // signal reaches this item from here on.
    session_->disconnect(this);
    session_.reset();
    preview_->setPreviewLayer(nullptr);
}

void CameraScreen::classBegin()
{
    QQuickItem::classBegin();
    ZavoImageProvider::installInto(qmlEngine(this));
}

void CameraScreen::componentComplete()
{
    QQuickItem::componentComplete();
    QQmlEngine* engine = qmlEngine(this);
    if (!engine) {
        qCWarning(lcQuick, "CameraScreen: made outside a QML engine, it shows the preview only");
        return;
    }
    // The overlay is QML so that its look can be read and changed as QML;
    // it reads everything it shows from this item.
    QQmlComponent component(engine, kOverlay, QQmlComponent::PreferSynchronous);
    std::unique_ptr<QObject> made(component.beginCreate(qmlContext(this)));
    auto* overlay = qobject_cast<QQuickItem*>(made.get());
    if (!overlay) {
        qCWarning(lcQuick) << "CameraScreen: the overlay did not load:" << component.errorString();
        return;
    }
    overlay->setParentItem(this);
    overlay->setProperty("screen", QVariant::fromValue(this));
    component.completeCreate();
    made.release()->setParent(this);  // from here on a child of the item
    overlay_ = overlay;
}

CameraScreen::State CameraScreen::sessionState() const { return State(session_->state()); }

bool CameraScreen::mirroredPreview() const { return preview_->mirrored(); }

void CameraScreen::setMirroredPreview(bool mirrored) { preview_->setMirrored(mirrored); }

bool CameraScreen::faceVisible() const { return presentation_ && presentation_->faceVisible(); }
bool CameraScreen::faceGood() const { return presentation_ && presentation_->faceGood(); }
QString CameraScreen::message() const { return presentation_ ? presentation_->message() : QString(); }
bool CameraScreen::livenessActive() const { return presentation_ && presentation_->livenessActive(); }

QFont CameraScreen::messageFont() const
{
    return fontNamed(kEtelkaFontFamily, kMessageFontSize).value_or(QGuiApplication::font());
}

bool CameraScreen::start()
{
    ZAVO_ASSERT_ON_MAIN();
    if (!presentation_)
        return false;
    // The session runs the widget screen out of sight, which needs the
    // widgets' application object.
    if (!QCoreApplication::instance()->inherits("QApplication")) {
        qCCritical(lcQuick, "CameraScreen: the application object must be a QApplication (the session runs "
                            "widgets out of sight); the session was not started");
        return false;
    }
    presentation_->setViewSize(size());
    const bool started = session_ && session_->start();
    if (started)
        qCDebug(lcQuick) << "CameraScreen: session started at" << size();
    return started;
}

void CameraScreen::cancel()
{
    ZAVO_ASSERT_ON_MAIN();
    if (session_)
        session_->cancel();
}

void CameraScreen::updateFaceRect()
{
    if (!presentation_)
        return;
    QRectF rect = presentation_->faceRect();
    if (preview_->mirrorUndone())
        rect.moveLeft(width() - rect.right());
    faceRect_ = rect;
    emit faceChanged();
}

void CameraScreen::geometryChange(const QRectF& newGeometry, const QRectF& oldGeometry)
{
    QQuickItem::geometryChange(newGeometry, oldGeometry);
    preview_->setSize(newGeometry.size());
    if (presentation_)
        presentation_->setViewSize(newGeometry.size());
    updateFaceRect();
}

void CameraScreen::itemChange(ItemChange change, const ItemChangeData& value)
{
    QQuickItem::itemChange(change, value);
    if (change == ItemSceneChange)
        followWindow(value.window);
}

void CameraScreen::followWindow(QQuickWindow* window)
{
    if (window == window_)
        return;
    disconnect(windowVisibility_);
    window_ = window;
    if (window)
        windowVisibility_ = connect(window, &QWindow::visibleChanged, this, &CameraScreen::windowVisibilityChanged);
}

void CameraScreen::windowVisibilityChanged(bool visible)
{
    // Closing the window hides it; a hidden camera screen ends its session
    // as the widget screen does, so the camera is not left running unseen.
    if (!visible && sessionState() == State::Running) {
        qCDebug(lcQuick, "CameraScreen: its window was hidden or closed; the session is cancelled");
        cancel();
    }
}

void CameraScreen::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape) {
        cancel();
        event->accept();
        return;
    }
    QQuickItem::keyPressEvent(event);
}

}  // namespace zavo::quick
