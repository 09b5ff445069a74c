#include "DetectorTiming.h"

#include <QtGlobal>
#include <cmath>

namespace zavo::demo {

namespace {

/// Stands between the detector and the screen's delegate, noting what the
/// screen is about to hear. The detector holds its delegate weakly, so the
/// timed detector owns this one.
class NotingDelegate final : public core::ZCBestShotDelegate {
public:
    NotingDelegate(std::weak_ptr<core::ZCBestShotDelegate> inner, std::shared_ptr<DetectorTiming::Reports> reports)
        : inner_(std::move(inner)), reports_(std::move(reports))
    {
    }

    void detectionRect(const QRectF& rect, const QSizeF& frameSize) override
    {
        if (!rect.isEmpty()) {
            Clock::rep none = 0;
            reports_->firstFaceBox.compare_exchange_strong(none, Clock::now().time_since_epoch().count());
            reports_->faceBoxes.fetch_add(1);
        }
        if (auto inner = inner_.lock())
            inner->detectionRect(rect, frameSize);
    }
    bool bestShot(core::ZCBestShotPtr shot) override
    {
        Clock::rep none = 0;
        reports_->bestShot.compare_exchange_strong(none, Clock::now().time_since_epoch().count());
        // A delegate that has gone takes the shot, as the detector assumes.
        auto inner = inner_.lock();
        return !inner || inner->bestShot(std::move(shot));
    }
    void bestShotError(platform::ErrorPtr error) override
    {
        if (auto inner = inner_.lock())
            inner->bestShotError(std::move(error));
    }
    void livenessIsActive(bool active) override
    {
        if (auto inner = inner_.lock())
            inner->livenessIsActive(active);
    }

private:
    std::weak_ptr<core::ZCBestShotDelegate> inner_;
    std::shared_ptr<DetectorTiming::Reports> reports_;
};

std::optional<Clock::time_point> timeOf(const std::atomic<Clock::rep>& noted)
{
    const Clock::rep rep = noted.load();
    if (rep == 0)
        return std::nullopt;
    return Clock::time_point(Clock::duration(rep));
}

/// Forwards everything to the reference detector and tells the timing about
/// each frame. Holds the timing weakly: a detector may outlive the demo's
/// bookkeeping while the screen winds down.
class TimedDetector final : public core::ZCBestShotDetectorProtocol {
public:
    TimedDetector(core::ZCBestShotDetectorPtr inner, std::shared_ptr<NotingDelegate> delegate,
                  std::weak_ptr<DetectorTiming*> timing)
        : inner_(std::move(inner)), delegate_(std::move(delegate)), timing_(std::move(timing))
    {
    }

    void pushFrame(const platform::SampleBuffer& frame) override
    {
        const Clock::time_point began = Clock::now();
        inner_->pushFrame(frame);
        const Clock::time_point ended = Clock::now();
        if (const auto timing = timing_.lock())
            (*timing)->recordPush(began, ended, frame.presentationTimeStamp().seconds());
    }
    void screenSize(const QSizeF& size, const platform::EdgeInsets& edges) override { inner_->screenSize(size, edges); }
    bool faceFound() const override { return inner_->faceFound(); }
    void launchWizard() override { inner_->launchWizard(); }
    void defineStepsList(std::vector<core::ZCStepConfigPtr> steps) override { inner_->defineStepsList(std::move(steps)); }
    void resume() override { inner_->resume(); }

private:
    core::ZCBestShotDetectorPtr inner_;
    std::shared_ptr<NotingDelegate> delegate_;
    std::weak_ptr<DetectorTiming*> timing_;
};

// The factory interface has no way to reach the detector it replaces, so the
// wrapping factory takes itself out for the one inner build and puts a fresh
// copy of itself back. Detectors are built on the main thread only, so
// nothing can build in between.
core::ZCBestShotBuilder::Factory timedFactory(std::weak_ptr<DetectorTiming*> timing)
{
    return [timing](std::weak_ptr<core::ZCBestShotDelegate> delegate,
                    std::shared_ptr<core::ZCOnlineLivenessProtocol> liveness,
                    std::shared_ptr<core::ZCZavoConfiguration> configuration) -> core::ZCBestShotDetectorPtr {
        const auto owner = timing.lock();
        auto noting = std::make_shared<NotingDelegate>(
            std::move(delegate), owner ? (*owner)->reports() : std::make_shared<DetectorTiming::Reports>());
        core::ZCBestShotBuilder::setFactory({});
        auto inner = core::ZCBestShotBuilder::buildWithDelegate(noting, std::move(liveness), std::move(configuration));
        core::ZCBestShotBuilder::setFactory(timedFactory(timing));
        return std::make_shared<TimedDetector>(std::move(inner), std::move(noting), timing);
    };
}

}  // namespace

DetectorTiming::DetectorTiming() : self_(std::make_shared<DetectorTiming*>(this))
{
    core::ZCBestShotBuilder::setFactory(timedFactory(self_));
}

DetectorTiming::~DetectorTiming()
{
    core::ZCBestShotBuilder::setFactory({});
}

void DetectorTiming::markSessionStart()
{
    sessionStart_ = Clock::now();
    firstFrame_.reset();
    presentationOrigin_.reset();
    framesPushed_ = 0;
    // A detector of an earlier session may still report into its own.
    reports_ = std::make_shared<Reports>();
}

std::optional<Clock::duration> DetectorTiming::timeToFirstFrame() const
{
    if (!firstFrame_)
        return std::nullopt;
    return *firstFrame_ - sessionStart_;
}

std::optional<Clock::duration> DetectorTiming::sinceSessionStart() const
{
    if (sessionStart_ == Clock::time_point{})
        return std::nullopt;
    return Clock::now() - sessionStart_;
}

std::optional<Clock::time_point> DetectorTiming::firstFaceBox() const { return timeOf(reports_->firstFaceBox); }

int DetectorTiming::faceBoxes() const { return reports_->faceBoxes.load(); }

std::optional<Clock::time_point> DetectorTiming::bestShotTaken() const { return timeOf(reports_->bestShot); }

void DetectorTiming::recordPush(Clock::time_point began, Clock::time_point ended, double presentationSeconds)
{
    if (!firstFrame_)
        firstFrame_ = began;
    if (std::isfinite(presentationSeconds)) {
        // The hand-over that came soonest after its frame was due says best
        // when the stream's time began.
        const auto origin = began - std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(presentationSeconds));
        if (!presentationOrigin_ || origin < *presentationOrigin_)
            presentationOrigin_ = origin;
    }
    ++framesPushed_;
    if (frameObserver_)
        frameObserver_(ended - began);
}

}  // namespace zavo::demo
