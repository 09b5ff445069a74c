// The camera screen: construction, its views and their layout, the capture
// wiring up to the first frame, and the user's two buttons. What the screen
// does with the detector's reports is in ZMCameraViewControllerResults.cpp.
#include "camera-screen/ZMCameraViewController_p.h"
#include "base/Affinity_p.h"

#include "resources/ZMBundleLink_p.h"

#include "shell/CaptureVideoPreviewView_p.h"
#include "shell/DeviceScreen.h"
#include "base/DispatchQueue.h"
#include "base/Log_p.h"
#include "ui/ZMFaceDetectionView.h"
#include "ui/ZMImages_p.h"
#include "ui/ZMVideoStreamNotificationView.h"

#include "ui_UI.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QCoreApplication>
#include <QKeyEvent>
#include <QPainter>
#include <QPixmapCache>
#include <QPushButton>
#include <QVariantAnimation>

#include <algorithm>
#include <cmath>

namespace zavo {

using platform::DispatchQueue;

namespace {

// Called tr so that lupdate files the screen's own texts under the form's
// context, where the bundle looks for them.
QString tr(const char* text) { return ZMBundleLink::screenText(text); }

QStringList rootTexts(const QWidget* root)
{
    return {root->windowTitle(), root->accessibleName(), root->accessibleDescription()};
}

/// The bundle image drawn in one flat colour, keeping its alpha (a template
/// image with a tint colour). Kept in Qt's pixmap cache: a fresh pixmap per
/// screen would give the button's icon new cache keys in every session, and
/// the pixmaps Qt derives from it would pile up in that cache until its
/// limit.
QPixmap tintedImage(const QString& name, const QColor& color)
{
    const QString key = QStringLiteral("zavocamera/tinted/%1/%2").arg(name, color.name(QColor::HexArgb));
    QPixmap cached;
    if (QPixmapCache::find(key, &cached))
        return cached;
    QImage image = zavoCameraImage(name).toImage().convertToFormat(QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&image);
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(QRectF(QPointF(0, 0), image.deviceIndependentSize()), color);
    painter.end();
    cached = QPixmap::fromImage(image);
    QPixmapCache::insert(key, cached);
    return cached;
}

/// True when no edge of a is a whole pixel away from the same edge of b.
bool withinAPixel(const QRectF& a, const QRectF& b)
{
    const double gaps[] = {a.left() - b.left(), a.top() - b.top(), a.right() - b.right(), a.bottom() - b.bottom()};
    return std::all_of(std::begin(gaps), std::end(gaps), [](double gap) { return std::abs(gap) < 1.0; });
}

/// Deletes the screen on the main queue: it owns widgets, and its last holder
/// may be a capture or detector thread. Once the application has ended the
/// main queue keeps the hand-over without running it, so widgets are never
/// destroyed without an application.
struct MainQueueDeleter {
    void operator()(ZMCameraViewController* screen) const
    {
        std::unique_ptr<ZMCameraViewController> owned(screen);
        if (DispatchQueue::main().isCurrent())
            return;
        auto handOver = std::make_shared<std::unique_ptr<ZMCameraViewController>>(std::move(owned));
        DispatchQueue::main().async([handOver] { handOver->reset(); });
    }
};

}  // namespace

/// Escape closes the screen, and so does hiding it: a window closed by the
/// window manager, Alt+F4 or QWindow::close, a host's hide() or a hidden
/// parent. Only a spontaneous hide (minimised, another workspace) leaves the
/// session running, because the user will come back to it. The overlay
/// re-lays its views when a child's size hint changes (a banner whose
/// message wraps onto another line).
class ZMCameraViewController::EventFilter : public QObject {
public:
    EventFilter(ZMCameraViewController* screen, QWidget* root) : QObject(root), screen_(screen) {}

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::KeyPress && static_cast<QKeyEvent*>(event)->key() == Qt::Key_Escape) {
            screen_->close();
            return true;
        }
        if (event->type() == QEvent::LayoutRequest && watched == screen_->controls_.data())
            screen_->layoutOverlay();
        if (event->type() == QEvent::Hide && !event->spontaneous() && watched == screen_->view()
            && !screen_->endingStarted_)
            screen_->close();
        // Qt hands the event down from the root to every child; the root
        // relabels the whole screen.
        if (event->type() == QEvent::LanguageChange && watched == screen_->view())
            screen_->retranslate();
        return false;
    }

