#pragma once
// Timing the detector from the host's side: the component builds its
// detector through the core framework's factory, so the host wraps the
// reference detector there and notes when frames reach it and how long the
// main thread spends handing each one over.
#include "zavocore/ZCBestShotDetectorProtocol.h"

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

    // Called by the wrapped detectors.
    void recordPush(Clock::time_point began, Clock::time_point ended);

private:
    Clock::time_point sessionStart_{};
    std::optional<Clock::time_point> firstFrame_;
    int framesPushed_ = 0;
    FrameObserver frameObserver_;
    std::shared_ptr<DetectorTiming*> self_;
};

}  // namespace zavo::demo
