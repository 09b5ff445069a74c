#include "zavocore/ZCReferenceDetector_p.h"

#include "base/ConsumerThread_p.h"
#include "base/Log_p.h"
#include "zavocore/ZCDetectorClock_p.h"
#include "zavocore/ZCErrorCodes.h"
#include "zavocore/ZCFaceAnalyzer_p.h"
#include "zavocore/ZCInteractionStep_p.h"
#include "zavocore/ZCPreviewGeometry_p.h"
#include "zavoweb/NetworkingError.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include "base/Affinity_p.h"
#include "base/ThreadSafety.h"
#include <optional>
#include <random>

namespace zavo::core::detail {

namespace {

using Clock = DetectorClock;

Clock::duration seconds(double s)
{
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
}

// A step as the detector's thread keeps it: the step objects themselves
// belong to the main thread.
struct StepPlan {
    ZCStepKind kind = ZCStepKind::LookAtCamera;
    double timeout = 0;
};

struct GuidanceMessage {
    ZCErrorCode code;
    const char* key;
};

GuidanceMessage messageFor(Guidance guidance)
{
    switch (guidance) {
    case Guidance::NoFace: return {ZCErrorCode::NoFace, "errors.no_face"};
    case Guidance::MultipleFaces: return {ZCErrorCode::MultipleFaces, "errors.multiple_faces_detected"};
    case Guidance::TooFar: return {ZCErrorCode::FaceSize, "errors.face_too_far"};
    case Guidance::TooClose: return {ZCErrorCode::FaceSize, "errors.face_too_close"};
    case Guidance::OffCentre: return {ZCErrorCode::FaceSize, "errors.face_off_centre"};
    case Guidance::TurnedAway: return {ZCErrorCode::BadQuality, "errors.look_straight"};
    case Guidance::TooDark: return {ZCErrorCode::BadQuality, "errors.too_dark"};
    case Guidance::TooBright: return {ZCErrorCode::BadQuality, "errors.too_bright"};
    case Guidance::Backlit: return {ZCErrorCode::BadQuality, "errors.light_behind"};
    case Guidance::Blurred: return {ZCErrorCode::BadQuality, "errors.blurred"};
    case Guidance::EyesShut: return {ZCErrorCode::BadQuality, "errors.eyes_closed"};
    case Guidance::None: break;
    }
    return {ZCErrorCode::BadQuality, "errors.blurred"};
}

// Reads a pixel buffer for as long as it is in scope.
class PixelReadLock {
public:
    explicit PixelReadLock(platform::PixelBuffer& buffer) : buffer_(buffer)
    {
        buffer_.lockBaseAddress(platform::PixelBuffer::ReadOnly);
    }
    ~PixelReadLock() { buffer_.unlockBaseAddress(platform::PixelBuffer::ReadOnly); }
    PixelReadLock(const PixelReadLock&) = delete;
    PixelReadLock& operator=(const PixelReadLock&) = delete;

private:
    platform::PixelBuffer& buffer_;
};

}  // namespace

// What the main thread and the detector's thread share.
struct ZCReferenceDetector::Shared {
    using Command = std::function<void(Worker&)>;

    explicit Shared(std::weak_ptr<ZCBestShotDelegate> d, const ZCZavoConfiguration& c)
        : delegate(std::move(d)), settings(c.detector)
    {
    }

    const std::weak_ptr<ZCBestShotDelegate> delegate;
    const ZCDetectorSettings settings;
    std::atomic<bool> faceFound{false};
    std::atomic<bool> stopping{false};  // also written under mutex, which a round holds

    platform::ConsumerThread thread;  // woken for every frame and command
    Mutex mutex;
    std::condition_variable processed;  // synchronous pushFrame waits for its frame
    platform::SampleBuffer pending ZAVO_GUARDED_BY(mutex);
    uint64_t pushedFrames ZAVO_GUARDED_BY(mutex) = 0;
    uint64_t handledFrames ZAVO_GUARDED_BY(mutex) = 0;
    std::optional<Clock::time_point> lastArrival ZAVO_GUARDED_BY(mutex);
    PreviewGeometry geometry ZAVO_GUARDED_BY(mutex);
    std::deque<Command> commands ZAVO_GUARDED_BY(mutex);

