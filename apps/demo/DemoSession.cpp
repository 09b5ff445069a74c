#include "DemoSession.h"

#include "base/DispatchQueue.h"
#include "camera-screen/ZMUICustomizerProtocol.h"
#include "ui/ZMFaceDetectionView.h"
#include "ui/ZMVideoStreamNotificationView.h"
#include "zavocore/ZCErrorCodes.h"

#include <QAbstractButton>

namespace zavo::demo {

namespace {

double milliseconds(Clock::duration duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

// Longer than the frame's 0.15 s move.
constexpr std::chrono::milliseconds kFaceWatchInterval(160);

bool looksLikeCloseButton(const QAbstractButton& button)
{
    for (const QString& name : {button.objectName(), button.accessibleName(), button.toolTip()}) {
        if (name.contains(QLatin1String("close"), Qt::CaseInsensitive))
            return true;
    }
    return false;
}

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

/// Called on the capture manager's threads; moves each outcome to the main
/// thread, where it reaches the session if the session still exists.
class DemoSession::Delegate final : public ZMCameraDelegate {
public:
    explicit Delegate(std::weak_ptr<DemoSession*> session) : session_(std::move(session)) {}

    void bestShot(core::ZCBestShotPtr bestShot, std::optional<QString> videoFile) override
    {
        SessionOutcome outcome;
        outcome.bestShot = std::move(bestShot);
        outcome.videoFile = std::move(videoFile);
        post(std::move(outcome));
    }

    void error(const ZMCameraError& error, std::optional<QString> videoFile) override
    {
        SessionOutcome outcome;
        outcome.error = error;
        outcome.videoFile = std::move(videoFile);
        post(std::move(outcome));
    }

    void videoFinished(std::optional<QString> videoFile, platform::ErrorPtr error) override
    {
        const QString problem = error ? error->localizedDescription() : QString();
        platform::DispatchQueue::main().async([session = session_, videoFile = std::move(videoFile), problem] {
            if (const auto target = session.lock())
                (*target)->videoFinal(videoFile, problem);
        });
    }

private:
    void post(SessionOutcome outcome)
    {
        const Clock::time_point at = Clock::now();
        platform::DispatchQueue::main().async([session = session_, outcome = std::move(outcome), at]() mutable {
            if (const auto target = session.lock())
                (*target)->deliver(std::move(outcome), at);
        });
    }

    std::weak_ptr<DemoSession*> session_;
};

DemoSession::DemoSession(SessionOptions options, DetectorTiming* timing, QObject* parent)
    : QObject(parent), options_(options), timing_(timing), self_(std::make_shared<DemoSession*>(this))
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
}

DemoSession::~DemoSession() = default;

QWidget* DemoSession::start()
{
    Q_ASSERT(!screen_);
    auto configuration = std::make_shared<core::ZCZavoConfiguration>();
    if (options_.adjustConfiguration)
        options_.adjustConfiguration(*configuration);
    delegate_ = std::make_shared<Delegate>(self_);
    started_ = Clock::now();
    if (timing_)
        timing_->markSessionStart();
    shownGuidance_->clear();
    screen_ = ZMCameraBuilder::viewController(
        delegate_, std::move(configuration), nullptr,
        std::make_shared<ZMCustomization>(std::make_shared<GuidanceWatch>(shownGuidance_)), options_.recordVideo);
    if (screen_ && !options_.steps.empty())
        screen_->defineInteractionsStep(options_.steps);
    faceWatch_.start();
    return view();
}

QWidget* DemoSession::view() const
{
    return screen_ ? screen_->viewController()->view() : nullptr;
}

void DemoSession::release()
{
    faceWatch_.stop();
    released_ = screen_;
    screen_.reset();
}

bool DemoSession::cancel()
{
    QWidget* root = view();
    if (!root)
        return false;
    for (QAbstractButton* button : root->findChildren<QAbstractButton*>()) {
        if (button->isVisible() && looksLikeCloseButton(*button)) {
            button->click();
            return true;
        }
    }
    return false;
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
