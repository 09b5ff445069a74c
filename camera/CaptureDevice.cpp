#include "camera/CaptureDevice.h"

#include "camera/CaptureDevice_p.h"
#include "base/Log_p.h"

#include <QTimeZone>

#include <algorithm>
#include <cmath>

namespace zavo::platform {

ErrorPtr makeCaptureError(CaptureErrorCode code, const QString& description)
{
    return std::make_shared<const ErrorObject>(kCaptureErrorDomain, static_cast<long>(code),
                                               QVariantMap{{QString::fromLatin1(kLocalizedDescriptionKey), description}});
}

ErrorPtr makeCaptureError(CaptureErrorCode code, const QString& description, CameraFailureReason reason)
{
    QVariantMap info{{QString::fromLatin1(kLocalizedDescriptionKey), description}};
    if (reason != CameraFailureReason::None)
        info.insert(QString::fromLatin1(kCameraFailureReasonKey), int(reason));
    return std::make_shared<const ErrorObject>(kCaptureErrorDomain, static_cast<long>(code), std::move(info));
}

CameraFailureReason cameraFailureReasonOf(const ErrorPtr& error)
{
    if (!error)
        return CameraFailureReason::None;
    bool ok = false;
    const int value = error->userInfo().value(QString::fromLatin1(kCameraFailureReasonKey)).toInt(&ok);
    if (!ok || value <= int(CameraFailureReason::None) || value > int(CameraFailureReason::NoPictures))
        return CameraFailureReason::None;
    return CameraFailureReason(value);
}

const char* cameraFailureReasonName(CameraFailureReason reason)
{
    switch (reason) {
    case CameraFailureReason::None: break;
    case CameraFailureReason::Busy: return "busy";
    case CameraFailureReason::NoPermission: return "no permission";
    case CameraFailureReason::PortalRefused: return "refused by the camera portal";
    case CameraFailureReason::Unplugged: return "unplugged";
    case CameraFailureReason::NoBandwidth: return "not enough USB bandwidth";
    case CameraFailureReason::NoPictures: return "no pictures";
    }
    return "no known reason";
}

// ---------------------------------------------------------- power line

namespace {
Guarded<int> gPowerLineChoice{0};
}  // namespace

void setPowerLineFrequencyChoice(int hertz) { gPowerLineChoice.set(hertz == 50 || hertz == 60 ? hertz : 0); }

int powerLineFrequencyChoice() { return gPowerLineChoice.get(); }

int powerLineFrequencyFor(QLocale::Territory territory)
{
    using T = QLocale::Territory;
    // Mains at 60 Hz; Japan runs both (50 in the east, 60 in the west) and
    // stays with the rest of the world's 50, a host there may choose.
    static constexpr T sixty[] = {
        T::UnitedStates, T::Canada, T::Mexico, T::Guatemala, T::Belize, T::ElSalvador, T::Honduras, T::Nicaragua,
        T::CostaRica, T::Panama, T::Cuba, T::Bahamas, T::DominicanRepublic, T::Haiti, T::PuertoRico,
        T::UnitedStatesVirginIslands, T::CaymanIslands, T::Bermuda, T::TurksAndCaicosIslands, T::AntiguaAndBarbuda,
        T::SaintKittsAndNevis, T::TrinidadAndTobago, T::Aruba, T::Colombia, T::Venezuela, T::Ecuador, T::Peru,
        T::Brazil, T::Guyana, T::Suriname, T::Taiwan, T::SouthKorea, T::Philippines, T::SaudiArabia, T::Liberia,
        T::Guam, T::AmericanSamoa, T::NorthernMarianaIslands, T::Micronesia, T::MarshallIslands, T::Palau,
    };
    return std::find(std::begin(sixty), std::end(sixty), territory) != std::end(sixty) ? 60 : 50;
}

int effectivePowerLineFrequency()
{
    if (const int chosen = powerLineFrequencyChoice())
        return chosen;
    // Where the machine is, not which language its user reads: an English
    // locale is common far from the Americas, a time zone is local. "UTC"
    // and the like name no territory; the locale is the next best guess.
    QLocale::Territory territory = QTimeZone::systemTimeZone().territory();
    if (territory == QLocale::AnyTerritory)
        territory = QLocale::system().territory();
    return powerLineFrequencyFor(territory);
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
    MutexLocker lock(mutex_);
    return position_;
}

void CaptureDevice::setPosition(CaptureDevicePosition position)
{
    MutexLocker lock(mutex_);
    position_ = position;
}

bool CaptureDevice::isConnected() const
{
    MutexLocker lock(mutex_);
    return connected_;
}

void CaptureDevice::setConnected(bool connected)
{
    MutexLocker lock(mutex_);
    connected_ = connected;
}

std::vector<CaptureDeviceFormatPtr> CaptureDevice::formats() const { return formats_; }

CaptureDeviceFormatPtr CaptureDevice::activeFormat() const
{
    MutexLocker lock(mutex_);
    return activeFormat_;
}

void CaptureDevice::setActiveFormat(const CaptureDeviceFormatPtr& format)
{
    MutexLocker lock(mutex_);
    if (lockCount_ == 0) {
        qCWarning(lcCameraDevice) << "active format of" << uniqueID_ << "set without the configuration lock; ignored";
        return;
    }
    if (std::find(formats_.begin(), formats_.end(), format) == formats_.end()) {
        qCWarning(lcCameraDevice) << "active format of" << uniqueID_ << "is not one of its formats; ignored";
        return;
    }
    activeFormat_ = format;
}

bool CaptureDevice::lockForConfiguration(ErrorPtr* error)
{
    const bool refused = refusesLock();
    MutexLocker lock(mutex_);
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
    MutexLocker lock(mutex_);
    if (lockCount_ > 0)
        --lockCount_;
}

void CaptureDevice::setFocusCapabilities(std::vector<FocusMode> supportedModes, bool pointOfInterest)
{
    MutexLocker lock(mutex_);
    focusModes_ = std::move(supportedModes);
    if (std::find(focusModes_.begin(), focusModes_.end(), FocusMode::Locked) == focusModes_.end())
        focusModes_.push_back(FocusMode::Locked);
    focusPointSupported_ = pointOfInterest;
}

bool CaptureDevice::isFocusModeSupported(FocusMode mode) const
{
    MutexLocker lock(mutex_);
    return std::find(focusModes_.begin(), focusModes_.end(), mode) != focusModes_.end();
}

FocusMode CaptureDevice::focusMode() const
{
    MutexLocker lock(mutex_);
    return focusMode_;
}

void CaptureDevice::setFocusMode(FocusMode mode)
{
    {
        MutexLocker lock(mutex_);
        if (lockCount_ == 0 || std::find(focusModes_.begin(), focusModes_.end(), mode) == focusModes_.end()) {
            qCWarning(lcCameraDevice) << "focus mode" << int(mode) << "of" << uniqueID_
                                << "not set: unsupported or not locked for configuration";
            return;
        }
    }
    // The hardware call may take a while (an ioctl); it runs outside the lock.
    if (!applyFocusMode(mode))
        return;
    MutexLocker lock(mutex_);
    focusMode_ = mode;
}

bool CaptureDevice::applyFocusMode(FocusMode) { return true; }

bool CaptureDevice::isFocusPointOfInterestSupported() const
{
    MutexLocker lock(mutex_);
    return focusPointSupported_;
}

QPointF CaptureDevice::focusPointOfInterest() const
{
    MutexLocker lock(mutex_);
    return focusPoint_;
}

void CaptureDevice::setFocusPointOfInterest(QPointF point)
{
    MutexLocker lock(mutex_);
    if (lockCount_ == 0 || !focusPointSupported_) {
        qCWarning(lcCameraDevice) << "focus point of" << uniqueID_ << "not set: unsupported or not locked for configuration";
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

double rateOf(const CaptureDeviceFormat& format)
{
    const double rate = format.captureFrameRate(0.0);
    return std::isfinite(rate) && rate > 0 ? rate : 0.0;
}

int rateTier(double rate) { return rate >= 24.0 ? 2 : rate >= 15.0 ? 1 : 0; }

bool isCompressed(const CaptureDeviceFormat& format)
{
    const uint32_t code = format.mediaSubType();
    return code == fourCharCode("MJPG") || code == fourCharCode("JPEG");
}

/// The wanted size turned to the camera's own orientation.
std::pair<int64_t, int64_t> orientedWanted(const std::vector<CaptureDeviceFormatPtr>& formats, int width, int height)
{
    const CaptureDeviceFormat* largest = nullptr;
    for (const auto& format : formats) {
        if (format->width() > 0 && format->height() > 0
            && (!largest || int64_t(format->width()) * format->height() > int64_t(largest->width()) * largest->height()))
            largest = format.get();
    }
    const int64_t longSide = std::max(width, height);
    const int64_t shortSide = std::min(width, height);
    if (largest && largest->height() > largest->width())
        return {shortSide, longSide};
    return {longSide, shortSide};
}

/// 0: the wanted size; 1: covers it; 2: smaller; 3: no size at all.
int sizeClass(const CaptureDeviceFormat& format, std::pair<int64_t, int64_t> wanted)
{
    if (format.width() <= 0 || format.height() <= 0)
        return 3;
    if ((format.width() == wanted.first && format.height() == wanted.second)
        || (format.width() == wanted.second && format.height() == wanted.first))
        return 0;
    return format.width() >= wanted.first && format.height() >= wanted.second ? 1 : 2;
}
}  // namespace

std::vector<CaptureDeviceFormatPtr> rankCaptureFormats(const std::vector<CaptureDeviceFormatPtr>& formats, int width,
                                                       int height)
{
    const auto wanted = orientedWanted(formats, width, height);
    std::vector<CaptureDeviceFormatPtr> ranked = formats;
    std::stable_sort(ranked.begin(), ranked.end(), [&](const CaptureDeviceFormatPtr& a, const CaptureDeviceFormatPtr& b) {
        const int tierA = rateTier(rateOf(*a));
        const int tierB = rateTier(rateOf(*b));
        if (tierA != tierB)
            return tierA > tierB;
        const int sizeA = sizeClass(*a, wanted);
        const int sizeB = sizeClass(*b, wanted);
        if (sizeA != sizeB)
            return sizeA < sizeB;
        const int64_t areaA = int64_t(a->width()) * a->height();
        const int64_t areaB = int64_t(b->width()) * b->height();
        if (areaA != areaB)
            return sizeA == 1 ? areaA < areaB : areaA > areaB;  // covering: least to scale; smaller: the largest
        if (isCompressed(*a) != isCompressed(*b))
            return !isCompressed(*a);  // no decoding when raw frames come as fast
        const bool nativeA = a->mediaSubType() == uint32_t(PixelFormat::NV12VideoRange);
        if (nativeA != (b->mediaSubType() == uint32_t(PixelFormat::NV12VideoRange)))
            return nativeA;  // what the rest of the pipeline works in
        return rateOf(*a) > rateOf(*b);
    });
    return ranked;
}

QString fourCharCodeText(uint32_t code)
{
    QString text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char c = char((code >> shift) & 0xff);
        text += (c >= 0x20 && c < 0x7f) ? QChar::fromLatin1(c) : QLatin1Char('?');
    }
    return text;
}

QString captureFormatChoiceReason(const std::vector<CaptureDeviceFormatPtr>& ranked, const QString& preset)
{
    int width = 0;
    int height = 0;
    if (!presetSize(preset, width, height))
        return QStringLiteral("the active format");
    if (ranked.empty())
        return QStringLiteral("the camera lists no format");
    const auto& chosen = *ranked.front();
    const auto wanted = orientedWanted(ranked, width, height);
    QStringList reasons;
    if (rateOf(chosen) <= 0)
        reasons << QStringLiteral("the camera lists no frame rate");
    else switch (rateTier(rateOf(chosen))) {
    case 2: reasons << QStringLiteral("24 fps or more"); break;
    case 1: reasons << QStringLiteral("no format reaches 24 fps"); break;
    default: reasons << QStringLiteral("no format reaches 15 fps"); break;
    }
    switch (sizeClass(chosen, wanted)) {
    case 0: reasons << QStringLiteral("the wanted size"); break;
    case 1: reasons << QStringLiteral("the smallest size above %1x%2").arg(wanted.first).arg(wanted.second); break;
    default: reasons << QStringLiteral("the largest size below %1x%2 at that rate").arg(wanted.first).arg(wanted.second); break;
    }
    // The case that surprises: the raw rendition of the size is there but too slow.
    for (const auto& other : ranked) {
        if (!isCompressed(*other) && isCompressed(chosen) && other->width() == chosen.width()
            && other->height() == chosen.height() && rateTier(rateOf(*other)) < rateTier(rateOf(chosen))) {
            reasons << QStringLiteral("%1 reaches only %2 fps at that size")
                           .arg(fourCharCodeText(other->mediaSubType()))
                           .arg(rateOf(*other), 0, 'f', 0);
            break;
        }
    }
    return reasons.join(QStringLiteral("; "));
}

bool CaptureDevice::supportsSessionPreset(const QString& preset) const
{
    if (preset == CaptureSessionPreset::InputPriority || preset == CaptureSessionPreset::High)
        return true;
    int width = 0;
    int height = 0;
    return presetSize(preset, width, height) && !formats_.empty();
}

std::vector<CaptureDeviceFormatPtr> CaptureDevice::formatsForSessionPreset(const QString& preset) const
{
    int width = 0;
    int height = 0;
    if (!presetSize(preset, width, height)) {
        auto active = activeFormat();
        return active ? std::vector{active} : std::vector<CaptureDeviceFormatPtr>{};
    }
    return rankCaptureFormats(formats_, width, height);
}

CaptureDeviceFormatPtr CaptureDevice::formatForSessionPreset(const QString& preset) const
{
    const auto candidates = formatsForSessionPreset(preset);
    return candidates.empty() ? activeFormat() : candidates.front();
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
    MutexLocker lock(mutex_);
    auto same = std::find_if(registered_.begin(), registered_.end(),
                             [&](const CaptureDevicePtr& d) { return d->uniqueID() == device->uniqueID(); });
    if (same != registered_.end())
        *same = device;
    else
        registered_.push_back(device);
}

void CaptureDeviceRegistry::unregisterDevice(const QString& uniqueID)
{
    MutexLocker lock(mutex_);
    std::erase_if(registered_, [&](const CaptureDevicePtr& d) { return d->uniqueID() == uniqueID; });
}

void CaptureDeviceRegistry::unregisterAll()
{
    MutexLocker lock(mutex_);
    registered_.clear();
}

std::vector<CaptureDevicePtr> CaptureDeviceRegistry::registeredDevices() const
{
    MutexLocker lock(mutex_);
    return registered_;
}

void CaptureDeviceRegistry::setProviders(std::vector<CaptureDeviceProviderPtr> providers)
{
    MutexLocker lock(mutex_);
    providers_ = std::move(providers);
    providersChosen_ = true;
}

std::vector<CaptureDeviceProviderPtr> CaptureDeviceRegistry::providers() const
{
    MutexLocker lock(mutex_);
    return providers_ ? *providers_ : std::vector<CaptureDeviceProviderPtr>{};
}

bool CaptureDeviceRegistry::usesDefaultProviders() const
{
    MutexLocker lock(mutex_);
    return !providersChosen_;
}

void CaptureDeviceRegistry::setPositionOverride(const QString& uniqueIDOrLocation, CaptureDevicePosition position)
{
    MutexLocker lock(mutex_);
    std::erase_if(positionOverrides_, [&](const auto& entry) { return entry.first == uniqueIDOrLocation; });
    positionOverrides_.emplace_back(uniqueIDOrLocation, position);
}

void CaptureDeviceRegistry::clearPositionOverrides()
{
    MutexLocker lock(mutex_);
    positionOverrides_.clear();
}

void CaptureDeviceRegistry::setPreferredDevice(const QString& uniqueIDOrLocation)
{
    MutexLocker lock(mutex_);
    preferred_ = uniqueIDOrLocation;
}

QString CaptureDeviceRegistry::preferredDevice() const
{
    MutexLocker lock(mutex_);
    return preferred_;
}

namespace {
bool answersTo(const CaptureDevice& device, const QString& key)
{
    return !key.isEmpty() && (device.uniqueID() == key || device.location() == key);
}
}  // namespace

std::vector<CaptureDevicePtr> CaptureDeviceRegistry::allDevices()
{
    std::vector<CaptureDeviceProviderPtr> providers;
    {
        MutexLocker lock(mutex_);
        if (!providers_)
            providers_ = defaultCaptureDeviceProviders();
        providers = *providers_;
    }
    // Providers probe hardware; that runs outside the lock so that a slow
    // driver does not hold up registration elsewhere.
    std::vector<CaptureDevicePtr> provided;
    for (const auto& provider : providers) {
        for (auto& device : provider->devices())
            provided.push_back(std::move(device));
    }

    MutexLocker lock(mutex_);
    std::vector<CaptureDevicePtr> all = registered_;
    placeProvidedDevices(registered_, provided);
    all.insert(all.end(), provided.begin(), provided.end());
    auto preferred = all.begin();
    while (preferred != all.end() && !answersTo(**preferred, preferred_))
        ++preferred;
    if (preferred != all.end())
        std::rotate(all.begin(), preferred, preferred + 1);
    return all;
}

void CaptureDeviceRegistry::placeProvidedDevices(const std::vector<CaptureDevicePtr>& registered,
                                                 const std::vector<CaptureDevicePtr>& provided) const
{
    std::vector<CaptureDevicePosition> positions;
    for (const auto& device : provided) {
        auto position = device->nativePosition();
        for (const auto& [key, overridden] : positionOverrides_) {
            if (answersTo(*device, key))
                position = overridden;
        }
        positions.push_back(position);
    }
    auto preferred = provided.begin();
    while (preferred != provided.end() && !answersTo(**preferred, preferred_))
        ++preferred;
    if (preferred != provided.end()) {
        for (auto& position : positions) {
            if (position == CaptureDevicePosition::Front)
                position = CaptureDevicePosition::Back;
        }
        positions[size_t(preferred - provided.begin())] = CaptureDevicePosition::Front;
    }
    bool frontTaken = std::any_of(registered.begin(), registered.end(), [](const CaptureDevicePtr& d) {
        return d->isConnected() && d->position() == CaptureDevicePosition::Front;
    }) || std::find(positions.begin(), positions.end(), CaptureDevicePosition::Front) != positions.end();
    for (size_t i = 0; i < provided.size(); ++i) {
        if (positions[i] == CaptureDevicePosition::Unspecified) {
            // A desktop webcam faces its user: the first serves as front.
            positions[i] = frontTaken ? CaptureDevicePosition::Back : CaptureDevicePosition::Front;
            frontTaken = true;
        }
        provided[i]->setPosition(positions[i]);
    }
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
