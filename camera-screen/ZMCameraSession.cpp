#include "camera-screen/ZMCameraSession.h"

#include "base/Affinity_p.h"
#include "base/DispatchQueue.h"
#include "base/Log_p.h"
#include "base/MainQueueWait_p.h"
#include "camera-screen/ZMCameraBuilder.h"
#include "camera-screen/ZMCameraViewController_p.h"
#include "camera-screen/ZMSessionPresentation_p.h"
#include "capture/ZMCameraDevices.h"
#include "recording/ZMRecordingStorage_p.h"
#include "resources/ZMBundleLink_p.h"
#include "zavocore/ZCStepConfig.h"

#include <QCoreApplication>
#include <QEvent>
#include <QPointer>
#include <QVBoxLayout>

namespace zavo {

using platform::DispatchQueue;

namespace {

/// How long destruction waits for the component's threads: the recorder
/// finishing a file and a compression stopping take well under a second.
constexpr std::chrono::milliseconds kThreadWaitLimit(5000);

/// The session's texts live in the screen's table: a host reads them as the
/// screen's own.
QString sessionText(const char* text) { return ZMBundleLink::screenText(text); }

const QString kSessionErrorDomain = QStringLiteral("ZavoCamera.ZMCameraSession");

ZMCameraError settingError(long code, const QString& text)
{
    return ZMCameraError::error(std::make_shared<platform::ErrorObject>(
        kSessionErrorDomain, code, QVariantMap{{QString::fromLatin1(platform::kLocalizedDescriptionKey), text}}));
}

std::optional<core::ZCStepKind> stepKindNamed(const QString& name)
{
    static const std::pair<const char*, core::ZCStepKind> kinds[] = {
        {"lookAtCamera", core::ZCStepKind::LookAtCamera},
        {"turnHeadLeft", core::ZCStepKind::TurnHeadLeft},
        {"turnHeadRight", core::ZCStepKind::TurnHeadRight},
        {"moveCloser", core::ZCStepKind::MoveCloser},
    };
    for (const auto& [known, kind] : kinds) {
        if (name.compare(QLatin1String(known), Qt::CaseInsensitive) == 0)
            return kind;
    }
    return std::nullopt;
}

std::vector<core::ZCStepConfigPtr> parseSteps(const QVariantList& steps)
{
    std::vector<core::ZCStepConfigPtr> parsed;
    for (const QVariant& step : steps) {
        const QVariantMap map = step.toMap();
        const QString name = map.isEmpty() ? step.toString() : map.value(QStringLiteral("kind")).toString();
        const auto kind = stepKindNamed(name);
        bool timeoutOk = true;
        const double timeout = map.contains(QStringLiteral("timeout"))
            ? map.value(QStringLiteral("timeout")).toDouble(&timeoutOk)
            : core::ZCStepConfig::kDefaultTimeout;
        if (!kind || !timeoutOk || !(timeout > 0)) {
            qCWarning(platform::lcScreen) << "ZMCameraSession: step left out, not understood:" << step;
            continue;
        }
        parsed.push_back(std::make_shared<core::ZCStepConfig>(*kind, timeout));
    }
    return parsed;
}

QVariantMap metadataOf(const core::ZCBestShot& shot)
{
    const core::ZCQualityScore& q = shot.quality();
    QVariantMap metadata{
        {QStringLiteral("faceRect"), shot.faceRect()},
        {QStringLiteral("quality"), q.total},
        {QStringLiteral("sharpness"), q.sharpness},
        {QStringLiteral("exposure"), q.exposure},
        {QStringLiteral("eyesOpen"), q.eyesOpen},
        {QStringLiteral("yaw"), q.headPose.yaw},
        {QStringLiteral("pitch"), q.headPose.pitch},
        {QStringLiteral("roll"), q.headPose.roll},
    };
    if (const auto& points = shot.keypoints()) {
        metadata.insert(QStringLiteral("keypoints"),
                        QVariantMap{{QStringLiteral("rightEye"), points->rightEye},
                                    {QStringLiteral("leftEye"), points->leftEye},
                                    {QStringLiteral("noseTip"), points->noseTip},
                                    {QStringLiteral("mouth"), points->mouth},
                                    {QStringLiteral("rightEar"), points->rightEar},
                                    {QStringLiteral("leftEar"), points->leftEar}});
    }
    return metadata;
}

// ------------------------------------------- views of a presented session

/// The face frame of a session drawn elsewhere: the screen moves and colours
/// it as always, and every change goes out as values. Never on screen.
class PresentedFaceFrame final : public QWidget, public ZMFaceDetectionViewProtocol {
public:
    explicit PresentedFaceFrame(QPointer<ZMSessionPresentation> out) : out_(std::move(out)) {}
    void switchToPositiveState() override
    {
        if (out_)
            out_->setFaceGood(true);
    }
    void switchToNegativeState() override
    {
        if (out_)
            out_->setFaceGood(false);
    }
    QWidget* widget() override { return this; }

protected:
    bool event(QEvent* event) override
    {
        switch (event->type()) {
        case QEvent::Move:
        case QEvent::Resize:
        case QEvent::Show:
        case QEvent::Hide:
        case QEvent::ShowToParent:
        case QEvent::HideToParent:
            if (out_)
                out_->setFace(QRectF(geometry()), !isHidden() && !geometry().isEmpty());
            break;
        default: break;
        }
        return QWidget::event(event);
    }

private:
    QPointer<ZMSessionPresentation> out_;
};

/// The banner of a session drawn elsewhere: its message goes out while the
/// screen has it up.
class PresentedBanner final : public QWidget, public ZMVideoStreamNotificationViewProtocol {
public:
    explicit PresentedBanner(QPointer<ZMSessionPresentation> out) : out_(std::move(out)) {}
    void showNotificationMessage(platform::ErrorPtr error) override
    {
        text_ = error ? error->localizedDescription() : QString();
        current_ = std::move(error);
        report();
    }
    platform::ErrorPtr notificationMessage() const override { return current_; }
    QWidget* widget() override { return this; }

protected:
    bool event(QEvent* event) override
    {
        if (event->type() == QEvent::ShowToParent || event->type() == QEvent::HideToParent)
            report();
        return QWidget::event(event);
    }

private:
    void report()
    {
        if (out_)
            out_->setMessage(isHidden() ? QString() : text_);
    }

