#include "DemoCamera.h"

#include "capture/ZMCameraDevices.h"
#include "camera/file/FileCaptureDevice.h"
#include "camera/synthetic/SyntheticCaptureDevice.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

// Resources of a static library need a reference to be linked in.
static void initDemoResources()
{
    Q_INIT_RESOURCE(demo);
}

namespace zavo::demo {

namespace {

using platform::CaptureDevicePosition;
using platform::CaptureDeviceRegistry;

const QString kEmbeddedClip = QStringLiteral(":/demo/media/A_zoom_blur_dark.mp4");

bool isV4L2Node(const QString& value)
{
    return value.startsWith(QLatin1String("/dev/video"));
}

std::unique_ptr<QTemporaryFile> extractEmbeddedClip(QString* problem)
{
    initDemoResources();
    QFile resource(kEmbeddedClip);
    if (!resource.open(QIODevice::ReadOnly)) {
        *problem = QStringLiteral("the embedded clip is missing from the program's resources");
        return nullptr;
    }
    // FFmpeg opens cameras by path, so the clip needs a real file.
    auto file = std::make_unique<QTemporaryFile>(QDir::temp().filePath(QStringLiteral("zavocamera-demo-XXXXXX.mp4")));
    if (!file->open() || file->write(resource.readAll()) != resource.size() || !file->flush()) {
        *problem = QStringLiteral("cannot write the embedded clip to %1: %2").arg(file->fileName(), file->errorString());
        return nullptr;
    }
    return file;
}

}  // namespace

std::optional<CameraChoice> parseCameraChoice(const QString& value, QString* problem)
{
    if (value.isEmpty() || value == QLatin1String("default"))
        return CameraChoice{CameraChoice::Kind::Embedded, {}};
    if (value == QLatin1String("synthetic"))
        return CameraChoice{CameraChoice::Kind::Synthetic, {}};
    if (value == QLatin1String("webcam"))
        return CameraChoice{CameraChoice::Kind::V4L2, {}};
    // A desktop's camera through PipeWire is one of the machine's cameras
    // too, named by its location; whether it is there is known only once
    // the daemon is asked.
    if (value.startsWith(QLatin1String("pipewire:")) && value.size() > 9)
        return CameraChoice{CameraChoice::Kind::V4L2, value};
    if (!QFileInfo::exists(value)) {
        *problem = QStringLiteral("no such camera or video file: %1").arg(value);
        return std::nullopt;
    }
    if (isV4L2Node(value))
        return CameraChoice{CameraChoice::Kind::V4L2, value};
    if (QFileInfo(value).isDir()) {
        *problem = QStringLiteral("%1 is a folder, not a video file").arg(value);
        return std::nullopt;
    }
    return CameraChoice{CameraChoice::Kind::File, QFileInfo(value).absoluteFilePath()};
}

std::unique_ptr<FrontCamera> FrontCamera::install(const CameraChoice& choice, QString* problem,
                                                 std::vector<platform::CaptureDeviceProviderPtr> webcamProviders)
{
    std::unique_ptr<FrontCamera> camera(new FrontCamera);
    CaptureDeviceRegistry::shared().unregisterAll();
    if (choice.kind != CameraChoice::Kind::V4L2)
        webcamProviders.clear();
    CaptureDeviceRegistry::shared().setProviders(std::move(webcamProviders));
    bool installed = true;
    switch (choice.kind) {
    case CameraChoice::Kind::Embedded:
        installed = camera->installEmbedded(problem);
        break;
    case CameraChoice::Kind::File:
        installed = camera->installFile(choice.path, problem);
        break;
    case CameraChoice::Kind::V4L2:
        installed = camera->installV4L2(choice.path, problem);
        break;
    case CameraChoice::Kind::Synthetic:
        camera->installSynthetic();
        break;
    }
    if (!installed)
        return nullptr;
    return camera;
}

FrontCamera::~FrontCamera()
{
    if (device_)
        CaptureDeviceRegistry::shared().unregisterDevice(device_->uniqueID());
    if (!v4l2Node_.isEmpty())
        ZMCameraDevices::setPreferredCamera({});
}

QString FrontCamera::clipPath() const
{
    if (extractedClip_)
        return extractedClip_->fileName();
    if (const auto file = std::dynamic_pointer_cast<platform::FileCaptureDevice>(device_))
        return file->path();
    return {};
}

bool FrontCamera::installEmbedded(QString* problem)
{
    extractedClip_ = extractEmbeddedClip(problem);
    if (!extractedClip_)
        return false;
    if (!installFile(extractedClip_->fileName(), problem))
        return false;
    description_ = QStringLiteral("embedded clip A_zoom_blur_dark.mp4");
    return true;
}

bool FrontCamera::installFile(const QString& path, QString* problem)
{
    platform::ErrorPtr error;
    auto device = platform::FileCaptureDevice::create(path, CaptureDevicePosition::Front, &error);
    if (!device) {
        *problem = QStringLiteral("cannot play %1: %2").arg(path, error ? error->localizedDescription() : QString());
        return false;
    }
    CaptureDeviceRegistry::shared().registerDevice(device);
    device_ = std::move(device);
    description_ = path;
    return true;
}

bool FrontCamera::installV4L2(const QString& node, QString* problem)
{
    // A named node is made the preferred camera; without one the automatic
    // choice stands (a built-in camera, else the first webcam).
    if (!node.isEmpty() && !ZMCameraDevices::setPreferredCamera(node)) {
        *problem = QStringLiteral("%1 is not a video capture device this user can use").arg(node);
        return false;
    }
    v4l2Node_ = node;
    const auto session = platform::CaptureDeviceDiscoverySession::discoverySession(
        {platform::kCaptureDeviceTypeBuiltInWideAngleCamera}, platform::MediaType::Video, CaptureDevicePosition::Front);
    if (session.devices().empty()) {
        *problem = node.isEmpty() ? QStringLiteral("no webcam found") : QStringLiteral("%1 is not usable").arg(node);
        return false;
    }
    description_ = QStringLiteral("%1 (%2)").arg(session.devices().front()->location(),
                                                 session.devices().front()->localizedName());
    return true;
}

void FrontCamera::installSynthetic()
{
    auto device = platform::SyntheticCaptureDevice::create();
    CaptureDeviceRegistry::shared().registerDevice(device);
    device_ = std::move(device);
    description_ = QStringLiteral("synthetic camera");
}

}  // namespace zavo::demo
