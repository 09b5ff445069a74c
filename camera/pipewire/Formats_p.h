#pragma once
// PipeWire's video formats in the terms the rest of the capture code speaks:
// a camera node's offers become capture-device formats, each tied to the V4L2
// pixel format whose decoder turns its buffers into NV12 frames, and a chosen
// format becomes the one fixed format pod a stream asks for.
#include "base/ZavoExport.h"
#include "camera/CaptureDevice.h"

#include <spa/pod/builder.h>
#include <spa/utils/defs.h>

#include <vector>

namespace zavo::platform::pipewire {

/// One way a node offers frames.
struct ZAVO_EXPORT NodeFormat {
    CaptureDeviceFormatPtr format;
    uint32_t v4l2PixelFormat = 0;  // what the frame decoder is told the bytes are
    uint32_t mediaSubtype = 0;     // SPA_MEDIA_SUBTYPE_raw or _mjpg
    uint32_t videoFormat = 0;      // SPA_VIDEO_FORMAT_*, raw only
    spa_fraction rate{30, 1};      // the rate a stream asks for
};

/// The V4L2 pixel format whose decoder reads buffers of this PipeWire
/// format; 0 for formats not decoded here (H.264, Bayer, 10-bit...).
ZAVO_EXPORT uint32_t v4l2FormatFor(uint32_t mediaSubtype, uint32_t videoFormat);

/// Appends the formats one EnumFormat parameter offers. Choices are spread
/// out: an enumeration gives a format per value, a range of sizes gives its
/// default plus 1280x720 and 640x480 when they fit, a range of rates the
/// fastest rate up to 30 fps. Formats already present are not repeated.
ZAVO_EXPORT void appendOfferedFormats(const spa_pod* enumFormat, std::vector<NodeFormat>& formats);

/// The format pod that asks for exactly this format, built in builder.
ZAVO_EXPORT const spa_pod* buildFormatRequest(spa_pod_builder& builder, const NodeFormat& format);

/// "YUY2", "MJPG": the format's name for the log.
ZAVO_EXPORT QString formatName(const NodeFormat& format);

}  // namespace zavo::platform::pipewire
