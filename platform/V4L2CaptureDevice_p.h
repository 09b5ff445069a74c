#pragma once
// V4L2 webcams behind CaptureDevice: enumeration of /dev/video* capture
// nodes (capabilities, formats, frame sizes, frame intervals, focus control)
// and mmap streaming. Frames are normalised to NV12 on the capture thread so
// that the rest of the pipeline sees the same buffers as from any camera.
#include "platform/CaptureDevice.h"

#include <cstdint>
#include <vector>

namespace zavo::platform::v4l2 {

/// The capture nodes present now, as devices, in node-number order. Devices
/// in known whose node is still the same camera are returned as they are (so
/// identity is stable); the others are marked disconnected and dropped.
std::vector<CaptureDevicePtr> refreshDevices(const std::vector<CaptureDevicePtr>& known);

/// "/dev/videoN" of a device made here; empty for other devices.
QString nodePathOf(const CaptureDevice& device);
/// Front for a camera built into the machine, going by its name; otherwise
/// unspecified. The registry applies host overrides on top.
CaptureDevicePosition defaultPositionOf(const CaptureDevice& device);
CaptureDevicePosition positionForCard(const QString& card);

/// The four-character code reported for a V4L2 pixel format: NV12 becomes
/// "420v" (video range) or "420f" (full range); any other format keeps its
/// own code, in reading order ("YUYV", "MJPG").
uint32_t mediaSubTypeFor(uint32_t v4l2PixelFormat, bool fullRange);

}  // namespace zavo::platform::v4l2
