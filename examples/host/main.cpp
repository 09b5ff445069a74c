// The smallest useful host: shows a camera session, prints how it ended and
// where the video is, and quits. With a video file as its argument it plays
// that file as the front camera instead of using a webcam.
#include <camera-screen/ZMCameraSession.h>
#include <camera/file/FileCaptureDevice.h>

#include <QApplication>
#include <QDir>
#include <cstdio>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    if (argc > 1) {
        auto camera = zavo::platform::FileCaptureDevice::create(QString::fromLocal8Bit(argv[1]),
                                                                zavo::platform::CaptureDevicePosition::Front);
        if (!camera)
            return 2;
        zavo::platform::CaptureDeviceRegistry::shared().registerDevice(camera);
    }

    zavo::ZMCameraSession session;
    session.setVideoFolder(QDir::currentPath() + QStringLiteral("/videos"));
    int exitCode = 1;
    // Every signal arrives on this (the GUI) thread.
    QObject::connect(&session, &zavo::ZMCameraSession::bestShot, [&](const QImage& face, const QVariantMap& metadata) {
        face.save(QStringLiteral("face.png"));
        std::printf("best shot, quality %.2f\n", metadata.value(QStringLiteral("quality")).toDouble());
        exitCode = 0;
    });
    QObject::connect(&session, &zavo::ZMCameraSession::failed, [](const zavo::ZMSessionError& error) {
        std::printf("error: %s\n", qPrintable(error.text()));
    });
    QObject::connect(&session, &zavo::ZMCameraSession::stateChanged, [&](zavo::ZMCameraSession::State state) {
        if (state == zavo::ZMCameraSession::State::Finished) {
            std::printf("video: %s\n", qPrintable(session.videoPath().isEmpty() ? QStringLiteral("none") : session.videoPath()));
            app.quit();
        }
    });
    session.start();
    return app.exec() == 0 ? exitCode : 1;
}
