#pragma once
// Pixel conversion, scaling, mirroring and rotation of video frames, on top of
// libswscale. Used wherever a frame has to change size or format: camera
// frames into BGRA, decoded frames into ARGB, capture-size frames into the
// encoder's small YUV pictures.
#include "base/ZavoExport.h"
#include "media/PixelBuffer.h"

#include <cstdint>
#include <memory>

namespace zavo::platform {

/// The planes of one image as FFmpeg describes them. Lets callers that hold
/// raw planes (a decoder's frame, a mapped V4L2 buffer, an encoder's picture)
/// use the converter without wrapping them in a PixelBuffer.
struct ZAVO_EXPORT ImagePlanes {
    /// An AVPixelFormat value (for example AV_PIX_FMT_YUYV422 or
    /// AV_PIX_FMT_YUV420P); kept as int so that this header needs no FFmpeg.
    int avPixelFormat = -1;
    int width = 0;
    int height = 0;
    uint8_t* data[4] = {nullptr, nullptr, nullptr, nullptr};
    int bytesPerRow[4] = {0, 0, 0, 0};
    /// For YUV formats: full (JPEG) range instead of video range.
    bool fullRange = false;

    /// The planes of a pixel buffer; the caller keeps the buffer locked while
    /// they are in use.
    static ImagePlanes of(PixelBuffer& buffer);
};

/// The AVPixelFormat value of a pixel buffer format: BGRA32 is AV_PIX_FMT_BGRA,
/// ARGB32 is AV_PIX_FMT_ARGB, both NV12 kinds are AV_PIX_FMT_NV12.
ZAVO_EXPORT int avPixelFormatOf(PixelFormat format);

/// Converts frames from one size and pixel format into another, optionally
/// mirrored and turned. The scaler set-up is cached and rebuilt only when the
/// source or destination geometry, format or range changes; the scratch
/// planes needed for turning are kept too, so a steady stream of frames of
/// one shape makes no heap allocation.
///
/// Not thread-safe: use one converter per queue.
class ZAVO_EXPORT VideoFrameConverter {
public:
    enum class Scaling {
        FastBilinear,  // cheapest; aliases when shrinking a lot
        Bilinear,      // default: shrinking 2x or more first averages whole
                       // pixel blocks (4-byte formats), then filters bilinearly
        Bicubic,       // what the ffmpeg command line uses
        Area,
    };

    VideoFrameConverter();
    ~VideoFrameConverter();
    VideoFrameConverter(VideoFrameConverter&&) noexcept;
    VideoFrameConverter& operator=(VideoFrameConverter&&) noexcept;
    VideoFrameConverter(const VideoFrameConverter&) = delete;
    VideoFrameConverter& operator=(const VideoFrameConverter&) = delete;

    /// Mirrors the picture left to right, after the rotation (so a mirrored
    /// front-camera frame turned for portrait still reads as a mirror).
    void setMirrored(bool mirrored);
    bool isMirrored() const;
    /// Turns the picture clockwise by 0, 90, 180 or 270 degrees; any other
    /// value is rounded down to a multiple of 90. The destination has the
    /// final geometry: a 90-degree turn of a 1280x720 source into a 720x1280
    /// destination keeps the scale.
    void setRotation(int degreesClockwise);
    int rotation() const;
    void setScaling(Scaling scaling);
    Scaling scaling() const;

    /// Fills destination (its size and format decide the result) from source.
    /// Locks both buffers' base addresses for the duration. Returns false when
    /// either format is unsupported or the scaler cannot be set up; the
    /// destination is then left as it was.
    bool convert(PixelBuffer& source, PixelBuffer& destination);
    bool convert(const ImagePlanes& source, PixelBuffer& destination);
    bool convert(const ImagePlanes& source, const ImagePlanes& destination);

    /// How often the scaler was (re)built; for tests and diagnostics.
    int scalerSetupCount() const;

    /// Reverses the four bytes of each of count pixels in place: BGRA into
    /// ARGB and back.
    static void reverseBytesOfPixels(uint8_t* pixels, int count);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

}  // namespace zavo::platform
