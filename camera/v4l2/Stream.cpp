#include "camera/v4l2/Stream_p.h"

#include "base/Log_p.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include <fcntl.h>

namespace zavo::platform::v4l2 {

namespace {

constexpr uint32_t kBufferCount = 4;

QString errnoText(int error) { return QString::fromLocal8Bit(std::strerror(error)); }

bool isUnplugged(int error) { return error == ENODEV || error == ENXIO || error == EIO; }

double fpsOf(const v4l2_fract& timePerFrame)
{
    return timePerFrame.numerator && timePerFrame.denominator
        ? double(timePerFrame.denominator) / double(timePerFrame.numerator)
        : 0.0;
}

/// The control's description when the camera has it and lets it be set.
std::optional<v4l2_queryctrl> settableControl(Kernel& kernel, int fd, uint32_t id)
{
    v4l2_queryctrl control{};
    control.id = id;
    if (kernel.xioctl(fd, VIDIOC_QUERYCTRL, &control) != 0)
        return std::nullopt;
    if (control.flags & (V4L2_CTRL_FLAG_DISABLED | V4L2_CTRL_FLAG_READ_ONLY))
        return std::nullopt;
    return control;
}

}  // namespace

std::unique_ptr<Stream> Stream::open(std::shared_ptr<Kernel> kernel, const QString& path, const QString& card,
                                     const DriverFormat& wanted, const StreamLimits& limits, ErrorPtr* error)
{
    const QString camera = card.isEmpty() ? path : QStringLiteral("%1 (%2)").arg(path, card);
    const double fps = wanted.format->captureFrameRate();
    auto fail = [&](CaptureErrorCode code, const QString& what, CameraFailureReason reason = CameraFailureReason::None)
        -> std::unique_ptr<Stream> {
        if (error)
            *error = makeCaptureError(code, what, reason);
        return nullptr;
    };
    auto failErrno = [&](const QString& step) {
        const int code = errno;
        if (code == EBUSY)
            return fail(CaptureErrorCode::DeviceBusy, QStringLiteral("%1 is in use by another application").arg(camera),
                        CameraFailureReason::Busy);
        if (code == EACCES || code == EPERM)
            return fail(CaptureErrorCode::AccessDenied, accessDeniedText(path), CameraFailureReason::NoPermission);
        if (isUnplugged(code))
            return fail(CaptureErrorCode::DeviceNotAvailable, QStringLiteral("%1 was unplugged").arg(camera),
                        CameraFailureReason::Unplugged);
        // uvcvideo's answer when no alternate setting of the camera's USB
        // interface fits the bandwidth left on the bus.
        if (code == ENOSPC)
            return fail(CaptureErrorCode::NoBandwidth,
                        QStringLiteral("%1: not enough USB bandwidth for %2 %3x%4 at %5 fps")
                            .arg(camera, fourccText(wanted.pixelFormat))
                            .arg(wanted.format->width())
                            .arg(wanted.format->height())
                            .arg(fps, 0, 'f', 0),
                        CameraFailureReason::NoBandwidth);
        return fail(CaptureErrorCode::DeviceOpenFailed, QStringLiteral("%1: %2: %3").arg(camera, step, errnoText(code)));
    };

    std::unique_ptr<Stream> stream(new Stream);
    stream->kernel_ = std::move(kernel);
    stream->path_ = path;
    stream->limits_ = limits;
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

    stream->setFrameRate(fd, fps);
    stream->setControls(fd);

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
    stream->lastBuffer_ = std::chrono::steady_clock::now();
    return stream;
}

void Stream::setFrameRate(int fd, double wanted)
{
    v4l2_streamparm parameters{};
    parameters.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parameters.parm.capture.timeperframe = {1000, uint32_t(wanted * 1000.0 + 0.5)};
    // The driver answers with the interval it really set: the nearest it
    // has, often slower than asked (a dim room, a format it paces itself).
    // One with a fixed rate refuses; its current rate is then the answer.
    double actual = 0;
    if (kernel_->xioctl(fd, VIDIOC_S_PARM, &parameters) == 0)
        actual = fpsOf(parameters.parm.capture.timeperframe);
    if (actual <= 0) {
        parameters = {};
        parameters.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (kernel_->xioctl(fd, VIDIOC_G_PARM, &parameters) == 0)
            actual = fpsOf(parameters.parm.capture.timeperframe);
    }
    if (actual <= 0 || actual > 1000) {
        qCDebug(lcCameraV4l2, "%s: the driver does not say its frame rate; taking %.3f fps", qUtf8Printable(path_),
                wanted);
        return;
    }
    if (std::abs(actual - wanted) > wanted * 0.005)
        qCInfo(lcCameraV4l2, "%s: asked for %.3f fps, the driver set %.3f fps", qUtf8Printable(path_), wanted, actual);
    frameRate_ = actual;
}

void Stream::setControls(int fd)
{
    // Left on, exposure priority lets a webcam lengthen its exposure in a
    // dim room and drop to 15 fps or less; the detector wants a steady rate
    // more than a brighter picture.
    if (settableControl(*kernel_, fd, V4L2_CID_EXPOSURE_AUTO_PRIORITY)) {
        v4l2_control control{V4L2_CID_EXPOSURE_AUTO_PRIORITY, 0};
        if (kernel_->xioctl(fd, VIDIOC_S_CTRL, &control) == 0)
            qCDebug(lcCameraV4l2, "%s: exposure priority off", qUtf8Printable(path_));
        else
            qCInfo(lcCameraV4l2, "%s: cannot turn exposure priority off: %s", qUtf8Printable(path_),
                   qUtf8Printable(errnoText(errno)));
    } else {
        qCDebug(lcCameraV4l2, "%s: no exposure priority control", qUtf8Printable(path_));
    }

    // Lights flicker at twice the mains frequency; an exposure that is not a
    // multiple of it shows the flicker as bands rolling over the face.
    const auto powerLine = settableControl(*kernel_, fd, V4L2_CID_POWER_LINE_FREQUENCY);
    if (!powerLine) {
        qCDebug(lcCameraV4l2, "%s: no power-line frequency control", qUtf8Printable(path_));
        return;
    }
    const int hertz = effectivePowerLineFrequency();
    const int value = hertz == 60 ? V4L2_CID_POWER_LINE_FREQUENCY_60HZ : V4L2_CID_POWER_LINE_FREQUENCY_50HZ;
    if (value < powerLine->minimum || value > powerLine->maximum) {
        qCDebug(lcCameraV4l2, "%s: the power-line frequency control has no %d Hz", qUtf8Printable(path_), hertz);
        return;
    }
    v4l2_control control{V4L2_CID_POWER_LINE_FREQUENCY, value};
    if (kernel_->xioctl(fd, VIDIOC_S_CTRL, &control) == 0)
        qCDebug(lcCameraV4l2, "%s: power-line frequency %d Hz", qUtf8Printable(path_), hertz);
    else
        qCInfo(lcCameraV4l2, "%s: cannot set the power-line frequency to %d Hz: %s", qUtf8Printable(path_), hertz,
               qUtf8Printable(errnoText(errno)));
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
    if (erroneous_ > 0 || empty_ > 0)
        qCWarning(lcCameraV4l2, "%s: skipped %lld buffers flagged as erroneous and %lld empty ones",
                  qUtf8Printable(path_), (long long)erroneous_, (long long)empty_);
}

CaptureDeviceStream::ReadResult Stream::read(SampleBuffer& frame)
{
    using Clock = std::chrono::steady_clock;
    for (;;) {
        if (interrupted_.load(std::memory_order_acquire))
            return ReadResult::Interrupted;
        // The time-out is the camera's, not the caller's: interrupt() still
        // wakes the poll at once through the eventfd.
        const auto left = lastBuffer_ + limits_.stallTimeout - Clock::now();
        if (left <= Clock::duration::zero())
            return end(QStringLiteral("no picture for %1 s").arg(double(limits_.stallTimeout.count()) / 1000.0),
                       CameraFailureReason::NoPictures);
        pollfd fds[2] = {{fd_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
        const int ready = kernel_->poll(fds, 2, int(std::chrono::ceil<std::chrono::milliseconds>(left).count()));
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            return end(QStringLiteral("poll failed: %1").arg(errnoText(errno)), CameraFailureReason::None);
        }
        if (ready == 0)
            continue;  // the clock above decides
        if (fds[1].revents & POLLIN)
            return ReadResult::Interrupted;
        if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) {
            // An unplugged camera reports POLLERR; the dequeue says why.
            v4l2_buffer buffer{};
            if (!buffers_.dequeue(buffer) && errno != EAGAIN && !isUnplugged(errno))
                return end(QStringLiteral("the device reported an error: %1").arg(errnoText(errno)),
                           CameraFailureReason::None);
            return end(QStringLiteral("the camera was unplugged"), CameraFailureReason::Unplugged);
        }
        if (!(fds[0].revents & POLLIN))
            continue;
        v4l2_buffer buffer{};
        if (!buffers_.dequeue(buffer)) {
            if (errno == EAGAIN)
                continue;
            if (isUnplugged(errno))
                return end(QStringLiteral("the camera was unplugged"), CameraFailureReason::Unplugged);
            return end(QStringLiteral("VIDIOC_DQBUF: %1").arg(errnoText(errno)), CameraFailureReason::None);
        }
        lastBuffer_ = Clock::now();
        // uvcvideo hands back buffers it knows are broken (lost packets)
        // with the error flag; an empty one would only show stale bytes.
        Take taken = Take::Unusable;
        if (buffer.flags & V4L2_BUF_FLAG_ERROR) {
            if (erroneous_++ == 0)
                qCWarning(lcCameraV4l2, "%s: a buffer flagged as erroneous was skipped (more are counted, not logged)",
                          qUtf8Printable(path_));
        } else if (buffer.bytesused == 0) {
            if (empty_++ == 0)
                qCWarning(lcCameraV4l2, "%s: an empty buffer was skipped (more are counted, not logged)",
                          qUtf8Printable(path_));
        } else {
            taken = makeFrame(buffer, frame);
        }
        if (!buffers_.enqueue(buffer)) {
            if (isUnplugged(errno))
                return end(QStringLiteral("the camera was unplugged"), CameraFailureReason::Unplugged);
            return end(QStringLiteral("VIDIOC_QBUF: %1").arg(errnoText(errno)), CameraFailureReason::None);
        }
        if (taken == Take::Frame) {
            unusableInARow_ = 0;
            return ReadResult::Frame;
        }
        if (taken == Take::Unusable && ++unusableInARow_ >= limits_.unusableRun) {
            frame = SampleBuffer();
            return end(QStringLiteral("%1 buffers in a row without a picture "
                                      "(so far %2 flagged as erroneous, %3 empty, %4 damaged)")
                           .arg(unusableInARow_)
                           .arg(erroneous_)
                           .arg(empty_)
                           .arg(damagedFrames()),
                       CameraFailureReason::NoPictures);
        }
    }
}

void Stream::interrupt()
{
    interrupted_.store(true, std::memory_order_release);
    const uint64_t one = 1;
    [[maybe_unused]] const auto written = kernel_->write(wake_.get(), &one, sizeof one);
}

CaptureDeviceStream::ReadResult Stream::end(const QString& reason, CameraFailureReason cause)
{
    endReason_ = QStringLiteral("%1: %2").arg(path_, reason);
    endCause_ = cause;
    return ReadResult::Ended;
}

Stream::Take Stream::makeFrame(const v4l2_buffer& buffer, SampleBuffer& frame)
{
    const auto [data, size] = buffers_.bytesOf(buffer);
    if (!data)
        return Take::Unusable;
    auto pixels = pool_->createPixelBuffer();
    if (!pixels)
        return Take::NoRoom;  // every buffer still in use downstream: drop this frame, the camera is fine
    const int64_t before = decoder_->damagedFrames();
    if (!decoder_->decode(data, size, *pixels)) {
        if (before == 0)
            qCWarning(lcCameraV4l2, "%s: a damaged frame was skipped (more are counted, not logged)",
                      qUtf8Printable(path_));
        return Take::Unusable;
    }
    const int64_t nanoseconds =
        int64_t(buffer.timestamp.tv_sec) * 1000000000 + int64_t(buffer.timestamp.tv_usec) * 1000;
    if (firstTimestamp_ < 0)
        firstTimestamp_ = nanoseconds;
    const MediaTime duration =
        frameRate_ > 0 ? MediaTime::make(int64_t(std::llround(1e9 / frameRate_)), 1000000000) : MediaTime::invalid();
    frame = SampleBuffer(std::move(pixels), MediaTime::make(nanoseconds - firstTimestamp_, 1000000000), description_,
                         duration);
    return Take::Frame;
}

}  // namespace zavo::platform::v4l2
