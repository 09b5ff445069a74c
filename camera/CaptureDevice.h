#pragma once
// Cameras. A CaptureDevice is one camera with its formats, active format,
// focus and position; the three kinds behind it (V4L2 webcams, the file
// camera that plays a video in real time, the synthetic camera that tests
// script) all look the same to the code that captures from them.
//
// Devices are found through CaptureDeviceDiscoverySession, which lists the
// cameras registered in CaptureDeviceRegistry (file and synthetic cameras,
// in registration order) followed by those of its providers (the V4L2
// webcams, by node number). Device objects are shared: the same camera is the
// same object for as long as it stays connected.
//
// Threads: every member is thread-safe. Configuration setters (active format,
// focus) take effect only between lockForConfiguration and
// unlockForConfiguration, as on the phone platform; a running capture picks a
// new active format up when its session is next configured or started.
#include "base/ZavoExport.h"
#include "media/Asset.h"  // MediaType
#include "camera/CaptureTypes.h"
#include "base/Error.h"
#include "media/SampleBuffer.h"
#include "base/ThreadSafety.h"

#include <QPointF>
#include <QString>
#include <QStringList>
#include <memory>
#include <optional>
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
    DeviceBusy = 6,          // another application holds the camera
    AccessDenied = 7,        // the user may not open the camera
    FormatRefused = 8,       // the camera listed a format and then gave another
    NoBandwidth = 9,         // the bus cannot carry the format now (a session tries its next one)
};
ZAVO_EXPORT ErrorPtr makeCaptureError(CaptureErrorCode code, const QString& description);

struct ZAVO_EXPORT FrameRateRange {
    double minFrameRate = 0;
    double maxFrameRate = 0;
};

/// One way a device can deliver frames: pixel format (four-character code),
/// size and frame rates. Immutable.
class ZAVO_EXPORT CaptureDeviceFormat {
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

class ZAVO_EXPORT CaptureDevice : public std::enable_shared_from_this<CaptureDevice> {
public:
    virtual ~CaptureDevice();
    CaptureDevice(const CaptureDevice&) = delete;
    CaptureDevice& operator=(const CaptureDevice&) = delete;

    QString uniqueID() const { return uniqueID_; }
    QString localizedName() const { return localizedName_; }
    /// Where the camera lives: a V4L2 node ("/dev/video0"), a video file's
    /// path; empty for cameras that live nowhere (synthetic).
    virtual QString location() const { return {}; }
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
    /// "high" always, a size preset when the device has any format (the
    /// closest one serves).
    virtual bool supportsSessionPreset(const QString& preset) const;
    /// The format a session with preset captures in: the first of
    /// formatsForSessionPreset.
    CaptureDeviceFormatPtr formatForSessionPreset(const QString& preset) const;
    /// The formats a session with preset tries, best first: the active
    /// format for "inputPriority" and "high"; for a size preset every format
    /// ranked as chooseCaptureFormats ranks them.
    std::vector<CaptureDeviceFormatPtr> formatsForSessionPreset(const QString& preset) const;

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
    /// The position the camera reports for itself, before the registry
    /// places cameras that do not know which way they face.
    virtual CaptureDevicePosition nativePosition() const { return position(); }
    void setConnected(bool connected);
    void setPosition(CaptureDevicePosition position);

private:
    friend class CaptureDeviceRegistry;

    const QString uniqueID_;
    const QString localizedName_;
    const std::vector<CaptureDeviceFormatPtr> formats_;

