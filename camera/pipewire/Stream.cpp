#include "camera/pipewire/Stream_p.h"

#include "base/Log_p.h"
#include "camera/v4l2/Enumeration_p.h"

#include <pipewire/pipewire.h>
#include <spa/param/buffers.h>
#include <spa/param/video/format-utils.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

namespace zavo::platform::pipewire {

namespace {

constexpr int64_t kNegotiationWait = 2'000'000'000;  // ns

int64_t monotonicNanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

Stream* streamOf(void* data) { return static_cast<Stream*>(data); }

}  // namespace

// A DMA-BUF plane PipeWire does not map itself, mapped read-only for as long
// as the buffer belongs to the stream.
struct Stream::Mapping {
    void* address = MAP_FAILED;
    size_t length = 0;
    ~Mapping()
    {
        if (address != MAP_FAILED)
            ::munmap(address, length);
    }
};

std::unique_ptr<Stream> Stream::open(std::shared_ptr<Connection> connection, const CameraNode& camera,
                                     const NodeFormat& format, ErrorPtr* error)
{
    const QString where = QStringLiteral("pipewire:%1 (%2)").arg(camera.name, camera.description);
    auto fail = [&](CaptureErrorCode code, const QString& what) -> std::unique_ptr<Stream> {
        if (error)
            *error = makeCaptureError(code, what);
        return nullptr;
    };

    std::unique_ptr<Stream> stream(new Stream);
    stream->connection_ = std::move(connection);
    stream->name_ = where;
    stream->wanted_ = format;
    stream->listener_ = std::make_unique<spa_hook>();
    Stream& s = *stream;

    static const pw_stream_events events = {
        .version = PW_VERSION_STREAM_EVENTS,
        .destroy = nullptr,
        .state_changed = [](void* data, pw_stream_state, pw_stream_state state, const char* error) {
            auto* self = streamOf(data);
            self->connection_->loop().assertHeld();
            self->stateChanged(state, error);
        },
        .control_info = nullptr,
        .io_changed = nullptr,
        .param_changed = [](void* data, uint32_t id, const spa_pod* param) {
            auto* self = streamOf(data);
            self->connection_->loop().assertHeld();
            if (id == SPA_PARAM_Format)
                self->formatChanged(param);
        },
        .add_buffer = [](void* data, pw_buffer* buffer) {
            auto* self = streamOf(data);
            self->connection_->loop().assertHeld();
            self->addBuffer(buffer);
        },
        .remove_buffer = [](void* data, pw_buffer* buffer) {
            auto* self = streamOf(data);
            self->connection_->loop().assertHeld();
            self->removeBuffer(buffer);
        },
        .process = [](void* data) {
            auto* self = streamOf(data);
            self->connection_->loop().assertHeld();
            self->process();
        },
    };

    LoopLocker lock(s.connection_->loop());
    const QByteArray target = camera.name.toUtf8();
    pw_properties* properties = pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                                                  PW_KEY_MEDIA_ROLE, "Camera", PW_KEY_TARGET_OBJECT,
                                                  target.constData(), PW_KEY_NODE_NAME, "zavocamera", nullptr);
    s.stream_ = pw_stream_new(s.connection_->core(), "zavocamera", properties);
    if (!s.stream_)
        return fail(CaptureErrorCode::DeviceOpenFailed,
                    QStringLiteral("%1: no stream: %2").arg(where, QString::fromLocal8Bit(std::strerror(errno))));
    pw_stream_add_listener(s.stream_, s.listener_.get(), &events, &s);
    // The camera's removal ends the stream at once rather than after the
    // stall time-out; the session then tells the user it was unplugged.
    Stream* self = &s;
    s.removalWatch_ = s.connection_->watchRemoval(camera.id, [self] {
        self->endWith(QStringLiteral("%1: the camera was unplugged").arg(self->name_), CameraFailureReason::Unplugged);
    });

    uint8_t podMemory[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(podMemory, sizeof podMemory);
    const spa_pod* params[] = {buildFormatRequest(builder, format)};
    const int connected = pw_stream_connect(
        s.stream_, PW_DIRECTION_INPUT, PW_ID_ANY,
        pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_DONT_RECONNECT), params,
        1);
    if (connected < 0)
        return fail(CaptureErrorCode::DeviceOpenFailed,
                    QStringLiteral("%1: cannot connect: %2").arg(where, QString::fromUtf8(spa_strerror(connected))));

