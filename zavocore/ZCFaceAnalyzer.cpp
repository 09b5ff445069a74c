#include "zavocore/ZCFaceAnalyzer_p.h"

#include "base/Log_p.h"
#include "zavocore/ZCFaceNetwork_p.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
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
// Without landmarks, the symmetry that stands for the pose is measured on
// the face scaled to this size.
constexpr int kQualitySize = 128;
constexpr double kSizeForFullScore = 0.5;
// Size verdicts change only once a face is clearly past the limit, so that
// boxes which wobble by a few pixels from frame to frame around it do not
// flip the verdict back and forth: too far below minFacePixels, near enough
// again kTooFarLeave above it (and likewise kMarginLeave, kTooLargeLeave).
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
// A whole-frame search costs two or three network runs, a follow one. While
// faces are followed each square of that search is looked at once every
// this many frames, one square at a time: at 30 fps a face walking in beside
// them is seen within half a second, and most frames cost one run.
constexpr int kNetworkFullScanInterval = 15;
// While no face is followed there is nothing to look at closely, and
// searching every frame whole was most of a waiting session's CPU. The
// whole frame is then searched at most this often (frame time; a tenth of a
// second less a margin for rounded timestamps: every third frame at 30 fps,
// every second at 15), and the frames in between get no network run: a face
// walking in is boxed within a tenth of a second and a search's time...
constexpr double kIdleSearchInterval = 0.095;
// ...and only when the picture changed since the last search, or after
// this long: an empty room that stays as it was holds no new face. The
// look for a change is a coarse grey picture, a cell for each kLookCell
// pixels square read from every kLookRowStep-th row (about 0.2 ms for
// 720x1280, a fifteenth of a network run): a cell changed when its grey
// moved by more than kLookChange, the picture when more than
// kLookChangedShare of its cells did. A face of the smallest size searched
// for covers some thirty cells of a 720x1280 frame, while a sensor's noise
// averages away within a cell.
constexpr double kIdleSearchLongest = 0.495;
constexpr int kLookCell = 16;
constexpr int kLookRowStep = 8;
constexpr int kLookChange = 8;
constexpr double kLookChangedShare = 0.0025;
// A face lost a moment ago is most likely still there, blurred by a quick
// movement or turned for an instant: for this long after a face was seen
// every frame is searched, as while it was followed.
constexpr double kLostFaceSearch = 0.5;
// Faces somewhat smaller than minFaceSize still count: a face right at the
// limit is not dropped in every other frame as its box jitters.
constexpr double kMinFaceTolerance = 0.85;
// Pose: a generic head, the network's six points in millimetres with the
// origin between the eyes, x towards the person's left (the picture's right
// when unmirrored), y down, z away from the camera. Interpupillary distance
// 63 mm (the adult average); the heights and the ears' spread are where this
// network puts its points on frontal faces (its nose point sits above the
// tip, its ear points on the face's outline inside the tragions). The depths
// are not anatomical: the network's ear points follow the visible outline of
// the face, which turns with the head at about half the tragions' depth.
// They were fitted on heads rendered at known angles from photos of two
// people (bench/core/make_pose_set.py) and checked on two others.
constexpr std::array<std::array<double, 3>, 6> kHeadModel = {{
    {-31.5, 0, 0},   // right eye
    {31.5, 0, 0},    // left eye
    {0, 33, -28},    // nose
    {0, 66, -16},    // mouth
    {-66, 17, 50},   // right ear
    {66, 17, 50},    // left ear
}};
// A webcam sees about 60 degrees across its longer side.
constexpr double kFocalPerLongSide = 0.87;
// Eyes are looked for at the landmarks in squares this large (a fraction of
// the distance between the eyes), scaled to kEyePatchSize. The eye cascades
// fire many times, at neighbouring places and sizes, on an open eye, and
// seldom on a shut one: the count of raw hits (before grouping, which
// throws most of a weak eye's away) is the eye's openness, full at
// kOpenEyeHits. The plain eye cascade misses eyes behind spectacle frames,
// the one trained with glasses finds them: the better of the two counts.
constexpr double kEyePatch = 0.8;
constexpr int kEyePatchSize = 48;
constexpr double kOpenEyeHits = 8.0;
// An eye with fewer hits than this share of the other eye's is shut, however
// many it has: on the labelled photos a squinting woman's shut eye had 0.08 of
// her open one's, while open pairs, turned 15 degrees or behind glasses,
// stayed above 0.2.
constexpr double kOneEyeShut = 0.12;
constexpr int kEyesEvery = 3;
// Where the eyes sit in a frontal cascade's face box.
constexpr double kCascadeEyeX = 0.31, kCascadeEyeY = 0.4;
// The eye cascades ship inside the library (OpenCV's, with their licence in
// the files): the eyes are judged whether or not OpenCV's data is installed.
constexpr const char* kEmbeddedEyeCascade = ":/zavocore/cascades/haarcascade_eye.xml";
constexpr const char* kEmbeddedGlassesCascade = ":/zavocore/cascades/haarcascade_eye_tree_eyeglasses.xml";
// Measures of light and sharpness look at the middle of the face, from the
// brows to below the mouth and between the cheeks: hair, background and
// the ears say nothing of the face and change with the framing. Fractions
// of the face box (which reaches up to the hairline).
constexpr double kInnerLeft = 0.22, kInnerRight = 0.78, kInnerTop = 0.3, kInnerBottom = 0.88;
// The frame around the face, for backlight: the face box grown by this
// share of its width on every side, sampled on a coarse grid.
constexpr double kSurroundings = 0.6;
constexpr int kSurroundingsGrid = 48;
// Size and place verdicts change back only this far past their limits.
constexpr double kMarginLeave = 0.03;
constexpr double kTooLargeLeave = 0.95;
// Appearance: hue and saturation of the middle of the face, coarse enough
// that turning the head or a passing shadow changes little.
constexpr int kHueBins = 12, kSaturationBins = 4, kAppearanceSize = 32;

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

