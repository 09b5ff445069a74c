#include "ui/ZavoColors.h"

#include <QRgba64>
#include <cmath>

namespace zavo {

namespace {

// One routine for every opaque grey of the palette, so that they stay in step.
QColor opaqueGrey(int component) { return QColor::fromRgb(component, component, component); }

float nibble(uint32_t value, int shift) { return static_cast<float>((value >> shift) & 0xF) / 15.0f; }
float byte(uint32_t value, int shift) { return static_cast<float>((value >> shift) & 0xFF) / 255.0f; }

struct Channels {
    double red = 0;
    double green = 0;
    double blue = 0;
    double alpha = 0;
};

// QColor keeps 16 bits per channel (half floats for extended colours), so a
// channel set to 0.8 comes back as 0.79999 and 0.8 x 255 as 203.99, which
// truncates to 203 instead of 204. A product within half a storage step of a
// whole number is therefore read as that number; anything farther away (39.9
// stays 39.9) is left for truncation.
double snapToWhole(double value, double halfStep)
{
    const double whole = std::round(value);
    return std::abs(value - whole) <= halfStep ? whole : value;
}

Channels channelsTimes255(const QColor& color)
{
    if (!color.isValid())
        return {};
    if (color.spec() == QColor::ExtendedRgb) {
        float r = 0, g = 0, b = 0, a = 0;
        color.getRgbF(&r, &g, &b, &a);
        // A half float carries 11 significant bits.
        auto scale = [](float v) { return snapToWhole(v * 255.0, std::abs(v) * 255.0 / 2048.0); };
        return {scale(r), scale(g), scale(b), scale(a)};
    }
    // Scaled in one step (c * 255 / 65535), so that n/255 is exactly n.
    const QRgba64 c = color.rgba64();
    auto scale = [](quint16 v) { return snapToWhole(v * 255.0 / 65535.0, 255.0 / 65535.0 / 2); };
    return {scale(c.red()), scale(c.green()), scale(c.blue()), scale(c.alpha())};
}

// Truncation toward zero, as an integer conversion does. The printed value is
// the low 32 bits, as printf's %X of an int.
uint32_t truncatedChannel(double value)
{
    constexpr double limit = 9223372036854775808.0;  // 2^63
    if (!std::isfinite(value) || value >= limit || value < -limit)
        qFatal("hexString: colour channel %f is not a finite 64-bit value", value);
    return static_cast<uint32_t>(static_cast<int64_t>(std::trunc(value)));
}

}  // namespace

QColor zavoBlue() { return QColor::fromRgb(39, 130, 255); }
QColor zavoAlto() { return opaqueGrey(224); }
QColor zavoGray() { return opaqueGrey(117); }
QColor zavoLightGray() { return QColor::fromRgb(198, 198, 200); }
QColor zavoBlack() { return QColor::fromRgb(64, 64, 64); }

QColor colorWithHex3(uint16_t hex3, double alpha)
{
    return QColor::fromRgbF(nibble(hex3, 8), nibble(hex3, 4), nibble(hex3, 0), static_cast<float>(alpha));
}

QColor colorWithHex4(uint16_t hex4)
{
    return QColor::fromRgbF(nibble(hex4, 12), nibble(hex4, 8), nibble(hex4, 4), nibble(hex4, 0));
}

QColor colorWithHex6(uint32_t hex6, double alpha)
{
    return QColor::fromRgbF(byte(hex6, 16), byte(hex6, 8), byte(hex6, 0), static_cast<float>(alpha));
}

QColor colorWithHex8(uint32_t hex8)
{
    return QColor::fromRgbF(byte(hex8, 24), byte(hex8, 16), byte(hex8, 8), byte(hex8, 0));
}

QString hexString(const QColor& color, bool includeAlpha)
{
    const Channels c = channelsTimes255(color);
    const uint32_t r = truncatedChannel(c.red);
    const uint32_t g = truncatedChannel(c.green);
    const uint32_t b = truncatedChannel(c.blue);
    if (!includeAlpha)
        return QString::asprintf("#%02X%02X%02X", r, g, b);
    return QString::asprintf("#%02X%02X%02X%02X", r, g, b, truncatedChannel(c.alpha));
}

QString UIColorInputError::domain() const { return QStringLiteral("ZavoCamera.UIColorInputError"); }

}  // namespace zavo