    // Wait for the daemon to settle the format: a refusal is the caller's
    // cue to try its next format, which only a synchronous answer can give.
    const int64_t deadline = monotonicNanoseconds() + kNegotiationWait;
    for (;;) {
        if (s.state_ == PW_STREAM_STATE_ERROR)
            return fail(CaptureErrorCode::FormatRefused,
                        QStringLiteral("%1 refused %2 %3x%4: %5")
                            .arg(where, formatName(format))
                            .arg(format.format->width())
                            .arg(format.format->height())
                            .arg(s.stateError_));
        if (s.state_ == PW_STREAM_STATE_PAUSED || s.state_ == PW_STREAM_STATE_STREAMING) {
            MutexLocker guard(s.mutex_);
            if (s.negotiated_.width > 0)
                break;
        }
        const int64_t left = deadline - monotonicNanoseconds();
        if (left <= 0 || !s.connection_->loop().waitFor(left)) {
            // Not an error yet: a camera that wakes slowly still gets the
            // stall time-out of read() to send its first picture.
            qCInfo(lcCameraPipewire, "%s: no format agreed yet after %lld ms", qUtf8Printable(where),
                   (long long)(kNegotiationWait / 1'000'000));
            return stream;
        }
    }
    qCInfo(lcCameraPipewire, "%s: streaming %s %dx%d at %.3g fps", qUtf8Printable(where),
           qUtf8Printable(formatName(format)), format.format->width(), format.format->height(),
           double(format.rate.num) / double(format.rate.denom ? format.rate.denom : 1));
    return stream;
}

Stream::~Stream()
{
    {
        LoopLocker lock(connection_->loop());
        connection_->stopWatching(removalWatch_);
        if (stream_) {
            pw_buffer* pending = nullptr;
            {
                MutexLocker guard(mutex_);
                pending = std::exchange(pending_, nullptr);
            }
            if (pending)
                pw_stream_queue_buffer(stream_, pending);
            closing_ = true;
            pw_stream_disconnect(stream_);
            spa_hook_remove(listener_.get());
            pw_stream_destroy(stream_);
            stream_ = nullptr;
        }
    }
    if (skippedBuffers() > 0)
        qCWarning(lcCameraPipewire, "%s: skipped %lld empty or corrupted buffers", qUtf8Printable(name_),
                  (long long)skippedBuffers());
}

CaptureDeviceStream::ReadResult Stream::read(SampleBuffer& frame)
{
    // Damaged buffers do not count as pictures: a camera that sends only
    // those ends like one that sends nothing.
    auto deadline = std::chrono::steady_clock::now() + kStallTimeout;
    for (;;) {
        pw_buffer* buffer = nullptr;
        int64_t time = 0;
        {
            MutexLocker lock(mutex_);
            while (!interrupted_ && ended_.isEmpty() && !pending_) {
                if (mutex_.waitUntil(wake_, deadline) == std::cv_status::timeout && !pending_ && !interrupted_
                    && ended_.isEmpty()) {
                    ended_ = QStringLiteral("%1: no pictures for %2 s").arg(name_).arg(kStallTimeout.count() / 1000.0);
                    cause_ = CameraFailureReason::NoPictures;
                    qCWarning(lcCameraPipewire, "%s", qUtf8Printable(ended_));
                }
            }
            if (interrupted_)
                return ReadResult::Interrupted;
            if (!ended_.isEmpty())
                return ReadResult::Ended;
            buffer = std::exchange(pending_, nullptr);
            inUse_ = buffer;
            time = pendingTime_;
        }
        const Made made = makeFrame(buffer, time, frame);
        giveBack(buffer);
        if (made == Made::Frame)
            return ReadResult::Frame;
        // A frame dropped because every pixel buffer is still downstream is
        // the reader's slowness, not the camera's: it keeps its time.
        if (made == Made::Dropped)
            deadline = std::chrono::steady_clock::now() + kStallTimeout;
    }
}

void Stream::interrupt()
{
    MutexLocker lock(mutex_);
    interrupted_ = true;
    wake_.notify_all();
}

QString Stream::endReason() const
{
    MutexLocker lock(mutex_);
    return ended_;
}

int64_t Stream::skippedBuffers() const
{
    MutexLocker lock(mutex_);
    return skipped_;
}

CameraFailureReason Stream::endCause() const
{
    MutexLocker lock(mutex_);
    return cause_;
}

void Stream::endWith(const QString& reason, CameraFailureReason cause)
{
    MutexLocker lock(mutex_);
    if (ended_.isEmpty()) {
        ended_ = reason;
        cause_ = cause;
        qCInfo(lcCameraPipewire, "%s", qUtf8Printable(reason));
    }
    wake_.notify_all();
}

void Stream::stateChanged(int state, const char* error)
{
    const int previous = std::exchange(state_, state);
    if (state == PW_STREAM_STATE_ERROR) {
        stateError_ = QString::fromUtf8(error ? error : "unknown error");
        endWith(QStringLiteral("%1: %2").arg(name_, stateError_), CameraFailureReason::NoPictures);
    } else if (state == PW_STREAM_STATE_UNCONNECTED && previous != PW_STREAM_STATE_UNCONNECTED && !closing_) {
        endWith(QStringLiteral("%1: the camera stopped sending pictures").arg(name_), CameraFailureReason::Unplugged);
    }
    connection_->loop().signal();
}

