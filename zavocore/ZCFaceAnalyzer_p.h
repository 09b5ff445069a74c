#pragma once
// The reference detector's eyes: finds faces in one frame and judges the
// only face, if there is one, as material for a best shot. Not thread-safe;
// the detector uses it from its own thread only.
#include "platform/PixelBuffer.h"
#include "zavocore/ZCBestShot.h"
#include "zavocore/ZCZavoConfiguration.h"

#include <QImage>
#include <QPointF>
#include <QRectF>
#include <QString>
#include <memory>
#include <vector>

namespace zavo::core::detail {

/// A frame's pixels, borrowed: 4 bytes a pixel, BGRA32 or ARGB32.
struct FrameView {
    const uint8_t* data = nullptr;
    int width = 0;
    int height = 0;
    size_t bytesPerRow = 0;
    platform::PixelFormat format = platform::PixelFormat::BGRA32;
};

/// What a frame lacks to be a good shot; None when it is one. In order of
/// precedence for a single face: size, then exposure, then sharpness.
enum class Guidance { None, NoFace, MultipleFaces, TooFar, TooClose, TooDark, TooBright, Blurred };

struct FaceAnalysis {
    /// Every face found, in frame pixels, largest first.
    std::vector<QRectF> faces;
    Guidance guidance = Guidance::NoFace;
    /// The only face's measures (zero unless there is exactly one face).
    ZCQualityScore quality;
    double sharpness = 0;   // variance of the Laplacian
    double brightness = 0;  // mean grey level
    int eyesFound = 0;      // 0..2, one per side of the face

    bool isGood() const { return guidance == Guidance::None; }
};

class FaceAnalyzer {
public:
    explicit FaceAnalyzer(const ZCDetectorSettings& settings);
    ~FaceAnalyzer();
    FaceAnalyzer(const FaceAnalyzer&) = delete;
    FaceAnalyzer& operator=(const FaceAnalyzer&) = delete;

    /// Empty when the cascades loaded, otherwise what is missing.
    QString loadError() const;

    /// Analyses one frame. focus is the point (frame pixels) the user sees as
    /// the centre of the screen. Faces found in the previous frame are looked
    /// for near where they were, with a whole-frame search every few frames
    /// and whenever one is lost: a whole-frame search costs several times more.
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
QImage copyToImage(const FrameView& frame);
}  // namespace zavo::core::detail
