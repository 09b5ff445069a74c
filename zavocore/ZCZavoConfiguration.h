#pragma once
// The core framework's configuration record. Hosts make one, change what they
// need and hand it to the builder; the component only reads it.
#include <QString>
#include <memory>

namespace zavo::core {

/// How the reference detector looks at frames. The defaults suit a front
/// camera at arm's length, 720x1280 at 30 fps; sizes are fractions of the
/// frame's shorter side, times are seconds.
struct ZCDetectorSettings {
    /// Haar cascade files; empty: the ones found when the framework was built
    /// (frontal face, its second opinion, and eyes).
    QString faceCascadePath;
    QString verifierCascadePath;
    QString eyeCascadePath;

    /// Faces are searched on a grey copy whose longer side is at most this.
    int detectionLongSide = 256;
    /// Smallest face searched for.
    double minFaceSize = 1.0 / 6.0;
    /// A face smaller than this is "too far" (1010); larger than
    /// maxFaceSize, "too close".
    double goodFaceSize = 0.30;
    double maxFaceSize = 0.95;
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
    /// Time limit of the wizard's step when no steps were defined.
    double stepTimeout = 30.0;
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

class ZCZavoConfiguration {
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
