#include "zavocore/ZCFaceAnalyzer_p.h"

#include "base/Log_p.h"
#include "zavocore/ZCFaceNetwork_p.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include <QDir>
#include <QFileInfo>
#include <algorithm>
#include <cmath>
#include <dlfcn.h>

#ifndef ZAVO_FACE_CASCADE
#define ZAVO_FACE_CASCADE "/usr/share/opencv4/haarcascades/haarcascade_frontalface_default.xml"
#endif
#ifndef ZAVO_CASCADE_DIR
#define ZAVO_CASCADE_DIR "/usr/share/opencv4/haarcascades"
#endif
// The face network: where it is installed relative to this library, and
// where a build tree keeps its copy.
#ifndef ZAVO_FACE_NETWORK_FROM_LIBRARY
#define ZAVO_FACE_NETWORK_FROM_LIBRARY "../share/zavocamera/models/face_detection_front_128x128.onnx"
#endif
#ifndef ZAVO_FACE_NETWORK_IN_BUILD
#define ZAVO_FACE_NETWORK_IN_BUILD ""
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
// Size verdicts change only once a face is clearly past the limit, so that
// boxes which wobble by a few pixels from frame to frame around it do not
// flip the verdict back and forth. A face counts as cut off once more than
// kCutOffEnter of its width lies outside the frame, and whole again once
// kCutOffLeave of it lies inside every edge; too far below minFacePixels,
// near enough again kTooFarLeave above it.
constexpr double kCutOffEnter = 0.03;
constexpr double kCutOffLeave = 0.03;
constexpr double kTooFarLeave = 1.1;
constexpr double kCoarseCameraFaceShare = 1.0 / 3.0;

// The network finds faces from about 14 to 120 of its 128 input pixels wide,
// surely from 16 on. The whole-frame search looks at squares as large as the
// frame's shorter side, then, while the smallest face asked for would be
// under kSmallestFaceInInput there, at squares half as large, and so on.
constexpr double kSmallestFaceInInput = 16.0;
// Neighbouring squares overlap by at least a fifth, so a face cut by one
// square's edge is usually whole in the next; and every new face is looked
// at again in a square fitted to it.
constexpr double kSquareStride = 0.8;
// Following: one square around the known faces, the face's width on each
// side of them, so that a face moving fast between frames stays inside.
constexpr double kFollowMargin = 0.75;
// A whole-frame search costs two or three network runs, a follow one: every
// this many frames, so that at 30 fps a face walking in is seen within half
// a second and nine frames in ten cost one run.
constexpr int kNetworkFullScanInterval = 15;
// Faces somewhat smaller than minFaceSize still count: a face right at the
// limit is not dropped in every other frame as its box jitters.
constexpr double kMinFaceTolerance = 0.85;
// Pose: the nose tip's height between the eye line and the mouth in a level
// face (0.5 on the test portraits), and how far it stands out of the face,
// as a fraction of the eye-to-mouth distance.
constexpr double kLevelNoseHeight = 0.5;
constexpr double kNoseDepth = 0.4;
// Eyes are looked for at the landmarks in squares this large (a fraction of
// the distance between the eyes), scaled to kEyePatchSize.
constexpr double kEyePatch = 0.7;
constexpr int kEyePatchSize = 40;

// A new face seen in a square fitted to it scores 0.8 or more; face-like
// texture that scraped past the network's threshold in a coarse square
// stays near it.
constexpr double kConfirmScore = 0.65;
// The second, tighter look at a new face: a square this many times its width.
constexpr double kCloserSquare = 1.6;
// Eyes closer together than this share of the box do not belong to a face
// the network really saw (0.35-0.45 on frontal faces, 0.25 in profile).
constexpr double kMinEyeDistance = 0.15;

constexpr double kDegrees = 180.0 / 3.14159265358979323846;

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

