// Reads the text `v4l2-ctl --list-formats-ext` prints, so that tests can feed
// the camera code the format lists of real cameras without the cameras.
// Both the current layout ("[0]: 'YUYV' (YUYV 4:2:2)") and the older one
// ("Index : 0" / "Pixel Format: 'YUYV'" / "Name : YUYV 4:2:2") are read.
//
// The parser is also a fuzz target: whatever the bytes, it returns, with every
// list bounded and every number range-checked.
#pragma once

#include <QString>

#include <cstdint>
#include <optional>
#include <vector>

namespace zavo::testing {

/// One "Interval:" line. Times are seconds per frame as fractions. When the
/// line gives frame rates in parentheses those are used, being printed with
/// more digits: "0.033s (30.000 fps)" becomes 1000/30000. Without them the
/// seconds are taken in milliseconds: "0.033s" becomes 33/1000.
struct FrameIntervalEntry {
    enum class Kind { Discrete, Stepwise, Continuous } kind = Kind::Discrete;
    uint32_t minNumerator = 0, minDenominator = 0;    // shortest interval (fastest); the only one for Discrete
    uint32_t maxNumerator = 0, maxDenominator = 0;    // longest (slowest)
    uint32_t stepNumerator = 0, stepDenominator = 0;  // 0/0 when the line gives no step

    friend bool operator==(const FrameIntervalEntry&, const FrameIntervalEntry&) = default;
};

struct FrameSizeEntry {
    enum class Kind { Discrete, Stepwise, Continuous } kind = Kind::Discrete;
    uint32_t width = 0, height = 0;  // Discrete
    // Stepwise and Continuous; a Continuous range printed without a step gets 1/1.
    uint32_t minWidth = 0, maxWidth = 0, stepWidth = 0, minHeight = 0, maxHeight = 0, stepHeight = 0;
    std::vector<FrameIntervalEntry> intervals;

    friend bool operator==(const FrameSizeEntry&, const FrameSizeEntry&) = default;
};

struct PixelFormatEntry {
    uint32_t fourcc = 0;      // a | b << 8 | c << 16 | d << 24, codes shorter than four padded with spaces
    QString description;      // "Motion-JPEG", "YUYV 4:2:2"
    bool compressed = false;  // ", compressed" in the current layout, "(compressed)" or "Flags: compressed" in the older
    std::vector<FrameSizeEntry> sizes;

    friend bool operator==(const PixelFormatEntry&, const PixelFormatEntry&) = default;
};

struct CameraFormatList {
    QString card;    // from a "# card:" line, empty if none
    QString source;  // from a "# source:" line, empty if none
    std::vector<PixelFormatEntry> formats;
};

// Bounds that hold whatever the input; what lies beyond them is dropped.
inline constexpr int kMaxFormats = 64;
inline constexpr int kMaxSizesPerFormat = 128;
inline constexpr int kMaxIntervalsPerSize = 32;
inline constexpr uint32_t kMaxFrameDimension = 16384;

/// The fourcc of a four-character code such as "MJPG" or "Y10 ".
constexpr uint32_t fourccOf(const char (&code)[5])
{
    return uint32_t(uint8_t(code[0])) | uint32_t(uint8_t(code[1])) << 8 | uint32_t(uint8_t(code[2])) << 16 |
           uint32_t(uint8_t(code[3])) << 24;
}

/// "MJPG" for fourccOf("MJPG"); big-endian variants get a "-BE" suffix as v4l2-ctl prints them.
QString fourccToString(uint32_t fourcc);

/// Parses `v4l2-ctl --list-formats-ext` output (both layouts). nullopt with *problem when no format was found.
std::optional<CameraFormatList> parseFormatList(const QString& text, QString* problem = nullptr);

/// parseFormatList() on a file read as UTF-8.
std::optional<CameraFormatList> loadFormatList(const QString& path, QString* problem = nullptr);

}  // namespace zavo::testing
