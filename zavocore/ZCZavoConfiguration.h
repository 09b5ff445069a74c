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
    /// A face (hairline to chin) fewer pixels wide than this is "too far"
    /// (1010): too few for a sharp portrait cut from the frame. A camera too
    /// coarse for that at arm's length (160x120, say) asks only for a face
    /// a third of the frame's shorter side, as close as it can sensibly get.
    /// However large, a face is not too close until part of it leaves the
    /// frame.
    int minFacePixels = 180;
    /// Variance of the Laplacian of the face, scaled to at most 128 pixels
    /// wide, below which the face counts as blurred (sharp faces give 1000 or
    /// more, blurred ones well under 100).
    double minSharpness = 150.0;
    /// Mean grey level (0..255) of the face outside which it is too dark or
    /// too bright.
    double minBrightness = 60.0;
    double maxBrightness = 200.0;

    /// How long the face must stay good before the best frame of that spell
    /// becomes the shot (frame time).
    double steadyDuration = 0.6;
    /// Time limit of the wizard's step when no steps were defined, and of
    /// the "look at the camera" step added when none of the defined steps
    /// is one.
    double stepTimeout = 30.0;
    /// Takes the interaction steps in a new random order every session, so
    /// that a recording of one session cannot pass another.
    bool shuffleSteps = false;
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
