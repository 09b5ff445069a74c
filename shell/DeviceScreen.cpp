#include "shell/DeviceScreen.h"
#include "shell/DeviceScreen_p.h"

#include "base/NotificationCenter.h"
#include "base/ThreadSafety.h"

#include <QGuiApplication>
#include <QPointer>
#include <QScreen>
#include <QTimer>

#include <bit>

namespace zavo::platform {

namespace screens {

namespace {

/// Quarter turns clockwise from a to b. Qt numbers the orientations as bits in
/// anticlockwise order: Portrait, Landscape, InvertedPortrait,
/// InvertedLandscape (Portrait is Landscape turned a quarter clockwise).
int quarterTurnsClockwise(Qt::ScreenOrientation from, Qt::ScreenOrientation to)
{
    const int a = std::countr_zero(unsigned(from));
    const int b = std::countr_zero(unsigned(to));
    return ((a - b) % 4 + 4) % 4;
}

}  // namespace

DeviceOrientation deviceOrientationFor(QStringView platformName, Qt::ScreenOrientation native,
                                       Qt::ScreenOrientation orientation)
{
    if (orientation == Qt::PrimaryOrientation)
        return DeviceOrientation::Portrait;  // the plug-in reports no rotation
    if (native == Qt::PrimaryOrientation) {
        // xcb calls an output in RandR's normal rotation Landscape whatever its
        // shape, and wayland names the transformed output against a landscape
        // panel. Other plug-ins only echo the screen's shape, which says
        // nothing about rotation: a tall kiosk panel is not a turned phone.
        if (platformName == u"xcb" || platformName.startsWith(u"wayland"))
            native = Qt::LandscapeOrientation;
        else
            return DeviceOrientation::Portrait;
    }
    // A camera on the bezel turns with the screen; the phone's names say
    // which way the device was turned from upright.
    switch (quarterTurnsClockwise(native, orientation)) {
    case 1: return DeviceOrientation::LandscapeRight;
    case 2: return DeviceOrientation::PortraitUpsideDown;
    case 3: return DeviceOrientation::LandscapeLeft;
    default: return DeviceOrientation::Portrait;
    }
}

}  // namespace screens

namespace {

Mutex gMutex;
DeviceOrientation gMeasured ZAVO_GUARDED_BY(gMutex) = DeviceOrientation::Unknown;
std::optional<DeviceOrientation> gPinned ZAVO_GUARDED_BY(gMutex);
QRectF gScreenBounds ZAVO_GUARDED_BY(gMutex);
std::optional<QRectF> gBoundsOverride ZAVO_GUARDED_BY(gMutex);

// GUI thread only.
QPointer<QScreen> gFollowed;

void post(DeviceOrientation orientation)
{
    NotificationCenter::defaultCenter().post(kDeviceOrientationDidChangeNotification, nullptr,
                                             {{QStringLiteral("orientation"), int(orientation)}});
}

DeviceOrientation measure(const QScreen* screen)
{
    return screens::deviceOrientationFor(QGuiApplication::platformName(), screen->nativeOrientation(),
                                         screen->orientation());
}

void cacheBounds(const QRect& geometry)
{
    MutexLocker lock(gMutex);
    gScreenBounds = QRectF(QPointF(0, 0), QSizeF(geometry.size()));
}

void follow(QScreen* screen)
{
    if (!screen || screen == gFollowed)
        return;
    if (gFollowed)
        QObject::disconnect(gFollowed, nullptr, qApp, nullptr);
    gFollowed = screen;
    cacheBounds(screen->geometry());
    QObject::connect(screen, &QScreen::geometryChanged, qApp, cacheBounds);
    QObject::connect(screen, &QScreen::orientationChanged, qApp,
                     [screen] { Device::setOrientation(measure(screen)); });
    const DeviceOrientation orientation = measure(screen);
    bool changed = false;
    {
        MutexLocker lock(gMutex);
        changed = gMeasured != DeviceOrientation::Unknown && gMeasured != orientation;
    }
    // The first screen is taken in silence, as the state the process starts
    // in; moving to a screen turned otherwise is a rotation like any other.
    if (changed)
        Device::setOrientation(orientation);
    else {
        MutexLocker lock(gMutex);
        gMeasured = orientation;
    }
}

void startFollowingScreens()
{
    auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
    if (!app)
        return;  // a console process has no screen
    // Until a camera screen says where it is, the primary screen decides.
    QObject::connect(app, &QGuiApplication::screenRemoved, app, [](QScreen* removed) {
        if (removed == gFollowed)
            follow(QGuiApplication::primaryScreen());
    });
    QObject::connect(app, &QGuiApplication::primaryScreenChanged, app, [](QScreen* primary) {
        if (!gFollowed)
            follow(primary);
    });
    if (QGuiApplication::primaryScreen())
        follow(QGuiApplication::primaryScreen());
    else
        QTimer::singleShot(0, app, [] { follow(QGuiApplication::primaryScreen()); });
}

}  // namespace

Q_COREAPP_STARTUP_FUNCTION(startFollowingScreens)

DeviceOrientation Device::orientation()
{
    MutexLocker lock(gMutex);
    return gPinned.value_or(gMeasured);
}

void Device::setOrientation(DeviceOrientation orientation)
{
    {
        MutexLocker lock(gMutex);
        gMeasured = orientation;
        if (gPinned)
            return;
    }
    post(orientation);
}

void Device::setOrientationOverride(std::optional<DeviceOrientation> orientation)
{
    DeviceOrientation before;
    DeviceOrientation after;
    {
        MutexLocker lock(gMutex);
        before = gPinned.value_or(gMeasured);
        gPinned = orientation;
        after = gPinned.value_or(gMeasured);
    }
    if (before != after)
        post(after);
}

std::optional<DeviceOrientation> Device::orientationOverride()
{
    MutexLocker lock(gMutex);
    return gPinned;
}

void Device::followScreen(QScreen* screen) { follow(screen); }

QRectF MainScreen::bounds()
{
    MutexLocker lock(gMutex);
    return gBoundsOverride.value_or(gScreenBounds);
}

void screens::setMainScreenBoundsOverride(std::optional<QRectF> bounds)
{
    MutexLocker lock(gMutex);
    gBoundsOverride = bounds;
}

}  // namespace zavo::platform
