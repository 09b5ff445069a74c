// The same host on the builder and a delegate, the lower-level entry point:
// outcomes arrive on the component's threads and are moved to the GUI
// thread by hand, and the host waits for the video to be final before it
// quits. With a video file as its argument it plays that file as the front
// camera; without one it lists the webcams it can use.
#include <camera-screen/ZMCameraBuilder.h>
#include <capture/ZMCameraDevices.h>
#include <base/DispatchQueue.h>
#include <camera/file/FileCaptureDevice.h>

#include <QApplication>
#include <cstdio>

class Host final : public zavo::ZMCameraDelegate {
public:
    int exitCode = 1;

    void bestShot(zavo::core::ZCBestShotPtr shot, std::optional<QString> videoFile) override
    {
        const zavo::core::ZCQualityScore& q = shot->quality();
        QString line = QStringLiteral("best shot, quality %1, yaw %2 pitch %3 roll %4, eyes open %5")
                           .arg(q.total, 0, 'f', 2)
                           .arg(q.headPose.yaw, 0, 'f', 1)
                           .arg(q.headPose.pitch, 0, 'f', 1)
                           .arg(q.headPose.roll, 0, 'f', 1)
                           .arg(q.eyesOpen, 0, 'f', 2);
        if (const auto& points = shot->keypoints())
            line += QStringLiteral(", eyes at (%1, %2) and (%3, %4)")
                        .arg(points->rightEye.x(), 0, 'f', 0)
                        .arg(points->rightEye.y(), 0, 'f', 0)
                        .arg(points->leftEye.x(), 0, 'f', 0)
                        .arg(points->leftEye.y(), 0, 'f', 0);
        finish(0, line, videoFile);
    }
    void error(const zavo::ZMCameraError& error, std::optional<QString> videoFile) override
    {
        finish(1, QStringLiteral("error: %1").arg(error.localizedDescription()), videoFile);
    }

    // Comes after the outcome, once the video named there is final.
    void videoFinished(std::optional<QString> videoFile, zavo::platform::ErrorPtr error) override
    {
        zavo::platform::DispatchQueue::main().async([videoFile, problem = error ? error->localizedDescription() : QString()] {
            std::printf("video final: %s%s\n", qPrintable(videoFile.value_or(QStringLiteral("deleted"))),
                        problem.isEmpty() ? "" : qPrintable(QStringLiteral(" (%1)").arg(problem)));
            QApplication::quit();
        });
    }

private:
    // Outcomes arrive on one of the component's queues: hop to the main thread.
    void finish(int code, QString text, std::optional<QString> videoFile)
    {
        zavo::platform::DispatchQueue::main().async([this, code, text, videoFile] {
            std::printf("%s; video: %s\n", qPrintable(text), qPrintable(videoFile.value_or(QStringLiteral("none"))));
            exitCode = code;
            if (!videoFile)
                QApplication::quit();  // otherwise videoFinished follows
        });
    }
};

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("zavocamera-host-example"));
    app.setApplicationVersion(QStringLiteral("1.0"));

    std::shared_ptr<zavo::platform::FileCaptureDevice> fileCamera;
    if (argc > 1) {
        zavo::platform::ErrorPtr error;
        fileCamera = zavo::platform::FileCaptureDevice::create(QString::fromLocal8Bit(argv[1]),
                                                               zavo::platform::CaptureDevicePosition::Front, &error);
        if (!fileCamera) {
            std::fprintf(stderr, "cannot play %s: %s\n", argv[1], qPrintable(error->localizedDescription()));
            return 2;
        }
        zavo::platform::CaptureDeviceRegistry::shared().registerDevice(fileCamera);
    } else {
        for (const auto& camera : zavo::ZMCameraDevices::availableCameras())
            std::printf("camera: %s %s%s\n", qPrintable(camera.location), qPrintable(camera.name),
                        camera.position == zavo::platform::CaptureDevicePosition::Front ? " (front)" : "");
    }

    auto host = std::make_shared<Host>();
    auto configuration = std::make_shared<zavo::core::ZCZavoConfiguration>();
    auto screen = zavo::ZMCameraBuilder::viewController(host, configuration, nullptr, nullptr, /*recordVideo=*/true);
    screen->viewController()->view()->resize(720 / 2, 1280 / 2);
    screen->viewController()->view()->show();
    app.exec();
    return host->exitCode;
}
