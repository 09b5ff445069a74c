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

}  // namespace zavo::platform