cv::Point2d toPoint(QPointF p) { return {p.x(), p.y()}; }

// Fits the generic head to the six points seen by a pinhole camera whose
// axis goes through the frame's centre.
FacePose poseOf(const FaceLandmarks& l, cv::Size frame)
{
    std::vector<cv::Point3d> model;
    for (const auto& p : kHeadModel)
        model.emplace_back(p[0], p[1], p[2]);
    const std::vector<cv::Point2d> image = {toPoint(l.rightEye), toPoint(l.leftEye), toPoint(l.noseTip),
                                            toPoint(l.mouth),    toPoint(l.rightEar), toPoint(l.leftEar)};
    const double focal = kFocalPerLongSide * std::max(frame.width, frame.height);
    const cv::Matx33d camera(focal, 0, frame.width / 2.0, 0, focal, frame.height / 2.0, 0, 0, 1);
    cv::Vec3d rvec, tvec;
    FacePose pose;
    try {
        if (!cv::solvePnP(model, image, camera, cv::noArray(), rvec, tvec, false, cv::SOLVEPNP_SQPNP))
            return pose;
    } catch (const cv::Exception&) {
        return pose;  // degenerate points (all on one spot): no pose rather than none at all
    }
    cv::Matx33d r;
    cv::Rodrigues(rvec, r);
    // Where the face looks (the model's -z) and the line of sight to it: a
    // face looking at the camera from the frame's edge looks along the line
    // of sight, not along the camera's axis.
    const cv::Vec3d forward(-r(0, 2), -r(1, 2), -r(2, 2));
    const cv::Vec3d sight = tvec * (1.0 / std::max(cv::norm(tvec), 1e-9));
    const double sightYaw = std::atan2(sight[0], sight[2]) * kDegrees;
    const double sightPitch = std::atan2(sight[1], std::hypot(sight[0], sight[2])) * kDegrees;
    pose.yaw = std::atan2(forward[0], -forward[2]) * kDegrees + sightYaw;
    pose.pitch = std::atan2(-forward[1], std::hypot(forward[0], forward[2])) * kDegrees - sightPitch;
    // Roll: the eye line (the model's x) against the frame's horizontal.
    pose.roll = std::atan2(r(1, 0), r(0, 0)) * kDegrees;
    return pose;
}

