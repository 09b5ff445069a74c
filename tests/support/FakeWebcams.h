#pragma once
// Recorded webcams plugged into a fake kernel that the process's camera
// registry lists instead of the machine's /dev.
#include "FakeV4L2Kernel.h"
#include "camera/CaptureDevice.h"
#include "camera/v4l2/Provider_p.h"

namespace zavo::testing {

#ifdef ZAVO_TEST_DATA_DIR
inline QString webcamFixture(const QString& name) { return QStringLiteral(ZAVO_TEST_DATA_DIR "/v4l2/") + name; }

/// The face clip A, fitted into whatever size a camera is asked for.
inline const FrameFeed& faceFeed()
{
    static const FrameFeed feed = clipFeed(QStringLiteral(ZAVO_TEST_DATA_DIR "/A_zoom_blur_dark.mp4"), 60);
    return feed;
}

/// A camera that lists the formats of the recorded fixture and shows the
/// face clip. qFatal on a fixture that does not parse: the data is broken.
inline std::shared_ptr<FakeCamera> fixtureCamera(const QString& name)
{
    auto camera = std::make_shared<FakeCamera>();
    QString problem;
    auto formats = loadFormatList(webcamFixture(name), &problem);
    if (!formats)
        qFatal("fixture %s: %s", qPrintable(name), qPrintable(problem));
    camera->formats = *formats;
    if (!formats->card.isEmpty())
        camera->card = formats->card;
    camera->busInfo = QStringLiteral("usb-fake-") + name;
    camera->feed = faceFeed();
    return camera;
}
#endif

/// The process's cameras are the fake kernel's while this lives.
struct FakeWebcams {
    std::shared_ptr<FakeV4L2Kernel> kernel = std::make_shared<FakeV4L2Kernel>();
    explicit FakeWebcams(platform::v4l2::StreamLimits limits = {})
    {
        platform::CaptureDeviceRegistry::shared().setProviders(
            {std::make_shared<platform::v4l2::Provider>(kernel, limits)});
    }
    ~FakeWebcams()
    {
        platform::CaptureDeviceRegistry::shared().setProviders({});
        platform::CaptureDeviceRegistry::shared().setPreferredDevice({});
    }
    FakeWebcams(const FakeWebcams&) = delete;
    FakeWebcams& operator=(const FakeWebcams&) = delete;

    platform::CaptureDevicePtr only()
    {
        auto devices = platform::CaptureDeviceRegistry::shared().allDevices();
        return devices.size() == 1 ? devices.front() : nullptr;
    }
};

}  // namespace zavo::testing
