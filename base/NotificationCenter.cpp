#include "base/NotificationCenter.h"

#include <algorithm>

namespace zavo::platform {

NotificationCenter& NotificationCenter::defaultCenter()
{
    static NotificationCenter center;
    return center;
}

void NotificationCenter::addObserver(const void* observer, const QString& name, const void* sender, Handler handler)
{
    MutexLocker lock(mutex_);
    registrations_.push_back({observer, name, sender, std::make_shared<const Handler>(std::move(handler))});
}

void NotificationCenter::removeObserver(const void* observer)
{
    MutexLocker lock(mutex_);
    std::erase_if(registrations_, [&](const Registration& r) { return r.observer == observer; });
}

void NotificationCenter::removeObserver(const void* observer, const QString& name)
{
    MutexLocker lock(mutex_);
    std::erase_if(registrations_, [&](const Registration& r) { return r.observer == observer && r.name == name; });
}

void NotificationCenter::post(const Notification& notification)
{
    // Handlers run outside the lock so that they may add or remove observers.
    std::vector<std::shared_ptr<const Handler>> matching;
    {
        MutexLocker lock(mutex_);
        for (const auto& r : registrations_) {
            if ((r.name.isEmpty() || r.name == notification.name) && (!r.sender || r.sender == notification.sender))
                matching.push_back(r.handler);
        }
    }
    for (const auto& handler : matching)
        (*handler)(notification);
}

void NotificationCenter::post(const QString& name, const void* sender, const QVariantMap& userInfo)
{
    post(Notification{name, sender, userInfo});
}

}  // namespace zavo::platform