// The nose tip's sideways offset from the ears' midpoint against half their
// distance, along the face's own eye line: the depth parallax a solid head
// shows when it turns, which a flat picture of a face turned in the hand
// lacks (it narrows, but its nose stays between its ears).
double noseParallaxOf(const FaceLandmarks& l)
{
    const QPointF eyes = l.leftEye - l.rightEye;
    const double length = std::hypot(eyes.x(), eyes.y());
    if (length <= 0)
        return 0;
    const QPointF along = eyes / length;
    const auto x = [&](QPointF p) { return QPointF::dotProduct(p, along); };
    const double halfEars = (x(l.leftEar) - x(l.rightEar)) / 2;
    if (halfEars <= 0)
        return 0;
    return std::clamp((x(l.noseTip) - (x(l.leftEar) + x(l.rightEar)) / 2) / halfEars, -1.0, 1.0);
}

bool loadEmbedded(cv::CascadeClassifier& cascade, const char* resource)
{
    QFile file(QString::fromLatin1(resource));
    if (!file.open(QIODevice::ReadOnly))
        return false;
    try {
        const cv::FileStorage storage(file.readAll().toStdString(), cv::FileStorage::READ | cv::FileStorage::MEMORY);
        return cascade.read(storage.getFirstTopLevelNode());
    } catch (const cv::Exception&) {
        return false;
    }
}

}  // namespace

struct FaceAnalyzer::Impl {
    ZCDetectorSettings settings;
    cv::CascadeClassifier faceCascade;
    cv::CascadeClassifier verifierCascade;
    cv::CascadeClassifier eyeCascade;
    cv::CascadeClassifier glassesCascade;
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
    uint64_t frames = 0;
    uint64_t wholeSearches = 0;
    // For the cadence of the search while no face is followed: frame times
    // of the last whole-frame search and of the last face seen, and the
    // coarse look of the frame last searched.
    std::optional<double> searchedAt;
    std::optional<double> faceSeenAt;
    cv::Mat searchedLook, look;
    // Whether this frame can go without a search: none is due yet.
    bool resting(const cv::Mat& frame, platform::PixelFormat format, std::optional<double> frameTime, bool following)
    {
        if (!frameTime || following)
            return false;
        // Timestamps that go back (a restarted camera) make no rest.
        const auto since = [&](const std::optional<double>& at) {
            return at && *frameTime >= *at ? *frameTime - *at : std::numeric_limits<double>::infinity();
        };
        if (since(faceSeenAt) < kLostFaceSearch)
            return false;
        const double quiet = since(searchedAt);
        if (quiet < kIdleSearchInterval)
            return true;
        if (quiet >= kIdleSearchLongest)
            return false;
        lookAt(frame, format, look);
        return !changed(look, searchedLook);
    }
    static void lookAt(const cv::Mat& frame, platform::PixelFormat format, cv::Mat& out)
    {
        const cv::Mat rows(std::max(1, frame.rows / kLookRowStep), frame.cols, frame.type(), frame.data,
                           frame.step * size_t(kLookRowStep));
        cv::Mat cells;
        cv::resize(rows, cells, cv::Size(std::max(1, frame.cols / kLookCell), std::max(1, frame.rows / kLookCell)), 0,
                   0, cv::INTER_AREA);
        out = toGrey(cells, format);
    }
    static bool changed(const cv::Mat& now, const cv::Mat& before)
    {
        if (now.size() != before.size())
            return true;
        cv::Mat difference;
        cv::absdiff(now, before, difference);
        return cv::countNonZero(difference > kLookChange) > kLookChangedShare * double(now.total());
    }

    std::vector<cv::Rect> findFaces(const cv::Mat& frame, const cv::Mat& small, platform::PixelFormat format,
                                    double scale);
    std::vector<cv::Rect> fullScan(const cv::Mat& frame, const cv::Mat& small, platform::PixelFormat format,
                                   double scale);
    std::vector<cv::Rect> follow(const cv::Mat& small, int minFace);
    bool verify(const cv::Mat& frame, const cv::Rect& face, platform::PixelFormat format);
    void judge(const cv::Mat& frame, const cv::Rect2d& wholeFace, platform::PixelFormat format, QPointF focus,
               FaceAnalysis& analysis);
    // The last size and place verdicts on the only face, for the margins above.
    bool wasOffCentre = false;
    bool wasTooFar = false;
    bool wasTooLarge = false;
    // The eyes as last measured on the only face, and frames since.
    std::optional<double> lastEyes;
    int framesSinceEyes = 0;
    void forgetVerdicts()
    {
        wasOffCentre = wasTooFar = wasTooLarge = false;
        lastEyes.reset();
    }
    double eyeHits(const cv::Mat& frame, QPointF eye, double between, platform::PixelFormat format);
    double openEyes(const cv::Mat& frame, const FaceLandmarks& landmarks, platform::PixelFormat format,
                    int& eyesSeen);

