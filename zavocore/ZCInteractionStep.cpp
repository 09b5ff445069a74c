#include "zavocore/ZCInteractionStep_p.h"

#include <cmath>

namespace zavo::core::detail {

const char* promptKeyFor(ZCStepKind kind)
{
    switch (kind) {
    case ZCStepKind::TurnHeadLeft: return "steps.turn_left";
    case ZCStepKind::TurnHeadRight: return "steps.turn_right";
    case ZCStepKind::MoveCloser: return "steps.move_closer";
    case ZCStepKind::LookAtCamera: break;
    }
    return nullptr;
}

bool StepJudge::canJudge(ZCStepKind kind, const FaceAnalysis& analysis)
{
    const bool turn = kind == ZCStepKind::TurnHeadLeft || kind == ZCStepKind::TurnHeadRight;
    return !turn || analysis.pose.has_value();
}

bool StepJudge::asked(const FaceAnalysis& analysis, double frameWidth)
{
    // Only one face may do the step: a second one could be anyone's.
    if (analysis.faces.size() != 1 || frameWidth <= 0)
        return false;
    switch (kind_) {
    case ZCStepKind::TurnHeadLeft:
    case ZCStepKind::TurnHeadRight: {
        if (!analysis.pose)
            return false;
        // The frames are the mirrored preview the user looks at: turning to
        // one's own left turns the face towards the frame's left edge.
        const double yaw = analysis.pose->yaw;
        if (std::abs(yaw) <= kFrontalYaw)
            sawFrontal_ = true;
        const double towardsAsked = kind_ == ZCStepKind::TurnHeadLeft ? -yaw : yaw;
        return sawFrontal_ && towardsAsked >= kTurnedYaw;
    }
    case ZCStepKind::MoveCloser: {
        // A face cut off by the frame's edge is not a face brought closer.
        if (analysis.guidance == Guidance::TooClose)
            return false;
        const double width = analysis.faces.front().width() / frameWidth;
        if (!startWidth_)
            startWidth_ = width;
        return width >= *startWidth_ * kCloserGrowth;
    }
    case ZCStepKind::LookAtCamera: break;
    }
    return false;
}

bool StepJudge::observe(const FaceAnalysis& analysis, double frameWidth, double frameTime)
{
    if (done_)
        return true;
    if (!asked(analysis, frameWidth)) {
        heldSince_.reset();
        return false;
    }
    if (!heldSince_)
        heldSince_ = frameTime;
    done_ = frameTime - *heldSince_ >= kHoldSeconds;
    return done_;
}

}  // namespace zavo::core::detail
