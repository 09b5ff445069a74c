#pragma once
// Judges one step of the interaction wizard that asks the user to do
// something (turn the head, come closer) from the analyses of the frames
// seen during that step, and follows the one person who does the steps.
// A flat picture cannot pass a turn: turning a photo narrows it but leaves
// the nose between the ears, where a turning head moves it off that line.
#include "base/ZavoExport.h"
#include "zavocore/ZCBestShotDetectorProtocol.h"
#include "zavocore/ZCFaceAnalyzer_p.h"

#include <optional>

namespace zavo::core::detail {

/// The string-table key of the step's prompt; null for "look at the camera",
/// which has none.
const char* promptKeyFor(ZCStepKind kind);

class ZAVO_EXPORT StepJudge {
public:
    /// A turn is from facing the camera (within kFrontalYaw) to at least
    /// kTurnedYaw towards the asked side and back to facing the camera, each
    /// held for kHoldSeconds of frame time, so that a single noisy frame
    /// neither passes a step nor breaks a good hold for long.
    static constexpr double kTurnedYaw = 25.0;
    static constexpr double kFrontalYaw = 12.0;
    static constexpr double kHoldSeconds = 0.2;
    /// Frame times are rounded: six frames at 30 a second are a fifth of a
    /// second, however the sum of their intervals rounds.
    static constexpr double kTimeTolerance = 1e-3;
    /// The turned head must also show this much nose parallax
    /// (FaceAnalysis::noseParallax) to the same side: a photo turned in the
    /// hand keeps its nose between its ears however narrow it gets.
    static constexpr double kTurnedParallax = 0.2;
    /// Closer: the face this much wider than when the step began.
    static constexpr double kCloserGrowth = 1.3;

    explicit StepJudge(ZCStepKind kind) : kind_(kind) {}

    /// Looks at one analysed frame (frame time in seconds; mirrored: the
    /// frame shows the user as a mirror does, as front cameras' frames do);
    /// true once the user has done what the step asks, and from then on.
    bool observe(const FaceAnalysis& analysis, double frameWidth, double frameTime, bool mirrored);
    /// Whether the step can be judged from this analysis at all: turns need
    /// the face's landmarks.
    static bool canJudge(ZCStepKind kind, const FaceAnalysis& analysis);

private:
    enum class Phase { Frontal, Turned, Back };
    /// Whether this frame shows what the current phase waits for.
    bool shows(const FaceAnalysis& analysis, double frameWidth, bool mirrored);

    const ZCStepKind kind_;
    Phase phase_ = Phase::Frontal;
    bool done_ = false;
    std::optional<double> startWidth_;  // of the face, as a fraction of the frame's width
    std::optional<double> heldSince_;
};

/// Follows one person's face through the frames: whether the single face of
/// a frame is the one seen before (near where it was, about as large, alike
/// in colour), another person, or gone for too long.
class ZAVO_EXPORT FaceFollower {
public:
    enum class Change { None, Lost, Replaced };

    /// Gone this long (frame time) is lost: the user left, or something
    /// came between.
    static constexpr double kLostAfter = 0.5;
    /// Between two frames a face moves at most this share of its width and
    /// grows or shrinks at most by kMaxGrowth, plus what the time between
    /// them allows (frames the detector had no time for).
    static constexpr double kMaxJump = 0.5;
    static constexpr double kMaxGrowth = 1.3;
    /// Appearance similarity to the face as first seen below which it is
    /// someone else.
    static constexpr double kMinSimilarity = 0.5;

    /// Takes one analysed frame and says what became of the followed face.
    /// Frames with several faces change nothing: which would it be?
    Change observe(const FaceAnalysis& analysis, double frameTime);
    void reset() { *this = FaceFollower(); }

private:
    bool following_ = false;
    QRectF last_;
    double lastSeen_ = 0;
    std::vector<float> appearance_;
};

}  // namespace zavo::core::detail
