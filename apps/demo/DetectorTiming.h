#pragma once
// Timing the detector from the host's side: the component builds its
// detector through the core framework's factory, so the host wraps the
// reference detector there and notes when frames reach it and how long the
// main thread spends handing each one over, and wraps the screen's delegate
// to note when the detector first reports a face and hands over its shot.
#include "zavocore/ZCBestShotDetectorProtocol.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace zavo::demo {

using Clock = std::chrono::steady_clock;

/// Main thread only, like the detector calls it watches.
class DetectorTiming {
public:
    /// Called after every frame handed to the detector, with the time the
    /// hand-over took.
    using FrameObserver = std::function<void(Clock::duration pushDuration)>;

    /// Installs the wrapping factory for the whole process; the destructor
    /// puts the reference detector's factory back.
    DetectorTiming();
    ~DetectorTiming();
    DetectorTiming(const DetectorTiming&) = delete;
    DetectorTiming& operator=(const DetectorTiming&) = delete;

    /// Starts a new session's clock; call right before the builder.
    void markSessionStart();
    /// From markSessionStart to the first frame a detector built since then
    /// was given; nullopt before that frame.
    std::optional<Clock::duration> timeToFirstFrame() const;
    std::optional<Clock::duration> sinceSessionStart() const;
    int framesPushed() const { return framesPushed_; }
    void setFrameObserver(FrameObserver observer) { frameObserver_ = std::move(observer); }

    /// The steady-clock time of presentation time zero of the frames given
    /// since markSessionStart, as early as their hand-overs allow: from a
    /// camera that delivers in real time, the frame stamped t was taken at
    /// about this time + t. nullopt before the first frame.
    std::optional<Clock::time_point> presentationOrigin() const { return presentationOrigin_; }

    /// What the detector built since markSessionStart reported, noted on its
    /// own thread as it reports, before the screen hears of it: the first
    /// face box (nullopt: none yet), how many face boxes, and when it handed
    /// over its best shot.
    std::optional<Clock::time_point> firstFaceBox() const;
    int faceBoxes() const;
    std::optional<Clock::time_point> bestShotTaken() const;

    /// Shared with the wrapped delegate, which reports from the detector's
    /// thread and may outlive this object.
    struct Reports {
        std::atomic<Clock::rep> firstFaceBox{0};  // since the clock's epoch; 0: none
        std::atomic<int> faceBoxes{0};
        std::atomic<Clock::rep> bestShot{0};
    };

    // Called by the wrapped detectors.
    void recordPush(Clock::time_point began, Clock::time_point ended, double presentationSeconds);
    const std::shared_ptr<Reports>& reports() const { return reports_; }

private:
    Clock::time_point sessionStart_{};
    std::optional<Clock::time_point> firstFrame_;
    std::optional<Clock::time_point> presentationOrigin_;
    std::shared_ptr<Reports> reports_ = std::make_shared<Reports>();
    int framesPushed_ = 0;
    FrameObserver frameObserver_;
    std::shared_ptr<DetectorTiming*> self_;
};

}  // namespace zavo::demo
