// The one place that names the camera backends a process gets by default;
// the registry and the rest of the capture code know providers only through
// their interface. File and synthetic cameras are registered by whoever
// makes them.
#include "camera/CaptureDevice.h"
#include "camera/v4l2/Provider_p.h"

namespace zavo::platform {

std::vector<CaptureDeviceProviderPtr> defaultCaptureDeviceProviders()
{
    return {std::make_shared<v4l2::Provider>(v4l2::systemKernel())};
}

}  // namespace zavo::platform
