#include "zavocore/ZCFaceAnalyzer_p.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include <QFileInfo>
#include <algorithm>
#include <cmath>

#ifndef ZAVO_FACE_CASCADE
#define ZAVO_FACE_CASCADE "/usr/share/opencv4/haarcascades/haarcascade_frontalface_default.xml"
#endif
#ifndef ZAVO_CASCADE_DIR
#define ZAVO_CASCADE_DIR "/usr/share/opencv4/haarcascades"
#endif

namespace zavo::core::detail {

namespace {

// Search parameters, tuned on the test clips and photos at a 256-pixel
// detection copy: with them the frontal cascade finds exactly the faces
// there are in every frame of the clips.
constexpr double kScanScaleFactor = 1.2;
constexpr int kScanNeighbours = 3;
// Following a known face: finer scales, a narrow size band, a small region.
constexpr double kTrackScaleFactor = 1.1;
constexpr double kTrackMinSize = 0.75;
constexpr double kTrackMaxSize = 1.35;
constexpr double kTrackMargin = 0.5;  // of the face's width, on each side
constexpr int kFullScanInterval = 6;  // frames
// The frontal cascade also fires on some face-like patterns (a round logo on
// an arm, say). A second cascade trained on other data confirms each new
// face: real faces get 10 or more neighbours from it, such patterns 4 or so.
constexpr int kVerifierFaceSize = 48;
constexpr int kVerifierMinNeighbours = 7;
// Quality is measured on the face scaled to this size (never enlarged for
// sharpness, which enlarging would understate); eyes are looked for at a
// smaller size, where the cascade costs a third as much.
constexpr int kQualitySize = 128;
constexpr int kEyeSearchSize = 96;
constexpr double kSharpnessForFullScore = 1500.0;
constexpr double kSizeForFullScore = 0.5;

QString cascadePath(const QString& configured, const char* builtIn)
{
    return configured.isEmpty() ? QString::fromUtf8(builtIn) : configured;
}

bool load(cv::CascadeClassifier& cascade, const QString& path, QStringList& missing)
{
    // CascadeClassifier::load prints to stderr and may throw on a malformed
    // file; check the file first and keep exceptions inside.
    bool loaded = false;
    if (QFileInfo(path).isFile()) {
        try {
            loaded = cascade.load(path.toStdString());
        } catch (const cv::Exception&) {
            loaded = false;
        }
    }
    if (!loaded)
        missing << path;
    return loaded;
}

// Grey from 4-byte pixels, whichever order their channels come in. Going
// to grey before scaling moves a quarter of the bytes through the scaler.
cv::Mat toGrey(const cv::Mat& fourChannel, platform::PixelFormat format)
{
    cv::Mat grey;
    if (format == platform::PixelFormat::ARGB32) {
        cv::Mat bgra(fourChannel.size(), CV_8UC4);
        const int fromTo[] = {3, 0, 2, 1, 1, 2, 0, 3};  // A,R,G,B -> B,G,R,A
        cv::mixChannels(&fourChannel, 1, &bgra, 1, fromTo, 4);
        cv::cvtColor(bgra, grey, cv::COLOR_BGRA2GRAY);
    } else {
        cv::cvtColor(fourChannel, grey, cv::COLOR_BGRA2GRAY);
    }
    return grey;
}

cv::Mat scaledGrey(const cv::Mat& grey, cv::Size size)
{
    if (grey.size() == size)
        return grey;
    cv::Mat scaled;
    cv::resize(grey, scaled, size, 0, 0, size.width < grey.cols ? cv::INTER_AREA : cv::INTER_LINEAR);
    return scaled;
}

// A region of the frame, scaled to size, in grey.
cv::Mat greyRegion(const cv::Mat& frame, cv::Rect region, cv::Size size, platform::PixelFormat format)
{
    return scaledGrey(toGrey(frame(region), format), size);
}

double ramp(double value, double zeroAt, double oneAt)
{
    return std::clamp((value - zeroAt) / (oneAt - zeroAt), 0.0, 1.0);
}

cv::Rect scaled(const cv::Rect& r, double factor)
{
    return cv::Rect(cvRound(r.x * factor), cvRound(r.y * factor), cvRound(r.width * factor),
                    cvRound(r.height * factor));
}

double overlap(const cv::Rect& a, const cv::Rect& b)
{
    const double common = (a & b).area();
    return common / std::min(a.area(), b.area());
}

}  // namespace

struct FaceAnalyzer::Impl {
    ZCDetectorSettings settings;
    cv::CascadeClassifier faceCascade;
    cv::CascadeClassifier verifierCascade;
    cv::CascadeClassifier eyeCascade;
    QString loadError;