void Stream::formatChanged(const spa_pod* param)
{
    if (!param)
        return;
    spa_video_info info{};
    if (spa_format_parse(param, &info.media_type, &info.media_subtype) < 0 || info.media_type != SPA_MEDIA_TYPE_video)
        return;
    Negotiated negotiated;
    if (info.media_subtype == SPA_MEDIA_SUBTYPE_raw && spa_format_video_raw_parse(param, &info.info.raw) >= 0) {
        negotiated = {v4l2FormatFor(SPA_MEDIA_SUBTYPE_raw, info.info.raw.format), int(info.info.raw.size.width),
                      int(info.info.raw.size.height)};
    } else if (info.media_subtype == SPA_MEDIA_SUBTYPE_mjpg && spa_format_video_mjpg_parse(param, &info.info.mjpg) >= 0) {
        negotiated = {v4l2FormatFor(SPA_MEDIA_SUBTYPE_mjpg, 0), int(info.info.mjpg.size.width),
                      int(info.info.mjpg.size.height)};
    }
    if (!negotiated.v4l2Format || negotiated.width <= 0 || negotiated.height <= 0) {
        endWith(QStringLiteral("%1: the camera agreed on a format not decoded here").arg(name_),
                CameraFailureReason::NoPictures);
        return;
    }
    {
        MutexLocker lock(mutex_);
        negotiated_ = negotiated;
    }
    // A compressed picture's size is not fixed: buffers are asked big enough
    // for the worst JPEG of that size, as a webcam driver sizes its own;
    // otherwise the producer's default cuts large pictures short.
    if (negotiated.v4l2Format == v4l2FormatFor(SPA_MEDIA_SUBTYPE_mjpg, 0)) {
        uint8_t podMemory[256];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(podMemory, sizeof podMemory);
        const int size = negotiated.width * negotiated.height * 2;
        const auto* buffers = static_cast<const spa_pod*>(
            spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers,
                                       SPA_PARAM_BUFFERS_size, SPA_POD_CHOICE_RANGE_Int(size, size, INT32_MAX)));
        pw_stream_update_params(stream_, &buffers, 1);
    }
    connection_->loop().signal();
}

void Stream::addBuffer(pw_buffer* buffer)
{
    {
        MutexLocker lock(mutex_);
        live_.push_back(buffer);
    }
    spa_data& data = buffer->buffer->datas[0];
    if (data.type != SPA_DATA_DmaBuf || data.data)
        return;
    auto mapping = std::make_unique<Mapping>();
    mapping->length = size_t(data.maxsize) + size_t(data.mapoffset);
    mapping->address = ::mmap(nullptr, mapping->length, PROT_READ, MAP_SHARED, int(data.fd), 0);
    if (mapping->address == MAP_FAILED) {
        qCWarning(lcCameraPipewire, "%s: a DMA-BUF buffer could not be mapped: %s", qUtf8Printable(name_),
                  std::strerror(errno));
        return;
    }
    data.data = static_cast<uint8_t*>(mapping->address) + data.mapoffset;
    buffer->user_data = mapping.release();
}

void Stream::removeBuffer(pw_buffer* buffer)
{
    {
        // The capture thread clears inUse_ without the loop's lock, so this
        // wait, made with that lock held, always ends.
        MutexLocker lock(mutex_);
        while (inUse_ == buffer)
            mutex_.wait(wake_);
        live_.erase(std::remove(live_.begin(), live_.end(), buffer), live_.end());
        if (pending_ == buffer)
            pending_ = nullptr;
    }
    std::unique_ptr<Mapping> mapping(static_cast<Mapping*>(buffer->user_data));
    buffer->user_data = nullptr;
    if (mapping)
        buffer->buffer->datas[0].data = nullptr;
}

void Stream::process()
{
    // Only the newest picture matters: older ones go straight back.
    pw_buffer* newest = nullptr;
    while (pw_buffer* buffer = pw_stream_dequeue_buffer(stream_)) {
        if (newest)
            pw_stream_queue_buffer(stream_, newest);
        newest = buffer;
    }
    if (!newest)
        return;
    pw_buffer* replaced = nullptr;
    {
        MutexLocker lock(mutex_);
        replaced = std::exchange(pending_, newest);
        pendingTime_ = monotonicNanoseconds();
        wake_.notify_all();
    }
    if (replaced)
        pw_stream_queue_buffer(stream_, replaced);
}

