#include "ui/ZavoFonts.h"

#include <QFontDatabase>

#include <algorithm>
#include <cmath>

namespace zavo {

void setLayoutPointSize(QFont& font, double size)
{
    font.setPixelSize(std::max(1, int(std::lround(size))));
}

std::optional<QFont> fontNamed(const QString& family, double size)
{
    if (!QFontDatabase::hasFamily(family))
        return std::nullopt;
    QFont font(family);
    setLayoutPointSize(font, size);
    return font;
}

QFont etelka(double size)
{
    if (auto font = fontNamed(kEtelkaFontFamily, size))
        return *font;
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    setLayoutPointSize(font, size);
    return font;
}

}  // namespace zavo
