#include "camera/pipewire/Formats_p.h"

#include "camera/v4l2/Enumeration_p.h"

#include <spa/param/format.h>
#include <spa/param/video/format.h>
#include <spa/param/video/raw.h>
#include <spa/pod/iter.h>

#include <algorithm>
#include <cstring>

#include <linux/videodev2.h>

namespace zavo::platform::pipewire {

namespace {

// One property of an EnumFormat object: its values and the kind of choice.
struct Values {
    const void* data = nullptr;
    uint32_t count = 0;
    uint32_t choice = SPA_CHOICE_None;
    uint32_t type = SPA_TYPE_None;
    uint32_t size = 0;

    template <typename T>
    T at(uint32_t index) const
    {
        T value{};
        if (index < count && size >= sizeof(T))
            std::memcpy(&value, static_cast<const uint8_t*>(data) + size_t(index) * size, sizeof(T));
        return value;
    }
    // An enumeration repeats its default before the alternatives.
    template <typename T>
    std::vector<T> listed() const
    {
        std::vector<T> values;
        if (choice == SPA_CHOICE_Enum && count > 1) {
            for (uint32_t i = 1; i < count; ++i)
                values.push_back(at<T>(i));
        } else if (count > 0) {
            values.push_back(at<T>(0));
        }
        return values;
    }
};

Values valuesOf(const spa_pod_prop& prop)
{
    Values values;
    uint32_t count = 0;
    uint32_t choice = SPA_CHOICE_None;
    const spa_pod* child = spa_pod_get_values(&prop.value, &count, &choice);
    values.data = SPA_POD_BODY_CONST(child);
    values.type = SPA_POD_TYPE(child);
    values.size = SPA_POD_BODY_SIZE(child);
    values.count = count;
    values.choice = choice;
    return values;
}

double rateOf(spa_fraction rate) { return rate.denom ? double(rate.num) / double(rate.denom) : 0.0; }

std::vector<spa_rectangle> sizesOf(const Values& values)
{
    if (values.type != SPA_TYPE_Rectangle)
        return {};
    if (values.choice != SPA_CHOICE_Range && values.choice != SPA_CHOICE_Step)
        return values.listed<spa_rectangle>();
    // A producer that takes any size within bounds: its default, and the two
    // sizes sessions ask for when they fit.
    const auto preferred = values.at<spa_rectangle>(0);
    const auto least = values.at<spa_rectangle>(1);
    const auto most = values.at<spa_rectangle>(2);
    std::vector<spa_rectangle> sizes{preferred};
    for (spa_rectangle common : {spa_rectangle{1280, 720}, spa_rectangle{640, 480}}) {
        if (common.width >= least.width && common.width <= most.width && common.height >= least.height
            && common.height <= most.height && (common.width != preferred.width || common.height != preferred.height))
            sizes.push_back(common);
    }
    return sizes;
}

// The rate to ask for and the range to report for each offered rate.
std::vector<std::pair<spa_fraction, FrameRateRange>> ratesOf(const Values& values)
{
    std::vector<std::pair<spa_fraction, FrameRateRange>> rates;
    if (values.type != SPA_TYPE_Fraction)
        return {{spa_fraction{30, 1}, FrameRateRange{30, 30}}};
    if (values.choice == SPA_CHOICE_Range || values.choice == SPA_CHOICE_Step) {
        const auto preferred = values.at<spa_fraction>(0);
        const auto least = values.at<spa_fraction>(1);
        const auto most = values.at<spa_fraction>(2);
        // More than 30 fps costs every stage behind the camera and gives the
        // detector nothing it needs.
        spa_fraction chosen = rateOf(most) > 30.0 ? spa_fraction{30, 1} : most;
        if (rateOf(chosen) < rateOf(least) || rateOf(chosen) <= 0)
            chosen = preferred;
        rates.push_back({chosen, FrameRateRange{rateOf(least), std::min(rateOf(most), 30.0)}});
        return rates;
    }
    for (spa_fraction rate : values.listed<spa_fraction>()) {
        if (rateOf(rate) > 0)
            rates.push_back({rate, FrameRateRange{rateOf(rate), rateOf(rate)}});
    }
    // The fastest first, as the capture code reads the first range as the
    // rate it runs at.
    std::stable_sort(rates.begin(), rates.end(),
                     [](const auto& a, const auto& b) { return rateOf(a.first) > rateOf(b.first); });
    return rates;
}

}  // namespace

uint32_t v4l2FormatFor(uint32_t mediaSubtype, uint32_t videoFormat)
{
    if (mediaSubtype == SPA_MEDIA_SUBTYPE_mjpg)
        return V4L2_PIX_FMT_MJPEG;
    if (mediaSubtype != SPA_MEDIA_SUBTYPE_raw)
        return 0;
    switch (videoFormat) {
    case SPA_VIDEO_FORMAT_YUY2: return V4L2_PIX_FMT_YUYV;
    case SPA_VIDEO_FORMAT_UYVY: return V4L2_PIX_FMT_UYVY;
    case SPA_VIDEO_FORMAT_NV12: return V4L2_PIX_FMT_NV12;
    case SPA_VIDEO_FORMAT_I420: return V4L2_PIX_FMT_YUV420;
    // Same byte order in memory: B, G, R, padding (and R, G, B, padding).
    case SPA_VIDEO_FORMAT_BGRx: return V4L2_PIX_FMT_XBGR32;
    case SPA_VIDEO_FORMAT_RGBx: return V4L2_PIX_FMT_RGBX32;
    default: return 0;
    }
}

void appendOfferedFormats(const spa_pod* enumFormat, std::vector<NodeFormat>& formats)
{
    if (!enumFormat || !spa_pod_is_object_type(enumFormat, SPA_TYPE_OBJECT_Format))
        return;
    const auto* object = reinterpret_cast<const spa_pod_object*>(enumFormat);
    uint32_t mediaType = 0;
    Values subtypes, videoFormats, sizes, rates;
    const spa_pod_prop* prop = nullptr;
    SPA_POD_OBJECT_FOREACH(object, prop)
    {
        switch (prop->key) {
        case SPA_FORMAT_mediaType: mediaType = valuesOf(*prop).at<uint32_t>(0); break;
        case SPA_FORMAT_mediaSubtype: subtypes = valuesOf(*prop); break;
        case SPA_FORMAT_VIDEO_format: videoFormats = valuesOf(*prop); break;
        case SPA_FORMAT_VIDEO_size: sizes = valuesOf(*prop); break;
        case SPA_FORMAT_VIDEO_framerate: rates = valuesOf(*prop); break;
        default: break;
        }
    }
    if (mediaType != SPA_MEDIA_TYPE_video || subtypes.type != SPA_TYPE_Id)
        return;
    for (uint32_t subtype : subtypes.listed<uint32_t>()) {
        std::vector<uint32_t> pixelFormats{0};
        if (subtype == SPA_MEDIA_SUBTYPE_raw) {
            if (videoFormats.type != SPA_TYPE_Id)
                continue;
            pixelFormats = videoFormats.listed<uint32_t>();
        }
        for (uint32_t videoFormat : pixelFormats) {
            const uint32_t v4l2Format = v4l2FormatFor(subtype, videoFormat);
            if (!v4l2Format)
                continue;
            for (spa_rectangle size : sizesOf(sizes)) {
                if (size.width == 0 || size.height == 0)
                    continue;
                for (const auto& offered : ratesOf(rates)) {
                    const spa_fraction rate = offered.first;
                    const FrameRateRange range = offered.second;
                    const bool known = std::any_of(formats.begin(), formats.end(), [&](const NodeFormat& f) {
                        return f.v4l2PixelFormat == v4l2Format && f.format->width() == int(size.width)
                            && f.format->height() == int(size.height) && rateOf(f.rate) == rateOf(rate);
                    });
                    if (known)
                        continue;
                    NodeFormat format;
                    format.v4l2PixelFormat = v4l2Format;
                    format.mediaSubtype = subtype;
                    format.videoFormat = videoFormat;
                    format.rate = rate;
                    format.format = std::make_shared<CaptureDeviceFormat>(v4l2::mediaSubTypeFor(v4l2Format, false),
                                                                          int(size.width), int(size.height),
                                                                          std::vector<FrameRateRange>{range});
                    formats.push_back(std::move(format));
                }
            }
        }
    }
}

const spa_pod* buildFormatRequest(spa_pod_builder& builder, const NodeFormat& format)
{
    spa_rectangle size{uint32_t(format.format->width()), uint32_t(format.format->height())};
    spa_fraction rate = format.rate;
    spa_pod_frame frame;
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_add(&builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
                        SPA_POD_Id(format.mediaSubtype), 0);
    if (format.mediaSubtype == SPA_MEDIA_SUBTYPE_raw)
        spa_pod_builder_add(&builder, SPA_FORMAT_VIDEO_format, SPA_POD_Id(format.videoFormat), 0);
    spa_pod_builder_add(&builder, SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size), SPA_FORMAT_VIDEO_framerate,
                        SPA_POD_Fraction(&rate), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
}

QString formatName(const NodeFormat& format)
{
    if (format.mediaSubtype == SPA_MEDIA_SUBTYPE_mjpg)
        return QStringLiteral("MJPG");
    switch (format.videoFormat) {
    case SPA_VIDEO_FORMAT_YUY2: return QStringLiteral("YUY2");
    case SPA_VIDEO_FORMAT_UYVY: return QStringLiteral("UYVY");
    case SPA_VIDEO_FORMAT_NV12: return QStringLiteral("NV12");
    case SPA_VIDEO_FORMAT_I420: return QStringLiteral("I420");
    case SPA_VIDEO_FORMAT_BGRx: return QStringLiteral("BGRx");
    case SPA_VIDEO_FORMAT_RGBx: return QStringLiteral("RGBx");
    default: return v4l2::fourccText(format.v4l2PixelFormat);
    }
}

}  // namespace zavo::platform::pipewire