    std::vector<NetworkFace> findNetworkFaces(const cv::Mat& frame, platform::PixelFormat format);
    // The squares of a whole-frame search for this frame size, coarsest
    // first, and those the sweep while faces are followed has still to
    // look at, next last.
    std::vector<cv::Rect> searchSquares;
    std::vector<cv::Rect> sweep;
    std::vector<cv::Rect> wholeSquares(cv::Size frame) const;
    std::vector<NetworkFace> searchWhole(const cv::Mat& frame, platform::PixelFormat format);
    std::vector<NetworkFace> sweepOn(const cv::Mat& frame, platform::PixelFormat format);
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
    if (!loadEmbedded(d->glassesCascade, kEmbeddedGlassesCascade))
        missing << QString::fromLatin1(kEmbeddedGlassesCascade);
    if (settings.eyeCascadePath.isEmpty()) {
        if (!loadEmbedded(d->eyeCascade, kEmbeddedEyeCascade))
            missing << QString::fromLatin1(kEmbeddedEyeCascade);
    } else {
        load(d->eyeCascade, settings.eyeCascadePath, missing);
    }
    QString networkError;
    const QString network = settings.faceNetworkPath.isEmpty() ? defaultNetworkPath() : settings.faceNetworkPath;
    if (d->network.load(network, networkError)) {
        // The network finds the faces: OpenCV's face cascades are not needed.
        if (!missing.isEmpty())
            d->loadError = QStringLiteral("cannot load cascade %1").arg(missing.join(QStringLiteral(", ")));
        return;
    }
    load(d->faceCascade, cascadePath(settings.faceCascadePath, ZAVO_FACE_CASCADE), missing);
    load(d->verifierCascade,
         cascadePath(settings.verifierCascadePath, ZAVO_CASCADE_DIR "/haarcascade_frontalface_alt.xml"), missing);
    if (!missing.isEmpty())
        d->loadError = QStringLiteral("cannot load cascade %1").arg(missing.join(QStringLiteral(", ")));
    qCWarning(platform::lcCoreAnalyzer).noquote() << networkError + QStringLiteral("; faces are found by the Haar cascades, without landmarks or head pose");
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
    d->sweep.clear();
    d->searchedAt.reset();
    d->faceSeenAt.reset();
    d->searchedLook.release();
    d->forgetVerdicts();
}

FaceAnalyzer::Work FaceAnalyzer::work() const { return {d->frames, d->wholeSearches, d->network.runs()}; }

double FaceAnalyzer::eyesOpenness(const FrameView& view, const FaceLandmarks& landmarks)
{
    if (!supports(view.format) || !view.data || view.width <= 0 || view.height <= 0)
        return 0;
    const cv::Mat frame(view.height, view.width, CV_8UC4, const_cast<uint8_t*>(view.data), view.bytesPerRow);
    int seen = 0;
    return d->openEyes(frame, landmarks, view.format, seen);
}

double FaceAnalyzer::appearanceSimilarity(const std::vector<float>& a, const std::vector<float>& b)
{
    if (a.empty() || a.size() != b.size())
        return 0;
    double common = 0;  // histogram intersection: both sum to 1
    for (size_t i = 0; i < a.size(); ++i)
        common += std::min(a[i], b[i]);
    return common;
}

