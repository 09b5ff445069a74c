#pragma once
// Broadcast of named notifications inside the process. Observers run
// synchronously on the thread that posts, in the order they were added.
#include "base/ZavoExport.h"
#include "base/ThreadSafety.h"

#include <QString>
#include <QVariantMap>
#include <functional>
#include <memory>
#include <vector>

namespace zavo::platform {

struct ZAVO_EXPORT Notification {
    QString name;
    const void* sender = nullptr;
    QVariantMap userInfo;
};

/// Posted by the platform layer when the device (screen) orientation changes;
/// userInfo "orientation" holds a DeviceOrientation value.
inline const QString kDeviceOrientationDidChangeNotification =
    QStringLiteral("UIDeviceOrientationDidChangeNotification");

class ZAVO_EXPORT NotificationCenter {
public:
    using Handler = std::function<void(const Notification&)>;

    static NotificationCenter& defaultCenter();

    /// Registers handler for notifications called name (all names if empty)
    /// from sender (any sender if null). The observer key identifies the
    /// registration for removeObserver; it is never dereferenced.
    void addObserver(const void* observer, const QString& name, const void* sender, Handler handler);
    /// Removes every registration of observer.
    void removeObserver(const void* observer);
    /// Removes the observer's registrations for one name.
    void removeObserver(const void* observer, const QString& name);
    void post(const Notification& notification);
    void post(const QString& name, const void* sender = nullptr, const QVariantMap& userInfo = {});

private:
    struct Registration {
        const void* observer;
        QString name;
        const void* sender;
        std::shared_ptr<const Handler> handler;
    };
    Mutex mutex_;
    std::vector<Registration> registrations_ ZAVO_GUARDED_BY(mutex_);
};

}  // namespace zavo::platform
