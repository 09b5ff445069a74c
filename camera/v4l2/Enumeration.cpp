#include "camera/v4l2/Enumeration_p.h"

#include "camera/v4l2/FrameDecoder_p.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include <fcntl.h>
#include <linux/videodev2.h>

namespace zavo::platform::v4l2 {

namespace {

// Enumeration stops here whatever the driver says: a broken driver that
// answers every index must not hang discovery.
constexpr uint32_t kMaxEnumeration = 256;

QString fromFixed(const __u8* text, size_t size)
{
    return QString::fromUtf8(reinterpret_cast<const char*>(text), int(strnlen(reinterpret_cast<const char*>(text), size)));
}

std::vector<std::pair<int, int>> frameSizes(Kernel& kernel, int fd, uint32_t pixelFormat)
{
    std::vector<std::pair<int, int>> sizes;
    v4l2_frmsizeenum size{};
    size.pixel_format = pixelFormat;
    for (size.index = 0; size.index < kMaxEnumeration && kernel.xioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size) == 0;
         ++size.index) {
        if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            if (size.discrete.width > 0 && size.discrete.height > 0)
                sizes.emplace_back(int(size.discrete.width), int(size.discrete.height));
            continue;
        }
        // A stepwise or continuous range: the sizes sessions ask for, where
        // they fit, then the largest.
        const auto& s = size.stepwise;
        auto fits = [&](uint32_t w, uint32_t h) {
            return w >= s.min_width && w <= s.max_width && h >= s.min_height && h <= s.max_height
                && (s.step_width <= 1 || (w - s.min_width) % s.step_width == 0)
                && (s.step_height <= 1 || (h - s.min_height) % s.step_height == 0);
        };
        for (auto [w, h] : {std::pair{640u, 480u}, std::pair{1280u, 720u}, std::pair{1920u, 1080u}}) {
            if (fits(w, h))
                sizes.emplace_back(int(w), int(h));
        }
        if (s.max_width > 0 && s.max_height > 0 && s.max_width <= 16384 && s.max_height <= 16384
            && std::find(sizes.begin(), sizes.end(), std::pair{int(s.max_width), int(s.max_height)}) == sizes.end())
            sizes.emplace_back(int(s.max_width), int(s.max_height));
        break;
    }
    return sizes;
}

double fpsOf(const v4l2_fract& interval)
{
    return interval.numerator ? double(interval.denominator) / double(interval.numerator) : 0.0;
}

std::vector<FrameRateRange> frameRates(Kernel& kernel, int fd, uint32_t pixelFormat, int width, int height)
{
    std::vector<FrameRateRange> ranges;
    v4l2_frmivalenum interval{};
    interval.pixel_format = pixelFormat;
    interval.width = uint32_t(width);
    interval.height = uint32_t(height);
    for (interval.index = 0;
         interval.index < kMaxEnumeration && kernel.xioctl(fd, VIDIOC_ENUM_FRAMEINTERVALS, &interval) == 0;
         ++interval.index) {
        if (interval.type == V4L2_FRMIVAL_TYPE_DISCRETE) {
            const double fps = fpsOf(interval.discrete);
            ranges.push_back({fps, fps});
            continue;
        }
        ranges.push_back({fpsOf(interval.stepwise.max), fpsOf(interval.stepwise.min)});
        break;
    }
    // Capture runs at the first range: the fastest one.
    std::stable_sort(ranges.begin(), ranges.end(),
                     [](const FrameRateRange& a, const FrameRateRange& b) { return a.maxFrameRate > b.maxFrameRate; });
    return ranges;
}

bool isFullRange(Kernel& kernel, int fd, uint32_t pixelFormat, int width, int height)
{
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.pixelformat = pixelFormat;
    format.fmt.pix.width = uint32_t(width);
    format.fmt.pix.height = uint32_t(height);
    if (kernel.xioctl(fd, VIDIOC_TRY_FMT, &format) != 0)
        return false;
    return format.fmt.pix.quantization == V4L2_QUANTIZATION_FULL_RANGE;
}

}  // namespace

uint32_t mediaSubTypeFor(uint32_t v4l2PixelFormat, bool fullRange)
{
    if (v4l2PixelFormat == V4L2_PIX_FMT_NV12)
        return static_cast<uint32_t>(fullRange ? PixelFormat::NV12FullRange : PixelFormat::NV12VideoRange);
    // V4L2 codes keep their first character in the lowest byte.
    return __builtin_bswap32(v4l2PixelFormat);
}

