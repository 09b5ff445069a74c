#pragma once
// A camera session as a Qt object: the front door for Qt hosts.
//
//     auto* session = new zavo::ZMCameraSession(&window);
//     QObject::connect(session, &zavo::ZMCameraSession::bestShot, &window,
//                      [](const QImage& face, const QVariantMap& metadata, const QString& video) { ... });
//     QObject::connect(session, &zavo::ZMCameraSession::failed, &window,
//                      [](const zavo::ZMSessionError& error) { ... });
//     layout->addWidget(session->view());   // or leave it to show as a window
//     session->start();
//
// It runs the same camera screen as ZMCameraBuilder, but every signal comes on
// the thread the session lives on (the GUI thread), the session owns its
// screen, and closing or hiding the window that shows the screen cancels the
// session. Destroying the session cancels it, stops the camera and waits (a
// few seconds at most) for the component's threads to end, so a host's main()
// may simply return.
#include "base/ZavoExport.h"
#include "camera-screen/ZMCameraError.h"
#include "camera-screen/ZMUICustomizerProtocol.h"
#include "zavocore/ZCBestShot.h"
#include "zavocore/ZCZavoConfiguration.h"
#include "zavocore/ZCBestShotDetectorProtocol.h"

#include <QImage>
#include <QObject>
#include <QString>
#include <QVariantList>
#include <QVariantMap>
#include <memory>
#include <optional>
#include <vector>

class QWidget;

namespace zavo {

class ZMSessionPresentation;

/// How a session ended, for hosts written in C++ or QML. Copyable; a
/// default-constructed one is "no error".
class ZAVO_EXPORT ZMSessionError {
    Q_GADGET
    Q_PROPERTY(bool isError READ isError CONSTANT)
    Q_PROPERTY(bool canceled READ isCanceled CONSTANT)
    Q_PROPERTY(int code READ code CONSTANT)
    Q_PROPERTY(QString domain READ domain CONSTANT)
    Q_PROPERTY(QString text READ text CONSTANT)
    Q_PROPERTY(int cameraFailureReason READ cameraFailureReasonValue CONSTANT)
public:
    ZMSessionError() = default;
    explicit ZMSessionError(ZMCameraError error);

    bool isError() const { return error_.has_value(); }
    /// The user closed the screen (the close button, Escape, closing or
    /// hiding its window) or the host called cancel().
    bool isCanceled() const;
    /// ZMCameraError's case (0 access, 1 network, 2 detector, 3 other, 4 canceled); -1 for no error.
    int code() const;
    QString domain() const;
    /// The message for the user, in the component's language.
    QString text() const;
    platform::CameraFailureReason cameraFailureReason() const;
    int cameraFailureReasonValue() const { return static_cast<int>(cameraFailureReason()); }
    /// The full error, for hosts that inspect its payload.
    const std::optional<ZMCameraError>& cameraError() const { return error_; }

private:
    std::optional<ZMCameraError> error_;
};

/// Lives on the GUI thread: create, use and destroy it there. Not copyable.
///
/// Misuse is harmless: start() on a session that has started does nothing
/// and returns false; cancel() when nothing runs does nothing; the session
/// may be deleted at any time, also from a slot connected to one of its own
/// signals (nothing is emitted after that).
class ZAVO_EXPORT ZMCameraSession : public QObject {
    Q_OBJECT
    Q_PROPERTY(State state READ state NOTIFY stateChanged)
    Q_PROPERTY(bool recordVideo READ recordVideo WRITE setRecordVideo NOTIFY settingsChanged)
    Q_PROPERTY(QString cameraLocation READ cameraLocation WRITE setCameraLocation NOTIFY settingsChanged)
    Q_PROPERTY(QString videoFolder READ videoFolder WRITE setVideoFolder NOTIFY settingsChanged)
    Q_PROPERTY(VideoPolicy videoPolicy READ videoPolicy WRITE setVideoPolicy NOTIFY settingsChanged)
    Q_PROPERTY(QVariantList steps READ steps WRITE setSteps NOTIFY settingsChanged)
    Q_PROPERTY(QString videoPath READ videoPath NOTIFY stateChanged)
public:
    enum class State {
        Idle,       // not started
        Running,    // started: permission, camera and detector at work
        Finishing,  // the outcome came; the session video is being finished
        Finished,   // nothing more will come
    };
    Q_ENUM(State)

    enum class VideoPolicy {
        /// One video in the folder: each session's replaces the last one's.
        ReplacePrevious,
        /// Each session's video gets a name of its own
        /// ("zavocamera-<date>-<time>.mp4") and is left for the host.
        KeepEach,
    };
    Q_ENUM(VideoPolicy)

    explicit ZMCameraSession(QObject* parent = nullptr);
    /// Cancels a running session, stops the camera and waits for the
    /// component's threads (at most a few seconds; a log line says when it
    /// gave up). Signals connected to this object are not emitted any more.
    ~ZMCameraSession() override;

    State state() const { return state_; }

    // Settings: read when start() runs; changing them later has no effect on
    // the session already started.

