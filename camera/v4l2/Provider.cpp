#include "camera/v4l2/Provider_p.h"

#include "base/Log_p.h"
#include "camera/v4l2/Enumeration_p.h"
#include "camera/v4l2/Stream_p.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>

namespace zavo::platform::v4l2 {

namespace {

class V4L2CaptureDevice final : public CaptureDevice {
public:
    V4L2CaptureDevice(std::shared_ptr<Kernel> kernel, NodeDescription node, const QString& uniqueID,
                      const QString& name, const StreamLimits& limits)
        : CaptureDevice(uniqueID, name, positionForCard(node.card), formatsOf(node), node.current)
        , kernel_(std::move(kernel))
        , node_(std::move(node))
        , limits_(limits)
    {
        if (node_.focusAuto)
            setFocusCapabilities({FocusMode::Locked, FocusMode::ContinuousAutoFocus}, false);
    }

    QString location() const override { return node_.path; }
    const QString& card() const { return node_.card; }
    CaptureDevicePosition nativePosition() const override { return positionForCard(node_.card); }

    bool canOpen() const override
    {
        // The provider said how access is granted when it listed the node.
        UniqueFd fd(*kernel_, kernel_->open(node_.path, O_RDWR | O_NONBLOCK | O_CLOEXEC));
        // Busy is still a camera this user may open; the session reports it.
        return fd || errno == EBUSY;
    }

    std::unique_ptr<CaptureDeviceStream> openStream(const CaptureDeviceFormatPtr& format, ErrorPtr* error) override
    {
        if (node_.formats.empty()) {
            if (error)
                *error = makeCaptureError(CaptureErrorCode::AccessDenied, accessDeniedText(node_.path),
                                          CameraFailureReason::NoPermission);
            return nullptr;
        }
        auto match = std::find_if(node_.formats.begin(), node_.formats.end(),
                                  [&](const DriverFormat& f) { return f.format == format; });
        if (match == node_.formats.end()) {
            if (error)
                *error = makeCaptureError(CaptureErrorCode::DeviceOpenFailed,
                                          QStringLiteral("%1: not a format of this camera").arg(node_.path));
            return nullptr;
        }
        return Stream::open(kernel_, node_.path, node_.card, *match, limits_, error);
    }

    void markDisconnected() { setConnected(false); }

protected:
    bool applyFocusMode(FocusMode mode) override
    {
        UniqueFd fd(*kernel_, kernel_->open(node_.path, O_RDWR | O_NONBLOCK | O_CLOEXEC));
        if (!fd)
            return false;
        v4l2_control control{};
        control.id = V4L2_CID_FOCUS_AUTO;
        control.value = mode == FocusMode::ContinuousAutoFocus ? 1 : 0;
        return kernel_->xioctl(fd.get(), VIDIOC_S_CTRL, &control) == 0;
    }

private:
    static std::vector<CaptureDeviceFormatPtr> formatsOf(const NodeDescription& node)
    {
        std::vector<CaptureDeviceFormatPtr> formats;
        for (const auto& f : node.formats)
            formats.push_back(f.format);
        return formats;
    }

