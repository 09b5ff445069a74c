#pragma once
// Judges one step of the interaction wizard that asks the user to do
// something (turn the head, come closer) from the analyses of the frames
// seen during that step. A flat picture cannot pass a turn: turning a photo
// narrows it but leaves the nose midway between the eyes.
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
    /// Turns count from this far off frontal (degrees), after the face was
    /// seen within kFrontalYaw of it during the step.
    static constexpr double kTurnedYaw = 25.0;
    static constexpr double kFrontalYaw = 12.0;
    /// Closer: the face this much wider than when the step began.
    static constexpr double kCloserGrowth = 1.25;
    /// How long (frame time) the asked-for pose must last, so that a single
    /// noisy frame neither passes a step nor breaks a good hold for long.
    static constexpr double kHoldSeconds = 0.2;

    explicit StepJudge(ZCStepKind kind) : kind_(kind) {}

    /// Looks at one analysed frame (frame time in seconds); true once the
    /// user has done what the step asks, and from then on.
    bool observe(const FaceAnalysis& analysis, double frameWidth, double frameTime);
    /// Whether the step can be judged from this analysis at all: turns need
    /// the face's landmarks.
    static bool canJudge(ZCStepKind kind, const FaceAnalysis& analysis);

private:
    /// Whether this frame shows what the step asks.
    bool asked(const FaceAnalysis& analysis, double frameWidth);

    const ZCStepKind kind_;
    bool done_ = false;
    bool sawFrontal_ = false;
    std::optional<double> startWidth_;  // of the face, as a fraction of the frame's width
    std::optional<double> heldSince_;
};

}  // namespace zavo::core::detail