    // Faces being followed, in detection-copy pixels, and that copy's size.
    std::vector<cv::Rect> tracked;
    cv::Size detectionSize;
    int framesSinceFullScan = 0;

    std::vector<cv::Rect> findFaces(const cv::Mat& frame, const cv::Mat& small, platform::PixelFormat format,
                                    double scale);
    std::vector<cv::Rect> fullScan(const cv::Mat& frame, const cv::Mat& small, platform::PixelFormat format,
                                   double scale);
    std::vector<cv::Rect> follow(const cv::Mat& small, int minFace);
    bool verify(const cv::Mat& frame, const cv::Rect& face, platform::PixelFormat format);
    void judge(const cv::Mat& frame, const cv::Rect& face, platform::PixelFormat format, QPointF focus,
               FaceAnalysis& analysis);
    int findEyes(const cv::Mat& face);
    int minFaceIn(const cv::Mat& frame, double scale) const
    {
        return std::max(24, cvRound(settings.minFaceSize * std::min(frame.cols, frame.rows) * scale));
    }
};

FaceAnalyzer::FaceAnalyzer(const ZCDetectorSettings& settings) : d(std::make_unique<Impl>())
{
    d->settings = settings;
    QStringList missing;
    load(d->faceCascade, cascadePath(settings.faceCascadePath, ZAVO_FACE_CASCADE), missing);
    load(d->verifierCascade,
         cascadePath(settings.verifierCascadePath, ZAVO_CASCADE_DIR "/haarcascade_frontalface_alt.xml"), missing);
    load(d->eyeCascade, cascadePath(settings.eyeCascadePath, ZAVO_CASCADE_DIR "/haarcascade_eye.xml"), missing);
    if (!missing.isEmpty())
        d->loadError = QStringLiteral("cannot load cascade %1").arg(missing.join(QStringLiteral(", ")));
}

FaceAnalyzer::~FaceAnalyzer() = default;

QString FaceAnalyzer::loadError() const { return d->loadError; }

bool FaceAnalyzer::supports(platform::PixelFormat format)
{
    return format == platform::PixelFormat::BGRA32 || format == platform::PixelFormat::ARGB32;
}

void FaceAnalyzer::reset()
{
    d->tracked.clear();
    d->framesSinceFullScan = 0;
}

FaceAnalysis FaceAnalyzer::analyze(const FrameView& view, QPointF focus)
{
    FaceAnalysis analysis;
    if (!d->loadError.isEmpty() || !supports(view.format) || !view.data || view.width <= 0 || view.height <= 0)
        return analysis;
    const cv::Mat frame(view.height, view.width, CV_8UC4, const_cast<uint8_t*>(view.data), view.bytesPerRow);
    const double scale = std::min(1.0, double(d->settings.detectionLongSide) / std::max(view.width, view.height));
    const cv::Size detectionSize(cvRound(view.width * scale), cvRound(view.height * scale));
    const cv::Mat smallGrey = scaledGrey(toGrey(frame, view.format), detectionSize);

    std::vector<cv::Rect> faces = d->findFaces(frame, smallGrey, view.format, scale);
    std::sort(faces.begin(), faces.end(), [](const cv::Rect& a, const cv::Rect& b) { return a.area() > b.area(); });
    const cv::Rect bounds(0, 0, frame.cols, frame.rows);
    for (const cv::Rect& face : faces) {
        const cv::Rect inFrame = scaled(face, 1.0 / scale) & bounds;
        analysis.faces.emplace_back(inFrame.x, inFrame.y, inFrame.width, inFrame.height);
    }
    if (faces.empty()) {
        analysis.guidance = Guidance::NoFace;
    } else if (faces.size() > 1) {
        analysis.guidance = Guidance::MultipleFaces;
    } else {
        const QRectF& face = analysis.faces.front();
        d->judge(frame, cv::Rect(int(face.x()), int(face.y()), int(face.width()), int(face.height())), view.format,
                 focus, analysis);
    }
    return analysis;
}

std::vector<cv::Rect> FaceAnalyzer::Impl::findFaces(const cv::Mat& frame, const cv::Mat& small,
                                                    platform::PixelFormat format, double scale)
{
    if (small.size() != detectionSize) {
        detectionSize = small.size();
        tracked.clear();
    }
    std::vector<cv::Rect> faces;
    const bool scanWhole = tracked.empty() || framesSinceFullScan + 1 >= kFullScanInterval;
    if (scanWhole) {
        faces = fullScan(frame, small, format, scale);
        framesSinceFullScan = 0;
    } else {
        faces = follow(small, minFaceIn(frame, scale));
        ++framesSinceFullScan;
        if (faces.size() < tracked.size())
            framesSinceFullScan = kFullScanInterval;  // lost one: look everywhere next time
    }
    tracked = faces;
    return faces;
}

std::vector<cv::Rect> FaceAnalyzer::Impl::fullScan(const cv::Mat& frame, const cv::Mat& small,
                                                   platform::PixelFormat format, double scale)
{
    const int minFace = minFaceIn(frame, scale);
    std::vector<cv::Rect> candidates;
    faceCascade.detectMultiScale(small, candidates, kScanScaleFactor, kScanNeighbours, 0, cv::Size(minFace, minFace));
    std::vector<cv::Rect> faces;
    for (const cv::Rect& candidate : candidates) {
        if (verify(frame, scaled(candidate, 1.0 / scale), format))
            faces.push_back(candidate);
    }
    return faces;
}

std::vector<cv::Rect> FaceAnalyzer::Impl::follow(const cv::Mat& small, int minFace)
{
    const cv::Rect bounds(0, 0, small.cols, small.rows);
    std::vector<cv::Rect> faces;
    for (const cv::Rect& known : tracked) {
        const int margin = cvRound(known.width * kTrackMargin);
        const cv::Rect region = cv::Rect(known.x - margin, known.y - margin, known.width + 2 * margin,
                                         known.height + 2 * margin) & bounds;
        const int minSize = std::max(minFace, cvRound(known.width * kTrackMinSize));
        const int maxSize = std::max(minSize + 1, cvRound(known.width * kTrackMaxSize));
        if (region.width < minSize || region.height < minSize)
            continue;
        std::vector<cv::Rect> found;
        faceCascade.detectMultiScale(small(region), found, kTrackScaleFactor, kScanNeighbours, 0,
                                     cv::Size(minSize, minSize), cv::Size(maxSize, maxSize));
        if (found.empty())
            continue;
        cv::Rect best = *std::max_element(found.begin(), found.end(),
                                          [](const cv::Rect& a, const cv::Rect& b) { return a.area() < b.area(); });
        best += region.tl();
        // Two followed faces that moved onto one another are one face now.
        const bool seen = std::any_of(faces.begin(), faces.end(), [&](const cv::Rect& f) { return overlap(f, best) > 0.5; });
        if (!seen)
            faces.push_back(best);
    }
    return faces;
}

bool FaceAnalyzer::Impl::verify(const cv::Mat& frame, const cv::Rect& face, platform::PixelFormat format)
{
    const int pad = face.width / 4;
    const cv::Rect region = cv::Rect(face.x - pad, face.y - pad, face.width + 2 * pad, face.height + 2 * pad)
        & cv::Rect(0, 0, frame.cols, frame.rows);
    if (region.empty() || face.width <= 0)
        return false;
    const double factor = double(kVerifierFaceSize) / face.width;
    const cv::Size size(std::max(1, cvRound(region.width * factor)), std::max(1, cvRound(region.height * factor)));
    const cv::Mat grey = greyRegion(frame, region, size, format);
    std::vector<cv::Rect> found;
    std::vector<int> neighbours;
    verifierCascade.detectMultiScale(grey, found, neighbours, 1.1, 1, 0,
                                     cv::Size(kVerifierFaceSize * 5 / 8, kVerifierFaceSize * 5 / 8),
                                     cv::Size(kVerifierFaceSize * 3 / 2, kVerifierFaceSize * 3 / 2));
    return std::any_of(neighbours.begin(), neighbours.end(), [](int n) { return n >= kVerifierMinNeighbours; });
}

void FaceAnalyzer::Impl::judge(const cv::Mat& frame, const cv::Rect& face, platform::PixelFormat format,
                               QPointF focus, FaceAnalysis& analysis)
{
    if (face.width <= 0 || face.height <= 0)
        return;
    const cv::Mat faceGrey = toGrey(frame(face), format);
    const cv::Mat normalized = scaledGrey(faceGrey, cv::Size(kQualitySize, kQualitySize));
    const int nativeSize = std::min(kQualitySize, face.width);
    const cv::Mat forSharpness = scaledGrey(faceGrey, cv::Size(nativeSize, nativeSize));

    cv::Mat laplacian;
    cv::Laplacian(forSharpness, laplacian, CV_32F);
    cv::Scalar mean, deviation;
    cv::meanStdDev(laplacian, mean, deviation);
    analysis.sharpness = deviation[0] * deviation[0];
    analysis.brightness = cv::mean(normalized)[0];
    const double clipped = double(cv::countNonZero(normalized <= 8) + cv::countNonZero(normalized >= 247))
        / normalized.total();

    // Left half against the mirrored right half: a frontal face is nearly
    // symmetric; eyes are the stronger sign but the cascade misses them often.
    const int half = kQualitySize / 2;
    cv::Mat mirroredRight;
    cv::flip(normalized(cv::Rect(half, kQualitySize / 8, half * 3 / 4, kQualitySize * 3 / 4)), mirroredRight, 1);
    cv::Mat correlation;
    cv::matchTemplate(normalized(cv::Rect(half / 4, kQualitySize / 8, half * 3 / 4, kQualitySize * 3 / 4)),
                      mirroredRight, correlation, cv::TM_CCOEFF_NORMED);
    const double symmetry = std::clamp(double(correlation.at<float>(0, 0)), 0.0, 1.0);

    const double shortSide = std::min(frame.cols, frame.rows);
    const double size = face.width / shortSide;
    const QPointF centre(face.x + face.width / 2.0, face.y + face.height / 2.0);
    const QPointF offCentre = centre - focus;
    const double distance = std::hypot(offCentre.x(), offCentre.y()) / (shortSide / 2);

    ZCQualityScore& q = analysis.quality;
    q.sharpness = ramp(std::log(std::max(analysis.sharpness, 1.0)), std::log(settings.minSharpness),
                       std::log(kSharpnessForFullScore));
    q.exposure = std::clamp(1.0 - std::abs(analysis.brightness - 128.0) / 128.0 - clipped, 0.0, 1.0);
    q.faceSize = std::clamp(size / kSizeForFullScore, 0.0, 1.0);
    q.centring = std::clamp(1.0 - distance, 0.0, 1.0);
    if (size < settings.goodFaceSize)
        analysis.guidance = Guidance::TooFar;
    else if (size > settings.maxFaceSize)
        analysis.guidance = Guidance::TooClose;
    else if (analysis.brightness < settings.minBrightness)
        analysis.guidance = Guidance::TooDark;
    else if (analysis.brightness > settings.maxBrightness)
        analysis.guidance = Guidance::TooBright;
    else if (analysis.sharpness < settings.minSharpness)
        analysis.guidance = Guidance::Blurred;
    else
        analysis.guidance = Guidance::None;

    // Pose only ranks frames that can become the shot; the eye search is the
    // dearest part of judging a face, so it is left out for the others.
    if (analysis.isGood())
        analysis.eyesFound = findEyes(scaledGrey(faceGrey, cv::Size(kEyeSearchSize, kEyeSearchSize)));
    q.pose = 0.6 * analysis.eyesFound / 2.0 + 0.4 * symmetry;
    q.total = 0.35 * q.sharpness + 0.2 * q.exposure + 0.15 * q.faceSize + 0.15 * q.centring + 0.15 * q.pose;
}

int FaceAnalyzer::Impl::findEyes(const cv::Mat& face)
{
    // Eyes sit in the band from 15% to 60% of the face's height.
    const int size = face.cols;
    const cv::Rect band(0, size * 15 / 100, size, size * 45 / 100);
    std::vector<cv::Rect> eyes;
    eyeCascade.detectMultiScale(face(band), eyes, 1.2, 2, 0, cv::Size(size / 8, size / 8), cv::Size(size / 3, size / 3));
    bool left = false;
    bool right = false;
    for (const cv::Rect& eye : eyes)
        (eye.x + eye.width / 2 < size / 2 ? left : right) = true;
    return int(left) + int(right);
}

}  // namespace zavo::core::detail

namespace zavo::core::detail {

QImage copyToImage(const FrameView& view)
{
    if (!view.data || !FaceAnalyzer::supports(view.format))
        return {};
    QImage image(view.width, view.height, QImage::Format_RGB32);
    if (image.isNull())
        return {};
    const cv::Mat source(view.height, view.width, CV_8UC4, const_cast<uint8_t*>(view.data), view.bytesPerRow);
    cv::Mat target(view.height, view.width, CV_8UC4, image.bits(), size_t(image.bytesPerLine()));
    if (view.format == platform::PixelFormat::BGRA32) {
        static_assert(Q_BYTE_ORDER == Q_LITTLE_ENDIAN, "RGB32 is B, G, R, A in memory only on little-endian machines");
        source.copyTo(target);
    } else {
        const int fromTo[] = {3, 0, 2, 1, 1, 2, 0, 3};  // A,R,G,B -> B,G,R,A
        cv::mixChannels(&source, 1, &target, 1, fromTo, 4);
    }
    return image;
}

}  // namespace zavo::core::detail