FaceAnalysis FaceAnalyzer::analyze(const FrameView& view, QPointF focus, std::optional<double> frameTime)
{
    FaceAnalysis analysis;
    if (!d->loadError.isEmpty() || !supports(view.format) || !view.data || view.width <= 0 || view.height <= 0)
        return analysis;
    const cv::Mat frame(view.height, view.width, CV_8UC4, const_cast<uint8_t*>(view.data), view.bytesPerRow);
    ++d->frames;
    // Between the searches of a frame where no face is followed: no face,
    // as the search before said.
    if (d->resting(frame, view.format, frameTime, d->network.isLoaded() ? !d->followed.empty() : !d->tracked.empty())) {
        d->forgetVerdicts();
        return analysis;
    }
    const uint64_t searches = d->wholeSearches;
    const auto noteSearch = [&](bool faceFound) {
        if (!frameTime)
            return;
        if (d->wholeSearches != searches) {
            d->searchedAt = frameTime;
            Impl::lookAt(frame, view.format, d->searchedLook);
        }
        if (faceFound)
            d->faceSeenAt = frameTime;
    };
    if (d->network.isLoaded()) {
        std::vector<NetworkFace> faces = d->findNetworkFaces(frame, view.format);
        noteSearch(!faces.empty());
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
            analysis.pose = poseOf(faces.front().landmarks, frame.size());
            analysis.noseParallax = noseParallaxOf(faces.front().landmarks);
            d->judge(frame, faceBoxOf(faces.front().box), view.format, focus, analysis);
        }
        if (faces.size() != 1)
            d->forgetVerdicts();
        return analysis;
    }
    const double scale = std::min(1.0, double(d->settings.detectionLongSide) / std::max(view.width, view.height));
    const cv::Size detectionSize(cvRound(view.width * scale), cvRound(view.height * scale));
    const cv::Mat smallGrey = scaledGrey(toGrey(frame, view.format), detectionSize);

    std::vector<cv::Rect> faces = d->findFaces(frame, smallGrey, view.format, scale);
    noteSearch(!faces.empty());
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
        d->forgetVerdicts();
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
    ++wholeSearches;
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
    const cv::Rect bounds(0, 0, frame.cols, frame.rows);
    const cv::Rect face = cv::Rect(cvRound(wholeFace.x), cvRound(wholeFace.y), cvRound(wholeFace.width),
                                   cvRound(wholeFace.height))
        & bounds;
    if (face.width <= 0 || face.height <= 0 || wholeFace.width <= 0)
        return;
    const double shortSide = std::min(frame.cols, frame.rows);
    ZCQualityScore& q = analysis.quality;

    // Light and sharpness at the camera's own resolution: a face shrunk to a
    // thumbnail looks sharp whatever the camera delivered.
    const cv::Rect inner = cv::Rect(cvRound(wholeFace.x + kInnerLeft * wholeFace.width),
                                    cvRound(wholeFace.y + kInnerTop * wholeFace.height),
                                    cvRound((kInnerRight - kInnerLeft) * wholeFace.width),
                                    cvRound((kInnerBottom - kInnerTop) * wholeFace.height))
        & bounds;
    double blownOut = 0;
    if (inner.width >= 4 && inner.height >= 4) {
        const cv::Mat grey = toGrey(frame(inner), format);
        cv::Mat laplacian;
        cv::Laplacian(grey, laplacian, CV_16S);  // -1020..1020 fits; half the bytes of floats
        cv::Scalar mean, deviation;
        cv::meanStdDev(laplacian, mean, deviation);
        analysis.sharpness = deviation[0] * deviation[0];
        analysis.brightness = cv::mean(grey)[0];
        blownOut = double(cv::countNonZero(grey >= 250)) / double(grey.total());
    }
    // The frame around the face, sampled coarsely: backlight is the face
    // much darker than what surrounds it (a window, a lamp behind the user).
    const double grow = kSurroundings * wholeFace.width;
    const cv::Rect around = cv::Rect(cvRound(wholeFace.x - grow), cvRound(wholeFace.y - grow),
                                     cvRound(wholeFace.width + 2 * grow), cvRound(wholeFace.height + 2 * grow))
        & bounds;
    double background = analysis.brightness;
    if (around.area() > face.area()) {
        cv::Mat sampled;
        cv::resize(frame(around), sampled, cv::Size(kSurroundingsGrid, kSurroundingsGrid), 0, 0, cv::INTER_NEAREST);
        const cv::Mat grey = toGrey(sampled, format);
        cv::Mat outside(grey.size(), CV_8U, cv::Scalar(255));
        const double sx = double(kSurroundingsGrid) / around.width, sy = double(kSurroundingsGrid) / around.height;
        outside(cv::Rect(cvFloor((face.x - around.x) * sx), cvFloor((face.y - around.y) * sy),
                         cvCeil(face.width * sx), cvCeil(face.height * sy))
                & cv::Rect(0, 0, kSurroundingsGrid, kSurroundingsGrid))
            .setTo(0);
        if (cv::countNonZero(outside) > 0)
            background = cv::mean(grey, outside)[0];
    }
    const double faceToBackground = analysis.brightness / std::max(background, 1.0);

    // Place and size, as shares of the face's width; negative room: cut.
    const double room = std::min({wholeFace.x, wholeFace.y, frame.cols - wholeFace.br().x,
                                  frame.rows - wholeFace.br().y})
        / wholeFace.width;
    wasOffCentre = room < settings.minFaceMargin + (wasOffCentre ? kMarginLeave : 0.0);
    const double share = wholeFace.width / shortSide;
    wasTooLarge = share > settings.maxFaceShare * (wasTooLarge ? kTooLargeLeave : 1.0);
    const double nearEnough = std::min(double(settings.minFacePixels), kCoarseCameraFaceShare * shortSide);
    wasTooFar = wholeFace.width < nearEnough * (wasTooFar ? kTooFarLeave : 1.0);

    const QPointF centre(wholeFace.x + wholeFace.width / 2.0, wholeFace.y + wholeFace.height / 2.0);
    const QPointF offCentre = centre - focus;
    q.sharpness = ramp(std::log(std::max(analysis.sharpness, 1.0)), std::log(settings.minSharpness),
                       std::log(settings.minSharpness * 8));
    q.exposure = std::clamp(1.0 - std::abs(analysis.brightness - 128.0) / 128.0 - blownOut, 0.0, 1.0)
        * ramp(faceToBackground, settings.minFaceToBackground, 1.0);
    q.faceSize = std::clamp(share / kSizeForFullScore, 0.0, 1.0);
    q.centring = std::clamp(1.0 - std::hypot(offCentre.x(), offCentre.y()) / (shortSide / 2), 0.0, 1.0);
    q.sharpnessVariance = analysis.sharpness;
    q.brightness = analysis.brightness;
    q.faceToBackground = faceToBackground;
    q.facePixels = wholeFace.width;

    const auto turnedAway = [&](const FacePose& p) {
        return std::abs(p.yaw) > settings.maxYaw || std::abs(p.pitch) > settings.maxPitch
            || std::abs(p.roll) > settings.maxRoll;
    };
    if (wasTooFar)
        analysis.guidance = Guidance::TooFar;
    else if (wasTooLarge)
        analysis.guidance = Guidance::TooClose;
    else if (wasOffCentre)
        analysis.guidance = Guidance::OffCentre;
    else if (analysis.pose && turnedAway(*analysis.pose))
        analysis.guidance = Guidance::TurnedAway;
    else if (analysis.brightness < settings.minBrightness)
        analysis.guidance = Guidance::TooDark;
    else if (analysis.brightness > settings.maxBrightness || blownOut > settings.maxBlownOutShare)
        analysis.guidance = Guidance::TooBright;
    else if (faceToBackground < settings.minFaceToBackground)
        analysis.guidance = Guidance::Backlit;
    else if (analysis.sharpness < settings.minSharpness)
        analysis.guidance = Guidance::Blurred;
    else
        analysis.guidance = Guidance::None;

    // The eyes last: the dearest measure (two to eight times the rest of
    // the analysis), and only worth it for a face that could become the
    // shot. While the same face stays good they are looked at every
    // kEyesEvery frames, which catches a blink (a tenth of a second or
    // more); the detector looks again at any frame it would take as the shot.
    const bool eyesDue = analysis.guidance != Guidance::None || !lastEyes || ++framesSinceEyes >= kEyesEvery;
    if (analysis.guidance == Guidance::None && !eyesDue) {
        analysis.eyesOpenness = lastEyes;
        analysis.eyesMeasured = false;
        if (*analysis.eyesOpenness < settings.minEyeOpenness)
            analysis.guidance = Guidance::EyesShut;
    } else if (analysis.guidance == Guidance::None) {
        FaceLandmarks eyes;
        if (!analysis.landmarks.empty()) {
            eyes = analysis.landmarks.front();
        } else {
            // The cascades give no landmarks: the eyes' usual places in
            // their box.
            eyes.rightEye = QPointF(wholeFace.x + kCascadeEyeX * wholeFace.width, wholeFace.y + kCascadeEyeY * wholeFace.height);
            eyes.leftEye = QPointF(wholeFace.x + (1 - kCascadeEyeX) * wholeFace.width, eyes.rightEye.y());
        }
        analysis.eyesOpenness = openEyes(frame, eyes, format, analysis.eyesFound);
        analysis.eyesMeasured = true;
        lastEyes = analysis.eyesOpenness;
        framesSinceEyes = 0;
        if (*analysis.eyesOpenness < settings.minEyeOpenness)
            analysis.guidance = Guidance::EyesShut;
    }
    if (analysis.guidance != Guidance::None && analysis.guidance != Guidance::EyesShut)
        lastEyes.reset();
    q.eyesOpen = analysis.eyesOpenness.value_or(0.0);

    if (analysis.pose) {
        const FacePose& pose = *analysis.pose;
        q.headPose = pose;
        q.pose = 0.5 * ramp(std::abs(pose.yaw), settings.maxYaw, 0) + 0.25 * ramp(std::abs(pose.pitch), settings.maxPitch, 0)
            + 0.25 * ramp(std::abs(pose.roll), settings.maxRoll, 0);
    } else {
        // Without landmarks: left half against the mirrored right half, a
        // frontal face being nearly symmetric.
        const cv::Mat normalized = shrunkGreyRegion(frame, face, cv::Size(kQualitySize, kQualitySize), format);
        const int half = kQualitySize / 2;
        cv::Mat mirroredRight;
        cv::flip(normalized(cv::Rect(half, kQualitySize / 8, half * 3 / 4, kQualitySize * 3 / 4)), mirroredRight, 1);
        cv::Mat correlation;
        cv::matchTemplate(normalized(cv::Rect(half / 4, kQualitySize / 8, half * 3 / 4, kQualitySize * 3 / 4)),
                          mirroredRight, correlation, cv::TM_CCOEFF_NORMED);
        q.pose = std::clamp(double(correlation.at<float>(0, 0)), 0.0, 1.0);
    }
    q.total = 0.3 * q.sharpness + 0.15 * q.exposure + 0.1 * q.faceSize + 0.1 * q.centring + 0.2 * q.pose
        + 0.15 * q.eyesOpen;

    // Who this is, coarsely: hue and saturation of the middle of the face.
    if (inner.width >= 4 && inner.height >= 4) {
        cv::Mat small, bgr, hsv;
        cv::resize(frame(inner), small, cv::Size(kAppearanceSize, kAppearanceSize), 0, 0, cv::INTER_AREA);
        if (format == platform::PixelFormat::ARGB32) {
            bgr.create(small.size(), CV_8UC3);
            const int fromTo[] = {3, 0, 2, 1, 1, 2};  // A,R,G,B -> B,G,R
            cv::mixChannels(&small, 1, &bgr, 1, fromTo, 3);
        } else {
            cv::cvtColor(small, bgr, cv::COLOR_BGRA2BGR);
        }
        cv::cvtColor(bgr, hsv, cv::COLOR_BGR2HSV);
        std::vector<float>& histogram = analysis.appearance;
        histogram.assign(size_t(kHueBins * kSaturationBins), 0.0f);
        for (int y = 0; y < hsv.rows; ++y) {
            const cv::Vec3b* row = hsv.ptr<cv::Vec3b>(y);
            for (int x = 0; x < hsv.cols; ++x) {
                const int hue = std::min(kHueBins - 1, row[x][0] * kHueBins / 180);
                const int saturation = std::min(kSaturationBins - 1, row[x][1] * kSaturationBins / 256);
                histogram[size_t(hue * kSaturationBins + saturation)] += 1.0f;
            }
        }
        for (float& bin : histogram)
            bin /= float(hsv.total());
    }
}

