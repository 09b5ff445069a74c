#include "camera/CaptureAuthorization_p.h"

#include "base/DispatchQueue.h"
#include "base/ThreadSafety.h"
#include "camera/pipewire/Portal_p.h"
#include "camera/pipewire/Provider_p.h"


namespace zavo::platform {

namespace {

class DefaultCaptureAuthorizationPolicy final : public CaptureAuthorizationPolicy {
public:
    AuthorizationStatus authorizationStatus() override
    {
        const auto devices = CaptureDeviceRegistry::shared().allDevices();
        for (const auto& device : devices) {
            if (device->canOpen())
                return AuthorizationStatus::Authorized;
        }
        // No camera this process can open, but the desktop's camera portal
        // can hand some over: the question is open until a request puts it
        // to the portal. Its refusal stands for the rest of the process, as
        // a refused permission does on a phone; the portal itself keeps the
        // user's answer for the next start.
        if (portalRefused_.load())
            return AuthorizationStatus::Denied;
        // A process that chose its own camera providers (a host with
        // cameras of its own, a test) does not get the desktop's.
        if (CaptureDeviceRegistry::shared().usesDefaultProviders() && pipewire::CameraPortal::isAvailable())
            return AuthorizationStatus::NotDetermined;
        return devices.empty() ? AuthorizationStatus::Restricted : AuthorizationStatus::Denied;
    }

    void requestAccess(std::function<void(bool granted)> completion) override
    {
        if (authorizationStatus() != AuthorizationStatus::NotDetermined) {
            // There is nobody to ask: the answer is what the process can do.
            completion(authorizationStatus() == AuthorizationStatus::Authorized);
            return;
        }
        std::shared_ptr<pipewire::Connection> connection;
        QString why;
        const auto answer = pipewire::CameraPortal::requestCameras(&connection, &why);
        if (answer == pipewire::CameraPortal::Answer::Granted) {
            // The portal's remote shows the cameras this process may use:
            // they join the other providers' for as long as it lives.
            auto& registry = CaptureDeviceRegistry::shared();
            auto providers = registry.providers();  // empty: the defaults, not made yet
            if (providers.empty() && registry.usesDefaultProviders())
                providers = defaultCaptureDeviceProviders();
            providers.push_back(std::make_shared<pipewire::Provider>(std::move(connection)));
            registry.setProviders(std::move(providers));
        } else if (answer == pipewire::CameraPortal::Answer::Refused) {
            portalRefused_.store(true);
        }
        completion(answer == pipewire::CameraPortal::Answer::Granted);
    }

    CameraFailureReason denialReason() override
    {
        if (authorizationStatus() != AuthorizationStatus::Denied)
            return CameraFailureReason::None;
        // Denied: the portal said no, or there are cameras this user may not open.
        return portalRefused_.load() ? CameraFailureReason::PortalRefused : CameraFailureReason::NoPermission;
    }

private:
    std::atomic<bool> portalRefused_{false};
};

Guarded<std::shared_ptr<CaptureAuthorizationPolicy>> gPolicy;  // null means the default
Guarded<std::shared_ptr<CaptureAuthorizationPolicy>> gDefaultPolicy;  // made when first needed

}  // namespace

FixedCaptureAuthorizationPolicy::FixedCaptureAuthorizationPolicy(AuthorizationStatus status, bool grantsRequests)
    : status_(int(status)), grants_(grantsRequests)
{
}

void FixedCaptureAuthorizationPolicy::setStatus(AuthorizationStatus status) { status_.store(int(status)); }

void FixedCaptureAuthorizationPolicy::setGrantsRequests(bool grants) { grants_.store(grants); }

void FixedCaptureAuthorizationPolicy::setDenialReason(CameraFailureReason reason) { reason_.store(int(reason)); }

int FixedCaptureAuthorizationPolicy::requestCount() const { return requests_.load(); }

AuthorizationStatus FixedCaptureAuthorizationPolicy::authorizationStatus() { return AuthorizationStatus(status_.load()); }

void FixedCaptureAuthorizationPolicy::requestAccess(std::function<void(bool granted)> completion)
{
    requests_.fetch_add(1);
    const bool grants = grants_.load();
    int undecided = int(AuthorizationStatus::NotDetermined);
    if (status_.compare_exchange_strong(undecided, int(grants ? AuthorizationStatus::Authorized
                                                                 : AuthorizationStatus::Denied))) {
        completion(grants);
        return;
    }
    completion(authorizationStatus() == AuthorizationStatus::Authorized);
}

std::shared_ptr<CaptureAuthorizationPolicy> CaptureAuthorization::policy()
{
    auto policy = gPolicy.get();
    if (policy)
        return policy;
    return gDefaultPolicy.with([](std::shared_ptr<CaptureAuthorizationPolicy>& fallback) {
        if (!fallback)
            fallback = std::make_shared<DefaultCaptureAuthorizationPolicy>();
        return fallback;
    });
}

void CaptureAuthorization::setPolicy(std::shared_ptr<CaptureAuthorizationPolicy> policy)
{
    // Back to the default means a fresh one: a portal's refusal is
    // forgotten with the policy that heard it.
    if (!policy)
        gDefaultPolicy.set(nullptr);
    gPolicy.set(std::move(policy));
}

AuthorizationStatus CaptureAuthorization::authorizationStatusForMediaType(MediaType mediaType)
{
    if (mediaType != MediaType::Video)
        return AuthorizationStatus::Authorized;
    return policy()->authorizationStatus();
}

CameraFailureReason CaptureAuthorization::denialReasonForMediaType(MediaType mediaType)
{
    if (mediaType != MediaType::Video)
        return CameraFailureReason::None;
    return policy()->denialReason();
}

void CaptureAuthorization::requestAccessForMediaType(MediaType mediaType, std::function<void(bool granted)> completion)
{
    if (!completion)
        return;
    // A queue of its own for each request: the answer never arrives inside
    // this call, and the queue's thread ends once the request is answered.
    auto queue = DispatchQueue::create(QStringLiteral("CaptureAuthorization"));
    auto requestPolicy = policy();
    queue->async([mediaType, requestPolicy, completion = std::move(completion)]() mutable {
        if (mediaType != MediaType::Video) {
            completion(true);
            return;
        }
        requestPolicy->requestAccess(std::move(completion));
    });
}

}  // namespace zavo::platform
