#include "base/Log_p.h"

namespace zavo::platform {
Q_LOGGING_CATEGORY(lcPlatform, "zavo.platform")
Q_LOGGING_CATEGORY(lcMedia, "zavo.media")
Q_LOGGING_CATEGORY(lcCamera, "zavo.camera")
Q_LOGGING_CATEGORY(lcCapture, "zavo.capture")
Q_LOGGING_CATEGORY(lcRecording, "zavo.recording")
Q_LOGGING_CATEGORY(lcScreen, "zavo.screen")
Q_LOGGING_CATEGORY(lcUi, "zavo.ui")
Q_LOGGING_CATEGORY(lcCore, "zavo.core")
Q_LOGGING_CATEGORY(lcWeb, "zavo.web")
}  // namespace zavo::platform
