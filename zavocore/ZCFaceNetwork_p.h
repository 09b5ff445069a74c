#pragma once
// The face network: a small single-shot detector that sees a 128x128 square
// and returns face boxes with six landmarks. FaceAnalyzer decides which
// squares of a frame it looks at. Not thread-safe.
#include "media/PixelBuffer.h"
#include "zavocore/ZCFaceAnalyzer_p.h"

#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>

#include <QString>
#include <vector>

namespace zavo::core::detail {

/// Shrinks region, over twice size each way, to size: bilinearly to twice
/// the size, then halved by area averaging. A low-pass close to one area
/// shrink by the whole factor at a fraction of its cost: a fractional area
/// shrink reads and weighs every pixel of the region, the bilinear step only
/// the ones it samples. twice is scratch the caller may keep between calls.
void shrinkInTwoSteps(const cv::Mat& region, cv::Size size, cv::Mat& twice, cv::Mat& out);

struct NetworkFace {
    cv::Rect2d box;  // frame pixels
    FaceLandmarks landmarks;
    double score = 0;  // 0..1
};

class FaceNetwork {
public:
    static constexpr int kInputSize = 128;

    /// Reads the network; on failure returns false and says why in error.
    bool load(const QString& path, QString& error);
    bool isLoaded() const { return !net_.empty(); }

    /// Appends the faces seen in square, a region of frame (4 bytes a pixel,
    /// in format's order) that lies wholly inside it.
    void detect(const cv::Mat& frame, platform::PixelFormat format, const cv::Rect& square,
                std::vector<NetworkFace>& faces);

    /// One face for each group of overlapping boxes (the same face seen from
    /// several anchors or squares), averaged by score; best first.
    static std::vector<NetworkFace> merge(std::vector<NetworkFace> faces);

    /// Forward passes so far.
    uint64_t runs() const { return runs_; }

private:
    uint64_t runs_ = 0;
    cv::dnn::Net net_;
    std::vector<cv::String> outputNames_;
    std::vector<cv::Point2f> anchors_;  // centres, in input units (0..1)
    // Reused from frame to frame.
    cv::Mat shrunk_, input_, rgb_, blob_;
    std::vector<cv::Mat> outputs_;
};

}  // namespace zavo::core::detail
