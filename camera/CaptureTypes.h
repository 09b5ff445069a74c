#pragma once
// Camera values with the numbers the component relies on.
#include <cstdint>

namespace zavo::platform {

/// Camera permission state.
enum class AuthorizationStatus : int { NotDetermined = 0, Restricted = 1, Denied = 2, Authorized = 3 };

enum class CaptureDevicePosition : int { Unspecified = 0, Back = 1, Front = 2 };

/// How frames are turned before delivery.
enum class VideoOrientation : int { Portrait = 1, PortraitUpsideDown = 2, LandscapeRight = 3, LandscapeLeft = 4 };

/// How the device (screen) is held.
enum class DeviceOrientation : int {
    Unknown = 0, Portrait = 1, PortraitUpsideDown = 2, LandscapeLeft = 3, LandscapeRight = 4, FaceUp = 5, FaceDown = 6
};

enum class FocusMode : int { Locked = 0, AutoFocus = 1, ContinuousAutoFocus = 2 };

/// Why a camera could not be used, in terms its user can act on. The camera
/// screen's error carries it (ZMCameraError::cameraFailureReason) beside its
/// code; None when the cause is unknown or is not the camera's.
enum class CameraFailureReason : int {
    None = 0,
    Busy = 1,           // another application uses the camera
    NoPermission = 2,   // this user may not open the camera (not in the "video" group)
    PortalRefused = 3,  // the desktop's camera portal refused access (its privacy settings)
    Unplugged = 4,      // the camera went away while in use
    NoBandwidth = 5,    // not enough USB bandwidth for any format the camera offers
    NoPictures = 6,     // the camera sends nothing, or nothing usable
};

}  // namespace zavo::platform
