#include "platform/CaptureDevice.h"

#include "platform/Log.h"
#include "platform/V4L2CaptureDevice_p.h"

#include <algorithm>

namespace zavo::platform {

ErrorPtr makeCaptureError(CaptureErrorCode code, const QString& description)
{
    return std::make_shared<const ErrorObject>(kCaptureErrorDomain, static_cast<long>(code),
                                               QVariantMap{{QString::fromLatin1(kLocalizedDescriptionKey), description}});
}

// ------------------------------------------------------------------ format

CaptureDeviceFormat::CaptureDeviceFormat(uint32_t mediaSubType, int width, int height,
                                         std::vector<FrameRateRange> frameRateRanges)
    : description_(std::make_shared<const FormatDescription>(static_cast<PixelFormat>(mediaSubType), width, height))
    , ranges_(std::move(frameRateRanges))
{
}

double CaptureDeviceFormat::captureFrameRate(double fallback) const
{
    if (ranges_.empty() || ranges_.front().maxFrameRate <= 0)
        return fallback;
    return ranges_.front().maxFrameRate;
}

// ------------------------------------------------------------------ device

CaptureDevice::CaptureDevice(QString uniqueID, QString localizedName, CaptureDevicePosition position,
                             std::vector<CaptureDeviceFormatPtr> formats, CaptureDeviceFormatPtr activeFormat)
    : uniqueID_(std::move(uniqueID))
    , localizedName_(std::move(localizedName))
    , formats_(std::move(formats))
    , position_(position)
    , activeFormat_(activeFormat ? std::move(activeFormat) : (formats_.empty() ? nullptr : formats_.front()))
{
}

CaptureDevice::~CaptureDevice() = default;

CaptureDevicePosition CaptureDevice::position() const
{
    std::lock_guard lock(mutex_);
    return position_;
}

void CaptureDevice::setPosition(CaptureDevicePosition position)
{
    std::lock_guard lock(mutex_);
    position_ = position;
}

bool CaptureDevice::isConnected() const
{
    std::lock_guard lock(mutex_);
    return connected_;
}

void CaptureDevice::setConnected(bool connected)
{
    std::lock_guard lock(mutex_);
    connected_ = connected;
}

std::vector<CaptureDeviceFormatPtr> CaptureDevice::formats() const { return formats_; }

CaptureDeviceFormatPtr CaptureDevice::activeFormat() const
{
    std::lock_guard lock(mutex_);
    return activeFormat_;
}

void CaptureDevice::setActiveFormat(const CaptureDeviceFormatPtr& format)
{
    std::lock_guard lock(mutex_);
    if (lockCount_ == 0) {
        qCWarning(lcCamera) << "active format of" << uniqueID_ << "set without the configuration lock; ignored";
        return;
    }
    if (std::find(formats_.begin(), formats_.end(), format) == formats_.end()) {
        qCWarning(lcCamera) << "active format of" << uniqueID_ << "is not one of its formats; ignored";
        return;
    }
    activeFormat_ = format;
}

bool CaptureDevice::lockForConfiguration(ErrorPtr* error)
{
    const bool refused = refusesLock();
    std::lock_guard lock(mutex_);
    if (!connected_ || refused) {
        if (error)
            *error = makeCaptureError(CaptureErrorCode::DeviceLocked,
                                      QStringLiteral("Cannot lock %1 for configuration").arg(localizedName_));
        return false;
    }
    ++lockCount_;
    return true;
}

void CaptureDevice::unlockForConfiguration()
{
    std::lock_guard lock(mutex_);
    if (lockCount_ > 0)
        --lockCount_;
}

void CaptureDevice::setFocusCapabilities(std::vector<FocusMode> supportedModes, bool pointOfInterest)
{
    std::lock_guard lock(mutex_);
    focusModes_ = std::move(supportedModes);
    if (std::find(focusModes_.begin(), focusModes_.end(), FocusMode::Locked) == focusModes_.end())
        focusModes_.push_back(FocusMode::Locked);
    focusPointSupported_ = pointOfInterest;
}

bool CaptureDevice::isFocusModeSupported(FocusMode mode) const
{
    std::lock_guard lock(mutex_);
    return std::find(focusModes_.begin(), focusModes_.end(), mode) != focusModes_.end();
}

FocusMode CaptureDevice::focusMode() const
{
    std::lock_guard lock(mutex_);
    return focusMode_;
}

void CaptureDevice::setFocusMode(FocusMode mode)
{
    {
        std::lock_guard lock(mutex_);
        if (lockCount_ == 0 || std::find(focusModes_.begin(), focusModes_.end(), mode) == focusModes_.end()) {
            qCWarning(lcCamera) << "focus mode" << int(mode) << "of" << uniqueID_
                                << "not set: unsupported or not locked for configuration";
            return;
        }
    }
    // The hardware call may take a while (an ioctl); it runs outside the lock.
    if (!applyFocusMode(mode))
        return;
    std::lock_guard lock(mutex_);
    focusMode_ = mode;
}

bool CaptureDevice::applyFocusMode(FocusMode) { return true; }

bool CaptureDevice::isFocusPointOfInterestSupported() const
{
    std::lock_guard lock(mutex_);
    return focusPointSupported_;
}

QPointF CaptureDevice::focusPointOfInterest() const
{
    std::lock_guard lock(mutex_);
    return focusPoint_;
}

void CaptureDevice::setFocusPointOfInterest(QPointF point)
{
    std::lock_guard lock(mutex_);
    if (lockCount_ == 0 || !focusPointSupported_) {
        qCWarning(lcCamera) << "focus point of" << uniqueID_ << "not set: unsupported or not locked for configuration";
        return;
    }
    focusPoint_ = point;
}

namespace {
bool presetSize(const QString& preset, int& width, int& height)
{
    if (preset == CaptureSessionPreset::Preset640x480) {
        width = 640;
        height = 480;
        return true;
    }
    if (preset == CaptureSessionPreset::Preset1280x720) {
        width = 1280;
        height = 720;
        return true;
    }
    return false;
}

bool hasSize(const CaptureDeviceFormat& format, int width, int height)
{
    return (format.width() == width && format.height() == height)
        || (format.width() == height && format.height() == width);
}
}  // namespace

bool CaptureDevice::supportsSessionPreset(const QString& preset) const
{
    if (preset == CaptureSessionPreset::InputPriority || preset == CaptureSessionPreset::High)
        return true;
    int width = 0;
    int height = 0;
    if (!presetSize(preset, width, height))
        return false;
    return std::any_of(formats_.begin(), formats_.end(),
                       [&](const CaptureDeviceFormatPtr& f) { return hasSize(*f, width, height); });
}

CaptureDeviceFormatPtr CaptureDevice::formatForSessionPreset(const QString& preset) const
{
    int width = 0;
    int height = 0;
    if (!presetSize(preset, width, height))
        return activeFormat();
    // A size preset prefers the camera's native "420v" rendition of the size.
    CaptureDeviceFormatPtr sameSize;
    for (const auto& format : formats_) {
        if (!hasSize(*format, width, height))
            continue;
        if (format->mediaSubType() == static_cast<uint32_t>(PixelFormat::NV12VideoRange))
            return format;
        if (!sameSize)
            sameSize = format;
    }
    return sameSize ? sameSize : activeFormat();
}

bool CaptureDevice::acceptsOutput(const CaptureOutput&) const { return true; }

bool CaptureDevice::canMakeInput(ErrorPtr* error) const
{
    if (isConnected())
        return true;
    if (error)
        *error = makeCaptureError(CaptureErrorCode::DeviceNotAvailable,
                                  QStringLiteral("%1 is not connected").arg(localizedName_));
    return false;
}

// ---------------------------------------------------------------- registry

CaptureDeviceRegistry& CaptureDeviceRegistry::shared()
{
    static CaptureDeviceRegistry registry;
    return registry;
}

void CaptureDeviceRegistry::registerDevice(const CaptureDevicePtr& device)
{
    if (!device)
        return;
    std::lock_guard lock(mutex_);
    auto same = std::find_if(registered_.begin(), registered_.end(),
                             [&](const CaptureDevicePtr& d) { return d->uniqueID() == device->uniqueID(); });
    if (same != registered_.end())
        *same = device;
    else
        registered_.push_back(device);
}

void CaptureDeviceRegistry::unregisterDevice(const QString& uniqueID)
{
    std::lock_guard lock(mutex_);
    std::erase_if(registered_, [&](const CaptureDevicePtr& d) { return d->uniqueID() == uniqueID; });
}

void CaptureDeviceRegistry::unregisterAll()
{
    std::lock_guard lock(mutex_);
    registered_.clear();
}

std::vector<CaptureDevicePtr> CaptureDeviceRegistry::registeredDevices() const
{
    std::lock_guard lock(mutex_);
    return registered_;
}

void CaptureDeviceRegistry::setV4L2Enabled(bool enabled)
{
    std::lock_guard lock(mutex_);
    v4l2Enabled_ = enabled;
}

bool CaptureDeviceRegistry::isV4L2Enabled() const
{
    std::lock_guard lock(mutex_);
    return v4l2Enabled_;
}

void CaptureDeviceRegistry::setPositionOverride(const QString& uniqueIDOrPath, CaptureDevicePosition position)
{
    std::lock_guard lock(mutex_);
    std::erase_if(positionOverrides_, [&](const auto& entry) { return entry.first == uniqueIDOrPath; });
    positionOverrides_.emplace_back(uniqueIDOrPath, position);
}

void CaptureDeviceRegistry::clearPositionOverrides()
{
    std::lock_guard lock(mutex_);
    positionOverrides_.clear();
}

std::vector<CaptureDevicePtr> CaptureDeviceRegistry::allDevices()
{
    bool v4l2Enabled;
    std::vector<CaptureDevicePtr> known;
    {
        std::lock_guard lock(mutex_);
        v4l2Enabled = v4l2Enabled_;
        known = v4l2Devices_;
    }
    // Probing nodes means opening them; done outside the lock so that a slow
    // driver does not hold up registration elsewhere.
    std::vector<CaptureDevicePtr> present = v4l2Enabled ? v4l2::refreshDevices(known) : known;

    std::lock_guard lock(mutex_);
    v4l2Devices_ = present;
    std::vector<CaptureDevicePtr> all = registered_;
    if (!v4l2Enabled)
        return all;
    for (const auto& device : present) {
        const QString path = v4l2::nodePathOf(*device);
        auto position = v4l2::defaultPositionOf(*device);
        for (const auto& [key, overridden] : positionOverrides_) {
            if (key == device->uniqueID() || key == path)
                position = overridden;
        }
        device->setPosition(position);
        all.push_back(device);
    }
    return all;
}

// --------------------------------------------------------------- discovery

CaptureDeviceDiscoverySession CaptureDeviceDiscoverySession::discoverySession(const QStringList& deviceTypes,
                                                                              MediaType mediaType,
                                                                              CaptureDevicePosition position)
{
    CaptureDeviceDiscoverySession session;
    for (const auto& device : CaptureDeviceRegistry::shared().allDevices()) {
        if (!deviceTypes.contains(device->deviceType()) || !device->hasMediaType(mediaType))
            continue;
        if (!device->isConnected())
            continue;
        if (position != CaptureDevicePosition::Unspecified && device->position() != position)
            continue;
        session.devices_.push_back(device);
    }
    return session;
}

}  // namespace zavo::platform