private:
    ZMCameraViewController* screen_;  // owns the root widget, and so this filter
};

// ---------------------------------------------------------------- lifetime

std::shared_ptr<ZMCameraViewController> ZMCameraViewController::create()
{
    return std::shared_ptr<ZMCameraViewController>(new ZMCameraViewController(ConstructionKey{}), MainQueueDeleter{});
}

ZMCameraViewController::ZMCameraViewController(ConstructionKey)
    : notificationView_(std::make_unique<ZMVideoStreamNotificationView>()),
      closeButton_(std::make_unique<QPushButton>())
{
    closeButton_->setGeometry(QRect());
}

// Capture is not stopped here: it ends only through the ending paths, and a
// released capture manager stops its own session. The root widget outlives
// this part of the object (the base deletes it), and hiding it then must not
// reach back into a screen that is going.
ZMCameraViewController::~ZMCameraViewController() { delete eventFilter_.data(); }

std::shared_ptr<ZMCameraViewController> ZMCameraViewController::strongSelf()
{
    return std::static_pointer_cast<ZMCameraViewController>(weak_from_this().lock());
}

std::weak_ptr<ZMCameraViewController> ZMCameraViewController::weakSelf() { return strongSelf(); }

// ------------------------------------------------------------------ fields

std::shared_ptr<ZMCameraDelegate> ZMCameraViewController::delegate() const
{
    return delegate_.with([](const std::weak_ptr<ZMCameraDelegate>& delegate) { return delegate.lock(); });
}

void ZMCameraViewController::setDelegate(std::weak_ptr<ZMCameraDelegate> delegate)
{
    delegate_.set(std::move(delegate));
}

void ZMCameraViewController::setConfiguration(core::ZCZavoConfigurationPtr configuration)
{
    configuration_ = std::move(configuration);
}

void ZMCameraViewController::setOnlineLiveness(std::shared_ptr<core::ZCOnlineLivenessProtocol> liveness)
{
    onlineLiveness_ = std::move(liveness);
}

void ZMCameraViewController::setZavoCustomization(std::shared_ptr<ZMCustomization> customization)
{
    zavoCustomization_ = std::move(customization);
}

const core::ZCZavoConfiguration& ZMCameraViewController::requiredConfiguration(const char* use) const
{
    if (!configuration_)
        qFatal("ZMCameraViewController: the configuration must be set before %s", use);
    return *configuration_;
}

void ZMCameraViewController::defineInteractionsStep(std::vector<core::ZCStepConfigPtr> steps)
{
    bestShotDetector()->defineStepsList(std::move(steps));
}

const std::shared_ptr<ZMCameraCaptureManager>& ZMCameraViewController::captureManager()
{
    if (!captureManager_)
        captureManager_ = ZMCameraCaptureManager::create();
    return captureManager_;
}

const core::ZCBestShotDetectorPtr& ZMCameraViewController::bestShotDetector()
{
    if (!bestShotDetector_) {
        requiredConfiguration("the detector is built");
        bestShotDetector_ = core::ZCBestShotBuilder::buildWithDelegate(
            std::weak_ptr<core::ZCBestShotDelegate>(strongSelf()), onlineLiveness_, configuration_);
    }
    return bestShotDetector_;
}

