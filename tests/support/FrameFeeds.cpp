// Frame feeds for the fake V4L2 kernel: a face clip re-encoded the way a
// webcam would send it, or the JPEG frames of a real webcam recording.
#include "base/ThreadSafety.h"
#include "FakeV4L2Kernel.h"

#include "media/FFmpeg_p.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include <linux/videodev2.h>

#include <QImage>

#include <cstring>
#include <map>
#include <mutex>
#include <tuple>

namespace zavo::testing {

namespace {

using namespace platform::ffmpeg;

/// The frames of a file, decoded to YUV 4:2:0 at their own size.
std::vector<AVFrameUPtr> decodeFrames(const QString& path, int maxFrames)
{
    std::vector<AVFrameUPtr> frames;
    int error = 0;
    auto input = openInput(path.toLocal8Bit().constData(), &error);
    if (!input || avformat_find_stream_info(input.get(), nullptr) < 0)
        return frames;
    const AVCodec* codec = nullptr;
    const int stream = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (stream < 0 || !codec)
        return frames;
    auto decoder = makeCodecContext(codec);
    avcodec_parameters_to_context(decoder.get(), input->streams[stream]->codecpar);
    if (openCodec(decoder.get(), codec, nullptr) < 0)
        return frames;
    auto packet = makeAVPacket();
    auto receive = [&] {
        for (;;) {
            auto frame = makeAVFrame();
            if (avcodec_receive_frame(decoder.get(), frame.get()) < 0)
                return;
            if (int(frames.size()) < maxFrames)
                frames.push_back(std::move(frame));
        }
    };
    while (int(frames.size()) < maxFrames && av_read_frame(input.get(), packet.get()) >= 0) {
        if (packet->stream_index == stream)
            avcodec_send_packet(decoder.get(), packet.get());
        av_packet_unref(packet.get());
        receive();
    }
    avcodec_send_packet(decoder.get(), nullptr);
    receive();
    return frames;
}

/// source fitted whole into width x height (centred, black around) in pixel
/// format target.
AVFrameUPtr fitted(const AVFrame& source, int width, int height, AVPixelFormat target)
{
    auto frame = makeAVFrame();
    frame->format = target;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 0) < 0)
        return nullptr;
    // Black: fill through a one-pixel scale of a black picture is overkill;
    // YUV black is (16,128,128) in video range, (0,128,128) in full range.
    const bool full = target == AV_PIX_FMT_YUVJ420P || target == AV_PIX_FMT_YUVJ422P;
    ptrdiff_t linesizes[4];
    for (int i = 0; i < 4; ++i)
        linesizes[i] = frame->linesize[i];
    av_image_fill_black(frame->data, linesizes, target, full ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG, width, height);

    const double scale = std::min(double(width) / source.width, double(height) / source.height);
    const int w = std::max(2, int(source.width * scale) & ~1);
    const int h = std::max(2, int(source.height * scale) & ~1);
    const int x = ((width - w) / 2) & ~1;
    const int y = ((height - h) / 2) & ~1;
    SwsContextUPtr sws(sws_getContext(source.width, source.height, AVPixelFormat(source.format), w, h, target,
                                      SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!sws)
        return nullptr;
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(target);
    uint8_t* planes[4] = {};
    for (int i = 0; i < 4 && frame->data[i]; ++i) {
        const bool chroma = i == 1 || i == 2;
        const int px = chroma ? (x >> descriptor->log2_chroma_w) : x;
        const int py = chroma ? (y >> descriptor->log2_chroma_h) : y;
        const int bytesPerPixel = (target == AV_PIX_FMT_YUYV422 && i == 0) ? 2 : (target == AV_PIX_FMT_NV12 && i == 1 ? 2 : 1);
        planes[i] = frame->data[i] + py * frame->linesize[i] + (target == AV_PIX_FMT_NV12 && i == 1 ? x : px * bytesPerPixel);
    }
    sws_scale(sws.get(), source.data, source.linesize, 0, source.height, planes, frame->linesize);
    return frame;
}

QByteArray packed(const AVFrame& frame)
{
    const int size = av_image_get_buffer_size(AVPixelFormat(frame.format), frame.width, frame.height, 1);
    QByteArray bytes(size, Qt::Uninitialized);
    av_image_copy_to_buffer(reinterpret_cast<uint8_t*>(bytes.data()), size, frame.data, frame.linesize,
                            AVPixelFormat(frame.format), frame.width, frame.height, 1);
    return bytes;
}

QByteArray jpeg(const AVFrame& frame)
{
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    auto encoder = codec ? makeCodecContext(codec) : nullptr;
    if (!encoder)
        return {};
    encoder->width = frame.width;
    encoder->height = frame.height;
    encoder->pix_fmt = AVPixelFormat(frame.format);
    encoder->time_base = {1, 30};
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = FF_QP2LAMBDA * 4;
    encoder->color_range = AVCOL_RANGE_JPEG;
    if (openCodec(encoder.get(), codec, nullptr) < 0)
        return {};
    auto packet = makeAVPacket();
    AVFrameUPtr copy(av_frame_clone(&frame));
    if (!copy)
        return {};
    copy->quality = encoder->global_quality;
    copy->pts = 0;
    const int sent = avcodec_send_frame(encoder.get(), copy.get());
    const int received = sent < 0 ? sent : avcodec_receive_packet(encoder.get(), packet.get());
    if (received < 0)
        return {};
    return QByteArray(reinterpret_cast<const char*>(packet->data), packet->size);
}

/// source fitted into width x height and sent the way a webcam sends
/// fourcc; empty for a format the fake does not make.
QByteArray encodedAs(uint32_t fourcc, const AVFrame& source, int width, int height)
{
    if (fourcc == V4L2_PIX_FMT_MJPEG || fourcc == V4L2_PIX_FMT_JPEG) {
        if (auto picture = fitted(source, width, height, AV_PIX_FMT_YUVJ422P))
            return jpeg(*picture);
    } else if (fourcc == V4L2_PIX_FMT_YUYV) {
        if (auto picture = fitted(source, width, height, AV_PIX_FMT_YUYV422))
            return packed(*picture);
    } else if (fourcc == V4L2_PIX_FMT_YUV420) {
        if (auto picture = fitted(source, width, height, AV_PIX_FMT_YUV420P))
            return packed(*picture);
    } else if (fourcc == V4L2_PIX_FMT_NV12) {
        if (auto picture = fitted(source, width, height, AV_PIX_FMT_NV12))
            return packed(*picture);
    }
    return {};
}

class ClipFeed {
public:
    ClipFeed(const QString& path, int maxFrames) : frames_(decodeFrames(path, maxFrames)) {}

