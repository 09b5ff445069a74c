#pragma once
// A camera whose formats, position, focus and behaviour are chosen by its
// creator: tests script it, benchmarks use it as a camera that costs nothing.
// It draws a moving test pattern in real time at the active format's frame
// rate, or hands out exactly the frames that pushFrame() supplies. Faults are
// there on request: an input that cannot be made, a configuration lock that
// is refused, outputs that cannot be added, frames that stop, a device that
// vanishes while running, a camera that cannot be opened.
#include "base/ZavoExport.h"
#include "camera/CaptureDevice.h"

#include <atomic>
#include <optional>

namespace zavo::platform {

class ZAVO_EXPORT SyntheticCaptureDevice final : public CaptureDevice {
public:
    enum class FrameSource {
        Pattern,  // frames drawn in real time
        Manual,   // frames only from pushFrame()
    };

    struct Configuration {
        QString uniqueID = QStringLiteral("synthetic:0");
        QString localizedName = QStringLiteral("Synthetic Camera");
        CaptureDevicePosition position = CaptureDevicePosition::Front;
        /// In the order the device lists them. Empty: one "420v" 720x1280
        /// format at 30 fps.
        std::vector<CaptureDeviceFormatPtr> formats;
        int activeFormatIndex = 0;
        /// Continuous autofocus and a focus point of interest.
        bool focusSupported = true;
        FrameSource frameSource = FrameSource::Pattern;
        /// Extra presets to refuse even when a format would fit them.
        QStringList unsupportedPresets;

        // Faults.
        bool inputFails = false;            // making a device input gives an error
        bool lockFails = false;             // lockForConfiguration refuses
        bool openFails = false;             // starting a session on it fails
        bool refusesVideoDataOutput = false;
        bool refusesMovieFileOutput = false;
        int stopAfterFrames = -1;           // each stream goes silent after this many frames
        int vanishAfterFrames = -1;         // the device disconnects after this many frames
    };

    static std::shared_ptr<SyntheticCaptureDevice> create(Configuration configuration);
    static std::shared_ptr<SyntheticCaptureDevice> create() { return create(Configuration{}); }
    /// A format with a four-character pixel format such as "420v".
    static CaptureDeviceFormatPtr makeFormat(const char (&code)[5], int width, int height,
                                             std::vector<FrameRateRange> frameRates = {{1.0, 30.0}});
    ~SyntheticCaptureDevice() override;

    /// Manual source: the next frame a running stream delivers. The buffer is
    /// delivered as it is (no copy). Without a time the frames are spaced at
    /// the format's frame rate. Thread-safe.
    void pushFrame(std::shared_ptr<PixelBuffer> pixels, std::optional<MediaTime> presentationTime = std::nullopt);
    /// Vanishes now: running streams end, the device reports itself
    /// disconnected and leaves the registry.
    void disconnect();
    /// Frames stop now, as if the camera hung; streams keep waiting.
    void stopFrames();

    /// Frames delivered so far, over all streams.
    int deliveredFrameCount() const { return delivered_.load(); }
    /// Whether a session has the camera open right now.
    bool isOpen() const { return openStreams_.load() > 0; }
    int openCount() const { return opened_.load(); }
    const Configuration& configuration() const { return configuration_; }

    bool supportsSessionPreset(const QString& preset) const override;
    std::unique_ptr<CaptureDeviceStream> openStream(const CaptureDeviceFormatPtr& format, ErrorPtr* error) override;
    bool acceptsOutput(const CaptureOutput& output) const override;
    bool canMakeInput(ErrorPtr* error) const override;

    struct Shared;

protected:
    bool refusesLock() const override { return configuration_.lockFails; }

private:
    SyntheticCaptureDevice(Configuration configuration, std::vector<CaptureDeviceFormatPtr> formats);
    friend class SyntheticStream;

    const Configuration configuration_;
    std::shared_ptr<Shared> shared_;
    std::atomic<int> delivered_{0};
    std::atomic<int> openStreams_{0};
    std::atomic<int> opened_{0};
};

}  // namespace zavo::platform
