#pragma once
// The reference best-shot detector: OpenCV face finding, guidance, a one-step
// interaction wizard, best-shot selection and the optional liveness check.
//
// Threads. The camera screen calls every operation on the main thread;
// pushFrame only parks the frame (a handle, no pixel copy) in a one-frame
// slot and wakes the detector's own thread, which analyses the newest frame
// and drops the ones it had no time for. All analysis state lives on that
// thread; the slot, the screen geometry and the commands from the main
// thread cross over under one mutex. Every delegate call comes from the
// detector's thread. Destroying the detector waits for the analysis under
// way (tens of milliseconds at most) and joins the thread; when the last
// owner lets go inside a delegate call, the thread ends right after it.
//
// Timing. Guidance and the steady spell run on frame time (presentation
// timestamps); the step time limit and the frame watchdog run on the wall
// clock, from launchWizard on. The step limit is suspended while the
// liveness check runs and restarts in full when the search resumes.
//
// Codes and messages: ZCErrorCodes.h.
#include "zavocore/ZCBestShotDetectorProtocol.h"
#include "zavocore/ZCOnlineLivenessProtocol.h"

#include <memory>
#include <vector>

namespace zavo::core::detail {

class ZCReferenceDetector final : public ZCBestShotDetectorProtocol {
public:
    /// Starts the detector's thread, which loads the cascades; returns at once.
    ZCReferenceDetector(std::weak_ptr<ZCBestShotDelegate> delegate, std::shared_ptr<ZCOnlineLivenessProtocol> liveness,
                        const ZCZavoConfiguration& configuration);
    ~ZCReferenceDetector() override;

    void pushFrame(const platform::SampleBuffer& frame) override;
    void screenSize(const QSizeF& size, const platform::EdgeInsets& edges) override;
    bool faceFound() const override;
    /// Starts (or restarts) the steps from the first; frames pushed before
    /// are ignored.
    void launchWizard() override;
    /// Takes effect at the next launchWizard.
    void defineStepsList(std::vector<ZCStepConfigPtr> steps) override;
    /// Continues the current step after a liveness refusal or a liveness
    /// failure; does nothing otherwise.
    void resume() override;

    struct Shared;
    class Worker;

private:
    std::shared_ptr<Shared> shared_;
    std::vector<ZCStepConfigPtr> steps_;
};

}  // namespace zavo::core::detail
