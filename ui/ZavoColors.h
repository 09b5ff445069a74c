#pragma once
// The brand palette, colours from packed hexadecimal integers, and colours
// formatted back as "#RRGGBB" strings. Everything here is stateless; each call
// returns a new colour.
#include "base/ZavoExport.h"
#include "base/Error.h"

#include <QColor>
#include <QHashFunctions>
#include <QString>
#include <cstdint>
#include <functional>

namespace zavo {

/// \#2782FF, the brand blue.
ZAVO_EXPORT QColor zavoBlue();
/// \#E0E0E0.
ZAVO_EXPORT QColor zavoAlto();
/// \#757575.
ZAVO_EXPORT QColor zavoGray();
/// \#C6C6C8.
ZAVO_EXPORT QColor zavoLightGray();
/// #404040.
ZAVO_EXPORT QColor zavoBlack();

/// 0xRGB, one nibble per channel (n/15); bits 15..12 are ignored. alpha goes
/// to QColor unchanged, which rejects values outside 0..1 with an invalid
/// colour.
ZAVO_EXPORT QColor colorWithHex3(uint16_t hex3, double alpha);
/// 0xRGBA, one nibble per channel including alpha.
ZAVO_EXPORT QColor colorWithHex4(uint16_t hex4);
/// 0xRRGGBB, one byte per channel (b/255); bits 31..24 are ignored. alpha as
/// for colorWithHex3.
ZAVO_EXPORT QColor colorWithHex6(uint32_t hex6, double alpha);
/// 0xRRGGBBAA, one byte per channel including alpha.
ZAVO_EXPORT QColor colorWithHex8(uint32_t hex8);

/// "#RRGGBB", or "#RRGGBBAA" with includeAlpha: each channel times 255,
/// truncated toward zero, in upper-case hexadecimal. QColor stores channels
/// with 16 bits, so a product within that precision of a whole number counts
/// as the whole number (alpha 0.8 gives CC). Extended-range channels
/// (below 0 or above 1) are deliberately not clamped, so such a colour does not
/// give two digits per field; a negative channel prints as its 32-bit two's
/// complement, as printf's %X would. An invalid colour gives "#000000".
/// A non-finite channel stops the program: QColor never makes one from valid
/// input, so it means memory corruption upstream.
ZAVO_EXPORT QString hexString(const QColor& color, bool includeAlpha);

/// Errors of reading a colour from text. No operation of the component makes
/// them (there is no text parser yet); they are public so that hosts and a
/// future parser agree on their meaning and codes.
class ZAVO_EXPORT UIColorInputError final : public platform::Error {
public:
    /// The order is the error's code.
    enum class Case {
        missingHashMarkAsPrefix = 0,    // the text does not start with "#"
        unableToScanHexValue = 1,       // the text is not hexadecimal
        mismatchedHexStringLength = 2,  // a digit count no initializer takes
    };

    explicit UIColorInputError(Case kind) : kind_(kind) {}

    Case kind() const { return kind_; }
    QString domain() const override;
    long code() const override { return static_cast<long>(kind_); }

    friend bool operator==(const UIColorInputError& a, const UIColorInputError& b) { return a.kind_ == b.kind_; }

private:
    Case kind_;
};

/// Hashes as its case index does.
inline size_t qHash(const UIColorInputError& error, size_t seed = 0)
{
    return ::qHash(static_cast<int>(error.kind()), seed);
}

}  // namespace zavo

/// \cond
template <>
struct std::hash<zavo::UIColorInputError> {
    size_t operator()(const zavo::UIColorInputError& error) const noexcept
    {
        return std::hash<int>{}(static_cast<int>(error.kind()));
    }
};
/// \endcond
