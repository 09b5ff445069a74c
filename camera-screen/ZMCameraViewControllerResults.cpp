// The camera screen's reaction to what reports back during a session: the
// permission answer, the detector (face rectangle, best shot, errors,
// liveness activity), the capture manager's recording callbacks and the end
// of the session with one call on the host's delegate.
#include "camera-screen/ZMCameraError_p.h"
#include "base/Affinity_p.h"
#include "camera-screen/ZMCameraViewController_p.h"

#include "base/DispatchQueue.h"
#include "base/Log_p.h"
#include "camera/CaptureDevice_p.h"
#include "zavocore/ZCErrorCodes.h"
#include "zavocore/ZavoCore_p.h"


namespace zavo {

using platform::DispatchQueue;

namespace {

/// Detector codes that end the session, and those shown as long messages.
bool endsSession(long code)
{
    return code == long(core::ZCErrorCode::StepTimeout) || code == long(core::ZCErrorCode::NoFrames)
        || code == long(core::ZCErrorCode::LivenessRefused);
}

bool showsLongMessage(long code)
{
    // A step's prompt stays up while the user acts on it.
    return code == long(core::ZCErrorCode::FaceSize) || code == long(core::ZCErrorCode::MultipleFaces)
        || code == long(core::ZCErrorCode::StepPrompt);
}

}  // namespace

// ----------------------------------------------------- permission answer

void ZMCameraViewController::handleAccessResult(platform::AuthorizationStatus status)
{
    ZAVO_ASSERT_ON_MAIN();
    if (wasViewDestroyed() || endingStarted_)
        return;  // cancelled (with the view, or hidden) before the answer: nothing starts
    if (status == platform::AuthorizationStatus::Authorized) {
        {
            // Read later on a recorder thread, which must never wait for the
            // main queue: it may not run again (the host is quitting).
            MutexLocker lock(videoPolicyMutex_);
            saveOnlyFaceVideo_ = requiredConfiguration("the video is saved").saveOnlyFaceVideo;
            videoPolicyDetector_ = bestShotDetector();
        }
        captureManager()->start();
        bestShotDetector()->launchWizard();
        return;
    }
    closedByUser_ = false;
    const platform::CameraFailureReason reason = ZMCameraCaptureManager::cameraAccessDenialReason();
    qCWarning(platform::lcScreen, "camera access not granted (status %d, %s)", int(status),
              platform::cameraFailureReasonName(reason));
    DispatchQueue::main().async([weak = weakSelf(), status, reason] {
        if (auto self = weak.lock())
            self->finishWithError(ZMCameraError::accessStatus(status, reason));
    });
}

// ------------------------------------------------------ detector reports

void ZMCameraViewController::detectionRect(const QRectF& rect, const QSizeF& frameSize)
{
    Q_UNUSED(frameSize);
    if (auto self = strongSelf())
        DispatchQueue::main().async([self, rect] { self->moveFaceFrame(rect); });
}

bool ZMCameraViewController::bestShot(core::ZCBestShotPtr bestShot)
{
    closedByUser_ = false;
    hideNotification();
    DispatchQueue::main().async([weak = weakSelf(), bestShot] {
        if (auto self = weak.lock())
            self->finishWithBestShot(bestShot);
    });
    return true;
}

void ZMCameraViewController::bestShotError(platform::ErrorPtr error)
{
    if (auto self = strongSelf())
        DispatchQueue::main().async([self, error] { self->handleDetectorError(error); });
}

void ZMCameraViewController::livenessIsActive(bool active)
{
    DispatchQueue::main().async([weak = weakSelf(), active] {
        if (auto self = weak.lock())
            self->setLivenessActivityVisible(active);
    });
}

void ZMCameraViewController::handleDetectorError(const platform::ErrorPtr& error)
{
    ZAVO_ASSERT_ON_MAIN();
    if (!wasViewDestroyed())
        faceDetectionView().switchToNegativeState();
    const ZMCameraError cameraError = cameraErrorFromDetector(platform::ErrorObject::bridge(error));
    switch (cameraError.kind()) {
    case ZMCameraError::Case::error:
        if (const auto* networking = platform::errorCast<web::NetworkingError>(cameraError.errorValue().get()))
            handleNetworkingError(cameraError, *networking);
        else
            finishWithError(cameraError);
        return;
    case ZMCameraError::Case::bestShotError:
        handleDetectorCode(cameraError, cameraError.bestShotErrorValue());
        return;
    default:
        finishWithError(cameraError);
        return;
    }
}

void ZMCameraViewController::handleNetworkingError(const ZMCameraError& cameraError,
                                                   const web::NetworkingError& networking)
{
    ZAVO_ASSERT_ON_MAIN();
    using Kind = web::NetworkingError::Kind;
    switch (networking.kind()) {
    case Kind::ZavoError:
        if (networking.serverCode() == web::kMultipleFacesServerCode) {
            const auto message = core::zc_localized(QStringLiteral("errors.multiple_faces_detected"));
            finishWithError(ZMCameraError::networkingError(
                web::NetworkingError::zavoError(web::kMultipleFacesServerCode, message)));
        } else {
            finishWithError(cameraError);
        }
        return;
    case Kind::ConnectionError:
        // The wrapped error means nothing to the user; the session failed on
        // the liveness connection.
        finishWithError(ZMCameraError::networkingError(web::NetworkingError::livenessConnectionError()));
        return;
    case Kind::LivenessQualityError:
        if (!networking.errorDescription()) {
            finishWithError(cameraError);
            return;
        }
        // The user can fix what the server complained about: keep its
        // message up for the whole long time, whatever the detector says.
        showNotification(std::make_shared<web::NetworkingError>(networking), true);
        canShow_ = false;
        DispatchQueue::main().asyncAfter(2.0, [weak = weakSelf()] {
            if (auto self = weak.lock())
                self->canShow_ = true;
        });
        return;
    default:
        finishWithError(cameraError);
        return;
    }
}

void ZMCameraViewController::handleDetectorCode(const ZMCameraError& cameraError,
                                                const platform::ErrorObjectPtr& detectorError)
{
    ZAVO_ASSERT_ON_MAIN();
    const long code = detectorError->code();
    if (endsSession(code)) {
        finishWithError(cameraError);
    } else if (showsLongMessage(code)) {
        showNotification(detectorError, true);
    } else {
        // Guidance repeats with every analysed frame; the throttle keeps the
        // banner from flashing.
        throttler_.throttle(0.5, DispatchQueue::main(), [weak = weakSelf(), detectorError] {
            if (auto self = weak.lock())
                self->showNotification(detectorError, false);
        })();
    }
}

// ---------------------------------------------------------- the banner

void ZMCameraViewController::showNotification(platform::ErrorPtr error, bool isLong)
{
    ZAVO_ASSERT_ON_MAIN();
    if (wasViewDestroyed() || !canShow_ || !error)
        return;
    const platform::ErrorPtr current = notificationView_->notificationMessage();
    if (current && current->localizedDescription() == error->localizedDescription())
        return;
    notificationView_->showNotificationMessage(error);
    notificationView_->widget()->show();
    layoutOverlay();
    announce(error->localizedDescription());
    // Not cancelled by a later message: a message that replaces another one
    // goes when the first one's time is up. Held weakly: these timers run on
    // Qt's event loop, and a released screen (with its camera threads) must
    // not wait for them.
    DispatchQueue::main().asyncAfter(isLong ? 2.0 : 0.5, [weak = weakSelf()] {
        auto self = weak.lock();
        if (!self || self->wasViewDestroyed())
            return;
        self->notificationView_->widget()->hide();
        self->notificationView_->showNotificationMessage(nullptr);
        self->faceDetectionView().switchToPositiveState();
    });
}

void ZMCameraViewController::hideNotification()
{
    if (auto self = strongSelf()) {
        DispatchQueue::main().async([self] {
            if (self->wasViewDestroyed())
                return;
            self->notificationView_->widget()->hide();
            self->faceDetectionView().switchToPositiveState();
        });
    }
}

// ------------------------------------------------- recording callbacks

bool ZMCameraViewController::shouldDeleteResultingVideo()
{
    // Asked on a recorder thread, from what the session started with; the
    // detector answers faceFound() from any thread.
    MutexLocker lock(videoPolicyMutex_);
    return saveOnlyFaceVideo_ && videoPolicyDetector_ && !videoPolicyDetector_->faceFound();
}

void ZMCameraViewController::videoSaveProcessBegan() { livenessIsActive(true); }

void ZMCameraViewController::videoSavedWithError(platform::ErrorPtr error)
{
    Q_UNUSED(error);  // the recording manager has logged it; the host hears of it in videoFinished
    livenessIsActive(false);
}

void ZMCameraViewController::recordingDidFinish(std::optional<QString> videoFile, platform::ErrorPtr error)
{
    const VideoFinal final{std::move(videoFile), std::move(error)};
    bool deliverNow = false;
    {
        MutexLocker lock(finalMutex_);
        if (outcomeDelivered_)
            deliverNow = outcomeNamedVideo_;
        else
            pendingFinal_ = final;
    }
    if (deliverNow)
        deliverVideoFinal(final);
}

void ZMCameraViewController::deliverVideoFinal(const VideoFinal& final)
{
    if (auto target = delegate())
        target->videoFinished(final.file, final.error);
}

void ZMCameraViewController::captureDidFailWithError(platform::ErrorPtr error)
{
    // The camera will send no more frames: end now the way the detector ends
    // when frames stop, instead of waiting out its frame time-out, with the
    // cause the user can act on where it is known.
    const platform::CameraFailureReason reason = platform::cameraFailureReasonOf(error);
    qCWarning(platform::lcScreen, "the camera stopped (%s): %s", platform::cameraFailureReasonName(reason),
              qUtf8Printable(error ? error->localizedDescription() : QStringLiteral("no reason given")));
    bestShotError(cameraFailureError(reason));
}

// ------------------------------------------------------------- endings

void ZMCameraViewController::finishWithError(const ZMCameraError& error)
{
    ZAVO_ASSERT_ON_MAIN();
    closedByUser_ = false;
    stopAndDeliver([error](ZMCameraViewController& self) { self.deliverError(error); });
}

void ZMCameraViewController::finishWithBestShot(core::ZCBestShotPtr bestShot)
{
    ZAVO_ASSERT_ON_MAIN();
    stopAndDeliver([bestShot](ZMCameraViewController& self) { self.deliverBestShot(bestShot); });
}

// There is no guard against a second ending: each one stops and delivers.
void ZMCameraViewController::stopAndDeliver(std::function<void(ZMCameraViewController&)> delivery)
{
    endingStarted_ = true;
    captureManager()->stopWithCompletion([weak = weakSelf(), delivery = std::move(delivery)] {
        if (auto self = weak.lock())
            delivery(*self);
    });
}

// The screen holds its delegate weakly, so a host that handed over a
// temporary hears nothing; say so where the host will look.
void ZMCameraViewController::warnDelegateGone(const char* outcome)
{
    qCWarning(platform::lcScreen, "the session's %s was dropped: its delegate no longer exists (the screen holds "
                                  "the delegate weakly; keep your shared_ptr to it, or use ZMCameraSession)", outcome);
}

std::optional<QString> ZMCameraViewController::deliveredVideoFile() const
{
    // Read now, on the delivering thread: the capture manager was built long
    // before any stop, and is never replaced.
    if (!captureManager_->recordVideo())
        return std::nullopt;
    // Only this session's recording: a session that never recorded a frame
    // (permission refused, closed or failed before the camera sent one) has
    // none, and the file at the usual path, if any, is an earlier session's.
    const QString path = captureManager_->videoFile();
    if (path.isEmpty() || captureManager_->recordedFrameCount() == 0)
        return std::nullopt;
    return path;
}

void ZMCameraViewController::deliverError(const ZMCameraError& error)
{
    const auto videoFile = deliveredVideoFile();
    if (auto target = delegate())
        target->error(error, videoFile);
    else
        warnDelegateGone("error");
    outcomeDelivered(videoFile.has_value());
}

void ZMCameraViewController::deliverBestShot(const core::ZCBestShotPtr& bestShot)
{
    const auto videoFile = deliveredVideoFile();
    if (auto target = delegate())
        target->bestShot(bestShot, videoFile);
    else
        warnDelegateGone("best shot");
    outcomeDelivered(videoFile.has_value());
}

void ZMCameraViewController::outcomeDelivered(bool namedVideo)
{
    std::optional<VideoFinal> pending;
    {
        MutexLocker lock(finalMutex_);
        // A second outcome (a second tap on close) changes nothing: the
        // video's end is told once, after the first.
        if (outcomeDelivered_)
            return;
        outcomeDelivered_ = true;
        outcomeNamedVideo_ = namedVideo;
        if (namedVideo)
            pending = std::exchange(pendingFinal_, std::nullopt);
    }
    if (pending)
        deliverVideoFinal(*pending);
}

}  // namespace zavo
