#include "platform/V4L2CaptureDevice_p.h"

#include "platform/CaptureDevice_p.h"
#include "platform/FFmpeg_p.h"
#include "platform/Log.h"
#include "platform/VideoFrameConverter.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <QDir>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zavo::platform::v4l2 {

namespace {

constexpr int kBufferCount = 4;

class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

int xioctl(int fd, unsigned long request, void* argument)
{
    int result;
    do {
        result = ::ioctl(fd, request, argument);
    } while (result < 0 && errno == EINTR);
    return result;
}

QString fromFixed(const __u8* text, size_t size)
{
    return QString::fromUtf8(reinterpret_cast<const char*>(text), int(strnlen(reinterpret_cast<const char*>(text), size)));
}

QString errnoText(int error) { return QString::fromLocal8Bit(std::strerror(error)); }

/// How one advertised format maps back onto the driver's terms.
struct V4L2Format {
    CaptureDeviceFormatPtr format;
    uint32_t pixelFormat = 0;
    bool fullRange = false;
};

struct NodeInfo {
    QString path;
    QString card;
    QString busInfo;
    std::vector<V4L2Format> formats;
    CaptureDeviceFormatPtr current;
    bool focusAuto = false;
};

std::vector<std::pair<int, int>> frameSizes(int fd, uint32_t pixelFormat)
{
    std::vector<std::pair<int, int>> sizes;
    v4l2_frmsizeenum size{};
    size.pixel_format = pixelFormat;
    for (size.index = 0; xioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size) == 0; ++size.index) {
        if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            sizes.emplace_back(int(size.discrete.width), int(size.discrete.height));
            continue;
        }
        // A stepwise range: the sizes the component asks for, where they fit,
        // then the largest.
        const auto& s = size.stepwise;
        for (auto [w, h] : {std::pair{640, 480}, std::pair{1280, 720}}) {
            const bool fits = uint32_t(w) >= s.min_width && uint32_t(w) <= s.max_width && uint32_t(h) >= s.min_height
                && uint32_t(h) <= s.max_height && (s.step_width <= 1 || (uint32_t(w) - s.min_width) % s.step_width == 0)
                && (s.step_height <= 1 || (uint32_t(h) - s.min_height) % s.step_height == 0);
            if (fits)
                sizes.emplace_back(w, h);
        }
        sizes.emplace_back(int(s.max_width), int(s.max_height));
        break;
    }
    return sizes;
}

double fpsOf(const v4l2_fract& interval)
{
    return interval.numerator ? double(interval.denominator) / double(interval.numerator) : 0.0;
}

