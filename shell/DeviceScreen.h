#pragma once
// How the device is held and how big its screen is, for camera code that runs
// on background queues.
//
// A desktop monitor is not a phone held sideways: the device orientation is
// the rotation of the screen that shows the camera screen relative to that
// screen's native orientation. An unrotated monitor of any shape is Portrait
// (the camera on its bezel sees the user upright); a monitor turned a quarter
// clockwise with xrandr or the compositor is LandscapeRight, a quarter
// anticlockwise LandscapeLeft, half a turn PortraitUpsideDown. Without a
// screen (offscreen, minimal, a console process) the orientation stays
// Unknown, which the camera treats as Portrait.
//
// Platforms that report no rotation (offscreen, eglfs, linuxfb, minimal) give
// Portrait whatever the screen's shape. xcb and wayland report the rotation
// against a landscape panel; a panel that is portrait in its native mode with
// no rotation applied then reads as turned, and a host pins the orientation
// instead (setOrientationOverride).
//
// Changes are posted as kDeviceOrientationDidChangeNotification on the main
// thread (userInfo "orientation" holds the DeviceOrientation value).
#include "base/ZavoExport.h"
#include "camera/CaptureTypes.h"

#include <QRectF>
#include <optional>

class QScreen;

namespace zavo::platform {

class ZAVO_EXPORT Device {
public:
    /// The pinned orientation if a host set one, else the one last measured
    /// (Unknown before the first measurement). Thread-safe.
    static DeviceOrientation orientation();
    /// Records a measured orientation and posts
    /// kDeviceOrientationDidChangeNotification on the calling thread (the
    /// platform calls it on the main thread) unless a pinned orientation
    /// hides the change.
    static void setOrientation(DeviceOrientation orientation);

    /// Pins the orientation for the whole process, whatever the screens do:
    /// for kiosks whose camera is mounted turned, or panels that report their
    /// rotation wrongly. nullopt follows the screen again. Posts the
    /// notification when the orientation in force changes. Main thread.
    static void setOrientationOverride(std::optional<DeviceOrientation> orientation);
    static std::optional<DeviceOrientation> orientationOverride();

    /// Makes screen the one whose rotation is the device orientation (the
    /// primary screen until then). The camera screen calls it when it is
    /// loaded, shown or moved to another screen. Null is ignored. GUI thread.
    static void followScreen(QScreen* screen);
};

class ZAVO_EXPORT MainScreen {
public:
    /// The followed screen's geometry in points, as last seen on the GUI
    /// thread. Empty when there is no screen. Thread-safe.
    static QRectF bounds();
};

}  // namespace zavo::platform
