#include "platform/DeviceScreen.h"

#include "platform/NotificationCenter.h"

#include <QGuiApplication>
#include <QPointer>
#include <QScreen>
#include <QTimer>

#include <atomic>
#include <mutex>

namespace zavo::platform {

namespace {

std::atomic<int> gOrientation{int(DeviceOrientation::Unknown)};

std::mutex gScreenMutex;
QRectF gScreenBounds;                 // guarded by gScreenMutex
std::optional<QRectF> gBoundsOverride;  // guarded by gScreenMutex

DeviceOrientation deviceOrientationFor(Qt::ScreenOrientation orientation)
{
    switch (orientation) {
    case Qt::PortraitOrientation: return DeviceOrientation::Portrait;
    case Qt::InvertedPortraitOrientation: return DeviceOrientation::PortraitUpsideDown;
    // A screen turned to landscape is a device turned a quarter to the left
    // (landscape left, in the phone platform's terms); inverted is the other way.
    case Qt::LandscapeOrientation: return DeviceOrientation::LandscapeLeft;
    case Qt::InvertedLandscapeOrientation: return DeviceOrientation::LandscapeRight;
    case Qt::PrimaryOrientation: break;
    }
    return DeviceOrientation::Unknown;
}

void cacheBounds(const QRect& geometry)
{
    std::lock_guard lock(gScreenMutex);
    gScreenBounds = QRectF(QPointF(0, 0), QSizeF(geometry.size()));
}

void follow(QScreen* screen)
{
    static QPointer<QScreen> followed;
    if (followed)
        QObject::disconnect(followed, nullptr, qApp, nullptr);
    followed = screen;
    if (!screen)
        return;
    cacheBounds(screen->geometry());
    gOrientation.store(int(deviceOrientationFor(screen->orientation())));
    QObject::connect(screen, &QScreen::geometryChanged, qApp, cacheBounds);
    QObject::connect(screen, &QScreen::orientationChanged, qApp,
                     [](Qt::ScreenOrientation orientation) { Device::setOrientation(deviceOrientationFor(orientation)); });
}

void startFollowingScreens()
{
    auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
    if (!app)
        return;  // a console process has no screen
    QObject::connect(app, &QGuiApplication::primaryScreenChanged, app, follow);
    if (QGuiApplication::primaryScreen())
        follow(QGuiApplication::primaryScreen());
    else
        QTimer::singleShot(0, app, [] { follow(QGuiApplication::primaryScreen()); });
}

}  // namespace

Q_COREAPP_STARTUP_FUNCTION(startFollowingScreens)

DeviceOrientation Device::orientation() { return DeviceOrientation(gOrientation.load()); }

void Device::setOrientation(DeviceOrientation orientation)
{
    gOrientation.store(int(orientation));
    NotificationCenter::defaultCenter().post(kDeviceOrientationDidChangeNotification, nullptr,
                                             {{QStringLiteral("orientation"), int(orientation)}});
}

QRectF MainScreen::bounds()
{
    std::lock_guard lock(gScreenMutex);
    return gBoundsOverride.value_or(gScreenBounds);
}

void MainScreen::setBoundsOverride(std::optional<QRectF> bounds)
{
    std::lock_guard lock(gScreenMutex);
    gBoundsOverride = bounds;
}

}  // namespace zavo::platform