    void post(Command command)
    {
        {
            MutexLocker lock(mutex);
            commands.push_back(std::move(command));
        }
        thread.wake();
    }
};

// The detector's state machine; lives on, and is only touched by, the
// detector's thread.
class ZCReferenceDetector::Worker {
public:
    Worker(std::shared_ptr<Shared> shared, std::shared_ptr<ZCOnlineLivenessProtocol> liveness)
        : shared_(std::move(shared)), liveness_(std::move(liveness)), analyzer_(shared_->settings)
    {
        if (!analyzer_.loadError().isEmpty())
            qCWarning(platform::lcCoreDetector) << "face detector unavailable:" << analyzer_.loadError();
    }

    /// One round of the detector's thread: every command, due timer and
    /// waiting frame, then how long it may sleep.
    platform::ConsumerThread::Next round();

    void launch(std::vector<StepPlan> steps);
    /// The steps in the order they run: the ones asking for an action
    /// shuffled when there are two or more and the settings say so, and a
    /// "look at the camera" step last, where the shot is taken.
    static std::vector<StepPlan> arrange(std::vector<StepPlan> steps, const ZCDetectorSettings& settings);
    void resume();
    void process(const platform::SampleBuffer& frame, const PreviewGeometry& geometry);
    void livenessAnswered(uint64_t generation, bool live, const platform::ErrorPtr& error);
    /// When the next timer is due, if one runs.
    std::optional<Clock::time_point> nextDeadline(std::optional<Clock::time_point> lastArrival) const;
    void checkTimers(Clock::time_point now, std::optional<Clock::time_point> lastArrival);

private:
    enum class State { Idle, Searching, CheckingLiveness, Paused, Done };

    void startStep();
    /// Back to the last "look at the camera" step, for another shot.
    void returnToFrontalStep();
    void resetSpell();
    /// Someone else took the user's place, or the user's face was gone for
    /// a while: what was done was done by someone who may not be there.
    void followedFaceChanged(FaceFollower::Change change);
    void followStep(const FaceAnalysis& analysis, double frameWidth, double frameTime, bool mirrored);
    void updateGuidance(Guidance guidance, double frameTime);
    void reportFace(const FaceAnalysis& analysis, const QSizeF& frameSize, const PreviewGeometry& geometry);
    void considerShot(const FaceAnalysis& analysis, const FrameView& view, platform::MediaTime pts, double frameTime,
                      bool mirrored);
    void finishStep();
    void deliver(ZCBestShotPtr shot);
    void fail(ZCErrorCode code, const char* key);
    void reportError(platform::ErrorPtr error);
    std::shared_ptr<ZCBestShotDelegate> delegate() const;

    std::shared_ptr<Shared> shared_;
    std::shared_ptr<ZCOnlineLivenessProtocol> liveness_;
    FaceAnalyzer analyzer_;

    State state_ = State::Idle;
    uint64_t generation_ = 0;  // tells stale liveness answers apart
    std::vector<StepPlan> steps_;
    size_t stepIndex_ = 0;
    std::optional<StepJudge> judge_;       // for a step that asks the user to act
    FaceFollower follower_;                // the one person doing the steps
    std::optional<double> promptedAt_;    // frame time of the step's last prompt
    bool warnedUnjudgeable_ = false;
    Clock::time_point stepDeadline_;
    Clock::time_point watchSince_;
    bool reportedUnavailable_ = false;

    // The spell of good frames under way, and its best frame so far.
    std::optional<double> spellStart_;
    std::optional<ZCBestShot> candidate_;
    ZCBestShotPtr checkedShot_;  // waiting for the liveness verdict

