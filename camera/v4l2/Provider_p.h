#pragma once
// The V4L2 webcams of a kernel as capture devices. A provider lists the
// capture nodes under /dev (through its Kernel, so tests can stand a fake
// device in), keeps one device object per camera while it stays plugged in,
// and rescans only when /dev changed.
#include "base/ZavoExport.h"
#include "camera/CaptureDevice.h"
#include "camera/v4l2/Kernel_p.h"
#include "camera/v4l2/Stream_p.h"
#include "base/ThreadSafety.h"

#include <set>

namespace zavo::platform::v4l2 {

class ZAVO_EXPORT Provider final : public CaptureDeviceProvider {
public:
    explicit Provider(std::shared_ptr<Kernel> kernel, StreamLimits limits = {});

    /// Cameras by node number. Nodes that are not cameras for this project
    /// are left out and logged once while they stay: media-controller nodes
    /// (their picture needs libcamera) and infrared or depth-only nodes.
    /// Unique IDs come from udev's persistent names (by-id, else by-path);
    /// two cameras with one name are told apart as "HD Webcam" and
    /// "HD Webcam (2)".
    std::vector<CaptureDevicePtr> devices() override;

private:
    const std::shared_ptr<Kernel> kernel_;
    const StreamLimits limits_;
    Mutex mutex_;
    std::vector<CaptureDevicePtr> devices_ ZAVO_GUARDED_BY(mutex_);
    QStringList refused_ ZAVO_GUARDED_BY(mutex_);        // nodes already logged as forbidden
    std::set<QString> passedOver_ ZAVO_GUARDED_BY(mutex_);  // nodes already logged as not cameras
};

/// Front for a camera built into the machine, going by its card name;
/// otherwise unspecified (the registry decides).
ZAVO_EXPORT CaptureDevicePosition positionForCard(const QString& card);

}  // namespace zavo::platform::v4l2
