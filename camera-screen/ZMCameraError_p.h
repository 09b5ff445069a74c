#pragma once
// How the screen turns what its detector reports into the host's error.
#include "base/ZavoExport.h"
#include "camera-screen/ZMCameraError.h"

namespace zavo {

/// An error of exactly the core framework's domain becomes bestShotError,
/// any other (a networking error the liveness check passed on, a capture
/// error) becomes error.
ZAVO_EXPORT ZMCameraError cameraErrorFromDetector(platform::ErrorObjectPtr detectorError);

}  // namespace zavo
