#pragma once
// The V4L2 webcams of a kernel as capture devices. A provider lists the
// capture nodes under /dev (through its Kernel, so tests can stand a fake
// device in), keeps one device object per camera while it stays plugged in,
// and rescans only when /dev changed.
#include "base/ZavoExport.h"
#include "camera/CaptureDevice.h"
#include "camera/v4l2/Kernel_p.h"
#include "base/ThreadSafety.h"


namespace zavo::platform::v4l2 {

class ZAVO_EXPORT Provider final : public CaptureDeviceProvider {
public:
    explicit Provider(std::shared_ptr<Kernel> kernel);

    std::vector<CaptureDevicePtr> devices() override;

private:
    const std::shared_ptr<Kernel> kernel_;
    Mutex mutex_;
    std::vector<CaptureDevicePtr> devices_ ZAVO_GUARDED_BY(mutex_);
    QStringList refused_ ZAVO_GUARDED_BY(mutex_);  // nodes already logged as forbidden
};

/// Front for a camera built into the machine, going by its card name;
/// otherwise unspecified (the registry decides).
ZAVO_EXPORT CaptureDevicePosition positionForCard(const QString& card);

}  // namespace zavo::platform::v4l2
