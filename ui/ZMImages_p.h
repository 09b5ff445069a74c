#pragma once
// The component's own images ("close", "warning_icon"). They are drawn at
// twice their size in points so that they stay sharp on high-density screens;
// load them through here so that they also come out at the right size on
// ordinary ones.
#include "base/ZavoExport.h"
#include <QPixmap>
#include <QString>

namespace zavo {

/// Pixels per point of the component's images.
inline constexpr double kZavoImageScale = 2.0;

/// The image called name from the component's bundle, with its device pixel
/// ratio set, so deviceIndependentSize() is its size in points. Null when the
/// bundle has no such image.
ZAVO_EXPORT QPixmap zavoCameraImage(const QString& name);

}  // namespace zavo