// The same for a region over twice the size each way, shrunk in two steps
// as the network's input is, and only the small picture turned grey.
cv::Mat shrunkGreyRegion(const cv::Mat& frame, cv::Rect region, cv::Size size, platform::PixelFormat format)
{
    if (region.width <= 2 * size.width || region.height <= 2 * size.height)
        return greyRegion(frame, region, size, format);
    cv::Mat twice, shrunk;
    shrinkInTwoSteps(frame(region), size, twice, shrunk);
    return toGrey(shrunk, format);
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

// The square of the given side centred on centre, moved inside the frame.
cv::Rect squareAround(cv::Point2d centre, double side, cv::Size frame)
{
    const int s = std::clamp(cvRound(side), 1, std::min(frame.width, frame.height));
    const int x = std::clamp(cvRound(centre.x - s / 2.0), 0, frame.width - s);
    const int y = std::clamp(cvRound(centre.y - s / 2.0), 0, frame.height - s);
    return cv::Rect(x, y, s, s);
}

// Evenly spaced starts of squares of side s covering length, neighbours
// overlapping by at least (1 - kSquareStride) of a square.
std::vector<int> squareStarts(int length, int s)
{
    if (length <= s)
        return {0};
    const int count = int(std::ceil((length - s) / (s * kSquareStride))) + 1;
    std::vector<int> starts;
    for (int i = 0; i < count; ++i)
        starts.push_back(cvRound(double(i) * (length - s) / (count - 1)));
    return starts;
}

cv::Point2d centreOf(const cv::Rect2d& r) { return {r.x + r.width / 2, r.y + r.height / 2}; }

// Whether face is one of faces, seen again.
bool isAmong(const NetworkFace& face, const std::vector<NetworkFace>& faces)
{
    return std::any_of(faces.begin(), faces.end(), [&](const NetworkFace& f) {
        return (f.box & face.box).area() > 0.3 * std::min(f.box.area(), face.box.area());
    });
}

// The network's box runs from the brows to the chin. The face box the
// component reports, sizes and judges (and whose thresholds in
// ZCDetectorSettings were set on the cascades' boxes) reaches up to the
// hairline: on the test portraits it is a tenth wider and its centre an
// eighth of its width higher.
cv::Rect2d faceBoxOf(const cv::Rect2d& box)
{
    const double side = 1.1 * box.width;
    const cv::Point2d centre = centreOf(box) - cv::Point2d(0, 0.12 * box.width);
    return {centre.x - side / 2, centre.y - side / 2, side, side};
}

// Whether the landmarks are laid out as on a face: eyes apart by a fair share
// of the box, nose and mouth below them in that order. Face-like texture
// that fools the network (an animal's eye, foliage) rarely gets all of it.
bool plausible(const FaceLandmarks& l, const cv::Rect2d& box)
{
    const QPointF eyes = l.leftEye - l.rightEye;
    const double between = std::hypot(eyes.x(), eyes.y());
    if (between < kMinEyeDistance * box.width || eyes.x() <= 0)
        return false;
    // Heights below the eye line, along the face's own vertical.
    const QPointF down(-eyes.y() / between, eyes.x() / between);
    const QPointF eyeMid = (l.leftEye + l.rightEye) / 2;
    const auto below = [&](QPointF p) { return QPointF::dotProduct(p - eyeMid, down); };
    return below(l.noseTip) > 0 && below(l.mouth) > below(l.noseTip);
}

FacePose poseOf(const FaceLandmarks& l)
{
    FacePose pose;
    const QPointF eyes = l.leftEye - l.rightEye;
    pose.roll = std::atan2(eyes.y(), eyes.x()) * kDegrees;
    // Undo the roll about the eyes' midpoint so that yaw and pitch are
    // measured along the face's own axes.
    const QPointF eyeMid = (l.leftEye + l.rightEye) / 2;
    const double c = std::cos(-pose.roll / kDegrees), s = std::sin(-pose.roll / kDegrees);
    const auto level = [&](QPointF p) {
        p -= eyeMid;
        return QPointF(c * p.x() - s * p.y(), s * p.x() + c * p.y());
    };
    const QPointF nose = level(l.noseTip), mouth = level(l.mouth);
    const QPointF rightEar = level(l.rightEar), leftEar = level(l.leftEar);
    // Turning the head moves the nose tip, which stands out about as far as
    // the ears are apart, sideways against the ears' midpoint.
    const double halfEars = (leftEar.x() - rightEar.x()) / 2;
    if (halfEars > 0)
        pose.yaw = std::atan2(nose.x() - (leftEar.x() + rightEar.x()) / 2, halfEars) * kDegrees;
    // Raising the chin moves the nose tip up towards the eye line.
    if (mouth.y() > 0)
        pose.pitch = std::atan((kLevelNoseHeight - nose.y() / mouth.y()) / kNoseDepth) * kDegrees;
    return pose;
}

}  // namespace

