#pragma once
// The cameras a PipeWire daemon offers (the desktop's session manager
// publishes webcams and, through libcamera, the MIPI cameras of laptops and
// boards that have no usable V4L2 node of their own) as capture devices. A
// camera's unique ID and location are "pipewire:<node.name>".
#include "base/ThreadSafety.h"
#include "base/ZavoExport.h"
#include "camera/CaptureDevice.h"
#include "camera/pipewire/Connection_p.h"

#include <QElapsedTimer>

namespace zavo::platform::pipewire {

inline const QString kLocationPrefix = QStringLiteral("pipewire:");

class ZAVO_EXPORT Provider final : public CaptureDeviceProvider {
public:
    /// Connects to the session's daemon when first asked, and again (at most
    /// every two seconds) after it went away or was not there.
    Provider();
    /// Uses connection, and only it: the remote a camera portal handed over.
    explicit Provider(std::shared_ptr<Connection> connection);

    std::vector<CaptureDevicePtr> devices() override;

    /// The /dev/video node a listed camera wraps; empty for cameras with no
    /// V4L2 node of their own (libcamera's, a producer program's).
    static QString v4l2PathOf(const CaptureDevice& device);

private:
    std::shared_ptr<Connection> connection() ZAVO_REQUIRES(mutex_);

    const bool reconnects_;
    Mutex mutex_;
    std::shared_ptr<Connection> connection_ ZAVO_GUARDED_BY(mutex_);
    QElapsedTimer lastAttempt_ ZAVO_GUARDED_BY(mutex_);
    bool warned_ ZAVO_GUARDED_BY(mutex_) = false;
    std::vector<CaptureDevicePtr> devices_ ZAVO_GUARDED_BY(mutex_);
};

}  // namespace zavo::platform::pipewire
