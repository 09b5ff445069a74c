#pragma once
// The detector the camera screen feeds, the delegate it reports to, and the
// factory that makes it.
#include "base/ZavoExport.h"
#include "base/Error.h"
#include "base/Geometry.h"
#include "media/SampleBuffer.h"
#include "zavocore/ZCBestShot.h"
#include "zavocore/ZCZavoConfiguration.h"

#include <QRectF>
#include <QSizeF>
#include <functional>
#include <memory>
#include <vector>

namespace zavo::core {

/// What a step of the interaction wizard asks of the user. Left and right
/// are the user's own, as the front camera's mirrored preview shows them.
enum class ZCStepKind {
    LookAtCamera,   // hold a good, steady face: the best shot is taken here
    TurnHeadLeft,   // from facing the camera, turn the head to the left
    TurnHeadRight,  // from facing the camera, turn the head to the right
    MoveCloser,     // bring the face clearly closer to the camera
};

/// One step of the detector's interaction wizard.
class ZAVO_EXPORT ZCStepConfigProtocol {
public:
    virtual ~ZCStepConfigProtocol() = default;
    /// Seconds the user has for this step.
    virtual double timeout() const = 0;
    virtual void setTimeout(double seconds) = 0;
    /// What the step asks; a step that does not say asks the user to look
    /// at the camera.
    virtual ZCStepKind kind() const { return ZCStepKind::LookAtCamera; }
};
using ZCStepConfigPtr = std::shared_ptr<ZCStepConfigProtocol>;

class ZCOnlineLivenessProtocol;

/// What the detector reports. May be called on any thread.
class ZAVO_EXPORT ZCBestShotDelegate {
public:
    virtual ~ZCBestShotDelegate() = default;
    /// The face box in the screen's coordinates (a zero rectangle: no face);
    /// frameSize is the size of the frame it was found in.
    virtual void detectionRect(const QRectF& rect, const QSizeF& frameSize) = 0;
    /// The chosen shot; the return value is the delegate's acknowledgement.
    virtual bool bestShot(ZCBestShotPtr bestShot) = 0;
    /// Guidance or an ending error, in the core framework's error domain (or a
    /// networking error from the liveness check).
    virtual void bestShotError(platform::ErrorPtr error) = 0;
    /// Optional: the liveness check started (true) or ended (false).
    virtual void livenessIsActive(bool active) { Q_UNUSED(active); }
};

/// The detector. The camera screen calls it on the main thread, except
/// faceFound(), which a recorder thread asks too: it must be thread-safe.
class ZAVO_EXPORT ZCBestShotDetectorProtocol {
public:
    virtual ~ZCBestShotDetectorProtocol() = default;
    /// Offers one frame; must return at once (detection runs elsewhere).
    virtual void pushFrame(const platform::SampleBuffer& frame) = 0;
    /// The screen's size and safe-area insets, in points, to map faces into.
    virtual void screenSize(const QSizeF& size, const platform::EdgeInsets& edges) = 0;
    /// Whether a face was seen at any time in this session.
    virtual bool faceFound() const = 0;
    /// Starts the interaction wizard (and detection).
    virtual void launchWizard() = 0;
    virtual void defineStepsList(std::vector<ZCStepConfigPtr> steps) = 0;
    /// Continues after the detector paused itself.
    virtual void resume() = 0;
};
using ZCBestShotDetectorPtr = std::shared_ptr<ZCBestShotDetectorProtocol>;

class ZAVO_EXPORT ZCBestShotBuilder {
public:
    using Factory = std::function<ZCBestShotDetectorPtr(std::weak_ptr<ZCBestShotDelegate> delegate,
                                                        std::shared_ptr<ZCOnlineLivenessProtocol> livenessAPI,
                                                        std::shared_ptr<ZCZavoConfiguration> configuration)>;

    /// A detector that reports to delegate (held weakly). livenessAPI may be
    /// null (no liveness check).
    static ZCBestShotDetectorPtr buildWithDelegate(std::weak_ptr<ZCBestShotDelegate> delegate,
                                                   std::shared_ptr<ZCOnlineLivenessProtocol> livenessAPI,
                                                   std::shared_ptr<ZCZavoConfiguration> configuration);
    /// Installs another detector factory (tests, hosts with their own
    /// detector); an empty factory restores the reference detector.
    static void setFactory(Factory factory);
};

}  // namespace zavo::core