struct FaceAnalyzer::Impl {
    ZCDetectorSettings settings;
    cv::CascadeClassifier faceCascade;
    cv::CascadeClassifier verifierCascade;
    cv::CascadeClassifier eyeCascade;
    QString loadError;
    FaceNetwork network;

    // Faces being followed by the network, in frame pixels, that frame's
    // size, and the squares they were last looked for in.
    std::vector<NetworkFace> followed;
    cv::Size followedFrameSize;
    std::vector<cv::Rect> followSquares;

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
    void judge(const cv::Mat& frame, const cv::Rect2d& wholeFace, platform::PixelFormat format, QPointF focus,
               FaceAnalysis& analysis);
    // The last size verdicts on the only face, for the margins above.
    bool wasCutOff = false;
    bool wasTooFar = false;
    int findEyes(const cv::Mat& face);
    int findOpenEyes(const cv::Mat& frame, const FaceLandmarks& landmarks, platform::PixelFormat format);

    std::vector<NetworkFace> findNetworkFaces(const cv::Mat& frame, platform::PixelFormat format);
    std::vector<NetworkFace> searchWhole(const cv::Mat& frame, platform::PixelFormat format);
    std::vector<NetworkFace> follow(const cv::Mat& frame, platform::PixelFormat format);
    std::vector<cv::Rect> squaresFor(const std::vector<NetworkFace>& faces, cv::Size frame) const;
    bool seenCloser(const cv::Mat& frame, platform::PixelFormat format, const NetworkFace& face);
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
    QString networkError;
    const QString network = settings.faceNetworkPath.isEmpty() ? defaultNetworkPath() : settings.faceNetworkPath;
    if (!d->network.load(network, networkError))
        qCWarning(platform::lcCore).noquote() << networkError + QStringLiteral("; faces are found by the Haar cascades, without landmarks");
}

FaceAnalyzer::~FaceAnalyzer() = default;

QString FaceAnalyzer::loadError() const { return d->loadError; }

bool FaceAnalyzer::usesNetwork() const { return d->network.isLoaded(); }

QString FaceAnalyzer::defaultNetworkPath()
{
    // Installed: a fixed path from this library's folder, so the package
    // works under any prefix. A build tree keeps its copy elsewhere.
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&FaceAnalyzer::defaultNetworkPath), &info) && info.dli_fname) {
        const QString installed = QDir::cleanPath(QFileInfo(QString::fromLocal8Bit(info.dli_fname)).absolutePath()
                                                  + QLatin1Char('/') + QStringLiteral(ZAVO_FACE_NETWORK_FROM_LIBRARY));
        if (QFileInfo(installed).isFile() || QStringLiteral(ZAVO_FACE_NETWORK_IN_BUILD).isEmpty())
            return installed;
    }
    return QStringLiteral(ZAVO_FACE_NETWORK_IN_BUILD);
}

bool FaceAnalyzer::supports(platform::PixelFormat format)
{
    return format == platform::PixelFormat::BGRA32 || format == platform::PixelFormat::ARGB32;
}

void FaceAnalyzer::reset()
{
    d->tracked.clear();
    d->followed.clear();
    d->followSquares.clear();
    d->framesSinceFullScan = 0;
    d->wasCutOff = d->wasTooFar = false;
}

