#pragma once
// One media sample: a video frame (pixel buffer) with its presentation time
// and format. SampleBuffer is a cheap handle: copying it shares the frame.
#include "base/ZavoExport.h"
#include "media/MediaTime.h"
#include "media/PixelBuffer.h"

#include <memory>

namespace zavo::platform {

class ZAVO_EXPORT FormatDescription {
public:
    enum class MediaType { Video };

    FormatDescription(PixelFormat subtype, int width, int height) : subtype_(subtype), width_(width), height_(height) {}
    static std::shared_ptr<const FormatDescription> forImageBuffer(const PixelBuffer& buffer)
    {
        return std::make_shared<const FormatDescription>(buffer.pixelFormat(), buffer.width(), buffer.height());
    }

    MediaType mediaType() const { return MediaType::Video; }
    /// The pixel format's four-character code.
    uint32_t mediaSubType() const { return static_cast<uint32_t>(subtype_); }
    PixelFormat pixelFormat() const { return subtype_; }
    int width() const { return width_; }
    int height() const { return height_; }

private:
    PixelFormat subtype_;
    int width_;
    int height_;
};

class ZAVO_EXPORT SampleBuffer {
public:
    SampleBuffer() = default;
    SampleBuffer(std::shared_ptr<PixelBuffer> imageBuffer, MediaTime presentationTime,
                 std::shared_ptr<const FormatDescription> format, MediaTime duration = MediaTime::invalid())
        : imageBuffer_(std::move(imageBuffer)), format_(std::move(format)), pts_(presentationTime), duration_(duration)
    {
    }

    bool isValid() const { return imageBuffer_ != nullptr; }
    const std::shared_ptr<PixelBuffer>& imageBuffer() const { return imageBuffer_; }
    const std::shared_ptr<const FormatDescription>& formatDescription() const { return format_; }
    MediaTime presentationTimeStamp() const { return pts_; }
    MediaTime duration() const { return duration_; }
    /// Whether the picture shows the scene as a mirror does (front cameras'
    /// frames, as the user sees them): what is left for the user is on the
    /// picture's left. Frames say false unless their source knows better.
    bool isMirrored() const { return mirrored_; }
    void setMirrored(bool mirrored) { mirrored_ = mirrored; }

private:
    std::shared_ptr<PixelBuffer> imageBuffer_;
    std::shared_ptr<const FormatDescription> format_;
    MediaTime pts_ = MediaTime::invalid();
    MediaTime duration_ = MediaTime::invalid();
    bool mirrored_ = false;
};

}  // namespace zavo::platform
