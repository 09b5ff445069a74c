#include "camera/v4l2/Stream_p.h"

#include "base/Log_p.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>

namespace zavo::platform::v4l2 {

namespace {

constexpr uint32_t kBufferCount = 4;

QString errnoText(int error) { return QString::fromLocal8Bit(std::strerror(error)); }

bool isUnplugged(int error) { return error == ENODEV || error == ENXIO || error == EIO; }

}  // namespace

std::unique_ptr<Stream> Stream::open(std::shared_ptr<Kernel> kernel, const QString& path, const QString& card,
                                     const DriverFormat& wanted, ErrorPtr* error)
{
    const QString camera = card.isEmpty() ? path : QStringLiteral("%1 (%2)").arg(path, card);
    auto fail = [&](CaptureErrorCode code, const QString& what) -> std::unique_ptr<Stream> {
        if (error)
            *error = makeCaptureError(code, what);
        return nullptr;
    };
    auto failErrno = [&](const QString& step) {
        const int code = errno;
        if (code == EBUSY)
            return fail(CaptureErrorCode::DeviceBusy, QStringLiteral("%1 is in use by another application").arg(camera));
        if (code == EACCES || code == EPERM)
            return fail(CaptureErrorCode::AccessDenied, accessDeniedText(path));
        if (isUnplugged(code))
            return fail(CaptureErrorCode::DeviceNotAvailable, QStringLiteral("%1 was unplugged").arg(camera));
        return fail(CaptureErrorCode::DeviceOpenFailed, QStringLiteral("%1: %2: %3").arg(camera, step, errnoText(code)));
    };

    std::unique_ptr<Stream> stream(new Stream);
    stream->kernel_ = std::move(kernel);
    stream->path_ = path;
    Kernel& k = *stream->kernel_;
    stream->fd_ = UniqueFd(k, k.open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!stream->fd_)
        return failErrno(QStringLiteral("open"));
    stream->wake_ = UniqueFd(k, k.eventfd());
    if (!stream->wake_)
        return failErrno(QStringLiteral("eventfd"));
    const int fd = stream->fd_.get();

    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = uint32_t(wanted.format->width());
    format.fmt.pix.height = uint32_t(wanted.format->height());
    format.fmt.pix.pixelformat = wanted.pixelFormat;
    format.fmt.pix.field = V4L2_FIELD_ANY;
    if (k.xioctl(fd, VIDIOC_S_FMT, &format) != 0)
        return failErrno(QStringLiteral("VIDIOC_S_FMT"));
    // A driver may list a format and then give another: the caller tries
    // its next candidate rather than decode frames of the wrong shape.
    if (format.fmt.pix.pixelformat != wanted.pixelFormat || int(format.fmt.pix.width) != wanted.format->width()
        || int(format.fmt.pix.height) != wanted.format->height())
        return fail(CaptureErrorCode::FormatRefused,
                    QStringLiteral("%1 refused %2 %3x%4 (it gave %5 %6x%7)")
                        .arg(camera, fourccText(wanted.pixelFormat))
                        .arg(wanted.format->width())
                        .arg(wanted.format->height())
                        .arg(fourccText(format.fmt.pix.pixelformat))
                        .arg(format.fmt.pix.width)
                        .arg(format.fmt.pix.height));
    const int width = int(format.fmt.pix.width);
    const int height = int(format.fmt.pix.height);
    const bool fullRange = wanted.fullRange || format.fmt.pix.quantization == V4L2_QUANTIZATION_FULL_RANGE;

    const double fps = wanted.format->captureFrameRate();
    v4l2_streamparm parameters{};
    parameters.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parameters.parm.capture.timeperframe = {1000, uint32_t(fps * 1000.0 + 0.5)};
    k.xioctl(fd, VIDIOC_S_PARM, &parameters);  // a driver with a fixed rate refuses; that is fine

    stream->decoder_ = FrameDecoder::create(wanted.pixelFormat, width, height, int(format.fmt.pix.bytesperline),
                                            fullRange);
    if (!stream->decoder_)
        return fail(CaptureErrorCode::DeviceOpenFailed,
                    QStringLiteral("%1: cannot decode %2").arg(camera, fourccText(wanted.pixelFormat)));
    // JPEG samples span the full range: kept so, the conversion to NV12 only
    // reorders planes instead of also rescaling every sample.
    const PixelFormat output = (fullRange || isJpeg(wanted.pixelFormat)) ? PixelFormat::NV12FullRange
                                                                         : PixelFormat::NV12VideoRange;
    stream->pool_ = PixelBufferPool::create({output, width, height});
    stream->description_ = std::make_shared<const FormatDescription>(output, width, height);
    if (!stream->pool_)
        return fail(CaptureErrorCode::DeviceOpenFailed, QStringLiteral("%1: no memory for frames").arg(camera));

    QString step;
    if (!stream->buffers_.allocate(k, fd, kBufferCount, &step))
        return failErrno(step);
    v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (k.xioctl(fd, VIDIOC_STREAMON, &type) != 0)
        return failErrno(QStringLiteral("VIDIOC_STREAMON"));
    stream->streaming_ = true;
    return stream;
}

Stream::~Stream()
{
    if (streaming_) {
        v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        kernel_->xioctl(fd_.get(), VIDIOC_STREAMOFF, &type);
    }
    buffers_.release();
    if (damagedFrames() > 0)
        qCWarning(lcCameraV4l2, "%s: skipped %lld damaged frames", qUtf8Printable(path_), (long long)damagedFrames());
}

CaptureDeviceStream::ReadResult Stream::read(SampleBuffer& frame)
{
    for (;;) {
        if (interrupted_.load(std::memory_order_acquire))
            return ReadResult::Interrupted;
        pollfd fds[2] = {{fd_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
        if (kernel_->poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return end(QStringLiteral("poll failed: %1").arg(errnoText(errno)));
        }
        if (fds[1].revents & POLLIN)
            return ReadResult::Interrupted;
        if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) {
            // An unplugged camera reports POLLERR; the dequeue says why.
            v4l2_buffer buffer{};
            if (!buffers_.dequeue(buffer) && errno != EAGAIN && !isUnplugged(errno))
                return end(QStringLiteral("the device reported an error: %1").arg(errnoText(errno)));
            return end(QStringLiteral("the camera was unplugged"));
        }
        if (!(fds[0].revents & POLLIN))
            continue;
        v4l2_buffer buffer{};
        if (!buffers_.dequeue(buffer)) {
            if (errno == EAGAIN)
                continue;
            if (isUnplugged(errno))
                return end(QStringLiteral("the camera was unplugged"));
            return end(QStringLiteral("VIDIOC_DQBUF: %1").arg(errnoText(errno)));
        }
        const bool ok = !(buffer.flags & V4L2_BUF_FLAG_ERROR) && makeFrame(buffer, frame);
        if (!buffers_.enqueue(buffer)) {
            if (isUnplugged(errno))
                return end(QStringLiteral("the camera was unplugged"));
            return end(QStringLiteral("VIDIOC_QBUF: %1").arg(errnoText(errno)));
        }
        if (ok)
            return ReadResult::Frame;
    }
}

void Stream::interrupt()
{
    interrupted_.store(true, std::memory_order_release);
    const uint64_t one = 1;
    [[maybe_unused]] const auto written = kernel_->write(wake_.get(), &one, sizeof one);
}

CaptureDeviceStream::ReadResult Stream::end(const QString& reason)
{
    endReason_ = QStringLiteral("%1: %2").arg(path_, reason);
    return ReadResult::Ended;
}

bool Stream::makeFrame(const v4l2_buffer& buffer, SampleBuffer& frame)
{
    const auto [data, size] = buffers_.bytesOf(buffer);
    if (!data)
        return false;
    auto pixels = pool_->createPixelBuffer();
    if (!pixels)
        return false;  // every buffer still in use downstream: drop this frame
    const int64_t before = decoder_->damagedFrames();
    if (!decoder_->decode(data, size, *pixels)) {
        if (before == 0)
            qCWarning(lcCameraV4l2, "%s: a damaged frame was skipped (more are counted, not logged)",
                      qUtf8Printable(path_));
        return false;
    }
    const int64_t nanoseconds =
        int64_t(buffer.timestamp.tv_sec) * 1000000000 + int64_t(buffer.timestamp.tv_usec) * 1000;
    if (firstTimestamp_ < 0)
        firstTimestamp_ = nanoseconds;
    frame = SampleBuffer(std::move(pixels), MediaTime::make(nanoseconds - firstTimestamp_, 1000000000), description_);
    return true;
}

}  // namespace zavo::platform::v4l2
