#pragma once
// Turns the bytes of one V4L2 buffer into an NV12 pixel buffer: JPEG frames
// through libavcodec, raw frames through the frame converter. Capture thread
// only.
//
// A webcam's JPEG frames are not always whole (USB packets lost, a frame cut
// at the buffer's end); such a frame is skipped and counted, never shown
// half grey.
#include "base/ZavoExport.h"
#include "media/FFmpeg_p.h"
#include "media/PixelBuffer.h"
#include "media/VideoFrameConverter_p.h"

#include <cstdint>
#include <memory>

namespace zavo::platform::v4l2 {

/// The FFmpeg pixel format of a raw V4L2 format; -1 for compressed or
/// unknown ones.
int rawPixelFormatOf(uint32_t v4l2PixelFormat);

/// Whether data holds a whole JPEG image: it starts with SOI and ends with
/// EOI, before any zero padding the driver leaves behind it.
bool isWholeJpeg(const uint8_t* data, size_t size);

class ZAVO_EXPORT FrameDecoder {
public:
    /// Null when the format cannot be decoded.
    static std::unique_ptr<FrameDecoder> create(uint32_t v4l2PixelFormat, int width, int height, int bytesPerLine,
                                                bool fullRange);

    /// False, and the frame counted as damaged, when the bytes do not make a
    /// whole frame of the negotiated size.
    bool decode(const uint8_t* data, size_t size, PixelBuffer& destination);

    /// For raw formats whose planes come in separate blocks (PipeWire hands
    /// each plane of NV12 or I420 over in its own): planes[i] with its
    /// stride, in the format's plane order.
    bool decodePlanes(const uint8_t* const planes[4], const int strides[4], int count, PixelBuffer& destination);

    int64_t damagedFrames() const { return damaged_; }

private:
    FrameDecoder() = default;
    bool decodeJpeg(const uint8_t* data, size_t size, PixelBuffer& destination);
    bool convertRaw(const uint8_t* data, size_t size, PixelBuffer& destination);

    int width_ = 0;
    int height_ = 0;
    int bytesPerLine_ = 0;
    int rawFormat_ = -1;
    bool fullRange_ = false;
    int64_t damaged_ = 0;
    VideoFrameConverter converter_;
    ffmpeg::AVCodecContextUPtr jpegDecoder_;
    ffmpeg::AVPacketUPtr packet_;
    ffmpeg::AVFrameUPtr decoded_;
};

}  // namespace zavo::platform::v4l2
