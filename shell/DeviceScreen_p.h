#pragma once
// The mapping from what Qt reports of a screen to the device orientation,
// apart so that every platform's case can be tested without that platform.
#include "base/ZavoExport.h"
#include "camera/CaptureTypes.h"

#include <QStringView>
#include <Qt>

namespace zavo::platform::screens {

/// The device orientation of a screen that the platform plug-in platformName
/// reports in orientation, with native its native orientation (or
/// Qt::PrimaryOrientation when the plug-in does not know it).
ZAVO_EXPORT DeviceOrientation deviceOrientationFor(QStringView platformName, Qt::ScreenOrientation native,
                                       Qt::ScreenOrientation orientation);

}  // namespace zavo::platform::screens
