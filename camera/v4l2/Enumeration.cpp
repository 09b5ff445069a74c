#include "camera/v4l2/Enumeration_p.h"

#include "camera/v4l2/FrameDecoder_p.h"

#include <algorithm>
#include <cerrno>
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

std::optional<NodeDescription> describeNode(Kernel& kernel, const QString& path, ProbeFailure* failure, int* error)
{
    auto fail = [&](ProbeFailure why, int code) -> std::optional<NodeDescription> {
        if (failure)
            *failure = why;
        if (error)
            *error = code;
        return std::nullopt;
    };
    UniqueFd fd(kernel, kernel.open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!fd)
        return fail(errno == ENOENT || errno == ENXIO || errno == ENODEV ? ProbeFailure::NotCapture
                                                                         : ProbeFailure::OpenFailed,
                    errno);
    v4l2_capability caps{};
    if (kernel.xioctl(fd.get(), VIDIOC_QUERYCAP, &caps) != 0)
        return fail(ProbeFailure::NotCapture, errno);
    const uint32_t deviceCaps = (caps.capabilities & V4L2_CAP_DEVICE_CAPS) ? caps.device_caps : caps.capabilities;
    if (!(deviceCaps & V4L2_CAP_VIDEO_CAPTURE) || !(deviceCaps & V4L2_CAP_STREAMING))
        return fail(ProbeFailure::NotCapture, 0);  // metadata node, output node, or no mmap streaming

    NodeDescription node;
    node.path = path;
    node.card = fromFixed(caps.card, sizeof caps.card);
    node.busInfo = fromFixed(caps.bus_info, sizeof caps.bus_info);

    v4l2_fmtdesc description{};
    description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (description.index = 0;
         description.index < kMaxEnumeration && kernel.xioctl(fd.get(), VIDIOC_ENUM_FMT, &description) == 0;
         ++description.index) {
        if (!isDecodable(description.pixelformat)) {
            node.skippedFormats << fourccText(description.pixelformat);
            continue;
        }
        for (auto [width, height] : frameSizes(kernel, fd.get(), description.pixelformat)) {
            const bool fullRange = description.pixelformat == V4L2_PIX_FMT_NV12
                && isFullRange(kernel, fd.get(), description.pixelformat, width, height);
            auto format = std::make_shared<const CaptureDeviceFormat>(
                mediaSubTypeFor(description.pixelformat, fullRange), width, height,
                frameRates(kernel, fd.get(), description.pixelformat, width, height));
            node.formats.push_back({format, description.pixelformat, fullRange});
        }
    }
    if (node.formats.empty())
        return fail(ProbeFailure::NotCapture, 0);

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
    return node;
}

}  // namespace zavo::platform::v4l2
