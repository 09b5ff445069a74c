#include "zavocore/ZCFaceNetwork_p.h"

#include <opencv2/imgproc.hpp>

#include <QFileInfo>
#include <algorithm>
#include <array>
#include <cmath>

namespace zavo::core::detail {

namespace {

// The network's two heads: a 16x16 grid (8-pixel cells) with two anchors a
// cell and an 8x8 grid (16-pixel cells) with six, every anchor centred in
// its cell. Each anchor has one score and 16 numbers: the box's centre and
// size, then six landmarks, all in input pixels, centres relative to the
// anchor's.
struct Head {
    int grid;
    int anchorsPerCell;
};
constexpr std::array<Head, 2> kHeads{{{16, 2}, {8, 6}}};
constexpr int anchorsOf(Head h) { return h.grid * h.grid * h.anchorsPerCell; }
constexpr int kAnchors = anchorsOf(kHeads[0]) + anchorsOf(kHeads[1]);  // 896
constexpr int kValuesPerAnchor = 16;

// Scores below this are not faces. The network's scores for real faces
// that are big enough in its input are 0.75 and up; face-like texture
// (animal fur, foliage, logos) stays under 0.5.
constexpr double kMinScore = 0.5;
// Boxes that overlap more than this are one face.
constexpr double kSameFaceOverlap = 0.3;
// A box that has this much of its area inside a larger box is part of it.
constexpr double kPartOfFace = 0.6;

double sigmoid(double x) { return 1.0 / (1.0 + std::exp(-std::clamp(x, -60.0, 60.0))); }

double iou(const cv::Rect2d& a, const cv::Rect2d& b)
{
    const double common = (a & b).area();
    const double all = a.area() + b.area() - common;
    return all > 0 ? common / all : 0;
}

// The landmarks in the network's order.
std::array<QPointF*, 6> pointsOf(FaceLandmarks& l)
{
    return {&l.rightEye, &l.leftEye, &l.noseTip, &l.mouth, &l.rightEar, &l.leftEar};
}

}  // namespace

void shrinkInTwoSteps(const cv::Mat& region, cv::Size size, cv::Mat& twice, cv::Mat& out)
{
    cv::resize(region, twice, size * 2, 0, 0, cv::INTER_LINEAR);
    cv::resize(twice, out, size, 0, 0, cv::INTER_AREA);
}

bool FaceNetwork::load(const QString& path, QString& error)
{
    net_ = cv::dnn::Net();
    if (!QFileInfo(path).isFile()) {
        error = QStringLiteral("no face network at %1").arg(path);
        return false;
    }
    try {
        cv::dnn::Net net = cv::dnn::readNetFromONNX(path.toStdString());
        const std::vector<cv::String> names = net.getUnconnectedOutLayersNames();
        // One run on a blank input proves the outputs are the ones decoded
        // below, and takes the first run's set-up cost out of the first frame.
        const int shape[] = {1, kInputSize, kInputSize, 3};
        net.setInput(cv::Mat(4, shape, CV_32F, cv::Scalar(0)));
        std::vector<cv::Mat> outputs;
        net.forward(outputs, names);
        std::vector<cv::String> ordered(4);
        for (size_t i = 0; i < outputs.size() && i < names.size(); ++i) {
            const cv::Mat& out = outputs[i];
            if (out.dims != 3 || (out.size[2] != 1 && out.size[2] != kValuesPerAnchor))
                continue;
            const int head = out.size[1] == anchorsOf(kHeads[0]) ? 0 : out.size[1] == anchorsOf(kHeads[1]) ? 1 : -1;
            if (head >= 0)
                ordered[size_t(head + (out.size[2] == 1 ? 0 : 2))] = names[i];
        }
        if (outputs.size() != 4 || std::any_of(ordered.begin(), ordered.end(), [](const cv::String& n) { return n.empty(); })) {
            error = QStringLiteral("%1 is not the expected face network (its outputs differ)").arg(path);
            return false;
        }
        net_ = std::move(net);
        outputNames_ = std::move(ordered);
    } catch (const cv::Exception& e) {
        error = QStringLiteral("cannot read face network %1: %2").arg(path, QString::fromStdString(e.msg));
        return false;
    }
    anchors_.clear();
    anchors_.reserve(kAnchors);
    for (const Head& head : kHeads) {
        for (int y = 0; y < head.grid; ++y) {
            for (int x = 0; x < head.grid; ++x) {
                for (int k = 0; k < head.anchorsPerCell; ++k)
                    anchors_.emplace_back((x + 0.5f) / head.grid, (y + 0.5f) / head.grid);
            }
        }
    }
    return true;
}

void FaceNetwork::detect(const cv::Mat& frame, platform::PixelFormat format, const cv::Rect& square,
                         std::vector<NetworkFace>& faces)
{
    if (net_.empty() || square.width <= 0 || square.height != square.width
        || (square & cv::Rect(0, 0, frame.cols, frame.rows)) != square)
        return;
    // A large square costs a sixth of one area shrink this way, and for
    // squares up to 720 pixels the bilinear step still reads most of them.
    const cv::Mat region = frame(square);
    if (square.width > 2 * kInputSize) {
        shrinkInTwoSteps(region, cv::Size(kInputSize, kInputSize), shrunk_, input_);
    } else {
        cv::resize(region, input_, cv::Size(kInputSize, kInputSize), 0, 0, cv::INTER_LINEAR);
    }
    if (format == platform::PixelFormat::ARGB32) {
        rgb_.create(kInputSize, kInputSize, CV_8UC3);
        const int fromTo[] = {1, 0, 2, 1, 3, 2};  // A,R,G,B -> R,G,B
        cv::mixChannels(&input_, 1, &rgb_, 1, fromTo, 3);
    } else {
        cv::cvtColor(input_, rgb_, cv::COLOR_BGRA2RGB);
    }
    // The network takes rows of RGB pixels (NHWC), scaled to -1..1.
    rgb_.convertTo(blob_, CV_32FC3, 2.0 / 255.0, -1.0);
    const int shape[] = {1, kInputSize, kInputSize, 3};
    net_.setInput(cv::Mat(4, shape, CV_32F, blob_.data));
    net_.forward(outputs_, outputNames_);
    ++runs_;

    const double scale = double(square.width) / kInputSize;  // frame pixels per input pixel
    int offset = 0;
    for (size_t h = 0; h < kHeads.size(); ++h) {
        const float* scores = outputs_[h].ptr<float>();
        const float* values = outputs_[h + 2].ptr<float>();
        const int count = outputs_[h].size[1];
        for (int j = 0; j < count; ++j) {
            const double score = sigmoid(scores[j]);
            if (score < kMinScore)
                continue;
            const float* v = values + size_t(j) * kValuesPerAnchor;
            const cv::Point2f anchor = anchors_[size_t(offset + j)] * float(kInputSize);
            const auto toFrame = [&](double x, double y) {
                return QPointF(square.x + (anchor.x + x) * scale, square.y + (anchor.y + y) * scale);
            };
            NetworkFace face;
            face.score = score;
            const QPointF centre = toFrame(v[0], v[1]);
            const double w = v[2] * scale, hgt = v[3] * scale;
            if (w <= 0 || hgt <= 0)
                continue;
            face.box = cv::Rect2d(centre.x() - w / 2, centre.y() - hgt / 2, w, hgt);
            const auto points = pointsOf(face.landmarks);
            for (size_t k = 0; k < points.size(); ++k)
                *points[k] = toFrame(v[4 + 2 * k], v[5 + 2 * k]);
            faces.push_back(face);
        }
        offset += count;
    }
}

std::vector<NetworkFace> FaceNetwork::merge(std::vector<NetworkFace> faces)
{
    std::sort(faces.begin(), faces.end(), [](const NetworkFace& a, const NetworkFace& b) { return a.score > b.score; });
    std::vector<bool> taken(faces.size(), false);
    std::vector<NetworkFace> merged;
    for (size_t i = 0; i < faces.size(); ++i) {
        if (taken[i])
            continue;
        // A score-weighted mean over the group steadies the box and the
        // landmarks from frame to frame better than the best box alone.
        double weight = 0, x = 0, y = 0, w = 0, h = 0;
        std::array<QPointF, 6> points{};
        for (size_t j = i; j < faces.size(); ++j) {
            if (taken[j] || (j != i && iou(faces[i].box, faces[j].box) <= kSameFaceOverlap))
                continue;
            taken[j] = true;
            NetworkFace& f = faces[j];
            const double s = f.score;
            weight += s;
            x += s * f.box.x;
            y += s * f.box.y;
            w += s * f.box.width;
            h += s * f.box.height;
            const auto from = pointsOf(f.landmarks);
            for (size_t k = 0; k < from.size(); ++k)
                points[k] += s * *from[k];
        }
        NetworkFace face;
        face.score = faces[i].score;
        face.box = cv::Rect2d(x / weight, y / weight, w / weight, h / weight);
        const auto to = pointsOf(face.landmarks);
        for (size_t k = 0; k < to.size(); ++k)
            *to[k] = points[k] / weight;
        merged.push_back(face);
    }
    // A face filling most of a square also gives boxes for parts of itself
    // (an eye and a cheek, say) that overlap its box too little to be
    // grouped with it: a box mostly inside a larger one is such a part.
    std::vector<NetworkFace> whole;
    for (const NetworkFace& face : merged) {
        const bool part = std::any_of(merged.begin(), merged.end(), [&](const NetworkFace& other) {
            return other.box.area() > face.box.area() && (other.box & face.box).area() > kPartOfFace * face.box.area();
        });
        if (!part)
            whole.push_back(face);
    }
    return whole;
}

}  // namespace zavo::core::detail
