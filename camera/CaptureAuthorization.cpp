#include "camera/CaptureAuthorization_p.h"

#include "base/DispatchQueue.h"
#include "base/ThreadSafety.h"


namespace zavo::platform {

namespace {

class DefaultCaptureAuthorizationPolicy final : public CaptureAuthorizationPolicy {
public:
    AuthorizationStatus authorizationStatus() override
    {
        const auto devices = CaptureDeviceRegistry::shared().allDevices();
        if (devices.empty())
            return AuthorizationStatus::Restricted;
        for (const auto& device : devices) {
            if (device->canOpen())
                return AuthorizationStatus::Authorized;
        }
        return AuthorizationStatus::Denied;
    }

    void requestAccess(std::function<void(bool granted)> completion) override
    {
        // There is nobody to ask: the answer is what the process can do.
        completion(authorizationStatus() == AuthorizationStatus::Authorized);
    }

    CameraFailureReason denialReason() override
    {
        // Denied here means cameras this user may not open.
        return authorizationStatus() == AuthorizationStatus::Denied ? CameraFailureReason::NoPermission
                                                                    : CameraFailureReason::None;
    }
};

Guarded<std::shared_ptr<CaptureAuthorizationPolicy>> gPolicy;  // null means the default

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
    static const auto defaultPolicy = std::make_shared<DefaultCaptureAuthorizationPolicy>();
    auto policy = gPolicy.get();
    return policy ? policy : defaultPolicy;
}

void CaptureAuthorization::setPolicy(std::shared_ptr<CaptureAuthorizationPolicy> policy)
{
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
