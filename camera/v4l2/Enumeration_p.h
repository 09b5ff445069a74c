#pragma once
// What a V4L2 node offers: capabilities, the formats this project can
// decode with their sizes and frame rates, the current format and focus.
#include "base/ZavoExport.h"
#include "camera/CaptureDevice.h"
#include "camera/v4l2/Kernel_p.h"

#include <optional>
#include <vector>

namespace zavo::platform::v4l2 {

/// One advertised format in the driver's terms.
struct ZAVO_EXPORT DriverFormat {
    CaptureDeviceFormatPtr format;
    uint32_t pixelFormat = 0;  // V4L2 fourcc
    bool fullRange = false;
};

struct ZAVO_EXPORT NodeDescription {
    QString path;  // "/dev/video0"
    QString card;
    QString busInfo;
    std::vector<DriverFormat> formats;  // decodable ones, in driver order
    QStringList skippedFormats;         // fourccs this project cannot decode ("H264")
    CaptureDeviceFormatPtr current;
    bool focusAuto = false;
};

/// Why a node could not be described.
enum class ProbeFailure {
    NotCapture,  // no such node, a metadata or output node, no streaming
    OpenFailed,  // see errno
};

/// Opens path, reads what it offers and closes it again. Sets *failure and
/// *error (errno of open) when it is not a usable camera.
ZAVO_EXPORT std::optional<NodeDescription> describeNode(Kernel& kernel, const QString& path, ProbeFailure* failure = nullptr,
                                            int* error = nullptr);

/// The four-character code reported for a V4L2 pixel format: NV12 becomes
/// "420v" (video range) or "420f" (full range); any other format keeps its
/// own code, in reading order ("YUYV", "MJPG").
ZAVO_EXPORT uint32_t mediaSubTypeFor(uint32_t v4l2PixelFormat, bool fullRange);
/// The fourcc as text ("MJPG").
ZAVO_EXPORT QString fourccText(uint32_t v4l2PixelFormat);

/// What to tell a user who may not open path: how access is granted.
ZAVO_EXPORT QString accessDeniedText(const QString& path);

/// Whether frames of this V4L2 format can be turned into pixel buffers.
ZAVO_EXPORT bool isDecodable(uint32_t v4l2PixelFormat);
ZAVO_EXPORT bool isJpeg(uint32_t v4l2PixelFormat);

}  // namespace zavo::platform::v4l2
