#pragma once
// The brand typeface. Its font file is a resource a host installs (for example
// with QFontDatabase::addApplicationFont); without it the component falls back
// as each caller documents.
#include <QFont>
#include <QString>
#include <optional>

namespace zavo {

/// Family name of the brand typeface.
inline const QString kEtelkaFontFamily = QStringLiteral("EtelkaMediumPro");

/// The font of that family at size points, or nothing when the font database
/// does not have the family. Unlike QFont(family), this never silently
/// substitutes another face.
std::optional<QFont> fontNamed(const QString& family, double size);

/// The brand typeface at size points; the system's general font at the same
/// size when the brand face is not installed.
QFont etelka(double size);

}  // namespace zavo
