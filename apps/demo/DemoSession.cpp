#include "DemoSession.h"

#include "platform/DispatchQueue.h"
#include "platform/ProcessInfo.h"
#include "ui/ZMFaceDetectionView.h"

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
    connect(&readback_, &VideoReadback::done, this, [this](const VideoInfo& info) {
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
    screen_ = ZMCameraBuilder::viewController(delegate_, std::move(configuration), nullptr, nullptr,
                                              options_.recordVideo);
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
    // The frame-dump recorder has written its file by the time the path is
    // handed over; the movie-output recorder goes on to re-encode it.
    const bool recompresses = platform::ProcessInfo::isOperatingSystemAtLeast(16, 0, 0);
    const auto limit = outcome_->bestShot ? options_.videoLimit : options_.videoLimitAfterError;
    readback_.start(*outcome_->videoFile, recompresses ? std::optional(kRecompressedVideoSize) : std::nullopt, limit);
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
