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
    /// Formats and rates left out because the camera's USB port cannot carry
    /// them ("YUYV 1280x720 at 30 fps"), for the log.
    QStringList overBudget;
    CaptureDeviceFormatPtr current;
    bool focusAuto = false;
};

/// Why a node is not a camera for this project.
enum class ProbeFailure {
    NotCapture,       // no such node, a metadata or output node, no streaming
    OpenFailed,       // see errno
    MediaController,  // a raw node of a media-controller pipeline (IPU6 and the like)
    InfraredOnly,     // only greyscale or depth formats: an infrared face-login or depth camera
};

struct ZAVO_EXPORT NodeProbe {
    std::optional<NodeDescription> node;  // set when the node is a camera
    ProbeFailure failure = ProbeFailure::NotCapture;
    int error = 0;        // errno of open, for OpenFailed
    QString card;         // the node's own name, when it answered
    QStringList formats;  // every fourcc it listed, for the log
};

/// Opens path, reads what it offers and closes it again. busBudget is how
/// many bytes per second the camera's port carries (usbBandwidthBudget), 0
/// for no known limit: raw formats and rates beyond it are left out, unless
/// that would leave none.
ZAVO_EXPORT NodeProbe probeNode(Kernel& kernel, const QString& path, double busBudget = 0);

/// Bytes per second one isochronous stream gets at most on a USB port of
/// this speed (Mbit/s); 0 for an unknown speed, which sets no limit.
ZAVO_EXPORT double usbBandwidthBudget(int speedMbps);
/// Bytes of one uncompressed frame; 0 for compressed or unknown formats.
ZAVO_EXPORT size_t rawFrameBytes(uint32_t v4l2PixelFormat, int width, int height);
/// Whether a format carries no colour: greyscale (infrared) or depth.
ZAVO_EXPORT bool isGreyOrDepth(uint32_t v4l2PixelFormat);

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
