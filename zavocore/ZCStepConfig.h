#pragma once
// The interaction wizard's step: "look at the camera" until a steady, good
// face gives the shot, within the step's time limit.
#include "zavocore/ZCBestShotDetectorProtocol.h"

namespace zavo::core {

class ZCStepConfig final : public ZCStepConfigProtocol {
public:
    /// Time limit of a step when nothing else is said, in seconds.
    static constexpr double kDefaultTimeout = 30.0;

    explicit ZCStepConfig(double timeout = kDefaultTimeout) : timeout_(timeout) {}
    double timeout() const override { return timeout_; }
    void setTimeout(double seconds) override { timeout_ = seconds; }

private:
    double timeout_;
};

}  // namespace zavo::core
