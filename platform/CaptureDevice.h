#pragma once
// Cameras. A CaptureDevice is one camera with its formats, active format,
// focus and position; the three kinds behind it (V4L2 webcams, the file
// camera that plays a video in real time, the synthetic camera that tests
// script) all look the same to the code that captures from them.
//
// Devices are found through CaptureDeviceDiscoverySession, which lists the
// cameras registered in CaptureDeviceRegistry (file and synthetic cameras,
// in registration order) followed by the V4L2 capture nodes (by node
// number). Device objects are shared: the same camera is the same object for
// as long as it stays connected.
//
// Threads: every member is thread-safe. Configuration setters (active format,
// focus) take effect only between lockForConfiguration and
// unlockForConfiguration, as on the phone platform; a running capture picks a
// new active format up when its session is next configured or started.
#include "platform/Asset.h"  // MediaType
#include "platform/CaptureTypes.h"
#include "platform/Error.h"
#include "platform/SampleBuffer.h"

#include <QPointF>
#include <QString>
#include <QStringList>
#include <memory>
#include <mutex>
#include <vector>

namespace zavo::platform {

/// The one device type the platform knows: a camera with a normal lens.
inline const QString kCaptureDeviceTypeBuiltInWideAngleCamera = QStringLiteral("BuiltInWideAngleCamera");

/// Session presets. "inputPriority" captures in the device's active format;
/// the size presets pick a device format of that size (either way round);
/// "high", the default, captures in the active format too.
namespace CaptureSessionPreset {
inline const QString High = QStringLiteral("high");
inline const QString InputPriority = QStringLiteral("inputPriority");
inline const QString Preset640x480 = QStringLiteral("640x480");
inline const QString Preset1280x720 = QStringLiteral("1280x720");
}  // namespace CaptureSessionPreset

/// Error domain of device failures (cannot open, vanished, bad file).
inline const QString kCaptureErrorDomain = QStringLiteral("zavo.platform.capture");
enum class CaptureErrorCode : long {
    DeviceNotAvailable = 1,  // no device, or it was disconnected
    DeviceOpenFailed = 2,    // open, format or streaming set-up refused
    DeviceLocked = 3,        // configuration lock refused
    InputRefused = 4,        // a device input could not be made
    NoDataCaptured = 5,      // a recording stopped before its first frame
};
ErrorPtr makeCaptureError(CaptureErrorCode code, const QString& description);

struct FrameRateRange {
    double minFrameRate = 0;
    double maxFrameRate = 0;
};

/// One way a device can deliver frames: pixel format (four-character code),
/// size and frame rates. Immutable.
class CaptureDeviceFormat {
public:
    CaptureDeviceFormat(uint32_t mediaSubType, int width, int height, std::vector<FrameRateRange> frameRateRanges);

    /// Subtype and dimensions, the way the phone platform reads them.
    const std::shared_ptr<const FormatDescription>& formatDescription() const { return description_; }
    uint32_t mediaSubType() const { return description_->mediaSubType(); }
    int width() const { return description_->width(); }
    int height() const { return description_->height(); }
    /// In the device's order; the first range is the one capture runs at.
    const std::vector<FrameRateRange>& videoSupportedFrameRateRanges() const { return ranges_; }
    /// The first range's maximum, or fallback when there is no range.
    double captureFrameRate(double fallback = 30.0) const;

private:
    std::shared_ptr<const FormatDescription> description_;
    std::vector<FrameRateRange> ranges_;
};

using CaptureDeviceFormatPtr = std::shared_ptr<const CaptureDeviceFormat>;

/// Four-character code of a pixel format ("420v" for 0x34323076).
constexpr uint32_t fourCharCode(const char (&code)[5])
{
    return (uint32_t(uint8_t(code[0])) << 24) | (uint32_t(uint8_t(code[1])) << 16) | (uint32_t(uint8_t(code[2])) << 8)
        | uint32_t(uint8_t(code[3]));
}

class CaptureDeviceStream;
class CaptureOutput;

class CaptureDevice : public std::enable_shared_from_this<CaptureDevice> {
public:
    virtual ~CaptureDevice();
    CaptureDevice(const CaptureDevice&) = delete;
    CaptureDevice& operator=(const CaptureDevice&) = delete;

    QString uniqueID() const { return uniqueID_; }
    QString localizedName() const { return localizedName_; }
    QString deviceType() const { return kCaptureDeviceTypeBuiltInWideAngleCamera; }
    bool hasMediaType(MediaType mediaType) const { return mediaType == MediaType::Video; }
    CaptureDevicePosition position() const;
    /// False once the camera has gone (unplugged, vanished).
    bool isConnected() const;

    /// In the device's own order (V4L2: as the driver enumerates them).
    std::vector<CaptureDeviceFormatPtr> formats() const;
    CaptureDeviceFormatPtr activeFormat() const;
    /// Needs the configuration lock; format must be one of formats().
    void setActiveFormat(const CaptureDeviceFormatPtr& format);

    /// Takes the configuration lock (it nests). False with an error when the
    /// device refuses, for example because it has gone.
    bool lockForConfiguration(ErrorPtr* error = nullptr);
    void unlockForConfiguration();