    QPointer<ZMSessionPresentation> out_;
    QString text_;
    platform::ErrorPtr current_;
};

class PresentedViews final : public ZMUICustomizerProtocol {
public:
    explicit PresentedViews(QPointer<ZMSessionPresentation> out) : out_(std::move(out)) {}
    std::unique_ptr<ZMFaceDetectionViewProtocol> faceDetectionFrameView() override
    {
        return std::make_unique<PresentedFaceFrame>(out_);
    }
    std::unique_ptr<ZMVideoStreamNotificationViewProtocol> videoStreamNotificationView() override
    {
        return std::make_unique<PresentedBanner>(out_);
    }

private:
    QPointer<ZMSessionPresentation> out_;
};

/// Follows the screen's liveness indicator, a widget of its scene.
class LivenessWatch final : public QObject {
public:
    LivenessWatch(QWidget* indicator, QPointer<ZMSessionPresentation> out) : QObject(indicator), out_(std::move(out))
    {
        indicator->installEventFilter(this);
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (out_ && (event->type() == QEvent::ShowToParent || event->type() == QEvent::HideToParent))
            out_->setLivenessActive(!static_cast<QWidget*>(watched)->isHidden());
        return false;
    }

private:
    QPointer<ZMSessionPresentation> out_;
};

}  // namespace

// ------------------------------------------------------------ the error

ZMSessionError::ZMSessionError(ZMCameraError error) : error_(std::move(error)) {}

bool ZMSessionError::isCanceled() const { return error_ && error_->kind() == ZMCameraError::Case::canceled; }
int ZMSessionError::code() const { return error_ ? int(error_->code()) : -1; }
QString ZMSessionError::domain() const { return error_ ? error_->domain() : QString(); }
QString ZMSessionError::text() const { return error_ ? error_->localizedDescription() : QString(); }

platform::CameraFailureReason ZMSessionError::cameraFailureReason() const
{
    return error_ ? error_->cameraFailureReason() : platform::CameraFailureReason::None;
}

// ------------------------------------------------------------ the delegate

/// Runs on the component's threads; every outcome crosses to the main queue
/// (the session's thread) and reaches the session only while it lives.
class ZMCameraSession::Delegate final : public ZMCameraDelegate {
public:
    explicit Delegate(std::weak_ptr<ZMCameraSession*> session) : session_(std::move(session)) {}

