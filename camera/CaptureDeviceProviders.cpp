// The one place that names the camera backends a process gets by default;
// the registry and the rest of the capture code know providers only through
// their interface. File and synthetic cameras are registered by whoever
// makes them.
#include "camera/CaptureDevice.h"
#include "camera/pipewire/Provider_p.h"
#include "camera/v4l2/Provider_p.h"

#include <algorithm>

namespace zavo::platform {

namespace {

// The machine's cameras through both backends, each camera once. A webcam
// the desktop's session manager also publishes through PipeWire is listed
// as its V4L2 node: the same picture with one hop fewer, and the controls
// (focus, exposure, power-line frequency) this process sets itself. The
// PipeWire camera is listed instead when it is the only way to the picture:
// the V4L2 node cannot be opened here (no permission, a sandbox), or the
// camera has no V4L2 node that gives pictures (libcamera's MIPI cameras).
class SystemCameras final : public CaptureDeviceProvider {
public:
    SystemCameras()
        : v4l2_(std::make_shared<v4l2::Provider>(v4l2::systemKernel()))
        , pipewire_(std::make_shared<pipewire::Provider>())
    {
    }

    std::vector<CaptureDevicePtr> devices() override
    {
        std::vector<CaptureDevicePtr> webcams = v4l2_->devices();
        const std::vector<CaptureDevicePtr> published = pipewire_->devices();
        std::vector<CaptureDevicePtr> devices;
        for (const auto& webcam : webcams) {
            const bool usable = !webcam->formats().empty();
            const bool publishedToo = std::any_of(published.begin(), published.end(), [&](const CaptureDevicePtr& p) {
                return pipewire::Provider::v4l2PathOf(*p) == webcam->location();
            });
            if (usable || !publishedToo)
                devices.push_back(webcam);
        }
        for (const auto& camera : published) {
            const QString path = pipewire::Provider::v4l2PathOf(*camera);
            const bool reachableDirectly = !path.isEmpty() && std::any_of(webcams.begin(), webcams.end(), [&](const CaptureDevicePtr& w) {
                return w->location() == path && !w->formats().empty();
            });
            if (!reachableDirectly)
                devices.push_back(camera);
        }
        return devices;
    }

private:
    const std::shared_ptr<v4l2::Provider> v4l2_;
    const std::shared_ptr<pipewire::Provider> pipewire_;
};

}  // namespace

std::vector<CaptureDeviceProviderPtr> defaultCaptureDeviceProviders()
{
    return {std::make_shared<SystemCameras>()};
}

}  // namespace zavo::platform
