#pragma once
// How the screen turns what its detector reports into the host's error.
#include "base/ZavoExport.h"
#include "camera-screen/ZMCameraError.h"

namespace zavo {

/// An error of exactly the core framework's domain becomes bestShotError,
/// any other (a networking error the liveness check passed on, a capture
/// error) becomes error.
ZAVO_EXPORT ZMCameraError cameraErrorFromDetector(platform::ErrorObjectPtr detectorError);

/// The string-table key of the message for reason; empty for None.
ZAVO_EXPORT QString cameraFailureMessageKey(platform::CameraFailureReason reason);
/// The session's ending when the camera gives no pictures: 1004 in the core
/// framework's domain, with reason's message and the reason in its user info
/// (the plain "no frames" message when the reason is None).
ZAVO_EXPORT platform::ErrorObjectPtr cameraFailureError(platform::CameraFailureReason reason);

}  // namespace zavo
