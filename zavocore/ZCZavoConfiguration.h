#pragma once
// The core framework's configuration record. Hosts make one, change what they
// need and hand it to the builder; the component only reads it.
#include "base/ZavoExport.h"
#include <QString>
#include <memory>

namespace zavo::core {

/// How the reference detector looks at frames. The defaults suit a front
/// camera at arm's length, 720x1280 at 30 fps; sizes are fractions of the
/// frame's shorter side, times are seconds.
struct ZAVO_EXPORT ZCDetectorSettings {
    /// Haar cascade files; empty: the ones found when the framework was built
    /// (frontal face, its second opinion, and eyes).
    QString faceCascadePath;
    QString verifierCascadePath;
    QString eyeCascadePath;
    /// The face network (ONNX) that finds faces and their landmarks; empty:
    /// the one installed with the framework. When it cannot be loaded the
    /// cascades find the faces, without landmarks, and a log line says so.
    QString faceNetworkPath;

    /// Faces are searched on a grey copy whose longer side is at most this.
    int detectionLongSide = 256;
    /// Smallest face searched for: an eighth of a portrait frame's width.
    double minFaceSize = 1.0 / 8.0;
    // What a best shot must be. A frame becomes one only when exactly one
    // face is in view and every limit below holds; the first limit it fails
    // is what the user is told (ZCErrorCodes.h lists the messages). The
    // defaults follow what face matchers ask of a portrait: the whole face
    // with room around it, looking at the camera, eyes open, sharp and evenly
    // lit. docs/ARCHITECTURE.md says which face-quality measure each follows.

    /// A face (hairline to chin) fewer pixels wide than this is "too far":
    /// too few pixels for a matcher. A camera too coarse for that at arm's
    /// length (160x120, say) asks only for a face a third of the frame's
    /// shorter side, as close as it can sensibly get.
    int minFacePixels = 180;
    /// A face wider than this share of the frame's shorter side is too close
    /// ("move back"): the portrait needs room around the head.
    double maxFaceShare = 0.75;
    /// Room the face must keep from every edge of the frame, as a share of
    /// its width; a face nearer an edge (or cut by it) is asked to centre.
    double minFaceMargin = 0.08;
    /// Head pose limits, degrees off looking straight at the camera.
    double maxYaw = 20.0;
    double maxPitch = 20.0;
    double maxRoll = 15.0;
    /// How open each eye must be, 0 (shut) to 1 (wide open).
    double minEyeOpenness = 0.35;
    /// Variance of the Laplacian of the middle of the face at the camera's
    /// own resolution, below which the face counts as blurred. Sharp webcam
    /// faces give 40 or more, defocused or moving ones under 15.
    double minSharpness = 20.0;
    /// Mean grey level (0..255) of the skin between the eyes and the mouth
    /// outside which the face is too dark or too bright...
    double minBrightness = 60.0;
    double maxBrightness = 200.0;
    /// ...share of those pixels burnt out to white above which it is too bright...
    double maxBlownOutShare = 0.1;
    /// ...and the face's mean brightness against the frame around it below
    /// which the light comes from behind ("light behind you").
    double minFaceToBackground = 0.55;

    /// How long the face must stay good before the best frame of that spell
    /// becomes the shot (frame time).
    double steadyDuration = 0.6;
    /// Time limit of the wizard's step when no steps were defined, and of
    /// the "look at the camera" step added when none of the defined steps
    /// is one.
    double stepTimeout = 30.0;
    /// Takes the interaction steps in a new random order every session
    /// (when there are two or more), so that a recording of one session
    /// cannot pass another.
    bool shuffleSteps = true;
    /// Frames must keep arriving at least this often once the wizard runs
    /// (wall-clock time), or the session ends with 1004.
    double frameTimeout = 3.0;
    /// Guidance is reported once a situation lasted this long (frame time)...
    double guidanceDelay = 0.2;
    /// ...and repeated this often while it lasts.
    double guidanceRepeatInterval = 2.0;

    /// Every pushed frame is analysed before pushFrame returns, instead of
    /// only the newest one, later, on the detector's thread. For tests and
    /// offline runs; never for a live camera.
    bool synchronousProcessing = false;
};

class ZAVO_EXPORT ZCZavoConfiguration {
public:
    ZCZavoConfiguration();

    /// Shows the button that switches between front and back camera.
    bool isShowSwitchCamera = true;
    /// Keeps the session video only when a face was seen during the session.
    bool saveOnlyFaceVideo = false;
    /// Versions shown by the about screen.
    QString zavoIDSDKVersion;
    QString zavoSDKVersion;
    /// The reference detector's settings.
    ZCDetectorSettings detector;
};

using ZCZavoConfigurationPtr = std::shared_ptr<ZCZavoConfiguration>;

}  // namespace zavo::core
