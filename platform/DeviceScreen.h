#pragma once
// How the device is held and how big its main screen is, for camera code that
// runs on background queues.
//
// The platform follows the primary screen on the GUI thread from the moment
// the application object exists: orientation changes are posted as
// kDeviceOrientationDidChangeNotification on the main thread (userInfo
// "orientation" holds the DeviceOrientation value), and the screen's bounds
// are cached so that any queue can read them. Tests set both directly.
#include "platform/CaptureTypes.h"

#include <QRectF>
#include <optional>

namespace zavo::platform {

class Device {
public:
    /// The orientation last reported (Unknown before the first report).
    /// Thread-safe.
    static DeviceOrientation orientation();
    /// Records orientation and posts kDeviceOrientationDidChangeNotification
    /// on the calling thread (the platform calls it on the main thread).
    static void setOrientation(DeviceOrientation orientation);
};

class MainScreen {
public:
    /// The primary screen's geometry in points, as last seen on the GUI
    /// thread, or the override. Empty when there is no screen. Thread-safe.
    static QRectF bounds();
    /// Replaces the real bounds for the whole process (tests, kiosks);
    /// nullopt goes back to the real screen.
    static void setBoundsOverride(std::optional<QRectF> bounds);
};

}  // namespace zavo::platform
