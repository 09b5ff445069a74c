#pragma once
// The reference detector's eyes: finds faces in one frame and judges the
// only face, if there is one, as material for a best shot. Not thread-safe;
// the detector uses it from its own thread only.
#include "base/ZavoExport.h"
#include "media/PixelBuffer.h"
#include "zavocore/ZCBestShot.h"
#include "zavocore/ZCZavoConfiguration.h"

#include <QImage>
#include <QPointF>
#include <QRectF>
#include <QString>
#include <memory>
#include <optional>
#include <vector>

namespace zavo::core::detail {

/// A frame's pixels, borrowed: 4 bytes a pixel, BGRA32 or ARGB32.
struct ZAVO_EXPORT FrameView {
    const uint8_t* data = nullptr;
    int width = 0;
    int height = 0;
    size_t bytesPerRow = 0;
    platform::PixelFormat format = platform::PixelFormat::BGRA32;
};

/// What a frame lacks to be a good shot; None when it is one. In order of
/// precedence for a single face: size, then exposure, then sharpness.
enum class Guidance { None, NoFace, MultipleFaces, TooFar, TooClose, TooDark, TooBright, Blurred };

/// Six points on a face, in frame pixels. Right and left are the person's
/// own: in an unmirrored frame of someone facing the camera the right eye is
/// on the image's left.
struct ZAVO_EXPORT FaceLandmarks {
    QPointF rightEye, leftEye, noseTip, mouth, rightEar, leftEar;
};

/// Head pose in degrees, estimated from the landmarks. Zero is a face looking
/// straight at the camera, upright. yaw > 0: turned towards the frame's right
/// edge; pitch > 0: chin up; roll > 0: tilted clockwise as seen in the frame.
/// Pitch is the roughest of the three (the nose's height between eyes and
/// mouth, which also varies from face to face).
struct ZAVO_EXPORT FacePose {
    double yaw = 0;
    double pitch = 0;
    double roll = 0;
};

struct ZAVO_EXPORT FaceAnalysis {
    /// Every face found, in frame pixels, largest first.
    std::vector<QRectF> faces;
    /// The landmarks of each face in faces, in the same order; empty when
    /// the cascades (which find none) looked for the faces.
    std::vector<FaceLandmarks> landmarks;
    /// The only face's pose, when it has landmarks.
    std::optional<FacePose> pose;
    Guidance guidance = Guidance::NoFace;
    /// The only face's measures (zero unless there is exactly one face).
    ZCQualityScore quality;
    double sharpness = 0;   // variance of the Laplacian
    double brightness = 0;  // mean grey level
    int eyesFound = 0;      // 0..2, one per side of the face; with landmarks, open eyes

    bool isGood() const { return guidance == Guidance::None; }
};

class ZAVO_EXPORT FaceAnalyzer {
public:
    explicit FaceAnalyzer(const ZCDetectorSettings& settings);
    ~FaceAnalyzer();
    FaceAnalyzer(const FaceAnalyzer&) = delete;
    FaceAnalyzer& operator=(const FaceAnalyzer&) = delete;

    /// Empty when the cascades loaded, otherwise what is missing. A missing
    /// face network is no error: the cascades then find the faces.
    QString loadError() const;
    /// True when faces are found by the face network (with landmarks), false
    /// when by the cascades.
    bool usesNetwork() const;
    /// Where the face network installed with the framework is, or would be.
    static QString defaultNetworkPath();

    /// Analyses one frame. focus is the point (frame pixels) the user sees as
    /// the centre of the screen. Faces found in the previous frame are looked
    /// for near where they were, with a whole-frame search every few frames
    /// and whenever one is lost: a whole-frame search costs several times more.
    /// The network searches the whole frame in overlapping squares, finer
    /// ones as well when minFaceSize asks for faces too small for the coarse
    /// ones.
    FaceAnalysis analyze(const FrameView& frame, QPointF focus);
    /// Forgets the faces being followed; the next frame is searched whole.
    void reset();

    static bool supports(platform::PixelFormat format);

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

}  // namespace zavo::core::detail

namespace zavo::core::detail {
/// A deep copy of the frame (RGB32), whatever its channel order.
ZAVO_EXPORT QImage copyToImage(const FrameView& frame);
}  // namespace zavo::core::detail
