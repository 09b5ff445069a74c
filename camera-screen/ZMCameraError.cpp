#include "camera-screen/ZMCameraError.h"
#include "camera-screen/ZMCameraError_p.h"

#include "resources/ZMBundleLink_p.h"
#include "zavocore/ZavoCore_p.h"

namespace zavo {

ZMCameraError ZMCameraError::accessStatus(platform::AuthorizationStatus status) { return ZMCameraError(Payload(status)); }

ZMCameraError ZMCameraError::networkingError(web::NetworkingError error)
{
    return ZMCameraError(Payload(std::in_place_index<1>, std::move(error)));
}

ZMCameraError ZMCameraError::bestShotError(platform::ErrorObjectPtr error)
{
    return ZMCameraError(Payload(std::in_place_index<2>, std::move(error)));
}

ZMCameraError ZMCameraError::error(platform::ErrorPtr error)
{
    return ZMCameraError(Payload(std::in_place_index<3>, std::move(error)));
}

ZMCameraError ZMCameraError::canceled() { return ZMCameraError(Payload(Canceled{})); }

ZMCameraError cameraErrorFromDetector(platform::ErrorObjectPtr detectorError)
{
    return ZMCameraError(detectorError && detectorError->domain() == core::kZCErrorDomain
                             ? ZMCameraError::Payload(std::in_place_index<2>, detectorError)
                             : ZMCameraError::Payload(std::in_place_index<3>, platform::ErrorPtr(detectorError)));
}

platform::AuthorizationStatus ZMCameraError::authorizationStatus() const
{
    const auto* status = std::get_if<0>(&payload_);
    return status ? *status : platform::AuthorizationStatus::NotDetermined;
}

std::optional<web::NetworkingError> ZMCameraError::networkingErrorValue() const
{
    const auto* error = std::get_if<1>(&payload_);
    return error ? std::optional(*error) : std::nullopt;
}

platform::ErrorObjectPtr ZMCameraError::bestShotErrorValue() const
{
    const auto* error = std::get_if<2>(&payload_);
    return error ? *error : nullptr;
}

platform::ErrorPtr ZMCameraError::errorValue() const
{
    const auto* error = std::get_if<3>(&payload_);
    return error ? *error : nullptr;
}

std::optional<QString> ZMCameraError::errorDescription() const
{
    const platform::Bundle& bundle = ZMBundleLink::bundle();
    switch (kind()) {
    case Case::accessStatus:
        return bundle.localizedString(authorizationStatus() == platform::AuthorizationStatus::Restricted
                                          ? QStringLiteral("errors.camera_acess_restricted")
                                          : QStringLiteral("errors.camera_acess_denied"));
    case Case::networkingError: {
        const auto error = *networkingErrorValue();
        return error.errorDescription().value_or(error.localizedDescription());
    }
    case Case::bestShotError: {
        const auto error = bestShotErrorValue();
        return error ? error->localizedDescription() : QString();
    }
    case Case::error: {
        const auto error = errorValue();
        return error ? error->localizedDescription() : QString();
    }
    case Case::canceled: return bundle.localizedString(QStringLiteral("errors.canceled"));
    }
    return QString();
}

}  // namespace zavo