std::vector<FrameRateRange> frameRates(int fd, uint32_t pixelFormat, int width, int height)
{
    std::vector<FrameRateRange> ranges;
    v4l2_frmivalenum interval{};
    interval.pixel_format = pixelFormat;
    interval.width = uint32_t(width);
    interval.height = uint32_t(height);
    for (interval.index = 0; xioctl(fd, VIDIOC_ENUM_FRAMEINTERVALS, &interval) == 0; ++interval.index) {
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

bool isFullRange(int fd, uint32_t pixelFormat, int width, int height)
{
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.pixelformat = pixelFormat;
    format.fmt.pix.width = uint32_t(width);
    format.fmt.pix.height = uint32_t(height);
    if (xioctl(fd, VIDIOC_TRY_FMT, &format) != 0)
        return false;
    return format.fmt.pix.quantization == V4L2_QUANTIZATION_FULL_RANGE;
}

std::optional<NodeInfo> probe(const QString& path)
{
    FileDescriptor fd(::open(path.toLocal8Bit().constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!fd)
        return std::nullopt;
    v4l2_capability caps{};
    if (xioctl(fd.get(), VIDIOC_QUERYCAP, &caps) != 0)
        return std::nullopt;
    const uint32_t deviceCaps = (caps.capabilities & V4L2_CAP_DEVICE_CAPS) ? caps.device_caps : caps.capabilities;
    if (!(deviceCaps & V4L2_CAP_VIDEO_CAPTURE) || !(deviceCaps & V4L2_CAP_STREAMING))
        return std::nullopt;  // metadata node, output node, or no mmap streaming

    NodeInfo info;
    info.path = path;
    info.card = fromFixed(caps.card, sizeof caps.card);
    info.busInfo = fromFixed(caps.bus_info, sizeof caps.bus_info);

    v4l2_fmtdesc description{};
    description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (description.index = 0; xioctl(fd.get(), VIDIOC_ENUM_FMT, &description) == 0; ++description.index) {
        for (auto [width, height] : frameSizes(fd.get(), description.pixelformat)) {
            const bool fullRange = description.pixelformat == V4L2_PIX_FMT_NV12
                && isFullRange(fd.get(), description.pixelformat, width, height);
            auto format = std::make_shared<const CaptureDeviceFormat>(
                mediaSubTypeFor(description.pixelformat, fullRange), width, height,
                frameRates(fd.get(), description.pixelformat, width, height));
            info.formats.push_back({format, description.pixelformat, fullRange});
        }
    }
    if (info.formats.empty())
        return std::nullopt;

    v4l2_format current{};
    current.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (xioctl(fd.get(), VIDIOC_G_FMT, &current) == 0) {
        for (const auto& f : info.formats) {
            if (f.pixelFormat == current.fmt.pix.pixelformat && uint32_t(f.format->width()) == current.fmt.pix.width
                && uint32_t(f.format->height()) == current.fmt.pix.height) {
                info.current = f.format;
                break;
            }
        }
    }
    v4l2_queryctrl control{};
    control.id = V4L2_CID_FOCUS_AUTO;
    info.focusAuto = xioctl(fd.get(), VIDIOC_QUERYCTRL, &control) == 0 && !(control.flags & V4L2_CTRL_FLAG_DISABLED);
    return info;
}

/// The FFmpeg pixel format of a raw V4L2 format; NONE for compressed ones.
AVPixelFormat avFormatOf(uint32_t pixelFormat)
{
    switch (pixelFormat) {
    case V4L2_PIX_FMT_NV12: return AV_PIX_FMT_NV12;
    case V4L2_PIX_FMT_NV21: return AV_PIX_FMT_NV21;
    case V4L2_PIX_FMT_YUYV: return AV_PIX_FMT_YUYV422;
    case V4L2_PIX_FMT_UYVY: return AV_PIX_FMT_UYVY422;
    case V4L2_PIX_FMT_YUV420: return AV_PIX_FMT_YUV420P;
    case V4L2_PIX_FMT_RGB24: return AV_PIX_FMT_RGB24;
    case V4L2_PIX_FMT_BGR24: return AV_PIX_FMT_BGR24;
    case V4L2_PIX_FMT_GREY: return AV_PIX_FMT_GRAY8;
    default: return AV_PIX_FMT_NONE;
    }
}

bool isJpeg(uint32_t pixelFormat) { return pixelFormat == V4L2_PIX_FMT_MJPEG || pixelFormat == V4L2_PIX_FMT_JPEG; }

// ------------------------------------------------------------------ stream

struct MappedBuffer {
    void* start = MAP_FAILED;
    size_t length = 0;
};

class V4L2Stream final : public CaptureDeviceStream {
public:
    ~V4L2Stream() override
    {
        if (streaming_) {
            v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            xioctl(fd_.get(), VIDIOC_STREAMOFF, &type);
        }
        for (auto& buffer : buffers_) {
            if (buffer.start != MAP_FAILED)
                ::munmap(buffer.start, buffer.length);
        }
    }

    static std::unique_ptr<V4L2Stream> open(const QString& path, const V4L2Format& format, ErrorPtr* error);

    ReadResult read(SampleBuffer& frame) override
    {
        for (;;) {
            if (interrupted_.load(std::memory_order_acquire))
                return ReadResult::Interrupted;
            pollfd fds[2] = {{fd_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR)
                    continue;
                return end(QStringLiteral("poll failed: %1").arg(errnoText(errno)));
            }
            if (fds[1].revents & POLLIN)
                return ReadResult::Interrupted;
            if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL))
                return end(QStringLiteral("the device reported an error or was unplugged"));
            if (!(fds[0].revents & POLLIN))
                continue;
            v4l2_buffer buffer{};
            buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            buffer.memory = V4L2_MEMORY_MMAP;
            if (xioctl(fd_.get(), VIDIOC_DQBUF, &buffer) != 0) {
                if (errno == EAGAIN)
                    continue;
                return end(QStringLiteral("VIDIOC_DQBUF: %1").arg(errnoText(errno)));
            }
            const bool ok = !(buffer.flags & V4L2_BUF_FLAG_ERROR) && buffer.index < buffers_.size()
                && makeFrame(buffers_[buffer.index], buffer, frame);
            if (xioctl(fd_.get(), VIDIOC_QBUF, &buffer) != 0)
                return end(QStringLiteral("VIDIOC_QBUF: %1").arg(errnoText(errno)));
            if (ok)
                return ReadResult::Frame;
        }
    }

    void interrupt() override
    {
        interrupted_.store(true, std::memory_order_release);
        const uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
    }

    QString endReason() const override { return endReason_; }

private:
    ReadResult end(const QString& reason)
    {
        endReason_ = reason;
        return ReadResult::Ended;
    }

    bool makeFrame(const MappedBuffer& mapped, const v4l2_buffer& buffer, SampleBuffer& frame)
    {
        auto pixels = pool_->createPixelBuffer();
        if (!pixels)
            return false;
        auto* data = static_cast<uint8_t*>(mapped.start);
        bool converted = false;
        if (decoder_) {
            converted = decodeJpeg(data, buffer.bytesused, *pixels);
        } else {
            ImagePlanes source;
            source.avPixelFormat = sourceFormat_;
            source.width = width_;
            source.height = height_;
            source.fullRange = fullRange_;
            converted = fillPlanes(source, data) && converter_.convert(source, *pixels);
        }
        if (!converted)
            return false;
        const int64_t nanoseconds = int64_t(buffer.timestamp.tv_sec) * 1000000000 + int64_t(buffer.timestamp.tv_usec) * 1000;
        if (firstTimestamp_ < 0)
            firstTimestamp_ = nanoseconds;
        frame = SampleBuffer(std::move(pixels), MediaTime::make(nanoseconds - firstTimestamp_, 1000000000), description_);
        return true;
    }

    /// Plane pointers and strides of one mapped buffer, with the driver's row
    /// stride. For planar formats bytesperline is the luma stride, and the
    /// chroma planes follow at strides derived from it.
    bool fillPlanes(ImagePlanes& planes, uint8_t* data) const
    {
        const auto format = AVPixelFormat(sourceFormat_);
        if (av_pix_fmt_count_planes(format) == 1) {
            planes.data[0] = data;
            planes.bytesPerRow[0] = bytesPerLine_ > 0 ? bytesPerLine_ : av_image_get_linesize(format, width_, 0);
            return planes.bytesPerRow[0] > 0;
        }
        const int paddedWidth = std::max(width_, bytesPerLine_);
        return av_image_fill_linesizes(planes.bytesPerRow, format, paddedWidth) >= 0
            && av_image_fill_pointers(planes.data, format, height_, data, planes.bytesPerRow) >= 0;
    }

    bool decodeJpeg(uint8_t* data, uint32_t size, PixelBuffer& destination)
    {
        packet_->data = data;  // not reference-counted: the decoder copies it
        packet_->size = int(size);
        const int sent = avcodec_send_packet(decoder_.get(), packet_.get());
        packet_->data = nullptr;
        packet_->size = 0;
        if (sent < 0 || avcodec_receive_frame(decoder_.get(), decoded_.get()) < 0)
            return false;
        ImagePlanes source;
        source.avPixelFormat = decoded_->format;
        source.width = decoded_->width;
        source.height = decoded_->height;
        source.fullRange = true;  // JPEG samples span the full range
        for (int plane = 0; plane < 4; ++plane) {
            source.data[plane] = decoded_->data[plane];
            source.bytesPerRow[plane] = decoded_->linesize[plane];
        }
        const bool ok = converter_.convert(source, destination);
        av_frame_unref(decoded_.get());
        return ok;
    }

    FileDescriptor fd_;
    FileDescriptor wake_;
    std::vector<MappedBuffer> buffers_;
    bool streaming_ = false;
    std::atomic<bool> interrupted_{false};
    QString endReason_;

    int width_ = 0;
    int height_ = 0;
    int sourceFormat_ = AV_PIX_FMT_NONE;
    int bytesPerLine_ = 0;
    bool fullRange_ = false;
    int64_t firstTimestamp_ = -1;
    std::shared_ptr<PixelBufferPool> pool_;
    std::shared_ptr<const FormatDescription> description_;
    VideoFrameConverter converter_;
    ffmpeg::AVCodecContextUPtr decoder_;
    ffmpeg::AVPacketUPtr packet_;
    ffmpeg::AVFrameUPtr decoded_;
};

std::unique_ptr<V4L2Stream> V4L2Stream::open(const QString& path, const V4L2Format& wanted, ErrorPtr* error)
{
    auto fail = [&](const QString& what) -> std::unique_ptr<V4L2Stream> {
        if (error)
            *error = makeCaptureError(CaptureErrorCode::DeviceOpenFailed,
                                      QStringLiteral("%1: %2: %3").arg(path, what, errnoText(errno)));
        return nullptr;
    };
    auto stream = std::unique_ptr<V4L2Stream>(new V4L2Stream());
    stream->fd_ = FileDescriptor(::open(path.toLocal8Bit().constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!stream->fd_)
        return fail(QStringLiteral("open"));
    stream->wake_ = FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stream->wake_)
        return fail(QStringLiteral("eventfd"));
    const int fd = stream->fd_.get();

    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = uint32_t(wanted.format->width());
    format.fmt.pix.height = uint32_t(wanted.format->height());
    format.fmt.pix.pixelformat = wanted.pixelFormat;
    format.fmt.pix.field = V4L2_FIELD_ANY;
    if (xioctl(fd, VIDIOC_S_FMT, &format) != 0)
        return fail(QStringLiteral("VIDIOC_S_FMT"));
    if (format.fmt.pix.pixelformat != wanted.pixelFormat) {
        errno = EINVAL;
        return fail(QStringLiteral("format refused"));
    }
    stream->width_ = int(format.fmt.pix.width);
    stream->height_ = int(format.fmt.pix.height);
    stream->bytesPerLine_ = int(format.fmt.pix.bytesperline);
    stream->fullRange_ = wanted.fullRange || format.fmt.pix.quantization == V4L2_QUANTIZATION_FULL_RANGE;

    const double fps = wanted.format->captureFrameRate();
    v4l2_streamparm parameters{};
    parameters.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parameters.parm.capture.timeperframe = {1000, uint32_t(fps * 1000.0 + 0.5)};
    xioctl(fd, VIDIOC_S_PARM, &parameters);  // a driver with a fixed rate refuses; that is fine

    if (isJpeg(wanted.pixelFormat)) {
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
        stream->decoder_ = codec ? ffmpeg::makeCodecContext(codec) : nullptr;
        stream->packet_ = ffmpeg::makeAVPacket();
        stream->decoded_ = ffmpeg::makeAVFrame();
        if (!stream->decoder_ || !stream->packet_ || !stream->decoded_
            || ffmpeg::openCodec(stream->decoder_.get(), codec, nullptr) < 0) {
            errno = ENOSYS;
            return fail(QStringLiteral("no MJPEG decoder"));
        }
    } else {
        stream->sourceFormat_ = avFormatOf(wanted.pixelFormat);
        if (stream->sourceFormat_ == AV_PIX_FMT_NONE) {
            errno = ENOTSUP;
            return fail(QStringLiteral("unsupported pixel format"));
        }
    }

    const PixelFormat output = stream->fullRange_ ? PixelFormat::NV12FullRange : PixelFormat::NV12VideoRange;
    stream->pool_ = PixelBufferPool::create({output, stream->width_, stream->height_});
    stream->description_ = std::make_shared<const FormatDescription>(output, stream->width_, stream->height_);
    if (!stream->pool_) {
        errno = ENOMEM;
        return fail(QStringLiteral("buffer pool"));
    }

    v4l2_requestbuffers request{};
    request.count = kBufferCount;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (xioctl(fd, VIDIOC_REQBUFS, &request) != 0 || request.count == 0)
        return fail(QStringLiteral("VIDIOC_REQBUFS"));
    stream->buffers_.resize(request.count);
    for (uint32_t index = 0; index < request.count; ++index) {
        v4l2_buffer buffer{};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.index = index;
        if (xioctl(fd, VIDIOC_QUERYBUF, &buffer) != 0)
            return fail(QStringLiteral("VIDIOC_QUERYBUF"));
        auto& mapped = stream->buffers_[index];
        mapped.length = buffer.length;
        mapped.start = ::mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, buffer.m.offset);
        if (mapped.start == MAP_FAILED)
            return fail(QStringLiteral("mmap"));
        if (xioctl(fd, VIDIOC_QBUF, &buffer) != 0)
            return fail(QStringLiteral("VIDIOC_QBUF"));
    }
    v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (xioctl(fd, VIDIOC_STREAMON, &type) != 0)
        return fail(QStringLiteral("VIDIOC_STREAMON"));
    stream->streaming_ = true;
    return stream;
}

