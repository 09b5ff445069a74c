#include "DemoSession.h"

#include "camera-screen/ZMUICustomizerProtocol.h"
#include "ui/ZMFaceDetectionView.h"
#include "ui/ZMVideoStreamNotificationView.h"
#include "zavocore/ZCErrorCodes.h"


namespace zavo::demo {

namespace {

double milliseconds(Clock::duration duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

// Longer than the frame's 0.15 s move.
constexpr std::chrono::milliseconds kFaceWatchInterval(160);

/// The built-in banner, noting the key of every message it is given: the
/// guidance a user of this session read. Main thread, like every view.
class GuidanceBanner final : public ZMVideoStreamNotificationView {
public:
    explicit GuidanceBanner(std::shared_ptr<QStringList> shown) : shown_(std::move(shown)) {}
    void showNotificationMessage(platform::ErrorPtr error) override
    {
        if (error) {
            const QString key = error->userInfo().value(QString::fromLatin1(core::kZCMessageKeyInfoKey)).toString();
            const QString said = key.isEmpty() ? error->localizedDescription() : key;
            if (shown_->isEmpty() || shown_->constLast() != said)
                shown_->append(said);
        }
        ZMVideoStreamNotificationView::showNotificationMessage(std::move(error));
    }

private:
    std::shared_ptr<QStringList> shown_;
};

class GuidanceWatch final : public ZMUICustomizerProtocol {
public:
    explicit GuidanceWatch(std::shared_ptr<QStringList> shown) : shown_(std::move(shown)) {}
    std::unique_ptr<ZMVideoStreamNotificationViewProtocol> videoStreamNotificationView() override
    {
        return std::make_unique<GuidanceBanner>(shown_);
    }

private:
    std::shared_ptr<QStringList> shown_;
};

}  // namespace

DemoSession::DemoSession(SessionOptions options, DetectorTiming* timing, QObject* parent)
    : QObject(parent), options_(options), timing_(timing)
{
    videoLimit_.setSingleShot(true);
    connect(&videoLimit_, &QTimer::timeout, this, [this] {
        waitingForVideo_ = false;
        VideoInfo info = readVideo(*outcome_->videoFile);
        info.problem = QStringLiteral("the component did not say the video was final within %1 s")
                           .arg(videoLimit_.interval() / 1000.0);
        video_ = info;
        emit videoSettled();
    });
    faceWatch_.setInterval(kFaceWatchInterval);
    connect(&faceWatch_, &QTimer::timeout, this, &DemoSession::watchFaceFrame);

    session_ = std::make_unique<ZMCameraSession>();
    auto configuration = std::make_shared<core::ZCZavoConfiguration>();
    if (options_.adjustConfiguration)
        options_.adjustConfiguration(*configuration);
    session_->setConfiguration(std::move(configuration));
    session_->setRecordVideo(options_.recordVideo);
    session_->setInteractionSteps(options_.steps);
    session_->setCustomization(std::make_shared<ZMCustomization>(std::make_shared<GuidanceWatch>(shownGuidance_)));
    // The session's signals come on this thread already.
    connect(session_.get(), &ZMCameraSession::bestShot, this, [this](const QImage&, const QVariantMap&, const QString& video) {
        SessionOutcome outcome;
        outcome.bestShot = session_->lastBestShot();
        if (!video.isEmpty())
            outcome.videoFile = video;
        deliver(std::move(outcome), Clock::now());
    });
    connect(session_.get(), &ZMCameraSession::failed, this, [this](const ZMSessionError& error, const QString& video) {
        SessionOutcome outcome;
        outcome.error = error.cameraError();
        if (!video.isEmpty())
            outcome.videoFile = video;
        deliver(std::move(outcome), Clock::now());
    });
    connect(session_.get(), &ZMCameraSession::videoFinished, this, [this](const QString& path, const QString& problem) {
        videoFinal(path.isEmpty() ? std::nullopt : std::optional<QString>(path), problem);
    });
}

DemoSession::~DemoSession() = default;

QWidget* DemoSession::view() const { return session_ ? session_->view() : nullptr; }

void DemoSession::start()
{
    started_ = Clock::now();
    if (timing_)
        timing_->markSessionStart();
    shownGuidance_->clear();
    session_->start();
    faceWatch_.start();
}

void DemoSession::release()
{
    faceWatch_.stop();
    // Deleting the session stops the camera and waits for its threads.
    session_.reset();
}

bool DemoSession::cancel()
{
    if (!session_ || session_->state() != ZMCameraSession::State::Running)
        return false;
    session_->cancel();
    return true;
}

void DemoSession::deliver(SessionOutcome outcome, Clock::time_point at)
{
    if (outcome_)
        return;
    faceWatch_.stop();
    if (timing_) {
        if (const auto firstFrame = timing_->timeToFirstFrame())
            outcome.timeToFirstFrameMs = milliseconds(*firstFrame);
    }
    if (outcome.bestShot)
        outcome.timeToBestShotMs = milliseconds(at - started_);
    outcome.guidance = *shownGuidance_;
    outcome_ = std::move(outcome);
    emit finished();
    settleVideo();
}

void DemoSession::settleVideo()
{
    if (!outcome_->videoFile || outcome_->videoFile->isEmpty()) {
        emit videoSettled();
        return;
    }
    if (final_) {
        readFinalVideo();
        return;
    }
    waitingForVideo_ = true;
    videoLimit_.start(options_.videoLimit);
}

void DemoSession::videoFinal(std::optional<QString> videoFile, QString problem)
{
    final_ = {std::move(videoFile), std::move(problem)};
    if (waitingForVideo_)
        readFinalVideo();
}

void DemoSession::readFinalVideo()
{
    waitingForVideo_ = false;
    videoLimit_.stop();
    const auto& [file, problem] = *final_;
    VideoInfo info;
    if (file)
        info = readVideo(*file);
    info.finished = true;
    if (!problem.isEmpty())
        info.problem = problem;
    else if (!file)
        info.problem = QStringLiteral("the video was deleted");
    video_ = info;
    emit videoSettled();
}

void DemoSession::watchFaceFrame()
{
    QWidget* root = view();
    auto* frame = root ? root->findChild<ZMFaceDetectionView*>() : nullptr;
    const bool shown = frame && frame->isVisible() && !frame->geometry().isEmpty();
    // The frame follows a moving face without pause, so "at rest" means it
    // has been on screen for a whole tick: its first move, out of the
    // corner where it starts, is over by then.
    if (shown && shownLastTick_) {
        faceWatch_.stop();
        emit faceFrameShown();
    }
    shownLastTick_ = shown;
}

}  // namespace zavo::demo
