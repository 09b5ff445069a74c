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

bool StepJudge::shows(const FaceAnalysis& analysis, double frameWidth, bool mirrored)
{
    // Only one face may do the step: a second one could be anyone's.
    if (analysis.faces.size() != 1 || frameWidth <= 0)
        return false;
    switch (kind_) {
    case ZCStepKind::TurnHeadLeft:
    case ZCStepKind::TurnHeadRight: {
        if (!analysis.pose)
            return false;
        if (phase_ != Phase::Turned)
            return std::abs(analysis.pose->yaw) <= kFrontalYaw;
        // yaw > 0 turns the face towards the frame's right edge. Unmirrored,
        // the user's own left is the frame's right; a mirror swaps them.
        const double towardsUsersLeft = mirrored ? -1.0 : 1.0;
        const double towardsAsked = (kind_ == ZCStepKind::TurnHeadLeft ? 1.0 : -1.0) * towardsUsersLeft;
        return towardsAsked * analysis.pose->yaw >= kTurnedYaw
            && towardsAsked * analysis.noseParallax >= kTurnedParallax;
    }
    case ZCStepKind::MoveCloser: {
        // A face cut off by the frame's edge is not a face brought closer.
        if (analysis.guidance == Guidance::OffCentre)
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

bool StepJudge::observe(const FaceAnalysis& analysis, double frameWidth, double frameTime, bool mirrored)
{
    if (done_)
        return true;
    if (!shows(analysis, frameWidth, mirrored)) {
        heldSince_.reset();
        return false;
    }
    if (!heldSince_)
        heldSince_ = frameTime;
    if (frameTime - *heldSince_ < kHoldSeconds - kTimeTolerance)
        return false;
    heldSince_.reset();
    const bool turn = kind_ == ZCStepKind::TurnHeadLeft || kind_ == ZCStepKind::TurnHeadRight;
    if (turn && phase_ != Phase::Back) {
        phase_ = phase_ == Phase::Frontal ? Phase::Turned : Phase::Back;
        return false;
    }
    done_ = true;
    return true;
}

FaceFollower::Change FaceFollower::observe(const FaceAnalysis& analysis, double frameTime)
{
    if (analysis.faces.empty()) {
        if (following_ && frameTime - lastSeen_ > kLostAfter) {
            following_ = false;
            return Change::Lost;
        }
        return Change::None;
    }
    if (analysis.faces.size() > 1)
        return Change::None;
    const QRectF face = analysis.faces.front();
    if (!following_) {
        following_ = true;
        last_ = face;
        lastSeen_ = frameTime;
        appearance_ = analysis.appearance;
        return Change::None;
    }
    // Frames the detector skipped widen what counts as the same place.
    const double frames = std::max(1.0, (frameTime - lastSeen_) * 30.0);
    const QPointF moved = face.center() - last_.center();
    const double jump = std::hypot(moved.x(), moved.y()) / std::max(last_.width(), 1.0);
    const double growth = face.width() / std::max(last_.width(), 1.0);
    const double allowedGrowth = std::pow(kMaxGrowth, std::min(frames, 4.0));
    const bool samePlace = jump <= kMaxJump * std::min(frames, 4.0) && growth <= allowedGrowth
        && growth >= 1.0 / allowedGrowth;
    // Appearance is compared only when both frames have it (cascade frames
    // without a judged face carry none).
    const bool alike = appearance_.empty() || analysis.appearance.empty()
        || FaceAnalyzer::appearanceSimilarity(appearance_, analysis.appearance) >= kMinSimilarity;
    last_ = face;
    lastSeen_ = frameTime;
    if (samePlace && alike) {
        if (appearance_.empty())
            appearance_ = analysis.appearance;
        return Change::None;
    }
    appearance_ = analysis.appearance;
    return Change::Replaced;
}

}  // namespace zavo::core::detail
