#pragma once
// The best shot: the frame the detector chose, and why.
#include "base/ZavoExport.h"
#include "media/MediaTime.h"

#include <QImage>
#include <QPointF>
#include <QRectF>
#include <memory>
#include <optional>

namespace zavo::core {

/// Head pose in degrees off looking straight at the camera. yaw > 0: the
/// face turned towards the picture's right edge; pitch > 0: chin up;
/// roll > 0: the head tilted clockwise as the picture shows it.
struct ZAVO_EXPORT ZCHeadPose {
    double yaw = 0;
    double pitch = 0;
    double roll = 0;
};

/// How the shot's face measured. The 0..1 scores are what the shot was
/// ranked by (1 is best); the raw measures behind them follow.
struct ZAVO_EXPORT ZCQualityScore {
    double total = 0;       // 0..1, the score the shot was chosen by
    double sharpness = 0;   // 0..1 each
    double exposure = 0;
    double faceSize = 0;
    double centring = 0;
    double pose = 0;
    double eyesOpen = 0;    // how open the less open eye is, 0 (shut) to 1

    ZCHeadPose headPose;           // degrees; zero when no keypoints were found
    double sharpnessVariance = 0;  // variance of the Laplacian at the face's own resolution
    double brightness = 0;         // mean grey of the face, 0..255
    double faceToBackground = 1;   // the face's brightness against the frame around it
    double facePixels = 0;         // width of the face box in pixels
};

/// Six points on the face in the shot's own pixels. Right and left are the
/// person's own: in an unmirrored picture of someone facing the camera the
/// right eye is on the picture's left.
struct ZAVO_EXPORT ZCFaceKeypoints {
    QPointF rightEye, leftEye, noseTip, mouth, rightEar, leftEar;
};

class ZAVO_EXPORT ZCBestShot {
public:
    ZCBestShot(QImage image, QRectF faceRect, ZCQualityScore quality, platform::MediaTime frameTime,
               std::optional<ZCFaceKeypoints> keypoints = std::nullopt)
        : image_(std::move(image)), faceRect_(faceRect), quality_(quality), frameTime_(frameTime),
          keypoints_(keypoints)
    {
    }

    /// The chosen frame, upright, as captured (mirroring included).
    const QImage& image() const { return image_; }
    /// The face box in image pixels.
    QRectF faceRect() const { return faceRect_; }
    const ZCQualityScore& quality() const { return quality_; }
    /// Presentation time of the chosen frame.
    platform::MediaTime frameTime() const { return frameTime_; }
    /// The face's keypoints in image pixels; absent when faces were found
    /// without the face network.
    const std::optional<ZCFaceKeypoints>& keypoints() const { return keypoints_; }

private:
    QImage image_;
    QRectF faceRect_;
    ZCQualityScore quality_;
    platform::MediaTime frameTime_;
    std::optional<ZCFaceKeypoints> keypoints_;
};

using ZCBestShotPtr = std::shared_ptr<const ZCBestShot>;

}  // namespace zavo::core
