#pragma once
// The frame source behind a running capture: one open camera. The session's
// capture thread owns the stream and is the only caller of read(); stop
// requests come from other threads through interrupt().
#include "base/ZavoExport.h"
#include "camera/CaptureDevice.h"
#include "media/SampleBuffer.h"

#include <QLocale>
#include <QString>

namespace zavo::platform {

/// User-info key of a capture error that holds its CameraFailureReason (an int).
inline constexpr const char* kCameraFailureReasonKey = "ZavoCameraFailureReason";
/// A capture error that also says why, in the user's terms.
ZAVO_EXPORT ErrorPtr makeCaptureError(CaptureErrorCode code, const QString& description, CameraFailureReason reason);
/// The reason an error carries (any error whose user info has
/// kCameraFailureReasonKey); None for null and for errors without one.
ZAVO_EXPORT CameraFailureReason cameraFailureReasonOf(const ErrorPtr& error);
/// The reason in a few words for the log ("busy", "no bandwidth").
ZAVO_EXPORT const char* cameraFailureReasonName(CameraFailureReason reason);

/// The mains frequency webcams are told to filter flicker for: 50 or 60
/// (Hz), or 0 to take it from the system's time zone (see
/// powerLineFrequencyFor). Process-wide; a camera reads it when it starts.
ZAVO_EXPORT void setPowerLineFrequencyChoice(int hertz);
ZAVO_EXPORT int powerLineFrequencyChoice();
/// The frequency a camera starting now uses: the choice, or the automatic one.
ZAVO_EXPORT int effectivePowerLineFrequency();
/// 60 for the territories whose mains run at 60 Hz (most of the Americas,
/// Taiwan, South Korea, the Philippines, Saudi Arabia...), 50 for the rest
/// of the world and for an unknown territory.
ZAVO_EXPORT int powerLineFrequencyFor(QLocale::Territory territory);

/// Formats ranked for a session that wants about width x height (either way
/// round; sizes that cover it are measured in the camera's own orientation,
/// that of its largest format). Best first: a frame rate of 24 fps or more,
/// else 15 or more, else the fastest; then the wanted size, else the
/// smallest size that covers it, else the largest smaller one; then
/// uncompressed over compressed, "420v" over other raw formats; then the
/// faster; then the camera's own order.
ZAVO_EXPORT std::vector<CaptureDeviceFormatPtr> rankCaptureFormats(const std::vector<CaptureDeviceFormatPtr>& formats, int width,
                                                       int height);
/// Why the first of ranked (formatsForSessionPreset(preset)) was chosen, in
/// words for the log.
ZAVO_EXPORT QString captureFormatChoiceReason(const std::vector<CaptureDeviceFormatPtr>& ranked, const QString& preset);
/// A four-character code as text, most significant byte first ("420v").
ZAVO_EXPORT QString fourCharCodeText(uint32_t code);

class ZAVO_EXPORT CaptureDeviceStream {
public:
    enum class ReadResult {
        Frame,        // frame holds the next frame
        Interrupted,  // interrupt() was called
        Ended,        // the camera stopped for good (gone, failed); see endReason()
    };

    /// Closing the stream closes the camera.
    virtual ~CaptureDeviceStream() = default;

    /// Waits for the next frame, paced by the camera. Frames come as
    /// NV12 (video or full range) or BGRA pixel buffers, from a pool, with a
    /// presentation time that grows through the whole stream.
    virtual ReadResult read(SampleBuffer& frame) = 0;
    /// Makes a waiting or the next read() return Interrupted. Thread-safe;
    /// never blocks.
    virtual void interrupt() = 0;
    /// Why read() ended, for the log.
    virtual QString endReason() const { return {}; }
    /// Why read() ended, in the user's terms (None: not known).
    virtual CameraFailureReason endCause() const { return CameraFailureReason::None; }
    /// The frames per second the camera really runs at, once open; 0 when it
    /// does not say (the format's rate then stands).
    virtual double frameRate() const { return 0.0; }
};

}  // namespace zavo::platform