    void bestShot(core::ZCBestShotPtr shot, std::optional<QString> video) override
    {
        post([shot = std::move(shot), video = std::move(video)](ZMCameraSession& session) {
            session.deliverBestShot(shot, video);
        });
    }
    void error(const ZMCameraError& error, std::optional<QString> video) override
    {
        post([error, video = std::move(video)](ZMCameraSession& session) { session.deliverError(error, video); });
    }
    void videoFinished(std::optional<QString> video, platform::ErrorPtr error) override
    {
        post([video = std::move(video), problem = error ? error->localizedDescription() : QString()](
                 ZMCameraSession& session) { session.deliverVideoFinal(video, problem); });
    }

private:
    void post(std::function<void(ZMCameraSession&)> call)
    {
        DispatchQueue::main().async([session = session_, call = std::move(call)] {
            if (const auto target = session.lock())
                call(**target);
        });
    }

    std::weak_ptr<ZMCameraSession*> session_;
};

// ------------------------------------------------------------ the session

struct ZMCameraSession::Parts {
    /// Outcomes reach the session through it, while it lives.
    std::shared_ptr<ZMCameraSession*> token;
    std::shared_ptr<Delegate> delegate;
    std::shared_ptr<ZMCameraViewController> screen;
    detail::OwnedView<QWidget> container;  // the host may put it in a window of its own
    bool containerMade = false;
    QPointer<ZMSessionPresentation> presentation;  // a child of the session
};

ZMCameraSession::ZMCameraSession(QObject* parent) : QObject(parent), parts_(std::make_unique<Parts>())
{
    parts_->token = std::make_shared<ZMCameraSession*>(this);
    ZAVO_ASSERT_ON_MAIN();
    qRegisterMetaType<ZMSessionError>();
}

ZMCameraSession::~ZMCameraSession()
{
    ZAVO_ASSERT_ON_MAIN();
    parts_->token.reset();  // nothing reaches this object any more
    if (parts_->screen && !parts_->screen->isEnding())
        parts_->screen->close();
    const std::weak_ptr<ZMCameraViewController> released = parts_->screen;
    parts_->screen.reset();
    parts_->container.reset(nullptr);
    if (state_ == State::Idle)
        return;
    // The screen goes when the last of its holders (capture, detector and
    // recorder threads) lets go, and those threads end after it. Until they
    // have, a host whose main() returns would pull the application out from
    // under them.
    const bool ended = platform::runMainQueueUntil(
        [&] { return released.expired() && DispatchQueue::liveThreadCount() <= threadsBefore_; }, kThreadWaitLimit);
    if (!ended)
        qCWarning(platform::lcScreen, "ZMCameraSession: the component's threads had not ended %lld ms after the "
                                      "session was destroyed (%d still running)",
                  qlonglong(kThreadWaitLimit.count()), DispatchQueue::liveThreadCount() - threadsBefore_);
}

void ZMCameraSession::setRecordVideo(bool record)
{
    if (record == recordVideo_)
        return;
    recordVideo_ = record;
    emit settingsChanged();
}

void ZMCameraSession::setCameraLocation(const QString& location)
{
    if (location == cameraLocation_)
        return;
    cameraLocation_ = location;
    emit settingsChanged();
}

void ZMCameraSession::setVideoFolder(const QString& folder)
{
    if (folder == videoFolder_)
        return;
    videoFolder_ = folder;
    emit settingsChanged();
}

void ZMCameraSession::setVideoPolicy(VideoPolicy policy)
{
    if (policy == videoPolicy_)
        return;
    videoPolicy_ = policy;
    emit settingsChanged();
}

void ZMCameraSession::setSteps(const QVariantList& steps)
{
    if (steps == steps_)
        return;
    steps_ = steps;
    stepObjects_.clear();
    emit settingsChanged();
}

void ZMCameraSession::setInteractionSteps(std::vector<core::ZCStepConfigPtr> steps)
{
    steps_.clear();
    stepObjects_ = std::move(steps);
    emit settingsChanged();
}

void ZMCameraSession::setConfiguration(core::ZCZavoConfigurationPtr configuration)
{
    configuration_ = std::move(configuration);
}

void ZMCameraSession::setCustomization(std::shared_ptr<ZMCustomization> customization)
{
    customization_ = std::move(customization);
}

QWidget* ZMCameraSession::view()
{
    ZAVO_ASSERT_ON_MAIN();
    // A container of the session's own: the host can place it before the
    // screen exists, and building the screen is what starts the camera.
    if (!parts_->container && !parts_->containerMade) {
        parts_->containerMade = true;
        auto container = std::make_unique<QWidget>();
        container->setObjectName(QStringLiteral("ZMCameraSession"));
        auto* layout = new QVBoxLayout(container.get());
        layout->setContentsMargins(0, 0, 0, 0);
        container->resize(360, 640);
        parts_->container.reset(std::move(container));
    }
    return parts_->container.get();
}

ZMSessionPresentation* ZMCameraSession::presentation()
{
    if (!parts_->presentation && state_ == State::Idle)
        parts_->presentation = new ZMSessionPresentation(this);
    return parts_->presentation;
}

void ZMCameraSession::setState(State state)
{
    if (state == state_)
        return;
    state_ = state;
    emit stateChanged(state);
}

bool ZMCameraSession::start()
{
    ZAVO_ASSERT_ON_MAIN();
    if (state_ != State::Idle)
        return false;
    threadsBefore_ = DispatchQueue::liveThreadCount();
    QPointer<ZMCameraSession> alive(this);
    setState(State::Running);
    if (!alive)
        return true;

    if (!cameraLocation_.isEmpty() && !ZMCameraDevices::setPreferredCamera(cameraLocation_)) {
        qCWarning(platform::lcScreen, "ZMCameraSession: no camera at %s", qUtf8Printable(cameraLocation_));
        finishAtStart(settingError(1, sessionText(QT_TRANSLATE_NOOP("ZMCameraViewController", "There is no camera at %1.")).arg(cameraLocation_)));
        return true;
    }
    if (recordVideo_ && !videoFolder_.isEmpty()) {
        if (const QString problem = ZMRecordingStorage::checkWritableFolder(videoFolder_); !problem.isEmpty()) {
            qCWarning(platform::lcScreen, "ZMCameraSession: %s", qUtf8Printable(problem));
            finishAtStart(settingError(2, sessionText(QT_TRANSLATE_NOOP("ZMCameraViewController", "The session video cannot be saved in %1.")).arg(videoFolder_)));
            return true;
        }
    }

    parts_->delegate = std::make_shared<Delegate>(parts_->token);
    auto configuration = configuration_ ? configuration_ : std::make_shared<core::ZCZavoConfiguration>();
    ZMSessionPresentation* presentation = parts_->presentation;
    std::shared_ptr<ZMCustomization> customization = customization_;
    if (presentation)
        customization = std::make_shared<ZMCustomization>(std::make_shared<PresentedViews>(presentation));
    parts_->screen = std::static_pointer_cast<ZMCameraViewController>(
        ZMCameraBuilder::viewController(parts_->delegate, configuration, nullptr, customization, recordVideo_));
    ZMCameraViewController* screen = parts_->screen.get();
    if (!screen) {
        // The builder said why (a customization without its customizer).
        finishAtStart(settingError(3, sessionText(QT_TRANSLATE_NOOP("ZMCameraViewController", "The camera screen cannot be made."))));
        return true;
    }
    screen->captureManager()->setVideoDestination(videoFolder_, videoPolicy_ == VideoPolicy::KeepEach);
    if (const auto steps = stepObjects_.empty() ? parseSteps(steps_) : stepObjects_; !steps.empty())
        screen->defineInteractionsStep(steps);

    if (presentation) {
        screen->setPreviewSink([out = QPointer<ZMSessionPresentation>(presentation)](
                                   const platform::CaptureVideoPreviewLayerPtr& layer) {
            if (out)
                out->setPreviewLayer(layer);
        });
        QWidget* root = screen->view();  // loads the scene, and with it configures the camera
        root->setAttribute(Qt::WA_DontShowOnScreen);
        const QSizeF size = presentation->viewSize();
        root->resize(size.isEmpty() ? QSize(360, 640) : size.toSize());
        connect(presentation, &ZMSessionPresentation::viewSizeChanged, root, [root](const QSizeF& size) {
            if (!size.isEmpty())
                root->resize(size.toSize());
        });
        if (QWidget* indicator = root->findChild<QWidget*>(QStringLiteral("livenessActivity")))
            new LivenessWatch(indicator, presentation);
        root->show();
        return true;
    }
    QWidget* container = view();
    if (!container) {
        // The host deleted the session's view before starting it: there is
        // nothing to show the camera in.
        screen->close();
        return true;
    }
    container->layout()->addWidget(screen->view());
    // In a window of the host's the screen appears with it; otherwise it is
    // a window of its own.
    if (container->isWindow())
        container->show();
    return true;
}

void ZMCameraSession::cancel()
{
    ZAVO_ASSERT_ON_MAIN();
    if (state_ != State::Running || !parts_->screen)
        return;
    if (!parts_->screen->isEnding())
        parts_->screen->close();
}

void ZMCameraSession::finishAtStart(ZMCameraError error)
{
    DispatchQueue::main().async([session = std::weak_ptr<ZMCameraSession*>(parts_->token), error = std::move(error)] {
        if (const auto target = session.lock())
            (*target)->deliverError(error, std::nullopt);
    });
}

void ZMCameraSession::deliverBestShot(core::ZCBestShotPtr shot, std::optional<QString> video)
{
    if (outcomeCame_)
        return;  // the screen ends once per session as the host sees it
    outcomeCame_ = true;
    videoPending_ = video.has_value();
    videoPath_ = video.value_or(QString());
    lastBestShot_ = shot;
    QPointer<ZMCameraSession> alive(this);
    emit bestShot(shot->image(), metadataOf(*shot), video.value_or(QString()));
    if (alive)
        setState(videoPending_ ? State::Finishing : State::Finished);
}

void ZMCameraSession::deliverError(const ZMCameraError& error, std::optional<QString> video)
{
    if (outcomeCame_)
        return;
    outcomeCame_ = true;
    videoPending_ = video.has_value();
    videoPath_ = video.value_or(QString());
    QPointer<ZMCameraSession> alive(this);
    emit failed(ZMSessionError(error), video.value_or(QString()));
    if (alive)
        setState(videoPending_ ? State::Finishing : State::Finished);
}

void ZMCameraSession::deliverVideoFinal(std::optional<QString> video, QString problem)
{
    if (!videoPending_)
        return;
    videoPending_ = false;
    videoPath_ = video.value_or(QString());
    QPointer<ZMCameraSession> alive(this);
    emit videoFinished(video.value_or(QString()), problem);
    if (alive)
        setState(State::Finished);
}

}  // namespace zavo