FaceAnalysis FaceAnalyzer::analyze(const FrameView& view, QPointF focus)
{
    FaceAnalysis analysis;
    if (!d->loadError.isEmpty() || !supports(view.format) || !view.data || view.width <= 0 || view.height <= 0)
        return analysis;
    const cv::Mat frame(view.height, view.width, CV_8UC4, const_cast<uint8_t*>(view.data), view.bytesPerRow);
    if (d->network.isLoaded()) {
        std::vector<NetworkFace> faces = d->findNetworkFaces(frame, view.format);
        std::sort(faces.begin(), faces.end(), [](const NetworkFace& a, const NetworkFace& b) {
            return a.box.area() > b.box.area();
        });
        const cv::Rect2d bounds(0, 0, frame.cols, frame.rows);
        for (const NetworkFace& face : faces) {
            const cv::Rect2d inFrame = faceBoxOf(face.box) & bounds;
            analysis.faces.emplace_back(inFrame.x, inFrame.y, inFrame.width, inFrame.height);
            analysis.landmarks.push_back(face.landmarks);
        }
        if (faces.size() > 1) {
            analysis.guidance = Guidance::MultipleFaces;
        } else if (faces.size() == 1) {
            analysis.pose = poseOf(faces.front().landmarks);
            d->judge(frame, faceBoxOf(faces.front().box), view.format, focus, analysis);
        }
        if (faces.size() != 1)
            d->wasCutOff = d->wasTooFar = false;
        return analysis;
    }
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
        d->judge(frame, cv::Rect2d(scaled(faces.front(), 1.0 / scale)), view.format, focus, analysis);
    }
    if (faces.size() != 1)
        d->wasCutOff = d->wasTooFar = false;
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