double FaceAnalyzer::Impl::eyeHits(const cv::Mat& frame, QPointF eye, double between, platform::PixelFormat format)
{
    const cv::Rect patch = squareAround({eye.x(), eye.y()}, kEyePatch * between, frame.size()) & cv::Rect(0, 0, frame.cols, frame.rows);
    if (patch.width < 8 || patch.height < 8 || eyeCascade.empty())
        return 0;
    const cv::Mat grey = greyRegion(frame, patch, cv::Size(kEyePatchSize, kEyePatchSize), format);
    size_t most = 0;
    for (cv::CascadeClassifier* cascade : {&eyeCascade, &glassesCascade}) {
        // The glasses cascade costs twice the plain one: asked only when
        // the plain one did not see an open eye.
        if (cascade->empty() || double(most) / kOpenEyeHits >= settings.minEyeOpenness)
            continue;
        std::vector<cv::Rect> hits;
        cascade->detectMultiScale(grey, hits, 1.05, 0, 0, cv::Size(kEyePatchSize / 3, kEyePatchSize / 3),
                                  cv::Size(kEyePatchSize, kEyePatchSize));
        most = std::max(most, hits.size());
    }
    return double(most);
}

double FaceAnalyzer::Impl::openEyes(const cv::Mat& frame, const FaceLandmarks& l, platform::PixelFormat format,
                                    int& eyesSeen)
{
    const double between = std::hypot(l.leftEye.x() - l.rightEye.x(), l.leftEye.y() - l.rightEye.y());
    const double rightHits = eyeHits(frame, l.rightEye, between, format);
    const double leftHits = eyeHits(frame, l.leftEye, between, format);
    const double right = std::clamp(rightHits / kOpenEyeHits, 0.0, 1.0);
    const double left = std::clamp(leftHits / kOpenEyeHits, 0.0, 1.0);
    eyesSeen = int(right >= settings.minEyeOpenness) + int(left >= settings.minEyeOpenness);
    // One eye shut beside an open one (a wink, a squint into the sun) still
    // gets a few hits; against its open twin's many it is plainly shut.
    if (std::min(rightHits, leftHits) < kOneEyeShut * std::max(rightHits, leftHits))
        return 0;
    return std::min(right, left);
}