ZMFaceDetectionViewProtocol& ZMCameraViewController::faceDetectionView()
{
    if (!faceDetectionView_) {
        std::unique_ptr<ZMFaceDetectionViewProtocol> view;
        if (zavoCustomization_)
            view = zavoCustomization_->uiCustomizer()->faceDetectionFrameView();
        if (!view) {
            auto builtIn = std::make_unique<ZMFaceDetectionView>(QColor(Qt::green), QColor(Qt::red));
            // A new view has a zero frame until the first face rectangle.
            builtIn->setGeometry(QRect());
            view = std::move(builtIn);
        }
        faceDetectionView_.reset(std::move(view));
    }
    return *faceDetectionView_.get();
}

// ---------------------------------------------------------------- the view

void ZMCameraViewController::loadView()
{
    auto* root = new QWidget;
    form_ = std::make_unique<::Ui::ZMCameraViewController>();
    form_->setupUi(root);
    formRootTexts_ = rootTexts(root);
    setView(root);
}

void ZMCameraViewController::retranslate()
{
    ZAVO_ASSERT_ON_MAIN();
    QWidget* root = view();
    const QStringList before = rootTexts(root);
    form_->retranslateUi(root);
    const QStringList translated = rootTexts(root);
    if (before[0] != formRootTexts_[0])
        root->setWindowTitle(before[0]);
    if (before[1] != formRootTexts_[1])
        root->setAccessibleName(before[1]);
    if (before[2] != formRootTexts_[2])
        root->setAccessibleDescription(before[2]);
    formRootTexts_ = translated;
    labelOwnViews();
}

void ZMCameraViewController::viewDidLoad()
{
    ZAVO_ASSERT_ON_MAIN();
    ViewController::viewDidLoad();
    // The camera turns with the screen it sits on; the configuration below
    // reads that screen's rotation, so name the screen before it starts.
    platform::Device::followScreen(view()->screen());
    setupViews();
    captureManager()->setDelegate(std::weak_ptr<ZMCameraCaptureManagerDelegate>(strongSelf()));
    // Both completions run on the capture manager's session queue; the
    // preview is set up on the main queue.
    captureManager()->configureWithCameraPosition(
        platform::CaptureDevicePosition::Front, [self = strongSelf()] {
            self->captureManager_->findPreviewLayerWithCompletion([self](platform::CaptureVideoPreviewLayerPtr layer) {
                DispatchQueue::main().async([self, layer] { self->setupPreview(layer); });
            });
        });
}

void ZMCameraViewController::bindOutlets()
{
    QWidget* root = view();
    const auto outlet = [root](const char* name) {
        auto* widget = root->findChild<QWidget*>(QLatin1String(name));
        if (!widget)
            qFatal("ZMCameraViewController: the scene has no outlet '%s'", name);
        return widget;
    };
    controls_ = outlet("controls");
    previewArea_ = outlet("previewArea");
    changeCameraButton_ = qobject_cast<QAbstractButton*>(outlet("changeCameraButton"));
    if (!changeCameraButton_)
        qFatal("ZMCameraViewController: the outlet 'changeCameraButton' is not a button");
    // The busy indicator is only required once it is shown or hidden.
    livenessActivity_ = root->findChild<QWidget*>(QStringLiteral("livenessActivity"));
    QObject::connect(changeCameraButton_, &QAbstractButton::clicked, root, [this] { changeCamera(); });
}

void ZMCameraViewController::setupViews()
{
    bindOutlets();
    const bool showSwitchCamera = requiredConfiguration("the view loads").isShowSwitchCamera;

    QWidget* face = faceDetectionView().widget();
    face->setParent(controls_);
    face->show();

    if (zavoCustomization_) {
        if (auto banner = zavoCustomization_->uiCustomizer()->videoStreamNotificationView())
            notificationView_.reset(std::move(banner));
    }
    QWidget* banner = notificationView_->widget();
    banner->setParent(controls_);
    banner->hide();
    banner->setFocusPolicy(Qt::NoFocus);

    setupCloseButton();
    labelOwnViews();
    changeCameraButton_->setVisible(showSwitchCamera);

    auto* filter = new EventFilter(this, view());
    eventFilter_ = filter;
    view()->installEventFilter(filter);
    controls_->installEventFilter(filter);
    viewSetUp_ = true;
    layoutOverlay();
}

