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

/// What a frame lacks to be a good shot; None when it is one. For a single
/// face they are checked in this order and the first that fails is told:
/// what the user must fix first (where to be) comes before what only shows
/// once that is right (blur, shut eyes).
enum class Guidance {
    None,
    NoFace,
    MultipleFaces,
    TooFar,      // too few pixels across the face: come closer
    TooClose,    // the face too large for a portrait: move back
    OffCentre,   // the face at or over an edge of the frame: centre it
    TurnedAway,  // yaw, pitch or roll past the limits: look straight at the camera
    TooDark,
    TooBright,   // bright, or burnt out to white
    Backlit,     // much darker than the frame around it: light behind the user
    Blurred,     // hold still
    EyesShut,
};

/// Six points on a face, in frame pixels. Right and left are the person's
/// own: in an unmirrored frame of someone facing the camera the right eye is
/// on the image's left.
struct ZAVO_EXPORT FaceLandmarks {
    QPointF rightEye, leftEye, noseTip, mouth, rightEar, leftEar;
};

/// Head pose in degrees, fitted from the landmarks to a generic head seen by
/// a pinhole camera, measured against the line from the camera to the head.
/// Signs as in ZCHeadPose.
using FacePose = ZCHeadPose;

struct ZAVO_EXPORT FaceAnalysis {
    /// Every face found, in frame pixels, largest first.
    std::vector<QRectF> faces;
    /// The landmarks of each face in faces, in the same order; empty when
    /// the cascades (which find none) looked for the faces.
    std::vector<FaceLandmarks> landmarks;
    /// The only face's pose, when it has landmarks.
    std::optional<FacePose> pose;
    /// How much the nose tip stands off the line between the ears, against
    /// the ears' half distance (-1..1): the parallax a real, solid head shows
    /// when it turns and a turned photo of a face does not.
    double noseParallax = 0;
    Guidance guidance = Guidance::NoFace;
    /// The only face's measures (zero unless there is exactly one face);
    /// quality holds the raw measures too.
    ZCQualityScore quality;
    double sharpness = 0;   // variance of the Laplacian
    double brightness = 0;  // mean grey level
    int eyesFound = 0;      // 0..2, eyes seen open
    /// The less open eye, 0..1; measured only for a face that passes
    /// everything before the eyes (a turned or blurred face is refused
    /// anyway, and the eyes are the dearest measure), and for the same good
    /// face only every few frames: eyesMeasured says whether in this one
    /// (else the value is the last measure's).
    std::optional<double> eyesOpenness;
    bool eyesMeasured = false;
    /// A small colour signature of the face, to tell one person from another
    /// between frames (FaceAnalyzer::sameFace).
    std::vector<float> appearance;

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
    /// ones. frameTime (seconds, the frame's presentation time) paces the
    /// search while no face is followed: at most about ten a second, and
    /// only when the picture changed since the last one or half a second
    /// went by; the frames between find no face. Without a frame time every
    /// such frame is searched, as a still picture must be.
    FaceAnalysis analyze(const FrameView& frame, QPointF focus, std::optional<double> frameTime = std::nullopt);
    /// Forgets the faces being followed; the next frame is searched whole.
    void reset();
    /// How open the less open of the face's eyes is, 0..1, whatever else is
    /// wrong with the face (analyze measures it only for faces that pass
    /// everything else). For measuring the measure.
    double eyesOpenness(const FrameView& frame, const FaceLandmarks& landmarks);

    static bool supports(platform::PixelFormat format);

    /// What the analyses since construction cost, for tests and benchmarks
    /// (reset() keeps it).
    struct Work {
        uint64_t frames = 0;         // analysed
        uint64_t wholeSearches = 0;  // of the whole frame, for new faces
        uint64_t networkRuns = 0;    // forward passes of the face network
    };
    Work work() const;

    /// How alike two faces' appearance signatures are, 0..1; the same person
    /// from frame to frame, turned or not, stays above 0.5.
    static double appearanceSimilarity(const std::vector<float>& a, const std::vector<float>& b);

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

}  // namespace zavo::core::detail

namespace zavo::core::detail {
/// A deep copy of the frame (RGB32), whatever its channel order.
ZAVO_EXPORT QImage copyToImage(const FrameView& frame);
}  // namespace zavo::core::detail
