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
    V4L2CaptureDevice(std::shared_ptr<Kernel> kernel, NodeDescription node)
        : CaptureDevice(uniqueIDFor(node), node.card, positionForCard(node.card), formatsOf(node), node.current)
        , kernel_(std::move(kernel))
        , node_(std::move(node))
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
                *error = makeCaptureError(CaptureErrorCode::AccessDenied, accessDeniedText(node_.path));
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
        return Stream::open(kernel_, node_.path, node_.card, *match, error);
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
    static QString uniqueIDFor(const NodeDescription& node)
    {
        return QStringLiteral("v4l2:%1:%2").arg(node.busInfo.isEmpty() ? node.path : node.busInfo, node.card);
    }
    static std::vector<CaptureDeviceFormatPtr> formatsOf(const NodeDescription& node)
    {
        std::vector<CaptureDeviceFormatPtr> formats;
        for (const auto& f : node.formats)
            formats.push_back(f.format);
        return formats;
    }

    const std::shared_ptr<Kernel> kernel_;
    const NodeDescription node_;
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

Provider::Provider(std::shared_ptr<Kernel> kernel) : kernel_(std::move(kernel)) {}

std::vector<CaptureDevicePtr> Provider::devices()
{
    MutexLocker lock(mutex_);
    if (!kernel_->nodesChanged())
        return devices_;

    QStringList nodes = kernel_->videoNodes();
    std::sort(nodes.begin(), nodes.end(), [](const QString& a, const QString& b) { return nodeNumber(a) < nodeNumber(b); });
    std::vector<CaptureDevicePtr> present;
    QStringList refused;
    for (const QString& node : nodes) {
        const QString path = QStringLiteral("/dev/") + node;
        auto same = std::find_if(devices_.begin(), devices_.end(),
                                 [&](const CaptureDevicePtr& d) { return d->location() == path; });
        ProbeFailure failure = ProbeFailure::NotCapture;
        int error = 0;
        auto description = describeNode(*kernel_, path, &failure, &error);
        if (!description) {
            // A camera that is streaming elsewhere still answers its probe; a
            // busy one that does not is kept as it was.
            if (failure == ProbeFailure::OpenFailed && error == EBUSY && same != devices_.end()) {
                present.push_back(*same);
                continue;
            }
            if (failure == ProbeFailure::OpenFailed && (error == EACCES || error == EPERM)) {
                // Listed all the same, without formats: the permission check
                // then answers "denied" rather than "no camera".
                refused << path;
                if (!refused_.contains(path))
                    qCWarning(lcCameraV4l2, "%s", qUtf8Printable(accessDeniedText(path)));
                if (same != devices_.end() && (*same)->formats().empty())
                    present.push_back(*same);
                else
                    present.push_back(std::make_shared<V4L2CaptureDevice>(kernel_, forbiddenNode(path)));
            }
            continue;
        }
        if (!description->skippedFormats.isEmpty())
            qCDebug(lcCameraV4l2, "%s: formats not decoded here: %s", qUtf8Printable(path),
                    qUtf8Printable(description->skippedFormats.join(QLatin1Char(' '))));
        if (same != devices_.end() && (*same)->localizedName() == description->card && (*same)->isConnected())
            present.push_back(*same);
        else
            present.push_back(std::make_shared<V4L2CaptureDevice>(kernel_, std::move(*description)));
    }
    for (const auto& device : devices_) {
        if (std::find(present.begin(), present.end(), device) == present.end()) {
            static_cast<V4L2CaptureDevice&>(*device).markDisconnected();
            qCInfo(lcCameraV4l2, "%s (%s) is gone", qUtf8Printable(device->location()), qUtf8Printable(device->localizedName()));
        }
    }
    for (const auto& device : present) {
        if (std::find(devices_.begin(), devices_.end(), device) == devices_.end())
            qCInfo(lcCameraV4l2, "%s (%s) is present", qUtf8Printable(device->location()), qUtf8Printable(device->localizedName()));
    }
    devices_ = std::move(present);
    refused_ = refused;
    return devices_;
}

}  // namespace zavo::platform::v4l2