    mutable Mutex mutex_;
    CaptureDevicePosition position_ ZAVO_GUARDED_BY(mutex_);
    CaptureDeviceFormatPtr activeFormat_ ZAVO_GUARDED_BY(mutex_);
    int lockCount_ ZAVO_GUARDED_BY(mutex_) = 0;
    FocusMode focusMode_ ZAVO_GUARDED_BY(mutex_) = FocusMode::Locked;
    QPointF focusPoint_ ZAVO_GUARDED_BY(mutex_){0.5, 0.5};
    std::vector<FocusMode> focusModes_ ZAVO_GUARDED_BY(mutex_){FocusMode::Locked};
    bool focusPointSupported_ ZAVO_GUARDED_BY(mutex_) = false;
    bool connected_ ZAVO_GUARDED_BY(mutex_) = true;
};

using CaptureDevicePtr = std::shared_ptr<CaptureDevice>;

/// A source of cameras that come and go (the V4L2 webcams of a kernel).
class ZAVO_EXPORT CaptureDeviceProvider {
public:
    virtual ~CaptureDeviceProvider() = default;
    /// The cameras present now, in a stable order; the same object for the
    /// same camera while it stays connected, and a gone camera marked
    /// disconnected. Called from any thread; cheap when nothing changed.
    virtual std::vector<CaptureDevicePtr> devices() = 0;
};

using CaptureDeviceProviderPtr = std::shared_ptr<CaptureDeviceProvider>;

/// The providers built into the platform: the machine's V4L2 webcams.
ZAVO_EXPORT std::vector<CaptureDeviceProviderPtr> defaultCaptureDeviceProviders();

/// Where file and synthetic cameras are made known to discovery, where the
/// providers of other cameras are listed, and where cameras get their place.
///
/// Positions: registered cameras keep the position they were made with. A
/// provider's camera that knows it is built into the machine's screen faces
/// front; one that does not know (most USB webcams) is placed: when no camera
/// faces front, the first such camera serves as the front camera, and the
/// others serve as back cameras, so that switching reaches them. A preferred
/// camera (setPreferredDevice) is listed first and faces front; the
/// provider's other front cameras then serve as back cameras.
class ZAVO_EXPORT CaptureDeviceRegistry {
public:
    static CaptureDeviceRegistry& shared();

    /// Adds device after the devices registered before it. Registering the
    /// same unique ID again replaces the earlier device in its place.
    void registerDevice(const CaptureDevicePtr& device);
    void unregisterDevice(const QString& uniqueID);
    void unregisterAll();
    std::vector<CaptureDevicePtr> registeredDevices() const;

    /// The providers asked for cameras after the registered ones, in order;
    /// defaultCaptureDeviceProviders() until set. An empty list hides every
    /// webcam (tests that must not depend on the machine).
    void setProviders(std::vector<CaptureDeviceProviderPtr> providers);
    std::vector<CaptureDeviceProviderPtr> providers() const;
    /// True until setProviders is called: the machine's own cameras.
    bool usesDefaultProviders() const;

    /// Overrides the position of a provider's camera (by unique ID or
    /// location, such as "/dev/video0").
    void setPositionOverride(const QString& uniqueIDOrLocation, CaptureDevicePosition position);
    void clearPositionOverrides();

    /// The camera (by unique ID or location) that sessions start with; empty
    /// for the automatic choice. A preferred camera that is not present is
    /// ignored until it is.
    void setPreferredDevice(const QString& uniqueIDOrLocation);
    QString preferredDevice() const;

    /// Registered devices, then the providers' cameras present now, with
    /// their positions decided; the preferred camera first.
    std::vector<CaptureDevicePtr> allDevices();

private:
    CaptureDeviceRegistry() = default;
    void placeProvidedDevices(const std::vector<CaptureDevicePtr>& registered,
                              const std::vector<CaptureDevicePtr>& provided) const ZAVO_REQUIRES(mutex_);

    mutable Mutex mutex_;
    std::vector<CaptureDevicePtr> registered_ ZAVO_GUARDED_BY(mutex_);
    std::optional<std::vector<CaptureDeviceProviderPtr>> providers_ ZAVO_GUARDED_BY(mutex_);  // unset: the defaults
    bool providersChosen_ ZAVO_GUARDED_BY(mutex_) = false;  // setProviders was called
    std::vector<std::pair<QString, CaptureDevicePosition>> positionOverrides_ ZAVO_GUARDED_BY(mutex_);
    QString preferred_ ZAVO_GUARDED_BY(mutex_);
};

/// The cameras of some types, media type and position (Unspecified: any
/// position), in the registry's stable order.
class ZAVO_EXPORT CaptureDeviceDiscoverySession {
public:
    static CaptureDeviceDiscoverySession discoverySession(const QStringList& deviceTypes, MediaType mediaType,
                                                          CaptureDevicePosition position);
    const std::vector<CaptureDevicePtr>& devices() const { return devices_; }

private:
    std::vector<CaptureDevicePtr> devices_;
};

}  // namespace zavo::platform