void Stream::giveBack(pw_buffer* buffer)
{
    {
        MutexLocker lock(mutex_);
        inUse_ = nullptr;
        wake_.notify_all();
    }
    // Between the two locks PipeWire may have removed the buffer (the
    // camera went away): only a buffer it still lists goes back.
    LoopLocker loopLock(connection_->loop());
    bool live = false;
    {
        MutexLocker lock(mutex_);
        live = std::find(live_.begin(), live_.end(), buffer) != live_.end();
    }
    if (live && stream_)
        pw_stream_queue_buffer(stream_, buffer);
}

Stream::Made Stream::makeFrame(pw_buffer* buffer, int64_t nanoseconds, SampleBuffer& frame)
{
    const spa_data& data = buffer->buffer->datas[0];
    const spa_chunk* chunk = data.chunk;
    auto skip = [&](const char* why) {
        qCDebug(lcCameraPipewire, "%s: buffer skipped: %s (type %u, size %u of %u, flags %d)", qUtf8Printable(name_),
                why, data.type, chunk ? chunk->size : 0, data.maxsize, chunk ? chunk->flags : 0);
        MutexLocker lock(mutex_);
        if (skipped_++ == 0)
            qCWarning(lcCameraPipewire, "%s: an empty or corrupted buffer was skipped (more are counted, not logged)",
                      qUtf8Printable(name_));
        return Made::Damaged;
    };
    if (!data.data || !chunk || chunk->size == 0 || (chunk->flags & SPA_CHUNK_FLAG_CORRUPTED)
        || size_t(chunk->offset % (data.maxsize ? data.maxsize : 1)) + chunk->size > data.maxsize)
        return skip("empty, corrupted or unmapped");

    Negotiated negotiated;
    {
        MutexLocker lock(mutex_);
        negotiated = negotiated_;
    }
    if (!decoder_ || negotiated.v4l2Format != decoding_.v4l2Format || negotiated.width != decoding_.width
        || negotiated.height != decoding_.height) {
        const bool jpeg = v4l2::isJpeg(negotiated.v4l2Format);
        decoder_ = v4l2::FrameDecoder::create(negotiated.v4l2Format, negotiated.width, negotiated.height,
                                              chunk->stride > 0 ? int(chunk->stride) : 0, false);
        if (!decoder_) {
            endWith(QStringLiteral("%1: cannot decode its frames").arg(name_), CameraFailureReason::NoPictures);
            return Made::Damaged;
        }
        // JPEG samples span the full range: kept so, as for webcams.
        const PixelFormat output = jpeg ? PixelFormat::NV12FullRange : PixelFormat::NV12VideoRange;
        pool_ = PixelBufferPool::create({output, negotiated.width, negotiated.height});
        description_ = std::make_shared<const FormatDescription>(output, negotiated.width, negotiated.height);
        decoding_ = negotiated;
        if (!pool_) {
            endWith(QStringLiteral("%1: no memory for frames").arg(name_), CameraFailureReason::None);
            return Made::Damaged;
        }
    }
    auto pixels = pool_->createPixelBuffer();
    if (!pixels)
        return Made::Dropped;  // every buffer still in use downstream

    const auto* bytes = static_cast<const uint8_t*>(data.data) + chunk->offset % (data.maxsize ? data.maxsize : 1);
    const bool dmabuf = data.type == SPA_DATA_DmaBuf;
    if (dmabuf) {
        dma_buf_sync sync{DMA_BUF_SYNC_START | DMA_BUF_SYNC_READ};
        ::ioctl(int(data.fd), DMA_BUF_IOCTL_SYNC, &sync);
    }
    bool decoded = false;
    const uint32_t blocks = buffer->buffer->n_datas;
    if (blocks > 1 && blocks <= 4) {
        // One block per plane; each must be mapped and hold its rows.
        const uint8_t* planes[4] = {};
        int strides[4] = {};
        for (uint32_t i = 0; i < blocks; ++i) {
            const spa_data& block = buffer->buffer->datas[i];
            if (!block.data || !block.chunk || block.chunk->size == 0 || block.chunk->stride <= 0)
                return skip("a plane is missing");
            planes[i] = static_cast<const uint8_t*>(block.data) + block.chunk->offset % (block.maxsize ? block.maxsize : 1);
            strides[i] = block.chunk->stride;
        }
        decoded = decoder_->decodePlanes(planes, strides, int(blocks), *pixels);
    } else {
        decoded = decoder_->decode(bytes, chunk->size, *pixels);
    }
    if (dmabuf) {
        dma_buf_sync sync{DMA_BUF_SYNC_END | DMA_BUF_SYNC_READ};
        ::ioctl(int(data.fd), DMA_BUF_IOCTL_SYNC, &sync);
    }
    if (!decoded)
        return skip("not a whole picture");
    if (firstTimestamp_ < 0)
        firstTimestamp_ = nanoseconds;
    frame = SampleBuffer(std::move(pixels), MediaTime::make(nanoseconds - firstTimestamp_, 1000000000), description_);
    return Made::Frame;
}

}  // namespace zavo::platform::pipewire