QString fourccText(uint32_t code)
{
    QString text;
    for (int shift = 0; shift < 32; shift += 8) {
        const char c = char((code >> shift) & 0xff);
        text += (c >= 0x20 && c < 0x7f) ? QChar::fromLatin1(c) : QLatin1Char('?');
    }
    return text;
}

QString accessDeniedText(const QString& path)
{
    return QStringLiteral("no access to %1: cameras belong to the \"video\" group; add the user to it "
                          "(sudo usermod -aG video $USER) and log in again")
        .arg(path);
}

bool isJpeg(uint32_t pixelFormat) { return pixelFormat == V4L2_PIX_FMT_MJPEG || pixelFormat == V4L2_PIX_FMT_JPEG; }

bool isDecodable(uint32_t pixelFormat) { return isJpeg(pixelFormat) || rawPixelFormatOf(pixelFormat) >= 0; }

double usbBandwidthBudget(int speedMbps)
{
    // The most one isochronous endpoint may reserve: full speed 1023 bytes
    // per 1 ms frame; high speed three 1024-byte packets per 125 us
    // microframe (24.6 MB/s, far below the 60 MB/s the bus signals);
    // super speed three bursts of sixteen. UVC cameras stream isochronously,
    // and the kernel has no call that tells a camera's own allowance.
    if (speedMbps <= 0)
        return 0;
    if (speedMbps <= 12)
        return 1023.0 * 1000;
    if (speedMbps <= 480)
        return 3.0 * 1024 * 8000;
    return 3.0 * 16 * 1024 * 8000;
}

size_t rawFrameBytes(uint32_t pixelFormat, int width, int height)
{
    const size_t pixels = size_t(std::max(width, 0)) * size_t(std::max(height, 0));
    switch (pixelFormat) {
    case V4L2_PIX_FMT_NV12:
    case V4L2_PIX_FMT_NV21:
    case V4L2_PIX_FMT_YUV420: return pixels * 3 / 2;
    case V4L2_PIX_FMT_YUYV:
    case V4L2_PIX_FMT_UYVY: return pixels * 2;
    case V4L2_PIX_FMT_RGB24:
    case V4L2_PIX_FMT_BGR24: return pixels * 3;
    case V4L2_PIX_FMT_GREY: return pixels;
    default: return 0;
    }
}

bool isGreyOrDepth(uint32_t pixelFormat)
{
    switch (pixelFormat) {
    case V4L2_PIX_FMT_GREY:
    case V4L2_PIX_FMT_Y4:
    case V4L2_PIX_FMT_Y6:
    case V4L2_PIX_FMT_Y10:
    case V4L2_PIX_FMT_Y12:
    case V4L2_PIX_FMT_Y14:
    case V4L2_PIX_FMT_Y16:
    case V4L2_PIX_FMT_Y16_BE:
    case V4L2_PIX_FMT_Y10BPACK:
    case V4L2_PIX_FMT_Y10P:
    case V4L2_PIX_FMT_IPU3_Y10:
    case V4L2_PIX_FMT_Y8I:
    case V4L2_PIX_FMT_Y12I:
    case V4L2_PIX_FMT_Z16:
    case V4L2_PIX_FMT_INZI:
    case V4L2_PIX_FMT_CNF4: return true;
    default: return false;
    }
}

namespace {

QString rateText(double fps) { return QString::number(fps, 'f', fps == std::floor(fps) ? 0 : 2); }

/// The ranges of a raw format that its port can carry: a rate too fast is
/// left out, a range is cut down to what fits. Notes what went in *dropped.
std::vector<FrameRateRange> withinBudget(const std::vector<FrameRateRange>& ranges, size_t frameBytes, double budget,
                                         const QString& format, QStringList* dropped, bool* trimmed)
{
    *trimmed = false;
    if (budget <= 0 || frameBytes == 0 || ranges.empty())
        return ranges;
    const double fastest = budget / double(frameBytes);
    std::vector<FrameRateRange> kept;
    for (FrameRateRange range : ranges) {
        if (range.maxFrameRate <= fastest) {
            kept.push_back(range);
            continue;
        }
        *trimmed = true;
        *dropped << QStringLiteral("%1 at %2 fps (%3 MB/s)")
                        .arg(format, rateText(range.maxFrameRate))
                        .arg(range.maxFrameRate * double(frameBytes) / 1e6, 0, 'f', 1);
        if (range.minFrameRate > 0 && range.minFrameRate <= fastest) {
            range.maxFrameRate = std::floor(fastest);
            kept.push_back(range);
        }
    }
    return kept;
}

}  // namespace