void ZMCameraViewController::setupCloseButton()
{
    QPushButton* button = closeButton_.get();
    const QPixmap image = tintedImage(QStringLiteral("close"), Qt::white);
    button->setIcon(QIcon(image));
    button->setIconSize(image.deviceIndependentSize().toSize());
    button->setFlat(true);
    button->setFocusPolicy(Qt::StrongFocus);
    QObject::connect(button, &QPushButton::clicked, button, [this] { close(); });
    button->setParent(controls_);
    button->show();
}

// The texts of the views the screen adds to its form; the form's own are
// the form's business.
void ZMCameraViewController::labelOwnViews()
{
    notificationView_->widget()->setAccessibleName(tr("Message"));
    QPushButton* button = closeButton_.get();
    button->setAccessibleName(tr("Close"));
    button->setAccessibleDescription(tr("Stops the camera without taking a photo"));
    button->setToolTip(tr("Close"));
}

// Qt has no constraints: the overlay is laid out by hand on every resize,
// with the same frames the rules give (close button at the top-right corner
// inset by 10, the banner under it across the whole width at its own height).
void ZMCameraViewController::layoutOverlay()
{
    ZAVO_ASSERT_ON_MAIN();
    if (!viewSetUp_)
        return;
    const QRect bounds = view()->rect();
    previewArea_->setGeometry(bounds);
    controls_->setGeometry(bounds);

    const int side = qRound(CloseButtonSize);
    const int inset = 10;
    const QRect closeFrame(bounds.width() - inset - side, inset, side, side);
    closeButton_->setGeometry(closeFrame);

    QWidget* banner = notificationView_->widget();
    const int width = bounds.width();
    const int height = banner->hasHeightForWidth() ? banner->heightForWidth(width) : banner->sizeHint().height();
    banner->setGeometry(0, closeFrame.bottom() + 1, width, qMax(0, height));
}

void ZMCameraViewController::viewDidLayoutSubviews()
{
    ViewController::viewDidLayoutSubviews();
    if (!viewSetUp_)
        return;
    layoutOverlay();
    const QRectF bounds = QRectF(view()->rect());
    captureManager()->updateLayerFrameWithRect(bounds);
    // Linux gives widgets no safe-area insets.
    bestShotDetector()->screenSize(bounds.size(), platform::EdgeInsets{});
}

void ZMCameraViewController::viewDidChangeScreen(QScreen* screen) { platform::Device::followScreen(screen); }

void ZMCameraViewController::viewWasDestroyed()
{
    // The host took the screen down (closed and deleted the window holding
    // it). Every widget is gone; the session ends as if closed, unless an
    // ending is already on its way.
    viewSetUp_ = false;
    if (!endingStarted_)
        close();
}

// ------------------------------------------------------- capture wiring

