#pragma once
// Logging categories, one per subsystem. Message texts are the component's
// documented log lines; hosts filter them with QT_LOGGING_RULES as usual.
#include <QLoggingCategory>

namespace zavo::platform {
Q_DECLARE_LOGGING_CATEGORY(lcPlatform)   // "zavo.platform"
Q_DECLARE_LOGGING_CATEGORY(lcMedia)      // "zavo.media"
Q_DECLARE_LOGGING_CATEGORY(lcCamera)     // "zavo.camera" (devices, sessions)
Q_DECLARE_LOGGING_CATEGORY(lcCapture)    // "zavo.capture" (capture manager)
Q_DECLARE_LOGGING_CATEGORY(lcRecording)  // "zavo.recording"
Q_DECLARE_LOGGING_CATEGORY(lcScreen)     // "zavo.screen"
Q_DECLARE_LOGGING_CATEGORY(lcUi)         // "zavo.ui"
Q_DECLARE_LOGGING_CATEGORY(lcCore)       // "zavo.core"
Q_DECLARE_LOGGING_CATEGORY(lcWeb)        // "zavo.web"
}  // namespace zavo::platform
