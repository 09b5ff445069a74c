#include "base/Log_p.h"

// Debug lines are off unless a rule turns them on: the V4L2 layer, for one,
// has a line per device for every hot-plug scan.
namespace zavo::platform {
Q_LOGGING_CATEGORY(lcBase, "zavo.base", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCameraDevice, "zavo.camera.device", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCameraSession, "zavo.camera.session", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCameraOutput, "zavo.camera.output", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCameraV4l2, "zavo.camera.v4l2", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCameraPipewire, "zavo.camera.pipewire", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCameraPortal, "zavo.camera.portal", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCapture, "zavo.capture", QtInfoMsg)
Q_LOGGING_CATEGORY(lcMediaPixels, "zavo.media.pixels", QtInfoMsg)
Q_LOGGING_CATEGORY(lcMediaWriter, "zavo.media.writer", QtInfoMsg)
Q_LOGGING_CATEGORY(lcRecordingFrames, "zavo.recording.frames", QtInfoMsg)
Q_LOGGING_CATEGORY(lcRecordingStorage, "zavo.recording.storage", QtInfoMsg)
Q_LOGGING_CATEGORY(lcScreen, "zavo.screen", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCoreDetector, "zavo.core.detector", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCoreAnalyzer, "zavo.core.analyzer", QtInfoMsg)
Q_LOGGING_CATEGORY(lcWebLiveness, "zavo.web.liveness", QtInfoMsg)
}  // namespace zavo::platform
