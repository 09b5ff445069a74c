#pragma once
// Geometry in points (device-independent pixels, as Qt widgets use them).
#include "base/ZavoExport.h"
#include <QRectF>
#include <QSizeF>

namespace zavo::platform {

/// Safe-area insets, in the order the component passes them around.
struct ZAVO_EXPORT EdgeInsets {
    double top = 0;
    double left = 0;
    double bottom = 0;
    double right = 0;
    friend bool operator==(const EdgeInsets&, const EdgeInsets&) = default;
};

}  // namespace zavo::platform
