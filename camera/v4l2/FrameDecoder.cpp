#include "camera/v4l2/FrameDecoder_p.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cstring>

#include <linux/videodev2.h>

namespace zavo::platform::v4l2 {

int rawPixelFormatOf(uint32_t pixelFormat)
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
    case V4L2_PIX_FMT_XBGR32: return AV_PIX_FMT_BGR0;
    case V4L2_PIX_FMT_RGBX32: return AV_PIX_FMT_RGB0;
    default: return -1;
    }
}

bool isWholeJpeg(const uint8_t* data, size_t size)
{
    while (size > 0 && data[size - 1] == 0)
        --size;
    return size >= 4 && data[0] == 0xff && data[1] == 0xd8 && data[size - 2] == 0xff && data[size - 1] == 0xd9;
}

std::unique_ptr<FrameDecoder> FrameDecoder::create(uint32_t pixelFormat, int width, int height, int bytesPerLine,
                                                   bool fullRange)
{
    if (width <= 0 || height <= 0)
        return nullptr;
    std::unique_ptr<FrameDecoder> decoder(new FrameDecoder);
    decoder->width_ = width;
    decoder->height_ = height;
    decoder->bytesPerLine_ = bytesPerLine;
    decoder->fullRange_ = fullRange;
    if (pixelFormat == V4L2_PIX_FMT_MJPEG || pixelFormat == V4L2_PIX_FMT_JPEG) {
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
        decoder->jpegDecoder_ = codec ? ffmpeg::makeCodecContext(codec) : nullptr;
        decoder->packet_ = ffmpeg::makeAVPacket();
        decoder->decoded_ = ffmpeg::makeAVFrame();
        if (!decoder->jpegDecoder_ || !decoder->packet_ || !decoder->decoded_
            || ffmpeg::openCodec(decoder->jpegDecoder_.get(), codec, nullptr) < 0)
            return nullptr;
        return decoder;
    }
    decoder->rawFormat_ = rawPixelFormatOf(pixelFormat);
    return decoder->rawFormat_ >= 0 ? std::move(decoder) : nullptr;
}

bool FrameDecoder::decode(const uint8_t* data, size_t size, PixelBuffer& destination)
{
    const bool ok = jpegDecoder_ ? decodeJpeg(data, size, destination) : convertRaw(data, size, destination);
    if (!ok)
        ++damaged_;
    return ok;
}

namespace {

/// A decoded JPEG (planar 4:2:0 or 4:2:2, full range) into a full-range NV12
/// buffer of the same size: luma rows copied, chroma interleaved, 4:2:2
/// taking every other chroma row. A third of what the general converter
/// spends on it, and this runs for every webcam frame.
bool copyJpegPlanesToNV12(const AVFrame& decoded, PixelBuffer& destination)
{
    const bool is420 = decoded.format == AV_PIX_FMT_YUVJ420P;
    const bool is422 = decoded.format == AV_PIX_FMT_YUVJ422P;
    if ((!is420 && !is422) || destination.pixelFormat() != PixelFormat::NV12FullRange
        || destination.width() != decoded.width || destination.height() != decoded.height
        || decoded.width % 2 != 0 || decoded.height % 2 != 0)
        return false;
    destination.lockBaseAddress();
    const int width = decoded.width;
    for (int row = 0; row < decoded.height; ++row)
        std::memcpy(destination.baseAddress(0) + size_t(row) * destination.bytesPerRow(0),
                    decoded.data[0] + ptrdiff_t(row) * decoded.linesize[0], size_t(width));
    for (int row = 0; row < decoded.height / 2; ++row) {
        const int sourceRow = is422 ? row * 2 : row;
        const uint8_t* u = decoded.data[1] + ptrdiff_t(sourceRow) * decoded.linesize[1];
        const uint8_t* v = decoded.data[2] + ptrdiff_t(sourceRow) * decoded.linesize[2];
        uint8_t* uv = destination.baseAddress(1) + size_t(row) * destination.bytesPerRow(1);
        for (int x = 0; x < width / 2; ++x) {
            uv[2 * x] = u[x];
            uv[2 * x + 1] = v[x];
        }
    }
    destination.unlockBaseAddress();
    return true;
}

}  // namespace