    bool isFocusModeSupported(FocusMode mode) const;
    FocusMode focusMode() const;
    /// Needs the configuration lock and a supported mode.
    void setFocusMode(FocusMode mode);
    bool isFocusPointOfInterestSupported() const;
    QPointF focusPointOfInterest() const;
    /// Needs the configuration lock; (0,0) is top left, (1,1) bottom right.
    void setFocusPointOfInterest(QPointF point);

    /// Whether a session may use preset with this device: "inputPriority" and
    /// "high" always, a size preset when a format has that size.
    virtual bool supportsSessionPreset(const QString& preset) const;
    /// The format a session with preset captures in.
    CaptureDeviceFormatPtr formatForSessionPreset(const QString& preset) const;

    /// Whether this process may open the camera (the default camera-permission
    /// policy asks this). File and synthetic cameras always can.
    virtual bool canOpen() const { return true; }

    /// For the platform's capture session: starts delivering frames in format.
    /// Null with an error when the camera cannot be opened.
    virtual std::unique_ptr<CaptureDeviceStream> openStream(const CaptureDeviceFormatPtr& format, ErrorPtr* error) = 0;
    /// For the platform's capture session: whether the device lets output be
    /// added next to it (synthetic cameras can refuse, for tests).
    virtual bool acceptsOutput(const CaptureOutput& output) const;
    /// For CaptureDeviceInput: a device may refuse to become an input.
    virtual bool canMakeInput(ErrorPtr* error) const;

protected:
    CaptureDevice(QString uniqueID, QString localizedName, CaptureDevicePosition position,
                  std::vector<CaptureDeviceFormatPtr> formats, CaptureDeviceFormatPtr activeFormat);

    /// Focus modes beyond Locked, and whether a point of interest is
    /// possible; both fixed per device.
    void setFocusCapabilities(std::vector<FocusMode> supportedModes, bool pointOfInterest);
    /// Hardware hook; false keeps the previous mode.
    virtual bool applyFocusMode(FocusMode mode);
    virtual bool refusesLock() const { return false; }
    void setConnected(bool connected);
    void setPosition(CaptureDevicePosition position);

private:
    friend class CaptureDeviceRegistry;

    const QString uniqueID_;
    const QString localizedName_;
    const std::vector<CaptureDeviceFormatPtr> formats_;

    mutable std::mutex mutex_;
    CaptureDevicePosition position_;           // guarded by mutex_
    CaptureDeviceFormatPtr activeFormat_;      // guarded by mutex_
    int lockCount_ = 0;                        // guarded by mutex_
    FocusMode focusMode_ = FocusMode::Locked;  // guarded by mutex_
    QPointF focusPoint_{0.5, 0.5};             // guarded by mutex_
    std::vector<FocusMode> focusModes_{FocusMode::Locked};  // guarded by mutex_
    bool focusPointSupported_ = false;         // guarded by mutex_
    bool connected_ = true;                    // guarded by mutex_
};

using CaptureDevicePtr = std::shared_ptr<CaptureDevice>;

/// Where file and synthetic cameras are made known to discovery, and where
/// V4L2 webcams can be hidden (tests that must not depend on the machine) or
/// given a position.
class CaptureDeviceRegistry {
public:
    static CaptureDeviceRegistry& shared();

    /// Adds device after the devices registered before it. Registering the
    /// same unique ID again replaces the earlier device in its place.
    void registerDevice(const CaptureDevicePtr& device);
    void unregisterDevice(const QString& uniqueID);
    void unregisterAll();
    std::vector<CaptureDevicePtr> registeredDevices() const;

    /// V4L2 webcams are listed by default.
    void setV4L2Enabled(bool enabled);
    bool isV4L2Enabled() const;
    /// Overrides the position of a V4L2 webcam (by unique ID, which is its
    /// bus info, or its node path such as "/dev/video0").
    void setPositionOverride(const QString& uniqueIDOrPath, CaptureDevicePosition position);
    void clearPositionOverrides();

    /// Registered devices, then the V4L2 webcams present now.
    std::vector<CaptureDevicePtr> allDevices();

private:
    CaptureDeviceRegistry() = default;

    mutable std::mutex mutex_;
    std::vector<CaptureDevicePtr> registered_;              // guarded by mutex_
    std::vector<CaptureDevicePtr> v4l2Devices_;             // guarded by mutex_; kept so identity is stable
    std::vector<std::pair<QString, CaptureDevicePosition>> positionOverrides_;  // guarded by mutex_
    bool v4l2Enabled_ = true;                               // guarded by mutex_
};

/// The cameras of some types, media type and position (Unspecified: any
/// position), in the registry's stable order.
class CaptureDeviceDiscoverySession {
public:
    static CaptureDeviceDiscoverySession discoverySession(const QStringList& deviceTypes, MediaType mediaType,
                                                          CaptureDevicePosition position);
    const std::vector<CaptureDevicePtr>& devices() const { return devices_; }

private:
    std::vector<CaptureDevicePtr> devices_;
};

}  // namespace zavo::platform
