#pragma once
// Logging categories, one per component, so that a host can switch on just the
// part it is chasing (QT_LOGGING_RULES="zavo.camera.v4l2.debug=true"). Message
// texts are the component's documented log lines. docs/ARCHITECTURE.md and the
// README list them; keep those lists in step with this one.
#include "base/ZavoExport.h"
#include <QLoggingCategory>

namespace zavo::platform {
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcBase)  // "zavo.base": string tables and bundles
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCameraDevice)  // "zavo.camera.device": devices, their formats, focus
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCameraSession)  // "zavo.camera.session": capture sessions: format choice, start, end
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCameraOutput)  // "zavo.camera.output": video data and movie file outputs
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCameraV4l2)  // "zavo.camera.v4l2": the V4L2 backend: discovery, hot-plug, streaming
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCameraPipewire)  // "zavo.camera.pipewire": the PipeWire backend: cameras, format negotiation, streaming
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCameraPortal)  // "zavo.camera.portal": the desktop's camera portal
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCapture)  // "zavo.capture": the capture manager
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcMediaPixels)  // "zavo.media.pixels": pixel buffers
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcMediaWriter)  // "zavo.media.writer": the asset writer: encoding and muxing
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcRecordingFrames)  // "zavo.recording.frames": the frame-dump recorder
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcRecordingStorage)  // "zavo.recording.storage": the session video folder
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcScreen)  // "zavo.screen": the camera screen and its builder
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCoreDetector)  // "zavo.core.detector": the best-shot detector: steps, timeouts, liveness
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcCoreAnalyzer)  // "zavo.core.analyzer": face finding: network and cascades
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcWebLiveness)  // "zavo.web.liveness": the liveness server client
}  // namespace zavo::platform
