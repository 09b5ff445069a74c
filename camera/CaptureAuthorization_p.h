#pragma once
// Camera permission. Linux has no per-application camera permission outside
// sandboxes, so the default policy answers from what the process can do:
// authorized when some camera can be opened (file and synthetic cameras
// always can). When none can, the desktop's camera portal decides if the
// session bus has one: the status is then not determined until a request
// asks it, and its grant adds the cameras it hands over. Without a portal:
// denied when cameras exist but none can be opened (device permissions),
// restricted when there is no camera at all. A host with its own consent
// screen, or a test, installs a policy of its own.
#include "base/ZavoExport.h"
#include "camera/CaptureDevice.h"
#include "camera/CaptureTypes.h"

#include <atomic>
#include <functional>
#include <memory>

namespace zavo::platform {

class ZAVO_EXPORT CaptureAuthorizationPolicy {
public:
    virtual ~CaptureAuthorizationPolicy() = default;
    virtual AuthorizationStatus authorizationStatus() = 0;
    /// Asks the user (or whatever stands in for them). Must answer exactly
    /// once, from any thread.
    virtual void requestAccess(std::function<void(bool granted)> completion) = 0;
    /// Why access is not granted, once the status says so: NoPermission for
    /// device permissions, PortalRefused for the desktop's camera portal;
    /// None when there is nothing the user could change.
    virtual CameraFailureReason denialReason() { return CameraFailureReason::None; }
};

/// A policy with a set status and a set answer: a request made while the
/// status is NotDetermined changes the status to Authorized or Denied by the
/// answer and reports it; any other status is reported as it is. Thread-safe.
class ZAVO_EXPORT FixedCaptureAuthorizationPolicy final : public CaptureAuthorizationPolicy {
public:
    explicit FixedCaptureAuthorizationPolicy(AuthorizationStatus status, bool grantsRequests = true);

    void setStatus(AuthorizationStatus status);
    void setGrantsRequests(bool grants);
    void setDenialReason(CameraFailureReason reason);
    /// How many requests were made.
    int requestCount() const;

    AuthorizationStatus authorizationStatus() override;
    void requestAccess(std::function<void(bool granted)> completion) override;
    CameraFailureReason denialReason() override { return CameraFailureReason(reason_.load()); }

private:
    std::atomic<int> status_;
    std::atomic<bool> grants_;
    std::atomic<int> reason_{int(CameraFailureReason::None)};
    std::atomic<int> requests_{0};
};

class ZAVO_EXPORT CaptureAuthorization {
public:
    /// Read synchronously, on any thread. Only video has a status; other
    /// media are always authorized.
    static AuthorizationStatus authorizationStatusForMediaType(MediaType mediaType);
    /// The completion runs later, never inside this call, on a thread of the
    /// platform's choosing.
    static void requestAccessForMediaType(MediaType mediaType, std::function<void(bool granted)> completion);
    /// The policy's reason for a status other than authorized; any thread.
    static CameraFailureReason denialReasonForMediaType(MediaType mediaType);

    /// Installs policy for the whole process; null restores the default,
    /// afresh (with no portal answer heard yet).
    static void setPolicy(std::shared_ptr<CaptureAuthorizationPolicy> policy);
    static std::shared_ptr<CaptureAuthorizationPolicy> policy();
};

}  // namespace zavo::platform
