#include "camera-screen/ZMCameraError.h"
#include "camera-screen/ZMCameraError_p.h"

#include "camera/CaptureDevice_p.h"
#include "resources/ZMBundleLink_p.h"
#include "zavocore/ZCErrorCodes.h"
#include "zavocore/ZavoCore_p.h"

namespace zavo {

ZMCameraError ZMCameraError::accessStatus(platform::AuthorizationStatus status, platform::CameraFailureReason reason)
{
    return ZMCameraError(Payload(Access{status, reason}));
}

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

QString cameraFailureMessageKey(platform::CameraFailureReason reason)
{
    using platform::CameraFailureReason;
    switch (reason) {
    case CameraFailureReason::None: break;
    case CameraFailureReason::Busy: return QStringLiteral("errors.camera_busy");
    case CameraFailureReason::NoPermission: return QStringLiteral("errors.camera_no_permission");
    case CameraFailureReason::PortalRefused: return QStringLiteral("errors.camera_portal_refused");
    case CameraFailureReason::Unplugged: return QStringLiteral("errors.camera_unplugged");
    case CameraFailureReason::NoBandwidth: return QStringLiteral("errors.camera_no_bandwidth");
    case CameraFailureReason::NoPictures: return QStringLiteral("errors.camera_no_pictures");
    }
    return {};
}

platform::ErrorObjectPtr cameraFailureError(platform::CameraFailureReason reason)
{
    const QString key = cameraFailureMessageKey(reason);
    if (key.isEmpty())
        return core::makeZCError(core::ZCErrorCode::NoFrames, QStringLiteral("errors.no_frames"));
    // The detector's own 1004, so hosts that look at codes see no change;
    // the text is the component's, which knows cameras.
    return std::make_shared<platform::ErrorObject>(
        core::kZCErrorDomain, long(core::ZCErrorCode::NoFrames),
        QVariantMap{{QString::fromLatin1(platform::kLocalizedDescriptionKey),
                     ZMBundleLink::bundle().localizedString(key)},
                    {QString::fromLatin1(core::kZCMessageKeyInfoKey), key},
                    {QString::fromLatin1(platform::kCameraFailureReasonKey), int(reason)}});
}

platform::AuthorizationStatus ZMCameraError::authorizationStatus() const
{
    const auto* access = std::get_if<0>(&payload_);
    return access ? access->status : platform::AuthorizationStatus::NotDetermined;
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

platform::CameraFailureReason ZMCameraError::cameraFailureReason() const
{
    switch (kind()) {
    case Case::accessStatus: return std::get<0>(payload_).reason;
    case Case::bestShotError: return platform::cameraFailureReasonOf(bestShotErrorValue());
    case Case::error: return platform::cameraFailureReasonOf(errorValue());
    default: return platform::CameraFailureReason::None;
    }
}

std::optional<QString> ZMCameraError::errorDescription() const
{
    const platform::Bundle& bundle = ZMBundleLink::bundle();
    switch (kind()) {
    case Case::accessStatus: {
        const QString because = cameraFailureMessageKey(cameraFailureReason());
        if (!because.isEmpty())
            return bundle.localizedString(because);
        return bundle.localizedString(authorizationStatus() == platform::AuthorizationStatus::Restricted
                                          ? QStringLiteral("errors.camera_acess_restricted")
                                          : QStringLiteral("errors.camera_acess_denied"));
    }
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
