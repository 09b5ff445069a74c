#pragma once
// What the screen benchmarks share: an offscreen phone-sized screen, the
// sample clip (or another) as the front camera, permission granted, a scratch Documents.
#include "DemoCamera.h"

#include "camera/CaptureAuthorization_p.h"
#include "base/FileSystem.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTemporaryDir>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

namespace bench {

inline const QString kClip = QStringLiteral(ZAVO_TEST_DATA_DIR "/A_zoom_blur_dark.mp4");
inline const QSize kScreenSize(360, 640);

/// Before the application object: offscreen, at twice the point size, so a
/// 360x640 screen paints the camera's 720x1280 frames one to one.
inline void prepareEnvironment()
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    if (qEnvironmentVariableIsEmpty("QT_SCALE_FACTOR"))
        qputenv("QT_SCALE_FACTOR", "2");
    qputenv("QT_LOGGING_RULES", "zavo.*.info=false;qt.qpa.*=false");
}

struct Fixture {
    QTemporaryDir documents;
    std::unique_ptr<zavo::demo::FrontCamera> camera;

    bool install(const QString& clip = kClip)
    {
        if (!documents.isValid())
            return false;
        zavo::platform::setDocumentsDirectory(documents.path());
        zavo::platform::CaptureAuthorization::setPolicy(std::make_shared<zavo::platform::FixedCaptureAuthorizationPolicy>(
            zavo::platform::AuthorizationStatus::NotDetermined, true));
        QString problem;
        camera = zavo::demo::FrontCamera::install({zavo::demo::CameraChoice::Kind::File, clip}, &problem);
        if (!camera)
            std::fprintf(stderr, "cannot use %s: %s\n", qPrintable(clip), qPrintable(problem));
        return camera != nullptr;
    }
};

/// Runs the event loop until done() or the limit; false on the limit.
inline bool runUntil(const std::function<bool()>& done, int limitMs)
{
    QEventLoop loop;
    QTimer poll;
    QTimer limit;
    bool reached = false;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done()) {
            reached = true;
            loop.quit();
        }
    });
    QObject::connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
    poll.start(5);
    limit.setSingleShot(true);
    limit.start(limitMs);
    if (!done())
        loop.exec();
    return reached || done();
}

inline double percentile(std::vector<double> values, double fraction)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t index = std::min(values.size() - 1, size_t(fraction * double(values.size() - 1) + 0.5));
    return values[index];
}

}  // namespace bench