    QByteArray frame(uint32_t fourcc, int width, int height, int64_t index)
    {
        if (frames_.empty() || width <= 0 || height <= 0)
            return {};
        const size_t at = size_t(index % int64_t(frames_.size()));
        {
            zavo::MutexLocker lock(mutex_);
            auto& cached = cache_[{fourcc, width, height}];
            cached.resize(frames_.size());
            if (!cached[at].isEmpty())
                return cached[at];
        }
        const QByteArray bytes = encodedAs(fourcc, *frames_[at], width, height);
        zavo::MutexLocker lock(mutex_);
        cache_[{fourcc, width, height}][at] = bytes;
        return bytes;
    }

private:
    const std::vector<AVFrameUPtr> frames_;
    zavo::Mutex mutex_;
    std::map<std::tuple<uint32_t, int, int>, std::vector<QByteArray>> cache_ ZAVO_GUARDED_BY(mutex_);
};

}  // namespace

FrameFeed clipFeed(const QString& path, int maxFrames)
{
    quietenLogging();  // swscale warns about the JPEG pixel formats it is given on purpose
    auto feed = std::make_shared<ClipFeed>(path, maxFrames);
    return [feed](uint32_t fourcc, int width, int height, int64_t index) {
        return feed->frame(fourcc, width, height, index);
    };
}

FrameFeed pictureFeed(std::function<QImage(QSize)> draw)
{
    struct Cache {
        zavo::Mutex mutex;
        std::map<std::tuple<uint32_t, int, int>, QByteArray> frames ZAVO_GUARDED_BY(mutex);
    };
    auto cache = std::make_shared<Cache>();
    return [draw = std::move(draw), cache](uint32_t fourcc, int width, int height, int64_t) {
        if (width <= 0 || height <= 0)
            return QByteArray();
        {
            zavo::MutexLocker lock(cache->mutex);
            const auto found = cache->frames.find({fourcc, width, height});
            if (found != cache->frames.end())
                return found->second;
        }
        const QImage picture = draw(QSize(width, height)).convertToFormat(QImage::Format_RGB32);
        auto frame = makeAVFrame();
        frame->format = AV_PIX_FMT_BGRA;  // QImage's RGB32 bytes on a little-endian machine
        frame->width = picture.width();
        frame->height = picture.height();
        if (av_frame_get_buffer(frame.get(), 0) < 0)
            return QByteArray();
        for (int y = 0; y < picture.height(); ++y)
            std::memcpy(frame->data[0] + y * frame->linesize[0], picture.constScanLine(y), size_t(picture.width()) * 4);
        const QByteArray bytes = encodedAs(fourcc, *frame, width, height);
        zavo::MutexLocker lock(cache->mutex);
        cache->frames[{fourcc, width, height}] = bytes;
        return bytes;
    };
}

FrameFeed storedJpegFeed(const QString& path, QSize* size)
{
    auto packets = std::make_shared<std::vector<QByteArray>>();
    int error = 0;
    auto input = openInput(path.toLocal8Bit().constData(), &error);
    if (input && avformat_find_stream_info(input.get(), nullptr) >= 0) {
        const int stream = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (stream >= 0) {
            const auto* parameters = input->streams[stream]->codecpar;
            if (size)
                *size = QSize(parameters->width, parameters->height);
            auto packet = makeAVPacket();
            while (av_read_frame(input.get(), packet.get()) >= 0) {
                if (packet->stream_index == stream)
                    packets->emplace_back(reinterpret_cast<const char*>(packet->data), packet->size);
                av_packet_unref(packet.get());
            }
        }
    }
    const QSize stored = size ? *size : QSize();
    return [packets, stored](uint32_t fourcc, int width, int height, int64_t index) {
        if (packets->empty() || (fourcc != V4L2_PIX_FMT_MJPEG && fourcc != V4L2_PIX_FMT_JPEG)
            || (stored.isValid() && QSize(width, height) != stored))
            return QByteArray();
        return packets->at(size_t(index % int64_t(packets->size())));
    };
}

}  // namespace zavo::testing
