#pragma once
// A rational media time: value / timescale seconds. make() behaves like the
// phone platform's time constructor: nothing is normalised, and a timescale
// of 0 or less makes an invalid time.
#include "base/ZavoExport.h"
#include <cmath>
#include <compare>
#include <cstdint>

namespace zavo::platform {

struct ZAVO_EXPORT MediaTime {
    int64_t value = 0;
    int32_t timescale = 0;

    static constexpr MediaTime make(int64_t value, int32_t timescale) { return MediaTime{value, timescale}; }
    static constexpr MediaTime zero() { return MediaTime{0, 1}; }
    static constexpr MediaTime invalid() { return MediaTime{0, 0}; }
    static MediaTime fromSeconds(double seconds, int32_t timescale)
    {
        return MediaTime{static_cast<int64_t>(std::llround(seconds * timescale)), timescale};
    }

    constexpr bool isValid() const { return timescale > 0; }
    double seconds() const { return isValid() ? double(value) / double(timescale) : NAN; }
    /// The same instant in another timescale, rounded to the nearest tick.
    MediaTime convertScale(int32_t newTimescale) const
    {
        if (!isValid() || newTimescale <= 0)
            return invalid();
        const long double scaled = static_cast<long double>(value) * newTimescale / timescale;
        return MediaTime{static_cast<int64_t>(std::llround(static_cast<double>(scaled))), newTimescale};
    }

    /// Compares instants, not representations: 1/2 == 2/4. Invalid times
    /// compare equal to each other and below every valid time.
    friend bool operator==(const MediaTime& a, const MediaTime& b) { return (a <=> b) == 0; }
    friend std::strong_ordering operator<=>(const MediaTime& a, const MediaTime& b)
    {
        if (!a.isValid() || !b.isValid())
            return a.isValid() <=> b.isValid();
        const __int128 lhs = static_cast<__int128>(a.value) * b.timescale;
        const __int128 rhs = static_cast<__int128>(b.value) * a.timescale;
        return lhs <=> rhs;
    }
};

}  // namespace zavo::platform
