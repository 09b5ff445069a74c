#include "camera/pipewire/Provider_p.h"

#include "base/Log_p.h"
#include "camera/pipewire/Stream_p.h"
#include "camera/v4l2/Provider_p.h"

#include <algorithm>

namespace zavo::platform::pipewire {

namespace {

constexpr qint64 kReconnectInterval = 2000;  // ms

CaptureDevicePosition positionOf(const CameraNode& camera)
{
    if (camera.location == QLatin1String("front"))
        return CaptureDevicePosition::Front;
    if (camera.location == QLatin1String("back"))
        return CaptureDevicePosition::Back;
    return v4l2::positionForCard(camera.description);
}

std::vector<CaptureDeviceFormatPtr> formatsOf(const CameraNode& camera)
{
    std::vector<CaptureDeviceFormatPtr> formats;
    for (const auto& f : camera.formats)
        formats.push_back(f.format);
    return formats;
}

class PipeWireCaptureDevice final : public CaptureDevice {
public:
    PipeWireCaptureDevice(std::shared_ptr<Connection> connection, CameraNode camera)
        : CaptureDevice(kLocationPrefix + camera.name, camera.description, positionOf(camera), formatsOf(camera),
                        camera.formats.front().format)
        , connection_(std::move(connection))
        , camera_(std::move(camera))
    {
    }

    QString location() const override { return kLocationPrefix + camera_.name; }
    CaptureDevicePosition nativePosition() const override { return positionOf(camera_); }
    const CameraNode& node() const { return camera_; }
    uint32_t nodeId() const { return camera_.id; }
    const Connection* connection() const { return connection_.get(); }

    std::unique_ptr<CaptureDeviceStream> openStream(const CaptureDeviceFormatPtr& format, ErrorPtr* error) override
    {
        auto match = std::find_if(camera_.formats.begin(), camera_.formats.end(),
                                  [&](const NodeFormat& f) { return f.format == format; });
        if (match == camera_.formats.end()) {
            if (error)
                *error = makeCaptureError(CaptureErrorCode::DeviceOpenFailed,
                                          QStringLiteral("%1: not a format of this camera").arg(location()));
            return nullptr;
        }
        if (!isConnected() || !connection_->hasCamera(camera_.id, camera_.name)) {
            if (error)
                *error = makeCaptureError(CaptureErrorCode::DeviceNotAvailable,
                                          QStringLiteral("%1 was unplugged").arg(location()),
                                          CameraFailureReason::Unplugged);
            return nullptr;
        }
        return Stream::open(connection_, camera_, *match, error);
    }

    void markDisconnected() { setConnected(false); }

private:
    const std::shared_ptr<Connection> connection_;
    const CameraNode camera_;
};

}  // namespace

Provider::Provider() : reconnects_(true) {}

Provider::Provider(std::shared_ptr<Connection> connection) : reconnects_(false), connection_(std::move(connection)) {}

QString Provider::v4l2PathOf(const CaptureDevice& device)
{
    const auto* camera = dynamic_cast<const PipeWireCaptureDevice*>(&device);
    return camera ? camera->node().v4l2Path : QString();
}

std::shared_ptr<Connection> Provider::connection()
{
    if (!reconnects_ || (connection_ && connection_->isConnected()))
        return connection_;
    if (lastAttempt_.isValid() && lastAttempt_.elapsed() < kReconnectInterval)
        return connection_;
    lastAttempt_.start();
    QString why;
    connection_ = Connection::open(-1, &why);
    if (!connection_ && !std::exchange(warned_, true))
        qCInfo(lcCameraPipewire, "no PipeWire cameras: %s", qUtf8Printable(why));
    if (connection_)
        warned_ = false;
    return connection_;
}

std::vector<CaptureDevicePtr> Provider::devices()
{
    MutexLocker lock(mutex_);
    const auto connection = this->connection();
    std::vector<CameraNode> cameras;
    if (connection && connection->isConnected())
        cameras = connection->cameras();

    std::vector<CaptureDevicePtr> present;
    for (auto& camera : cameras) {
        // A node keeps its id and formats for as long as it stays; a new id,
        // or the same one from a restarted daemon, is a new camera.
        auto same = std::find_if(devices_.begin(), devices_.end(), [&](const CaptureDevicePtr& d) {
            const auto& known = static_cast<const PipeWireCaptureDevice&>(*d);
            return known.connection() == connection.get() && known.nodeId() == camera.id
                && known.node().name == camera.name && d->isConnected();
        });
        if (same != devices_.end())
            present.push_back(*same);
        else
            present.push_back(std::make_shared<PipeWireCaptureDevice>(connection, std::move(camera)));
    }
    for (const auto& device : devices_) {
        if (std::find(present.begin(), present.end(), device) == present.end())
            static_cast<PipeWireCaptureDevice&>(*device).markDisconnected();
    }
    devices_ = std::move(present);
    return devices_;
}

}  // namespace zavo::platform::pipewire
