#include "ui/ZavoFonts.h"

#include <QFontDatabase>

namespace zavo {

std::optional<QFont> fontNamed(const QString& family, double size)
{
    if (!QFontDatabase::hasFamily(family))
        return std::nullopt;
    QFont font(family);
    font.setPointSizeF(size);
    return font;
}

QFont etelka(double size)
{
    if (auto font = fontNamed(kEtelkaFontFamily, size))
        return *font;
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    font.setPointSizeF(size);
    return font;
}

}  // namespace zavo
