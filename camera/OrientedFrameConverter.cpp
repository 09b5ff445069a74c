#include "camera/OrientedFrameConverter_p.h"

namespace zavo::platform {

OrientedFrameConverter::Orientation OrientedFrameConverter::orientationOf(const CaptureConnection* connection,
                                                                          CaptureDevicePosition position)
{
    if (!connection)
        return {};
    return {CaptureConnection::rotationDegreesFor(connection->videoOrientation()), connection->mirrorsFramesFrom(position)};
}

std::shared_ptr<PixelBuffer> OrientedFrameConverter::convert(const std::shared_ptr<PixelBuffer>& source,
                                                             const CaptureConnection* connection,
                                                             CaptureDevicePosition position, PixelFormat format,
                                                             Upright upright)
{
    if (!source)
        return nullptr;
    const auto [rotation, mirrored] = orientationOf(connection, position);
    if (upright == Upright::Kept && rotation == 0 && !mirrored && source->pixelFormat() == format)
        return source;
    const bool sideways = rotation == 90 || rotation == 270;
    const int width = sideways ? source->height() : source->width();
    const int height = sideways ? source->width() : source->height();
    const auto& attributes = pool_ ? pool_->attributes() : PixelBufferAttributes{};
    if (!pool_ || attributes.width != width || attributes.height != height || attributes.pixelFormat != format) {
        pool_ = PixelBufferPool::create({format, width, height});
        description_ = std::make_shared<const FormatDescription>(format, width, height);
    }
    std::shared_ptr<PixelBuffer> destination = pool_ ? pool_->createPixelBuffer() : nullptr;
    converter_.setRotation(rotation);
    converter_.setMirrored(mirrored);
    if (!destination || !converter_.convert(*source, *destination))
        return nullptr;
    return destination;
}

}  // namespace zavo::platform