NodeProbe probeNode(Kernel& kernel, const QString& path, double busBudget)
{
    NodeProbe probe;
    auto fail = [&](ProbeFailure why, int code) {
        probe.failure = why;
        probe.error = code;
        return std::move(probe);
    };
    UniqueFd fd(kernel, kernel.open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!fd)
        return fail(errno == ENOENT || errno == ENXIO || errno == ENODEV ? ProbeFailure::NotCapture
                                                                         : ProbeFailure::OpenFailed,
                    errno);
    v4l2_capability caps{};
    if (kernel.xioctl(fd.get(), VIDIOC_QUERYCAP, &caps) != 0)
        return fail(ProbeFailure::NotCapture, errno);
    probe.card = fromFixed(caps.card, sizeof caps.card);
    const uint32_t deviceCaps = (caps.capabilities & V4L2_CAP_DEVICE_CAPS) ? caps.device_caps : caps.capabilities;
    if (!(deviceCaps & V4L2_CAP_VIDEO_CAPTURE) || !(deviceCaps & V4L2_CAP_STREAMING))
        return fail(ProbeFailure::NotCapture, 0);  // metadata node, output node, or no mmap streaming
    // Its frames are a sensor's raw Bayer data, and what they need (the
    // pipeline's links, an image processor) lives in libcamera: the picture
    // of such a camera comes through PipeWire, not from this node.
    if (deviceCaps & V4L2_CAP_IO_MC)
        return fail(ProbeFailure::MediaController, 0);

    NodeDescription node;
    node.path = path;
    node.card = probe.card;
    node.busInfo = fromFixed(caps.bus_info, sizeof caps.bus_info);

    std::vector<DriverFormat> affordable;  // the formats the port carries
    bool colour = false;
    v4l2_fmtdesc description{};
    description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (description.index = 0;
         description.index < kMaxEnumeration && kernel.xioctl(fd.get(), VIDIOC_ENUM_FMT, &description) == 0;
         ++description.index) {
        probe.formats << fourccText(description.pixelformat);
        colour = colour || !isGreyOrDepth(description.pixelformat);
        if (!isDecodable(description.pixelformat)) {
            node.skippedFormats << fourccText(description.pixelformat);
            continue;
        }
        for (auto [width, height] : frameSizes(kernel, fd.get(), description.pixelformat)) {
            const bool fullRange = description.pixelformat == V4L2_PIX_FMT_NV12
                && isFullRange(kernel, fd.get(), description.pixelformat, width, height);
            const auto rates = frameRates(kernel, fd.get(), description.pixelformat, width, height);
            const auto subType = mediaSubTypeFor(description.pixelformat, fullRange);
            auto format = std::make_shared<const CaptureDeviceFormat>(subType, width, height, rates);
            node.formats.push_back({format, description.pixelformat, fullRange});

            const QString name =
                QStringLiteral("%1 %2x%3").arg(fourccText(description.pixelformat)).arg(width).arg(height);
            bool trimmed = false;
            const auto fitting = withinBudget(rates, rawFrameBytes(description.pixelformat, width, height), busBudget,
                                              name, &node.overBudget, &trimmed);
            if (fitting.empty() && !rates.empty())
                continue;
            affordable.push_back(
                {trimmed ? std::make_shared<const CaptureDeviceFormat>(subType, width, height, fitting) : format,
                 description.pixelformat, fullRange});
        }
    }
    // An infrared face-login camera (beside the colour one on many laptops)
    // or a depth camera shows nobody a picture of their face.
    if (!probe.formats.isEmpty() && !colour)
        return fail(ProbeFailure::InfraredOnly, 0);
    if (node.formats.empty())
        return fail(ProbeFailure::NotCapture, 0);
    // A camera whose every format is too much for its port keeps them all:
    // the driver may know better (and says ENOSPC when it does not).
    if (!affordable.empty())
        node.formats = std::move(affordable);
    else
        node.overBudget.clear();

    v4l2_format current{};
    current.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (kernel.xioctl(fd.get(), VIDIOC_G_FMT, &current) == 0) {
        for (const auto& f : node.formats) {
            if (f.pixelFormat == current.fmt.pix.pixelformat && uint32_t(f.format->width()) == current.fmt.pix.width
                && uint32_t(f.format->height()) == current.fmt.pix.height) {
                node.current = f.format;
                break;
            }
        }
    }
    v4l2_queryctrl control{};
    control.id = V4L2_CID_FOCUS_AUTO;
    node.focusAuto =
        kernel.xioctl(fd.get(), VIDIOC_QUERYCTRL, &control) == 0 && !(control.flags & V4L2_CTRL_FLAG_DISABLED);
    probe.node = std::move(node);
    return probe;
}

}  // namespace zavo::platform::v4l2
