#pragma once
// The component's one entry point.
#include "base/ZavoExport.h"
#include "camera-screen/ZMCameraViewControllerProtocol.h"
#include "camera-screen/ZMUICustomizerProtocol.h"
#include "zavocore/ZCOnlineLivenessProtocol.h"

namespace zavo {

struct ZAVO_EXPORT ZMCameraBuilder {
    /// A camera screen that nothing has started yet: capture begins when the
    /// host shows its view, and the session ends with one call on delegate.
    /// livenessAPI and zavoCustomization may be null; recordVideo turns the
    /// session video on. Null, with a critical log line, for a customization
    /// whose uiCustomizer is null. Main thread.
    static ZMCameraViewControllerPtr viewController(std::weak_ptr<ZMCameraDelegate> delegate,
                                                    core::ZCZavoConfigurationPtr configuration,
                                                    std::shared_ptr<core::ZCOnlineLivenessProtocol> livenessAPI,
                                                    std::shared_ptr<ZMCustomization> zavoCustomization,
                                                    bool recordVideo);
};

}  // namespace zavo
