#pragma once
// A step of the interaction wizard: what it asks of the user and how long
// the user has for it.
//
//     detector->defineStepsList({
//         std::make_shared<ZCStepConfig>(ZCStepKind::TurnHeadLeft, 8.0),
//         std::make_shared<ZCStepConfig>(ZCStepKind::LookAtCamera, 20.0),
//     });
#include "base/ZavoExport.h"
#include "zavocore/ZCBestShotDetectorProtocol.h"

namespace zavo::core {

class ZAVO_EXPORT ZCStepConfig final : public ZCStepConfigProtocol {
public:
    /// Time limit of a step when nothing else is said, in seconds.
    static constexpr double kDefaultTimeout = 30.0;

    explicit ZCStepConfig(double timeout = kDefaultTimeout) : timeout_(timeout) {}
    explicit ZCStepConfig(ZCStepKind kind, double timeout = kDefaultTimeout) : kind_(kind), timeout_(timeout) {}
    double timeout() const override { return timeout_; }
    void setTimeout(double seconds) override { timeout_ = seconds; }
    ZCStepKind kind() const override { return kind_; }

private:
    ZCStepKind kind_ = ZCStepKind::LookAtCamera;
    double timeout_;
};

}  // namespace zavo::core
