#pragma once
// One camera session as the demo host runs it: builds the camera screen,
// hands its view to the caller to show, collects the outcome on the main
// thread, says when the face frame is first on screen, and waits for the
// component to say the session video is final before calling the session
// done.
#include "DetectorTiming.h"
#include "VideoReadback.h"

#include "camera-screen/ZMCameraSession.h"

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <functional>
#include <memory>
#include <optional>

namespace zavo::demo {

struct SessionOutcome {
    core::ZCBestShotPtr bestShot;        // set for a best shot
    std::optional<ZMCameraError> error;  // set for an error
    std::optional<QString> videoFile;
    std::optional<double> timeToFirstFrameMs;
    std::optional<double> timeToBestShotMs;
    /// The string-table keys of the messages the banner showed, in order
    /// (a message shown again right after itself counts once).
    QStringList guidance;
};

struct SessionOptions {
    bool recordVideo = true;
    /// How long the recorder may take to finish the video after the outcome
    /// (a bound on a hang, not a speed).
    std::chrono::milliseconds videoLimit{30000};
    /// Changes to the default configuration (benchmarks keep the detector
    /// from ever finding its shot, to measure a session that goes on).
    std::function<void(core::ZCZavoConfiguration&)> adjustConfiguration;
    /// Interaction steps handed to the screen; empty: none.
    std::vector<core::ZCStepConfigPtr> steps;
};

/// Main thread only. The session owns its screen until it is destroyed or
/// release() is called.
class DemoSession : public QObject {
    Q_OBJECT
public:
    /// timing may be null; when set, the session marks its start on it.
    DemoSession(SessionOptions options, DetectorTiming* timing, QObject* parent = nullptr);
    ~DemoSession() override;

    /// The view to show: place it (or show it) before start(). Null once
    /// released.
    QWidget* view() const;
    /// Starts the session. Once.
    void start();
    /// Lets go of the session; capture stops and its threads have ended
    /// when this returns.
    void release();
    bool isReleased() const { return !session_; }

    /// The first outcome; later ones (the screen keeps no guard) are ignored.
    const std::optional<SessionOutcome>& outcome() const { return outcome_; }
    /// Set once videoSettled was emitted.
    const std::optional<VideoInfo>& video() const { return video_; }

    /// Ends the session the way the user's close button does; false when
    /// it is not running.
    bool cancel();

signals:
    /// The face frame is on screen and has come to rest: the moment for a
    /// picture of the running session.
    void faceFrameShown();
    void finished();
    /// After finished: the video is final (or the wait gave up), or there is
    /// none to wait for.
    void videoSettled();

private:
    void deliver(SessionOutcome outcome, Clock::time_point at);
    void settleVideo();
    void videoFinal(std::optional<QString> videoFile, QString problem);
    void readFinalVideo();
    void watchFaceFrame();

    SessionOptions options_;
    DetectorTiming* timing_;
    Clock::time_point started_{};
    std::shared_ptr<QStringList> shownGuidance_ = std::make_shared<QStringList>();
    std::unique_ptr<ZMCameraSession> session_;
    std::optional<SessionOutcome> outcome_;
    std::optional<VideoInfo> video_;
    // What videoFinished said: the file left, or why there is none.
    std::optional<std::pair<std::optional<QString>, QString>> final_;
    bool waitingForVideo_ = false;
    QTimer videoLimit_;
    QTimer faceWatch_;
    bool shownLastTick_ = false;
};

}  // namespace zavo::demo