    /// On by default.
    bool recordVideo() const { return recordVideo_; }
    void setRecordVideo(bool record);
    /// The camera to use: a location or unique ID from
    /// ZMCameraDevices::availableCameras(). Empty (the default) uses the
    /// preferred or automatic choice. A session started with a camera that is
    /// not present fails with an error naming it. Starting with a camera makes
    /// it the preferred one (ZMCameraDevices::setPreferredCamera).
    QString cameraLocation() const { return cameraLocation_; }
    void setCameraLocation(const QString& location);
    /// Where the session video goes. Empty (the default): the component's
    /// own folder, Documents/bright_fold, emptied at each session. Another
    /// folder is made if missing and never emptied; a session whose folder
    /// cannot be made or written fails at start with an error naming it.
    QString videoFolder() const { return videoFolder_; }
    void setVideoFolder(const QString& folder);
    /// In the host's folder only; the component's own folder always replaces.
    VideoPolicy videoPolicy() const { return videoPolicy_; }
    void setVideoPolicy(VideoPolicy policy);
    /// Interaction steps, in order: each a step name ("lookAtCamera",
    /// "turnHeadLeft", "turnHeadRight", "moveCloser") or a map with "kind"
    /// and "timeout" (seconds). Unknown entries are left out with a warning.
    QVariantList steps() const { return steps_; }
    void setSteps(const QVariantList& steps);
    /// The same steps as objects, for C++ hosts; replaces steps().
    void setInteractionSteps(std::vector<core::ZCStepConfigPtr> steps);
    /// The detector's configuration; a default one unless set.
    void setConfiguration(core::ZCZavoConfigurationPtr configuration);
    core::ZCZavoConfigurationPtr configuration() const { return configuration_; }
    /// The face frame and banner of the host's own (see ZMUICustomizerProtocol);
    /// null keeps the built-in ones. Not for a session drawn by presentation().
    void setCustomization(std::shared_ptr<ZMCustomization> customization);

    /// The camera screen, built on the first call and owned by the session:
    /// put it in a layout, or leave it parentless and start() shows it as a
    /// window. Null once the host has deleted it.
    QWidget* view();
    /// The best shot of the last session, with everything the detector knows
    /// of it; null until bestShot was emitted.
    core::ZCBestShotPtr lastBestShot() const { return lastBestShot_; }
    /// The session video: named by the outcome, and once Finished the file
    /// as it stays. Empty when there is none (recording off, nothing
    /// recorded, or deleted because no face was seen).
    QString videoPath() const { return videoPath_; }

    /// For the component's own front ends (the QML item): the session drawn
    /// elsewhere, its screen kept off screen. Call before start().
    ZMSessionPresentation* presentation();

public Q_SLOTS:
    /// Starts the session: shows the screen (when the host has not put it in
    /// a window of its own) and with it the camera. False, and nothing
    /// happens, unless the session is Idle. A bad setting (unknown camera,
    /// unusable folder) still returns true and ends the session with failed.
    bool start();
    /// Ends a running session as the close button does: failed with the
    /// canceled error. Nothing happens when no session runs.
    void cancel();

Q_SIGNALS:
    /// image is the chosen frame, upright, as the camera saw it (front
    /// cameras mirrored); metadata has "faceRect" (QRectF, image pixels),
    /// "quality", "sharpness", "exposure", "eyesOpen" (0..1), "yaw", "pitch",
    /// "roll" (degrees) and, when known, "keypoints" (a map of QPointF:
    /// "rightEye", "leftEye", "noseTip", "mouth", "rightEar", "leftEar");
    /// videoPath is empty when there is no video.
    void bestShot(const QImage& image, const QVariantMap& metadata, const QString& videoPath);
    void failed(const zavo::ZMSessionError& error, const QString& videoPath);
    /// After an outcome that named a video: the video is final. path is
    /// empty when the video was deleted (the configuration keeps only videos
    /// with a face); error is empty unless something failed.
    void videoFinished(const QString& path, const QString& error);
    void stateChanged(zavo::ZMCameraSession::State state);
    void settingsChanged();

private:
    class Delegate;
    struct Parts;
    void setState(State state);
    void finishAtStart(ZMCameraError error);
    void deliverBestShot(core::ZCBestShotPtr shot, std::optional<QString> video);
    void deliverError(const ZMCameraError& error, std::optional<QString> video);
    void deliverVideoFinal(std::optional<QString> video, QString problem);

    State state_ = State::Idle;
    bool recordVideo_ = true;
    QString cameraLocation_;
    QString videoFolder_;
    VideoPolicy videoPolicy_ = VideoPolicy::ReplacePrevious;
    QVariantList steps_;
    core::ZCZavoConfigurationPtr configuration_;
    std::vector<core::ZCStepConfigPtr> stepObjects_;
    std::shared_ptr<ZMCustomization> customization_;
    core::ZCBestShotPtr lastBestShot_;
    QString videoPath_;
    bool outcomeCame_ = false;
    bool videoPending_ = false;
    int threadsBefore_ = 0;
    std::unique_ptr<Parts> parts_;  // the screen, its container and the delegate
};

}  // namespace zavo

Q_DECLARE_METATYPE(zavo::ZMSessionError)