    const std::shared_ptr<Kernel> kernel_;
    const NodeDescription node_;
    const StreamLimits limits_;
};

NodeDescription forbiddenNode(const QString& path)
{
    NodeDescription node;
    node.path = path;
    node.card = QStringLiteral("%1 (no access)").arg(path);
    return node;
}

int nodeNumber(const QString& name) { return name.mid(5).toInt(); }

}  // namespace

CaptureDevicePosition positionForCard(const QString& card)
{
    for (const char* builtIn : {"Integrated", "Built-in", "Builtin", "Internal", "FaceTime"}) {
        if (card.contains(QLatin1String(builtIn), Qt::CaseInsensitive))
            return CaptureDevicePosition::Front;
    }
    return CaptureDevicePosition::Unspecified;
}

Provider::Provider(std::shared_ptr<Kernel> kernel, StreamLimits limits)
    : kernel_(std::move(kernel)), limits_(limits)
{
}

std::vector<CaptureDevicePtr> Provider::devices()
{
    MutexLocker lock(mutex_);
    if (!kernel_->nodesChanged())
        return devices_;

    QStringList nodes = kernel_->videoNodes();
    std::sort(nodes.begin(), nodes.end(), [](const QString& a, const QString& b) { return nodeNumber(a) < nodeNumber(b); });
    // A camera still here keeps its object (and so its name); new ones are
    // made once every kept one is known, so that their names avoid those.
    struct Found {
        CaptureDevicePtr kept;
        std::optional<NodeDescription> node;
        QString nodeName;
    };
    std::vector<Found> found;
    QStringList refused;
    std::set<QString> passedOver;
    for (const QString& node : nodes) {
        const QString path = QStringLiteral("/dev/") + node;
        auto same = std::find_if(devices_.begin(), devices_.end(),
                                 [&](const CaptureDevicePtr& d) { return d->location() == path; });
        const double budget = usbBandwidthBudget(kernel_->usbSpeedMbps(node));
        NodeProbe probe = probeNode(*kernel_, path, budget);
        if (!probe.node) {
            if (probe.failure == ProbeFailure::MediaController || probe.failure == ProbeFailure::InfraredOnly) {
                passedOver.insert(path);
                if (passedOver_.count(path))
                    continue;
                if (probe.failure == ProbeFailure::MediaController)
                    qCInfo(lcCameraV4l2,
                           "%s (%s) is not used: a raw node of a media-controller pipeline, whose picture "
                           "only libcamera makes (desktops offer it through PipeWire)",
                           qUtf8Printable(path), qUtf8Printable(probe.card));
                else
                    qCInfo(lcCameraV4l2,
                           "%s (%s) is not used: it offers only greyscale or depth formats (%s), as an infrared "
                           "face-login or depth camera does",
                           qUtf8Printable(path), qUtf8Printable(probe.card),
                           qUtf8Printable(probe.formats.join(QLatin1Char(' '))));
                continue;
            }
            // A camera that is streaming elsewhere still answers its probe; a
            // busy one that does not is kept as it was.
            if (probe.failure == ProbeFailure::OpenFailed && probe.error == EBUSY && same != devices_.end()) {
                found.push_back({*same, std::nullopt, node});
                continue;
            }
            if (probe.failure == ProbeFailure::OpenFailed && (probe.error == EACCES || probe.error == EPERM)) {
                // Listed all the same, without formats: the permission check
                // then answers "denied" rather than "no camera".
                refused << path;
                if (!refused_.contains(path))
                    qCWarning(lcCameraV4l2, "%s", qUtf8Printable(accessDeniedText(path)));
                if (same != devices_.end() && (*same)->formats().empty())
                    found.push_back({*same, std::nullopt, node});
                else
                    found.push_back({nullptr, forbiddenNode(path), node});
            }
            continue;
        }
        NodeDescription& description = *probe.node;
        if (same != devices_.end() && static_cast<V4L2CaptureDevice&>(**same).card() == description.card
            && (*same)->isConnected()) {
            found.push_back({*same, std::nullopt, node});
            continue;
        }
        if (!description.skippedFormats.isEmpty())
            qCDebug(lcCameraV4l2, "%s: formats not decoded here: %s", qUtf8Printable(path),
                    qUtf8Printable(description.skippedFormats.join(QLatin1Char(' '))));
        if (!description.overBudget.isEmpty())
            qCInfo(lcCameraV4l2, "%s: more than its USB port carries (%.1f MB/s), so not offered: %s",
                   qUtf8Printable(path), budget / 1e6,
                   qUtf8Printable(description.overBudget.join(QStringLiteral(", "))));
        found.push_back({nullptr, std::move(description), node});
    }

    QStringList names;
    for (const auto& f : found) {
        if (f.kept)
            names << f.kept->localizedName();
    }
    std::vector<CaptureDevicePtr> present;
    for (auto& f : found) {
        if (f.kept) {
            present.push_back(f.kept);
            continue;
        }
        QString name = f.node->card;
        for (int n = 2; names.contains(name); ++n)
            name = QStringLiteral("%1 (%2)").arg(f.node->card).arg(n);
        names << name;
        // udev's names stay with the camera (by-id, its serial number) or
        // its port (by-path) across reboots and replugging; node numbers and
        // bus numbers do not.
        QString id = kernel_->persistentName(f.nodeName, Kernel::Link::ById);
        if (id.isEmpty())
            id = kernel_->persistentName(f.nodeName, Kernel::Link::ByPath);
        if (id.isEmpty())
            id = QStringLiteral("%1:%2").arg(f.node->busInfo.isEmpty() ? f.node->path : f.node->busInfo, f.node->card);
        present.push_back(std::make_shared<V4L2CaptureDevice>(kernel_, std::move(*f.node), QStringLiteral("v4l2:") + id,
                                                              name, limits_));
    }
    for (const auto& device : devices_) {
        if (std::find(present.begin(), present.end(), device) == present.end()) {
            static_cast<V4L2CaptureDevice&>(*device).markDisconnected();
            qCInfo(lcCameraV4l2, "%s (%s) is gone", qUtf8Printable(device->location()), qUtf8Printable(device->localizedName()));
        }
    }
    for (const auto& device : present) {
        if (std::find(devices_.begin(), devices_.end(), device) == devices_.end())
            qCInfo(lcCameraV4l2, "%s (%s) is present as %s", qUtf8Printable(device->location()),
                   qUtf8Printable(device->localizedName()), qUtf8Printable(device->uniqueID()));
    }
    devices_ = std::move(present);
    refused_ = refused;
    passedOver_ = std::move(passedOver);
    return devices_;
}

}  // namespace zavo::platform::v4l2
