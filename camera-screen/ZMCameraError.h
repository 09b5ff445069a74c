#pragma once
// The one error type the component hands to its host.
#include "base/ZavoExport.h"
#include "camera/CaptureTypes.h"
#include "base/Error.h"
#include "zavoweb/NetworkingError.h"

#include <variant>

namespace zavo {

inline const QString kZMCameraErrorDomain = QStringLiteral("ZavoCamera.ZMCameraError");

class ZAVO_EXPORT ZMCameraError final : public platform::Error {
public:
    /// The cases in declaration order; the order is the error's code.
    enum class Case { accessStatus = 0, networkingError = 1, bestShotError = 2, error = 3, canceled = 4 };

    /// Camera permission is not granted; reason says why when that is known
    /// (NoPermission, PortalRefused), and then chooses the message.
    static ZMCameraError accessStatus(platform::AuthorizationStatus status,
                                      platform::CameraFailureReason reason = platform::CameraFailureReason::None);
    static ZMCameraError networkingError(web::NetworkingError error);
    /// An error in the core framework's own domain (its detector's).
    static ZMCameraError bestShotError(platform::ErrorObjectPtr error);
    /// Any other failure.
    static ZMCameraError error(platform::ErrorPtr error);
    static ZMCameraError canceled();

    Case kind() const { return static_cast<Case>(payload_.index()); }
    /// The payload of the matching case; a default value for other cases.
    platform::AuthorizationStatus authorizationStatus() const;
    std::optional<web::NetworkingError> networkingErrorValue() const;
    platform::ErrorObjectPtr bestShotErrorValue() const;
    platform::ErrorPtr errorValue() const;
    /// What the user can do something about: why access was not granted
    /// (accessStatus), or why the camera gave no pictures (the 1004 of
    /// bestShotError: busy, unplugged, not enough USB bandwidth, no
    /// pictures...). None for every other error, and when the cause is not
    /// known.
    platform::CameraFailureReason cameraFailureReason() const;

    QString domain() const override { return kZMCameraErrorDomain; }
    long code() const override { return static_cast<long>(kind()); }
    /// The user-facing message; every case has one.
    std::optional<QString> errorDescription() const override;

private:
    friend ZMCameraError cameraErrorFromDetector(platform::ErrorObjectPtr detectorError);
    struct Canceled {};
    struct Access {
        platform::AuthorizationStatus status;
        platform::CameraFailureReason reason;
    };
    using Payload = std::variant<Access, web::NetworkingError, platform::ErrorObjectPtr, platform::ErrorPtr, Canceled>;
    explicit ZMCameraError(Payload payload) : payload_(std::move(payload)) {}
    Payload payload_;
};

}  // namespace zavo
