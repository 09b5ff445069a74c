#pragma once
// The camera screen as its host sees it.
#include "base/ZavoExport.h"
#include "camera-screen/ZMCameraDelegate.h"
#include "shell/ViewController.h"
#include "zavocore/ZCBestShotDetectorProtocol.h"
#include "zavocore/ZCZavoConfiguration.h"

#include <functional>
#include <memory>
#include <vector>

namespace zavo {

/// Main thread only.
class ZAVO_EXPORT ZMCameraViewControllerProtocol {
public:
    virtual ~ZMCameraViewControllerProtocol() = default;

    /// Held weakly.
    virtual std::shared_ptr<ZMCameraDelegate> delegate() const = 0;
    virtual void setDelegate(std::weak_ptr<ZMCameraDelegate> delegate) = 0;
    /// Must be set before the screen's view is first shown.
    virtual core::ZCZavoConfigurationPtr configuration() const = 0;
    virtual void setConfiguration(core::ZCZavoConfigurationPtr configuration) = 0;
    /// Kept for the host; the screen never calls it and never dismisses itself.
    virtual std::function<void()> dismissHandler() const = 0;
    virtual void setDismissHandler(std::function<void()> handler) = 0;
    /// Hands the interaction steps to the detector; call before showing the
    /// screen, after the configuration is set.
    virtual void defineInteractionsStep(std::vector<core::ZCStepConfigPtr> steps) = 0;

    /// The screen to present: show viewController()->view(), or push it on a
    /// NavigationController. Capture starts when the view is first shown.
    virtual std::shared_ptr<platform::ViewController> viewController() = 0;
};

using ZMCameraViewControllerPtr = std::shared_ptr<ZMCameraViewControllerProtocol>;

}  // namespace zavo
