#pragma once
// Logging categories, one per subsystem. Message texts are the component's
// documented log lines; hosts filter them with QT_LOGGING_RULES as usual.
#include "base/ZavoExport.h"
#include <QLoggingCategory>

namespace zavo::platform {
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcPlatform)   // "zavo.platform"
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcMedia)      // "zavo.media"
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCamera)     // "zavo.camera" (devices, sessions)
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCapture)    // "zavo.capture" (capture manager)
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcRecording)  // "zavo.recording"
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcScreen)     // "zavo.screen"
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcUi)         // "zavo.ui"
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCore)       // "zavo.core"
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcWeb)        // "zavo.web"
}  // namespace zavo::platform