void ZMCameraViewController::setupPreview(const platform::CaptureVideoPreviewLayerPtr& layer)
{
    ZAVO_ASSERT_ON_MAIN();
    if (wasViewDestroyed())
        return;  // the session was cancelled with the view
    if (layer && previewSink_) {
        layer->setFrame(QRectF(view()->rect()));
        layer->setVideoGravity(platform::CaptureVideoPreviewLayer::VideoGravity::ResizeAspectFill);
        previewSink_(layer);
    } else if (layer) {
        layer->setFrame(QRectF(view()->rect()));
        layer->setVideoGravity(platform::CaptureVideoPreviewLayer::VideoGravity::ResizeAspectFill);
        if (previewView_)
            previewView_->deleteLater();
        previewView_ = new platform::CaptureVideoPreviewView(layer, previewArea_);
        previewView_->show();
        controls_->raise();
    }
    // The frame queue never keeps the screen alive: the strong reference is
    // taken and dropped on the main queue, so the screen can be released
    // while a frame waits in its hop without a deadlock or a teardown off
    // the main thread.
    captureManager()->defineSampleBufferhandler([weak = weakSelf()](const platform::SampleBuffer& frame) {
        if (weak.expired())
            return;
        DispatchQueue::main().sync([&] {
            if (auto self = weak.lock())
                self->pushFrame(frame);
        });
    });
    // A prompt the user leaves unanswered must not keep a released screen
    // (and everything it owns) alive.
    ZMCameraCaptureManager::requestAccessForVideoWithCompletion(
        [weak = weakSelf()](platform::AuthorizationStatus status) {
            if (auto self = weak.lock())
                self->handleAccessResult(status);
        });
}

void ZMCameraViewController::pushFrame(const platform::SampleBuffer& frame)
{
    bestShotDetector()->pushFrame(frame);
}

// ---------------------------------------------------------------- actions

void ZMCameraViewController::changeCamera() { captureManager()->switchCameraType(); }

void ZMCameraViewController::close()
{
    ZAVO_ASSERT_ON_MAIN();
    stopAndDeliver([](ZMCameraViewController& self) { self.deliverError(ZMCameraError::canceled()); });
}

// ------------------------------------------------------------ view updates

void ZMCameraViewController::setLivenessActivityVisible(bool visible)
{
    ZAVO_ASSERT_ON_MAIN();
    if (wasViewDestroyed())
        return;
    if (!livenessActivity_)
        qFatal("ZMCameraViewController: the scene has no outlet 'livenessActivity'");
    livenessActivity_->setVisible(visible);
}

void ZMCameraViewController::moveFaceFrame(const QRectF& rect)
{
    ZAVO_ASSERT_ON_MAIN();
    if (wasViewDestroyed())
        return;
    QWidget* face = faceDetectionView().widget();
    if (rect == QRectF(0, 0, 0, 0)) {
        if (faceAnimation_)
            faceAnimation_->stop();
        face->hide();
        return;
    }
    face->show();
    if (!faceAnimation_) {
        // Animated in fractional pixels: whole-pixel steps would truncate the
        // last pixels of every short move and leave the frame short of it.
        faceAnimation_ = new QVariantAnimation(face);
        faceAnimation_->setDuration(150);
        QObject::connect(faceAnimation_, &QVariantAnimation::valueChanged, face,
                         [face](const QVariant& value) { face->setGeometry(value.toRectF().toRect()); });
    }
    // Rectangles come with every analysed frame, faster than a move lasts.
    // Starting each over with a slow start would keep the frame behind the
    // face for good; a move already under way instead heads for the new
    // rectangle from where the frame is, decelerating, so it closes in.
    const bool underWay = faceAnimation_->state() == QAbstractAnimation::Running;
    const QRectF from = underWay ? faceAnimation_->currentValue().toRectF() : QRectF(face->geometry());
    faceAnimation_->stop();
    // Closing in never quite ends while the face keeps being reported: the
    // last pixel is a jump.
    if (withinAPixel(from, rect)) {
        face->setGeometry(rect.toRect());
        return;
    }
    faceAnimation_->setEasingCurve(underWay ? QEasingCurve::OutQuad : QEasingCurve::InOutQuad);
    faceAnimation_->setStartValue(from);
    faceAnimation_->setEndValue(rect);
    faceAnimation_->start();
}

void ZMCameraViewController::announce(const QString& message)
{
    if (wasViewDestroyed())
        return;
    QWidget* banner = notificationView_->widget();
    banner->setAccessibleDescription(message);
    QAccessibleEvent event(banner, QAccessible::Alert);
    QAccessible::updateAccessibility(&event);
}

}  // namespace zavo
