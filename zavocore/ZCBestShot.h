#pragma once
// The best shot: the frame the detector chose, and why.
#include "base/ZavoExport.h"
#include "media/MediaTime.h"

#include <QImage>
#include <QRectF>
#include <memory>

namespace zavo::core {

struct ZAVO_EXPORT ZCQualityScore {
    double total = 0;       // 0..1, the score the shot was chosen by
    double sharpness = 0;   // 0..1 each
    double exposure = 0;
    double faceSize = 0;
    double centring = 0;
    double pose = 0;
};

class ZAVO_EXPORT ZCBestShot {
public:
    ZCBestShot(QImage image, QRectF faceRect, ZCQualityScore quality, platform::MediaTime frameTime)
        : image_(std::move(image)), faceRect_(faceRect), quality_(quality), frameTime_(frameTime)
    {
    }

    /// The chosen frame, upright, as captured (mirroring included).
    const QImage& image() const { return image_; }
    /// The face box in image pixels.
    QRectF faceRect() const { return faceRect_; }
    const ZCQualityScore& quality() const { return quality_; }
    /// Presentation time of the chosen frame.
    platform::MediaTime frameTime() const { return frameTime_; }

private:
    QImage image_;
    QRectF faceRect_;
    ZCQualityScore quality_;
    platform::MediaTime frameTime_;
};

using ZCBestShotPtr = std::shared_ptr<const ZCBestShot>;

}  // namespace zavo::core