bool FrameDecoder::decodeJpeg(const uint8_t* data, size_t size, PixelBuffer& destination)
{
    // libavcodec conceals a cut frame (grey below the cut) and says nothing;
    // a frame that is not whole is refused before it gets there.
    if (!isWholeJpeg(data, size) || size > size_t(INT32_MAX))
        return false;
    packet_->data = const_cast<uint8_t*>(data);  // not reference-counted: the decoder copies it
    packet_->size = int(size);
    const int sent = avcodec_send_packet(jpegDecoder_.get(), packet_.get());
    packet_->data = nullptr;
    packet_->size = 0;
    if (sent < 0 || avcodec_receive_frame(jpegDecoder_.get(), decoded_.get()) < 0)
        return false;
    // A frame of another size than negotiated would be stretched; some
    // drivers send a smaller frame while they resynchronise.
    const bool sameSize = decoded_->width == width_ && decoded_->height == height_;
    if (sameSize && copyJpegPlanesToNV12(*decoded_, destination)) {
        av_frame_unref(decoded_.get());
        return true;
    }
    ImagePlanes source;
    source.avPixelFormat = decoded_->format;
    source.width = decoded_->width;
    source.height = decoded_->height;
    source.fullRange = true;  // JPEG samples span the full range
    for (int plane = 0; plane < 4; ++plane) {
        source.data[plane] = decoded_->data[plane];
        source.bytesPerRow[plane] = decoded_->linesize[plane];
    }
    const bool ok = sameSize && converter_.convert(source, destination);
    av_frame_unref(decoded_.get());
    return ok;
}

namespace {

// NV12 in, NV12 of the same size and range out: the rows are copied as they
// are. The general scaler's same-format path left the chroma plane of such
// frames unwritten (a green picture), and a copy is all the work there is.
bool copyNV12(uint8_t* const planes[4], const int strides[4], int width, int height, bool fullRange,
              PixelBuffer& destination)
{
    const PixelFormat wanted = fullRange ? PixelFormat::NV12FullRange : PixelFormat::NV12VideoRange;
    if (destination.pixelFormat() != wanted || destination.width() != width || destination.height() != height
        || strides[0] < width || strides[1] < width)
        return false;
    destination.lockBaseAddress();
    for (int row = 0; row < height; ++row)
        std::memcpy(destination.baseAddress(0) + size_t(row) * destination.bytesPerRow(0),
                    planes[0] + size_t(row) * size_t(strides[0]), size_t(width));
    for (int row = 0; row < (height + 1) / 2; ++row)
        std::memcpy(destination.baseAddress(1) + size_t(row) * destination.bytesPerRow(1),
                    planes[1] + size_t(row) * size_t(strides[1]), size_t((width + 1) / 2 * 2));
    destination.unlockBaseAddress();
    return true;
}

}  // namespace

bool FrameDecoder::decodePlanes(const uint8_t* const planes[4], const int strides[4], int count,
                                PixelBuffer& destination)
{
    const auto format = AVPixelFormat(rawFormat_);
    if (rawFormat_ < 0 || count != av_pix_fmt_count_planes(format)) {
        ++damaged_;
        return false;
    }
    ImagePlanes source;
    source.avPixelFormat = rawFormat_;
    source.width = width_;
    source.height = height_;
    source.fullRange = fullRange_;
    for (int plane = 0; plane < count; ++plane) {
        source.data[plane] = const_cast<uint8_t*>(planes[plane]);
        source.bytesPerRow[plane] = strides[plane];
    }
    const bool ok = (format == AV_PIX_FMT_NV12
                     && copyNV12(source.data, source.bytesPerRow, width_, height_, fullRange_, destination))
        || converter_.convert(source, destination);
    if (!ok)
        ++damaged_;
    return ok;
}

bool FrameDecoder::convertRaw(const uint8_t* data, size_t size, PixelBuffer& destination)
{
    // For planar formats bytesperline is the luma stride, and the chroma
    // planes follow at strides derived from it.
    const auto format = AVPixelFormat(rawFormat_);
    ImagePlanes source;
    source.avPixelFormat = rawFormat_;
    source.width = width_;
    source.height = height_;
    source.fullRange = fullRange_;
    auto* bytes = const_cast<uint8_t*>(data);
    if (av_pix_fmt_count_planes(format) == 1) {
        source.data[0] = bytes;
        source.bytesPerRow[0] = bytesPerLine_ > 0 ? bytesPerLine_ : av_image_get_linesize(format, width_, 0);
        if (source.bytesPerRow[0] <= 0 || size < size_t(source.bytesPerRow[0]) * size_t(height_))
            return false;
    } else {
        const int paddedWidth = std::max(width_, bytesPerLine_);
        if (av_image_fill_linesizes(source.bytesPerRow, format, paddedWidth) < 0)
            return false;
        const int needed = av_image_fill_pointers(source.data, format, height_, bytes, source.bytesPerRow);
        if (needed < 0 || size < size_t(needed))
            return false;
        if (format == AV_PIX_FMT_NV12 && copyNV12(source.data, source.bytesPerRow, width_, height_, fullRange_, destination))
            return true;
    }
    return converter_.convert(source, destination);
}

}  // namespace zavo::platform::v4l2