void FaceAnalyzer::Impl::judge(const cv::Mat& frame, const cv::Rect2d& wholeFace, platform::PixelFormat format,
                               QPointF focus, FaceAnalysis& analysis)
{
    const cv::Rect face = cv::Rect(cvRound(wholeFace.x), cvRound(wholeFace.y), cvRound(wholeFace.width),
                                   cvRound(wholeFace.height))
        & cv::Rect(0, 0, frame.cols, frame.rows);
    if (face.width <= 0 || face.height <= 0)
        return;
    const cv::Mat normalized = shrunkGreyRegion(frame, face, cv::Size(kQualitySize, kQualitySize), format);
    const int nativeSize = std::min(kQualitySize, face.width);
    const cv::Mat forSharpness =
        nativeSize == kQualitySize ? normalized : greyRegion(frame, face, cv::Size(nativeSize, nativeSize), format);

    cv::Mat laplacian;
    cv::Laplacian(forSharpness, laplacian, CV_32F);
    cv::Scalar mean, deviation;
    cv::meanStdDev(laplacian, mean, deviation);
    analysis.sharpness = deviation[0] * deviation[0];
    analysis.brightness = cv::mean(normalized)[0];
    const double clipped = double(cv::countNonZero(normalized <= 8) + cv::countNonZero(normalized >= 247))
        / normalized.total();


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
    // How far the face reaches past the frame's edges (negative: how far
    // inside it stays), as a share of its width.
    const double overhang = std::max({-wholeFace.x, -wholeFace.y, wholeFace.br().x - frame.cols,
                                      wholeFace.br().y - frame.rows})
        / wholeFace.width;
    wasCutOff = wasCutOff ? overhang > -kCutOffLeave : overhang > kCutOffEnter;
    const double nearEnough = std::min(double(settings.minFacePixels), kCoarseCameraFaceShare * shortSide);
    wasTooFar = wholeFace.width < nearEnough * (wasTooFar ? kTooFarLeave : 1.0);
    if (wasTooFar)
        analysis.guidance = Guidance::TooFar;
    else if (wasCutOff)
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
    if (analysis.pose && !analysis.landmarks.empty()) {
        // Landmarks tell the pose; the eye cascade, which hardly fires on a
        // closed eye, tells whether the eyes at them are open.
        if (analysis.isGood())
            analysis.eyesFound = findOpenEyes(frame, analysis.landmarks.front(), format);
        const FacePose& pose = *analysis.pose;
        q.pose = 0.4 * ramp(std::abs(pose.yaw), 30, 5) + 0.2 * ramp(std::abs(pose.roll), 25, 5)
            + 0.2 * ramp(std::abs(pose.pitch), 30, 10) + 0.2 * analysis.eyesFound / 2.0;
    } else {
        // Left half against the mirrored right half: a frontal face is nearly
        // symmetric; eyes are the stronger sign but the cascade misses them often.
        const int half = kQualitySize / 2;
        cv::Mat mirroredRight;
        cv::flip(normalized(cv::Rect(half, kQualitySize / 8, half * 3 / 4, kQualitySize * 3 / 4)), mirroredRight, 1);
        cv::Mat correlation;
        cv::matchTemplate(normalized(cv::Rect(half / 4, kQualitySize / 8, half * 3 / 4, kQualitySize * 3 / 4)),
                          mirroredRight, correlation, cv::TM_CCOEFF_NORMED);
        const double symmetry = std::clamp(double(correlation.at<float>(0, 0)), 0.0, 1.0);
        if (analysis.isGood())
            analysis.eyesFound = findEyes(greyRegion(frame, face, cv::Size(kEyeSearchSize, kEyeSearchSize), format));
        q.pose = 0.6 * analysis.eyesFound / 2.0 + 0.4 * symmetry;
    }
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

int FaceAnalyzer::Impl::findOpenEyes(const cv::Mat& frame, const FaceLandmarks& l, platform::PixelFormat format)
{
    const double between = std::hypot(l.leftEye.x() - l.rightEye.x(), l.leftEye.y() - l.rightEye.y());
    const cv::Rect bounds(0, 0, frame.cols, frame.rows);
    int open = 0;
    for (const QPointF& eye : {l.rightEye, l.leftEye}) {
        const cv::Rect patch = squareAround({eye.x(), eye.y()}, kEyePatch * between, frame.size()) & bounds;
        if (patch.width < 8 || patch.height < 8)
            continue;
        const cv::Mat grey = greyRegion(frame, patch, cv::Size(kEyePatchSize, kEyePatchSize), format);
        std::vector<cv::Rect> found;
        eyeCascade.detectMultiScale(grey, found, 1.15, 2, 0, cv::Size(kEyePatchSize / 2, kEyePatchSize / 2),
                                    cv::Size(kEyePatchSize * 7 / 8, kEyePatchSize * 7 / 8));
        open += found.empty() ? 0 : 1;
    }
    return open;
}

// ------------------------------------------------------------ the network

std::vector<NetworkFace> FaceAnalyzer::Impl::findNetworkFaces(const cv::Mat& frame, platform::PixelFormat format)
{
    if (frame.size() != followedFrameSize) {
        followedFrameSize = frame.size();
        followed.clear();
        followSquares.clear();
    }
    std::vector<NetworkFace> faces;
    if (!followed.empty())
        faces = follow(frame, format);
    const bool lost = faces.size() < followed.size();
    if (followed.empty() || lost || ++framesSinceFullScan >= kNetworkFullScanInterval) {
        framesSinceFullScan = 0;
        // Faces already followed keep the boxes found in their own squares;
        // the whole-frame search only adds faces that are new.
        std::vector<NetworkFace> fresh;
        for (const NetworkFace& face : searchWhole(frame, format)) {
            if (!isAmong(face, faces))
                fresh.push_back(face);
        }
        if (!fresh.empty()) {
            // A new face is measured again in a square fitted to it, as it
            // will be while it is followed: a box from a coarse square is
            // rougher, and may be only part of a face cut by that square's
            // edge. What the closer look does not confirm was not a face.
            std::vector<NetworkFace> confirmed;
            for (const cv::Rect& square : squaresFor(fresh, frame.size())) {
                network.detect(frame, format, square, confirmed);
                followSquares.push_back(square);
            }
            for (NetworkFace& face : FaceNetwork::merge(std::move(confirmed))) {
                if (!isAmong(face, faces) && face.score >= kConfirmScore && seenCloser(frame, format, face))
                    faces.push_back(face);
            }
        }
    }
    const double minFace = kMinFaceTolerance * settings.minFaceSize * std::min(frame.cols, frame.rows);
    faces.erase(std::remove_if(faces.begin(), faces.end(),
                               [&](const NetworkFace& f) { return f.box.width < minFace || !plausible(f.landmarks, f.box); }),
                faces.end());
    followed = faces;
    // A square whose face has gone is not looked at again.
    followSquares.erase(std::remove_if(followSquares.begin(), followSquares.end(),
                                       [&](const cv::Rect& square) {
                                           return std::none_of(faces.begin(), faces.end(), [&](const NetworkFace& f) {
                                               return cv::Rect2d(square).contains(centreOf(f.box));
                                           });
                                       }),
                        followSquares.end());
    return faces;
}

bool FaceAnalyzer::Impl::seenCloser(const cv::Mat& frame, platform::PixelFormat format, const NetworkFace& face)
{
    // Face-like texture scores high in one framing and low in the next (an
    // animal's eye went from 0.5 to 0.7 between two); a real face keeps its
    // score and its box in a tighter square too. Paid once per new face.
    std::vector<NetworkFace> closer;
    network.detect(frame, format, squareAround(centreOf(face.box), kCloserSquare * face.box.width, frame.size()), closer);
    return std::any_of(closer.begin(), closer.end(), [&](const NetworkFace& f) {
        return f.score >= kConfirmScore && (f.box & face.box).area() > 0.5 * std::max(f.box.area(), face.box.area());
    });
}

std::vector<NetworkFace> FaceAnalyzer::Impl::searchWhole(const cv::Mat& frame, platform::PixelFormat format)
{
    const int shortSide = std::min(frame.cols, frame.rows);
    const double minFace = std::max(1.0, settings.minFaceSize * shortSide);
    std::vector<NetworkFace> found;
    for (int side = shortSide; side >= FaceNetwork::kInputSize / 4; side /= 2) {
        for (int y : squareStarts(frame.rows, side)) {
            for (int x : squareStarts(frame.cols, side))
                network.detect(frame, format, cv::Rect(x, y, side, side), found);
        }
        if (minFace * FaceNetwork::kInputSize / side >= kSmallestFaceInInput)
            break;
    }
    return FaceNetwork::merge(std::move(found));
}

std::vector<cv::Rect> FaceAnalyzer::Impl::squaresFor(const std::vector<NetworkFace>& faces, cv::Size frame) const
{
    // One square around all the faces when they are close enough together
    // for the smallest to stay well visible in it, else one each.
    cv::Rect2d all = faces.front().box;
    double widest = 0, narrowest = all.width;
    for (const NetworkFace& face : faces) {
        all |= face.box;
        widest = std::max(widest, face.box.width);
        narrowest = std::min(narrowest, face.box.width);
    }
    const double side = std::max(all.width, all.height) + 2 * kFollowMargin * widest;
    if (side <= std::min(frame.width, frame.height) && narrowest * FaceNetwork::kInputSize / side >= 1.5 * kSmallestFaceInInput)
        return {squareAround(centreOf(all), side, frame)};
    std::vector<cv::Rect> squares;
    for (const NetworkFace& face : faces)
        squares.push_back(squareAround(centreOf(face.box), face.box.width * (1 + 2 * kFollowMargin), frame));
    return squares;
}

std::vector<NetworkFace> FaceAnalyzer::Impl::follow(const cv::Mat& frame, platform::PixelFormat format)
{
    // The squares stay where they are while every face is still well inside
    // one and would get a square of about the same size: a frame the same as
    // the last then gives the same faces, and the face frame on the screen
    // does not shiver.
    const std::vector<cv::Rect> wanted = squaresFor(followed, frame.size());
    const auto inside = [&](const NetworkFace& face, const cv::Rect& square) {
        // At the frame's edge a square cannot move on: no margin needed there.
        const double m = 0.25 * face.box.width;
        const cv::Rect2d& b = face.box;
        return (square.x == 0 || b.x >= square.x + m) && (square.y == 0 || b.y >= square.y + m)
            && (square.x + square.width == frame.cols || b.x + b.width <= square.x + square.width - m)
            && (square.y + square.height == frame.rows || b.y + b.height <= square.y + square.height - m);
    };
    const bool keep = followSquares.size() == wanted.size()
        && std::all_of(wanted.begin(), wanted.end(), [&](const cv::Rect& w) {
               return std::any_of(followSquares.begin(), followSquares.end(), [&](const cv::Rect& old) {
                   return std::abs(w.width - old.width) <= 0.2 * old.width;
               });
           })
        && std::all_of(followed.begin(), followed.end(), [&](const NetworkFace& face) {
               return std::any_of(followSquares.begin(), followSquares.end(),
                                  [&](const cv::Rect& square) { return inside(face, square); });
           });
    if (!keep)
        followSquares = wanted;
    std::vector<NetworkFace> found;
    for (const cv::Rect& square : followSquares)
        network.detect(frame, format, square, found);
    return FaceNetwork::merge(std::move(found));
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
