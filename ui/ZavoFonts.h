#pragma once
// The brand typeface. Its font file is a resource a host installs (for example
// with QFontDatabase::addApplicationFont); without it the component falls back
// as each caller documents.
//
// Sizes are in layout points, the unit of every geometry in the component
// (Qt's device-independent pixels): a 15-point label is 15 points tall on any
// screen, whatever its dots per inch, and twice as sharp at a device pixel
// ratio of 2. Qt's own point sizes would follow the screen's dots per inch
// instead (a third larger at the usual 96), and outgrow the layouts.
#include "base/ZavoExport.h"
#include <QFont>
#include <QString>
#include <optional>

namespace zavo {

/// Family name of the brand typeface.
inline const QString kEtelkaFontFamily = QStringLiteral("EtelkaMediumPro");

/// The font of that family at size layout points (rounded to a whole
/// number), or nothing when the font database does not have the family.
/// Unlike QFont(family), this never silently substitutes another face.
ZAVO_EXPORT std::optional<QFont> fontNamed(const QString& family, double size);

/// The brand typeface at size layout points; the system's general font at
/// the same size when the brand face is not installed.
ZAVO_EXPORT QFont etelka(double size);

/// font at size layout points: its pixel size, which Qt keeps in
/// device-independent pixels.
ZAVO_EXPORT void setLayoutPointSize(QFont& font, double size);

}  // namespace zavo