// ------------------------------------------------------------ the network

std::vector<NetworkFace> FaceAnalyzer::Impl::findNetworkFaces(const cv::Mat& frame, platform::PixelFormat format)
{
    if (frame.size() != followedFrameSize) {
        followedFrameSize = frame.size();
        followed.clear();
        followSquares.clear();
        searchSquares = wholeSquares(frame.size());
        sweep.clear();
    }
    std::vector<NetworkFace> faces;
    if (!followed.empty())
        faces = follow(frame, format);
    const bool lost = faces.size() < followed.size();
    std::vector<NetworkFace> searched;
    if (followed.empty() || lost) {
        // Nothing to follow, or a face gone: the whole frame at once.
        sweep.clear();
        framesSinceFullScan = 0;
        searched = searchWhole(frame, format);
    } else if (++framesSinceFullScan >= std::max(1, kNetworkFullScanInterval / int(searchSquares.size()))) {
        // While faces are followed the frame is looked over for new ones a
        // square at a time, each square once every kNetworkFullScanInterval
        // frames: the same work as a whole search that often, without a
        // frame that costs several runs more than the others.
        framesSinceFullScan = 0;
        searched = sweepOn(frame, format);
    }
    if (!searched.empty()) {
        // Faces already followed keep the boxes found in their own squares;
        // the whole-frame search only adds faces that are new.
        std::vector<NetworkFace> fresh;
        for (const NetworkFace& face : searched) {
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

std::vector<cv::Rect> FaceAnalyzer::Impl::wholeSquares(cv::Size frame) const
{
    const int shortSide = std::min(frame.width, frame.height);
    const double minFace = std::max(1.0, settings.minFaceSize * shortSide);
    std::vector<cv::Rect> squares;
    for (int side = shortSide; side >= FaceNetwork::kInputSize / 4; side /= 2) {
        for (int y : squareStarts(frame.height, side)) {
            for (int x : squareStarts(frame.width, side))
                squares.emplace_back(x, y, side, side);
        }
        if (minFace * FaceNetwork::kInputSize / side >= kSmallestFaceInInput)
            break;
    }
    return squares;
}

std::vector<NetworkFace> FaceAnalyzer::Impl::searchWhole(const cv::Mat& frame, platform::PixelFormat format)
{
    ++wholeSearches;
    std::vector<NetworkFace> found;
    for (const cv::Rect& square : searchSquares)
        network.detect(frame, format, square, found);
    return FaceNetwork::merge(std::move(found));
}

std::vector<NetworkFace> FaceAnalyzer::Impl::sweepOn(const cv::Mat& frame, platform::PixelFormat format)
{
    if (sweep.empty())
        sweep.assign(searchSquares.rbegin(), searchSquares.rend());
    std::vector<NetworkFace> found;
    network.detect(frame, format, sweep.back(), found);
    sweep.pop_back();
    if (sweep.empty())
        ++wholeSearches;
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
