#include "DetectorTiming.h"

#include <QtGlobal>

namespace zavo::demo {

namespace {

/// Forwards everything to the reference detector and tells the timing about
/// each frame. Holds the timing weakly: a detector may outlive the demo's
/// bookkeeping while the screen winds down.
class TimedDetector final : public core::ZCBestShotDetectorProtocol {
public:
    TimedDetector(core::ZCBestShotDetectorPtr inner, std::weak_ptr<DetectorTiming*> timing)
        : inner_(std::move(inner)), timing_(std::move(timing))
    {
    }

    void pushFrame(const platform::SampleBuffer& frame) override
    {
        const Clock::time_point began = Clock::now();
        inner_->pushFrame(frame);
        const Clock::time_point ended = Clock::now();
        if (const auto timing = timing_.lock())
            (*timing)->recordPush(began, ended);
    }
    void screenSize(const QSizeF& size, const platform::EdgeInsets& edges) override { inner_->screenSize(size, edges); }
    bool faceFound() const override { return inner_->faceFound(); }
    void launchWizard() override { inner_->launchWizard(); }
    void defineStepsList(std::vector<core::ZCStepConfigPtr> steps) override { inner_->defineStepsList(std::move(steps)); }
    void resume() override { inner_->resume(); }

private:
    core::ZCBestShotDetectorPtr inner_;
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
        core::ZCBestShotBuilder::setFactory({});
        auto inner = core::ZCBestShotBuilder::buildWithDelegate(std::move(delegate), std::move(liveness),
                                                                std::move(configuration));
        core::ZCBestShotBuilder::setFactory(timedFactory(timing));
        return std::make_shared<TimedDetector>(std::move(inner), timing);
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
    framesPushed_ = 0;
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

void DetectorTiming::recordPush(Clock::time_point began, Clock::time_point ended)
{
    if (!firstFrame_)
        firstFrame_ = began;
    ++framesPushed_;
    if (frameObserver_)
        frameObserver_(ended - began);
}

}  // namespace zavo::demo