    // Guidance pacing.
    std::optional<double> lastFrameTime_;
    Guidance pendingGuidance_ = Guidance::None;
    double pendingSince_ = 0;
    Guidance reportedGuidance_ = Guidance::None;
    double reportedAt_ = 0;
    const char* lastGuidanceKey_ = nullptr;  // of the step under way
    bool faceShown_ = false;
};

// ------------------------------------------------------------------ thread

platform::ConsumerThread::Next ZCReferenceDetector::Worker::round()
{
    ZAVO_ASSERT_ON(shared_->thread);
    Shared* shared = shared_.get();
    MutexLocker lock(shared->mutex);
    while (!shared->stopping) {
        if (!shared->commands.empty()) {
            Shared::Command command = std::move(shared->commands.front());
            shared->commands.pop_front();
            lock.unlock();
            command(*this);
            command = nullptr;
            lock.lock();
            continue;
        }
        // Timers before frames: when analysis is slower than the camera a
        // frame is always waiting, and a step would otherwise never run out.
        const auto deadline = nextDeadline(shared->lastArrival);
        if (deadline && *deadline <= Clock::now()) {
            const auto lastArrival = shared->lastArrival;
            lock.unlock();
            checkTimers(Clock::now(), lastArrival);
            lock.lock();
            continue;
        }
        if (shared->pending.isValid()) {
            const platform::SampleBuffer frame = std::exchange(shared->pending, {});
            const uint64_t number = shared->pushedFrames;
            const PreviewGeometry geometry = shared->geometry;
            lock.unlock();
            process(frame, geometry);
            lock.lock();
            shared->handledFrames = number;
            shared->processed.notify_all();
            continue;
        }
        if (deadline)
            return platform::ConsumerThread::Next::wokenOrAfter(Clock::sleepUntil(*deadline));
        return platform::ConsumerThread::Next::whenWoken();
    }
    // Let a synchronous pushFrame that is still waiting go.
    shared->handledFrames = shared->pushedFrames;
    shared->processed.notify_all();
    return platform::ConsumerThread::Next::end();
}

// ------------------------------------------------------------------ wizard

std::vector<StepPlan> ZCReferenceDetector::Worker::arrange(std::vector<StepPlan> steps,
                                                           const ZCDetectorSettings& settings)
{
    // The shot is taken while the user looks at the camera after every
    // action, so that it shows the person who did them, facing the camera:
    // the host's first "look" step goes last, or a default one is added.
    const auto look = std::find_if(steps.begin(), steps.end(),
                                   [](const StepPlan& step) { return step.kind == ZCStepKind::LookAtCamera; });
    StepPlan last{ZCStepKind::LookAtCamera, settings.stepTimeout};
    if (look != steps.end()) {
        last = *look;
        steps.erase(look);
    }
    // A new order every session: a recording of one session does not pass
    // the next.
    if (settings.shuffleSteps && steps.size() >= 2)
        std::shuffle(steps.begin(), steps.end(), std::mt19937(std::random_device{}()));
    steps.push_back(last);
    return steps;
}

void ZCReferenceDetector::Worker::launch(std::vector<StepPlan> steps)
{
    ZAVO_ASSERT_ON(shared_->thread);
    steps_ = arrange(std::move(steps), shared_->settings);
    stepIndex_ = 0;
    checkedShot_.reset();
    reportedGuidance_ = pendingGuidance_ = Guidance::None;
    analyzer_.reset();
    follower_.reset();
    state_ = State::Searching;
    startStep();
    if (!analyzer_.loadError().isEmpty() && !reportedUnavailable_) {
        reportedUnavailable_ = true;
        fail(ZCErrorCode::DetectorUnavailable, "errors.detector_unavailable");
    }
}

void ZCReferenceDetector::Worker::resume()
{
    ZAVO_ASSERT_ON(shared_->thread);
    if (state_ != State::Paused)
        return;
    state_ = State::Searching;
    returnToFrontalStep();
}

void ZCReferenceDetector::Worker::returnToFrontalStep()
{
    for (size_t index = steps_.size(); index-- > 0;) {
        if (steps_[index].kind == ZCStepKind::LookAtCamera) {
            stepIndex_ = index;
            break;
        }
    }
    startStep();
}

void ZCReferenceDetector::Worker::startStep()
{
    ++generation_;
    resetSpell();
    const StepPlan& step = steps_[stepIndex_];
    const double timeout = step.timeout;
    if (step.kind == ZCStepKind::LookAtCamera)
        judge_.reset();
    else
        judge_.emplace(step.kind);
    promptedAt_.reset();
    lastGuidanceKey_ = promptKeyFor(step.kind);
    if (const char* prompt = promptKeyFor(step.kind))
        fail(ZCErrorCode::StepPrompt, prompt);
    stepDeadline_ = Clock::now() + seconds(timeout);
    watchSince_ = Clock::now();
}

void ZCReferenceDetector::Worker::resetSpell()
{
    spellStart_.reset();
    candidate_.reset();
}

std::optional<Clock::time_point> ZCReferenceDetector::Worker::nextDeadline(
    std::optional<Clock::time_point> lastArrival) const
{
    if (state_ != State::Searching && state_ != State::CheckingLiveness)
        return std::nullopt;
    const Clock::time_point lastSign = lastArrival ? std::max(*lastArrival, watchSince_) : watchSince_;
    const Clock::time_point watchdog = lastSign + seconds(shared_->settings.frameTimeout);
    return state_ == State::Searching ? std::min(watchdog, stepDeadline_) : watchdog;
}

void ZCReferenceDetector::Worker::checkTimers(Clock::time_point now, std::optional<Clock::time_point> lastArrival)
{
    ZAVO_ASSERT_ON(shared_->thread);
    const auto due = nextDeadline(lastArrival);
    if (!due || *due > now)
        return;
    if (state_ == State::Searching && now >= stepDeadline_) {
        qCInfo(platform::lcCoreDetector) << "wizard step" << stepIndex_ << "timed out";
        state_ = State::Done;
        // The last thing the user was told is most likely why they did not
        // make it: the message says it again.
        const QString reason = lastGuidanceKey_ ? QString::fromLatin1(lastGuidanceKey_) : QString();
        reportError(makeZCError(ZCErrorCode::StepTimeout, QStringLiteral("errors.step_timeout"), reason));
        return;
    }
    qCWarning(platform::lcCoreDetector) << "no frame for" << shared_->settings.frameTimeout << "s";
    state_ = State::Done;
    fail(ZCErrorCode::NoFrames, "errors.no_frames");
}

// ------------------------------------------------------------------ frames

void ZCReferenceDetector::Worker::process(const platform::SampleBuffer& frame, const PreviewGeometry& geometry)
{
    ZAVO_ASSERT_ON(shared_->thread);
    if (state_ != State::Searching)
        return;
    platform::PixelBuffer& buffer = *frame.imageBuffer();
    if (!FaceAnalyzer::supports(buffer.pixelFormat())) {
        if (!reportedUnavailable_) {
            reportedUnavailable_ = true;
            qCWarning(platform::lcCoreDetector) << "frames in pixel format" << Qt::hex << uint32_t(buffer.pixelFormat())
                                        << "cannot be analysed";
            fail(ZCErrorCode::DetectorUnavailable, "errors.unsupported_frames");
        }
        return;
    }
    const platform::MediaTime pts = frame.presentationTimeStamp();
    const double frameTime = pts.isValid()
        ? pts.seconds()
        : std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();

    // Timestamps that go back (a restarted or switched camera) start the
    // spell and the guidance pacing afresh.
    if (lastFrameTime_ && frameTime < *lastFrameTime_) {
        resetSpell();
        pendingGuidance_ = reportedGuidance_ = Guidance::None;
    }
    lastFrameTime_ = frameTime;

    PixelReadLock readLock(buffer);
    const FrameView view{buffer.baseAddress(), buffer.width(), buffer.height(), buffer.bytesPerRow(),
                         buffer.pixelFormat()};
    const QSizeF frameSize(view.width, view.height);
    const FaceAnalysis analysis = analyzer_.analyze(view, geometry.focusInFrame(frameSize), frameTime);

    if (!analysis.faces.empty())
        shared_->faceFound = true;
    reportFace(analysis, frameSize, geometry);
    if (const FaceFollower::Change change = follower_.observe(analysis, frameTime); change != FaceFollower::Change::None)
        followedFaceChanged(change);
    if (judge_) {
        followStep(analysis, frameSize.width(), frameTime, frame.isMirrored());
        return;
    }
    updateGuidance(analysis.guidance, frameTime);
    if (state_ == State::Searching)
        considerShot(analysis, view, pts, frameTime, frame.isMirrored());
}

void ZCReferenceDetector::Worker::followedFaceChanged(FaceFollower::Change change)
{
    resetSpell();
    if (change == FaceFollower::Change::Replaced && stepIndex_ > 0) {
        qCInfo(platform::lcCoreDetector) << "another face took the user's place; the steps start again";
        stepIndex_ = 0;
        startStep();
        return;
    }
    // Lost, or replaced during the first step: that step starts again, on
    // its running time limit.
    if (judge_)
        judge_.emplace(steps_[stepIndex_].kind);
}

void ZCReferenceDetector::Worker::followStep(const FaceAnalysis& analysis, double frameWidth, double frameTime,
                                             bool mirrored)
{
    // While the user acts, only a missing or a second face is worth saying;
    // otherwise the step's prompt stays up.
    const bool faceMatters = analysis.guidance == Guidance::NoFace || analysis.guidance == Guidance::MultipleFaces;
    updateGuidance(faceMatters ? analysis.guidance : Guidance::None, frameTime);
    const ZCStepKind kind = steps_[stepIndex_].kind;
    if (!promptedAt_) {
        promptedAt_ = frameTime;
    } else if (reportedGuidance_ == Guidance::None
               && frameTime - *promptedAt_ >= shared_->settings.guidanceRepeatInterval) {
        promptedAt_ = frameTime;
        fail(ZCErrorCode::StepPrompt, promptKeyFor(kind));
    }
    if (!analysis.faces.empty() && !StepJudge::canJudge(kind, analysis) && !warnedUnjudgeable_) {
        warnedUnjudgeable_ = true;
        qCWarning(platform::lcCoreDetector) << "head turns need the face network's landmarks; this step cannot be passed";
    }
    if (judge_->observe(analysis, frameWidth, frameTime, mirrored))
        finishStep();
}

void ZCReferenceDetector::Worker::reportFace(const FaceAnalysis& analysis, const QSizeF& frameSize,
                                             const PreviewGeometry& geometry)
{
    if (analysis.faces.empty() && !faceShown_)
        return;
    faceShown_ = !analysis.faces.empty();
    const QRectF rect = faceShown_ ? geometry.toScreen(analysis.faces.front(), frameSize) : QRectF();
    if (auto d = delegate())
        d->detectionRect(rect, frameSize);
}

void ZCReferenceDetector::Worker::updateGuidance(Guidance guidance, double frameTime)
{
    if (guidance == Guidance::None) {
        pendingGuidance_ = reportedGuidance_ = Guidance::None;
        return;
    }
    if (guidance != pendingGuidance_) {
        pendingGuidance_ = guidance;
        pendingSince_ = frameTime;
    }
    if (frameTime - pendingSince_ < shared_->settings.guidanceDelay)
        return;
    if (guidance == reportedGuidance_ && frameTime - reportedAt_ < shared_->settings.guidanceRepeatInterval)
        return;
    reportedGuidance_ = guidance;
    reportedAt_ = frameTime;
    const GuidanceMessage message = messageFor(guidance);
    lastGuidanceKey_ = message.key;
    fail(message.code, message.key);
}

void ZCReferenceDetector::Worker::considerShot(const FaceAnalysis& analysis, const FrameView& view,
                                               platform::MediaTime pts, double frameTime, bool mirrored)
{
    if (!analysis.isGood()) {
        resetSpell();
        return;
    }
    if (!spellStart_)
        spellStart_ = frameTime;
    if (!candidate_ || analysis.quality.total > candidate_->quality().total) {
        // The eyes are judged only every few frames of a good face: the
        // frame that may become the shot is looked at itself.
        if (!analysis.eyesMeasured && !analysis.landmarks.empty()
            && analyzer_.eyesOpenness(view, analysis.landmarks.front()) < shared_->settings.minEyeOpenness) {
            resetSpell();
            return;
        }
        std::optional<ZCFaceKeypoints> keypoints;
        if (!analysis.landmarks.empty()) {
            // The network names the points as an unmirrored picture shows
            // them; in a mirrored one the person's right eye is on the right.
            const FaceLandmarks& l = analysis.landmarks.front();
            keypoints = mirrored ? ZCFaceKeypoints{l.leftEye, l.rightEye, l.noseTip, l.mouth, l.leftEar, l.rightEar}
                                 : ZCFaceKeypoints{l.rightEye, l.leftEye, l.noseTip, l.mouth, l.rightEar, l.leftEar};
        }
        candidate_.emplace(copyToImage(view), analysis.faces.front(), analysis.quality, pts, keypoints);
    }
    if (frameTime - *spellStart_ >= shared_->settings.steadyDuration)
        finishStep();
}

void ZCReferenceDetector::Worker::finishStep()
{
    if (stepIndex_ + 1 < steps_.size()) {
        ++stepIndex_;
        startStep();
        return;
    }
    // The last step is a look at the camera (arrange): its spell's best frame.
    auto shot = std::make_shared<const ZCBestShot>(std::move(*candidate_));
    resetSpell();
    if (!liveness_) {
        deliver(std::move(shot));
        return;
    }
    state_ = State::CheckingLiveness;
    ++generation_;
    checkedShot_ = shot;
    if (auto d = delegate())
        d->livenessIsActive(true);
    // The answer comes on the checker's thread; it only posts back here, and
    // holds the detector weakly so that a detector gone meanwhile is not kept.
    std::weak_ptr<Shared> weakShared = shared_;
    liveness_->checkLiveness(shot->image(), [weakShared, generation = generation_](bool live, platform::ErrorPtr error) {
        if (auto shared = weakShared.lock())
            shared->post([generation, live, error](Worker& worker) { worker.livenessAnswered(generation, live, error); });
    });
}

void ZCReferenceDetector::Worker::livenessAnswered(uint64_t generation, bool live, const platform::ErrorPtr& error)
{
    ZAVO_ASSERT_ON(shared_->thread);
    if (state_ != State::CheckingLiveness || generation != generation_)
        return;
    ZCBestShotPtr shot = std::exchange(checkedShot_, nullptr);
    if (auto d = delegate())
        d->livenessIsActive(false);
    if (!error && live) {
        deliver(std::move(shot));
        return;
    }
    // A quality complaint the user can act on (it comes with a message) sends
    // the search on; anything else waits for resume(): the screen ends the
    // session on it.
    const auto* networking = platform::errorCast<web::NetworkingError>(error.get());
    const bool userCanFix = networking && networking->kind() == web::NetworkingError::Kind::LivenessQualityError
        && networking->errorDescription().has_value();
    state_ = userCanFix ? State::Searching : State::Paused;
    if (userCanFix)
        returnToFrontalStep();
    if (error) {
        qCInfo(platform::lcCoreDetector) << "liveness check failed:" << error->localizedDescription();
        reportError(error);
    } else {
        qCInfo(platform::lcCoreDetector) << "liveness check refused the face";
        fail(ZCErrorCode::LivenessRefused, "errors.liveness_failed");
    }
}

void ZCReferenceDetector::Worker::deliver(ZCBestShotPtr shot)
{
    ZAVO_ASSERT_ON(shared_->thread);
    state_ = State::Done;
    auto d = delegate();
    if (!d || d->bestShot(std::move(shot)))
        return;
    // Declined: look for another.
    state_ = State::Searching;
    returnToFrontalStep();
}

void ZCReferenceDetector::Worker::fail(ZCErrorCode code, const char* key)
{
    reportError(makeZCError(code, QString::fromLatin1(key)));
}

void ZCReferenceDetector::Worker::reportError(platform::ErrorPtr error)
{
    if (auto d = delegate())
        d->bestShotError(std::move(error));
}

std::shared_ptr<ZCBestShotDelegate> ZCReferenceDetector::Worker::delegate() const
{
    // Nothing is reported once the detector is being destroyed.
    return shared_->stopping ? nullptr : shared_->delegate.lock();
}

// ------------------------------------------------------------ main thread

ZCReferenceDetector::ZCReferenceDetector(std::weak_ptr<ZCBestShotDelegate> delegate,
                                         std::shared_ptr<ZCOnlineLivenessProtocol> liveness,
                                         const ZCZavoConfiguration& configuration)
    : shared_(std::make_shared<Shared>(std::move(delegate), configuration))
{
    // The worker is made on the thread by its first round: loading the face
    // network takes a while, and the worker belongs to that thread. It goes
    // with the round, on the thread too.
    auto worker = std::make_shared<std::optional<Worker>>();
    shared_->thread.start("ZCDetector", [shared = shared_, liveness = std::move(liveness), worker]() mutable {
        if (!*worker)
            worker->emplace(shared, std::move(liveness));
        return (*worker)->round();
    });
}

ZCReferenceDetector::~ZCReferenceDetector()
{
    {
        MutexLocker lock(shared_->mutex);
        shared_->stopping = true;
    }
    shared_->thread.wake();
    // Inside a delegate call, on the detector's thread: the thread ends when
    // the call returns.
    shared_->thread.join();
}

void ZCReferenceDetector::pushFrame(const platform::SampleBuffer& frame)
{
    ZAVO_ASSERT_ON_MAIN();
    if (!frame.isValid())
        return;
    platform::SampleBuffer dropped;  // released outside the lock
    uint64_t number = 0;
    {
        MutexLocker lock(shared_->mutex);
        dropped = std::exchange(shared_->pending, frame);
        number = ++shared_->pushedFrames;
        shared_->lastArrival = Clock::now();
    }
    shared_->thread.wake();
    if (shared_->settings.synchronousProcessing) {
        MutexLocker lock(shared_->mutex);
        while (shared_->handledFrames < number)
            shared_->mutex.wait(shared_->processed);
    }
}

void ZCReferenceDetector::screenSize(const QSizeF& size, const platform::EdgeInsets& edges)
{
    ZAVO_ASSERT_ON_MAIN();
    MutexLocker lock(shared_->mutex);
    shared_->geometry = PreviewGeometry{size, edges};
}

bool ZCReferenceDetector::faceFound() const { return shared_->faceFound; }

void ZCReferenceDetector::launchWizard()
{
    ZAVO_ASSERT_ON_MAIN();
    // Steps belong to the main thread; only what they ask and their time
    // limits cross over.
    std::vector<StepPlan> plans;
    for (const ZCStepConfigPtr& step : steps_) {
        if (step)
            plans.push_back({step->kind(), step->timeout()});
    }
    shared_->post([plans = std::move(plans)](Worker& worker) mutable { worker.launch(std::move(plans)); });
}

void ZCReferenceDetector::defineStepsList(std::vector<ZCStepConfigPtr> steps) { steps_ = std::move(steps); }

void ZCReferenceDetector::resume()
{
    ZAVO_ASSERT_ON_MAIN();
    shared_->post([](Worker& worker) { worker.resume(); });
}

}  // namespace zavo::core::detail
