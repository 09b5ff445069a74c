#pragma once
// The mapping from what Qt reports of a screen to the device orientation,
// apart so that every platform's case can be tested without that platform.
#include "base/ZavoExport.h"
#include "camera/CaptureTypes.h"

#include <QRectF>
#include <QStringView>
#include <Qt>
#include <optional>

namespace zavo::platform::screens {

/// The device orientation of a screen that the platform plug-in platformName
/// reports in orientation, with native its native orientation (or
/// Qt::PrimaryOrientation when the plug-in does not know it).
ZAVO_EXPORT DeviceOrientation deviceOrientationFor(QStringView platformName, Qt::ScreenOrientation native,
                                       Qt::ScreenOrientation orientation);

/// Replaces the main screen's real bounds (MainScreen::bounds) for the whole
/// process, so that suites and benchmarks get the same frame geometry on any
/// machine; nullopt goes back to the real screen.
ZAVO_EXPORT void setMainScreenBoundsOverride(std::optional<QRectF> bounds);

}  // namespace zavo::platform::screens