// ------------------------------------------------------------------ device

class V4L2CaptureDevice final : public CaptureDevice {
public:
    explicit V4L2CaptureDevice(NodeInfo info)
        : CaptureDevice(uniqueIDFor(info), info.card, positionForCard(info.card), formatsOf(info), info.current)
        , path_(info.path)
        , card_(info.card)
        , v4l2Formats_(std::move(info.formats))
    {
        if (info.focusAuto)
            setFocusCapabilities({FocusMode::Locked, FocusMode::ContinuousAutoFocus}, false);
    }

    QString path() const { return path_; }
    QString card() const { return card_; }
    void markDisconnected() { setConnected(false); }

    bool canOpen() const override
    {
        const int fd = ::open(path_.toLocal8Bit().constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            return false;
        ::close(fd);
        return true;
    }

    std::unique_ptr<CaptureDeviceStream> openStream(const CaptureDeviceFormatPtr& format, ErrorPtr* error) override
    {
        auto match = std::find_if(v4l2Formats_.begin(), v4l2Formats_.end(),
                                  [&](const V4L2Format& f) { return f.format == format; });
        if (match == v4l2Formats_.end()) {
            if (error)
                *error = makeCaptureError(CaptureErrorCode::DeviceOpenFailed,
                                          QStringLiteral("%1: not a format of this camera").arg(path_));
            return nullptr;
        }
        return V4L2Stream::open(path_, *match, error);
    }

protected:
    bool applyFocusMode(FocusMode mode) override
    {
        const int fd = ::open(path_.toLocal8Bit().constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            return false;
        v4l2_control control{};
        control.id = V4L2_CID_FOCUS_AUTO;
        control.value = mode == FocusMode::ContinuousAutoFocus ? 1 : 0;
        const bool ok = xioctl(fd, VIDIOC_S_CTRL, &control) == 0;
        ::close(fd);
        return ok;
    }

private:
    static QString uniqueIDFor(const NodeInfo& info)
    {
        return QStringLiteral("v4l2:%1:%2").arg(info.busInfo.isEmpty() ? info.path : info.busInfo, info.card);
    }
    static std::vector<CaptureDeviceFormatPtr> formatsOf(const NodeInfo& info)
    {
        std::vector<CaptureDeviceFormatPtr> formats;
        for (const auto& f : info.formats)
            formats.push_back(f.format);
        return formats;
    }

    const QString path_;
    const QString card_;
    const std::vector<V4L2Format> v4l2Formats_;
};

int nodeNumber(const QString& name) { return name.mid(5).toInt(); }

}  // namespace

uint32_t mediaSubTypeFor(uint32_t v4l2PixelFormat, bool fullRange)
{
    if (v4l2PixelFormat == V4L2_PIX_FMT_NV12)
        return static_cast<uint32_t>(fullRange ? PixelFormat::NV12FullRange : PixelFormat::NV12VideoRange);
    // V4L2 codes keep their first character in the lowest byte.
    return __builtin_bswap32(v4l2PixelFormat);
}

CaptureDevicePosition positionForCard(const QString& card)
{
    for (const char* builtIn : {"Integrated", "Built-in", "Builtin", "Internal", "FaceTime"}) {
        if (card.contains(QLatin1String(builtIn), Qt::CaseInsensitive))
            return CaptureDevicePosition::Front;
    }
    return CaptureDevicePosition::Unspecified;
}

QString nodePathOf(const CaptureDevice& device)
{
    auto* v4l2 = dynamic_cast<const V4L2CaptureDevice*>(&device);
    return v4l2 ? v4l2->path() : QString();
}

CaptureDevicePosition defaultPositionOf(const CaptureDevice& device)
{
    auto* v4l2 = dynamic_cast<const V4L2CaptureDevice*>(&device);
    return v4l2 ? positionForCard(v4l2->card()) : device.position();
}

std::vector<CaptureDevicePtr> refreshDevices(const std::vector<CaptureDevicePtr>& known)
{
    QStringList nodes = QDir(QStringLiteral("/dev")).entryList({QStringLiteral("video*")}, QDir::System);
    std::sort(nodes.begin(), nodes.end(), [](const QString& a, const QString& b) { return nodeNumber(a) < nodeNumber(b); });

    std::vector<CaptureDevicePtr> present;
    for (const QString& node : nodes) {
        auto info = probe(QStringLiteral("/dev/") + node);
        if (!info)
            continue;
        auto same = std::find_if(known.begin(), known.end(), [&](const CaptureDevicePtr& d) {
            return nodePathOf(*d) == info->path && d->isConnected() && d->localizedName() == info->card;
        });
        if (same != known.end())
            present.push_back(*same);
        else
            present.push_back(std::make_shared<V4L2CaptureDevice>(std::move(*info)));
    }
    for (const auto& device : known) {
        if (std::find(present.begin(), present.end(), device) == present.end())
            static_cast<V4L2CaptureDevice&>(*device).markDisconnected();
    }
    return present;
}

}  // namespace zavo::platform::v4l2
