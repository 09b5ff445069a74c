#include "V4L2FormatList.h"

#include <QFile>
#include <QRegularExpression>
#include <QStringList>

#include <algorithm>

namespace zavo::testing {
namespace {

// No line v4l2-ctl prints comes near this; longer ones are noise, and skipping
// them keeps the pattern matching linear in the input whatever it holds.
constexpr qsizetype kMaxLineLength = 512;
constexpr qint64 kMaxFileBytes = 4 * 1024 * 1024;

struct Fraction {
    uint32_t numerator = 0;
    uint32_t denominator = 0;
};

// "30.000" -> 30000, "7.5" -> 7500, "0.0335" -> 34: thousandths, rounded on
// the fourth decimal. False for anything but digits with at most one dot, and
// for values whose thousandths do not fit uint32_t.
bool parseMilli(QStringView text, uint32_t& out)
{
    uint64_t whole = 0;
    uint64_t fraction = 0;
    int fractionDigits = 0;
    bool dot = false;
    bool digit = false;
    bool roundUp = false;
    for (const QChar c : text) {
        if (c == u'.') {
            if (dot)
                return false;
            dot = true;
            continue;
        }
        if (c < u'0' || c > u'9')
            return false;
        digit = true;
        const unsigned d = c.unicode() - u'0';
        if (!dot) {
            whole = whole * 10 + d;
            if (whole > UINT32_MAX / 1000 + 1)
                return false;
        } else if (fractionDigits < 3) {
            fraction = fraction * 10 + d;
            ++fractionDigits;
        } else if (fractionDigits == 3) {
            roundUp = d >= 5;
            ++fractionDigits;
        }
    }
    if (!digit)
        return false;
    for (int i = std::min(fractionDigits, 3); i < 3; ++i)
        fraction *= 10;
    const uint64_t value = whole * 1000 + fraction + (roundUp ? 1 : 0);
    if (value > UINT32_MAX)
        return false;
    out = uint32_t(value);
    return true;
}

// A width, height or step: 1..kMaxFrameDimension, so a zero step can never
// reach a caller that divides by it.
bool parseDimension(QStringView text, uint32_t& out)
{
    if (text.isEmpty())
        return false;
    uint64_t value = 0;
    for (const QChar c : text) {
        if (c < u'0' || c > u'9')
            return false;
        value = value * 10 + (c.unicode() - u'0');
        if (value > kMaxFrameDimension)
            return false;
    }
    if (value == 0)
        return false;
    out = uint32_t(value);
    return true;
}

// The quoted code of a format line: one to four characters, plus "-BE" for
// the big-endian variants.
bool parseFourcc(QStringView code, uint32_t& out)
{
    bool bigEndian = false;
    if (code.size() > 4 && code.endsWith(u"-BE")) {
        bigEndian = true;
        code.chop(3);
    }
    if (code.isEmpty() || code.size() > 4)
        return false;
    uint32_t value = 0;
    for (qsizetype i = 0; i < 4; ++i) {
        const char16_t c = i < code.size() ? code[i].unicode() : u' ';
        if (c == 0 || c > 0xff)
            return false;
        value |= uint32_t(c) << (8 * i);
    }
    out = bigEndian ? value | (1u << 31) : value;
    return true;
}

// Flags v4l2-ctl appends to a description after a comma. Only these are
// stripped, since descriptions themselves may hold commas and parentheses.
bool isFormatFlag(QStringView word)
{
    static const QStringList flags = {
        QStringLiteral("compressed"),       QStringLiteral("emulated"),
        QStringLiteral("continuous-bytestream"), QStringLiteral("dyn-resolution"),
        QStringLiteral("enc-cap-frame-interval"), QStringLiteral("csc-colorspace"),
        QStringLiteral("csc-ycbcr-enc"),    QStringLiteral("csc-hsv-enc"),
        QStringLiteral("csc-quantization"), QStringLiteral("csc-xfer-func"),
        QStringLiteral("meta-line-based"),
    };
    return flags.contains(word.toString());
}

template <typename Kind>
bool kindFrom(QStringView word, Kind& kind)
{
    if (word == u"Discrete")
        kind = Kind::Discrete;
    else if (word == u"Stepwise")
        kind = Kind::Stepwise;
    else if (word == u"Continuous")
        kind = Kind::Continuous;
    else
        return false;
    return true;
}

std::optional<FrameSizeEntry> parseSize(QStringView kindWord, QStringView body)
{
    static const QRegularExpression discrete(QStringLiteral(R"(^(\d+)x(\d+)(?!\d))"));
    static const QRegularExpression range(
        QStringLiteral(R"(^(\d+)x(\d+)\s*-\s*(\d+)x(\d+)(?:\s+with\s+step\s+(\d+)/(\d+))?)"));

    FrameSizeEntry size;
    if (!kindFrom(kindWord, size.kind))
        return std::nullopt;
    if (size.kind == FrameSizeEntry::Kind::Discrete) {
        const auto m = discrete.match(body);
        if (!m.hasMatch() || !parseDimension(m.capturedView(1), size.width) ||
            !parseDimension(m.capturedView(2), size.height))
            return std::nullopt;
        return size;
    }
    const auto m = range.match(body);
    if (!m.hasMatch() || !parseDimension(m.capturedView(1), size.minWidth) ||
        !parseDimension(m.capturedView(2), size.minHeight) || !parseDimension(m.capturedView(3), size.maxWidth) ||
        !parseDimension(m.capturedView(4), size.maxHeight))
        return std::nullopt;
    if (m.hasCaptured(5)) {
        if (!parseDimension(m.capturedView(5), size.stepWidth) || !parseDimension(m.capturedView(6), size.stepHeight))
            return std::nullopt;
    } else if (size.kind == FrameSizeEntry::Kind::Continuous) {
        size.stepWidth = size.stepHeight = 1;
    } else {
        return std::nullopt;  // a stepwise range means nothing without its step
    }
    if (size.minWidth > size.maxWidth || size.minHeight > size.maxHeight)
        return std::nullopt;
    return size;
}

std::optional<Fraction> fromSeconds(QStringView text)
{
    uint32_t milli = 0;
    if (!parseMilli(text, milli))
        return std::nullopt;
    return Fraction{milli, 1000};
}

std::optional<FrameIntervalEntry> parseInterval(QStringView kindWord, QStringView body)
{
    static const QRegularExpression discrete(QStringLiteral(R"(^([\d.]+)s(?:\s*\(([\d.]+)\s*fps\))?)"));
    static const QRegularExpression range(QStringLiteral(
        R"(^([\d.]+)s\s*-\s*([\d.]+)s(?:\s+with\s+step\s+([\d.]+)s)?(?:\s*\(([\d.]+)\s*-\s*([\d.]+)\s*fps\))?)"));

    FrameIntervalEntry interval;
    if (!kindFrom(kindWord, interval.kind))
        return std::nullopt;

    if (interval.kind == FrameIntervalEntry::Kind::Discrete) {
        const auto m = discrete.match(body);
        if (!m.hasMatch())
            return std::nullopt;
        const auto seconds = fromSeconds(m.capturedView(1));
        uint32_t fps = 0;
        if (!seconds || (m.hasCaptured(2) && !parseMilli(m.capturedView(2), fps)))
            return std::nullopt;
        const Fraction shortest = fps ? Fraction{1000, fps} : *seconds;
        if (shortest.numerator == 0)
            return std::nullopt;
        interval.minNumerator = shortest.numerator;
        interval.minDenominator = shortest.denominator;
        return interval;
    }

    const auto m = range.match(body);
    if (!m.hasMatch())
        return std::nullopt;
    auto first = fromSeconds(m.capturedView(1));
    auto second = fromSeconds(m.capturedView(2));
    if (!first || !second)
        return std::nullopt;
    if (first->numerator > second->numerator)
        std::swap(first, second);
    Fraction shortest = *first;
    Fraction longest = *second;
    if (m.hasCaptured(4)) {
        uint32_t a = 0, b = 0;
        if (!parseMilli(m.capturedView(4), a) || !parseMilli(m.capturedView(5), b))
            return std::nullopt;
        const uint32_t fastest = std::max(a, b);
        const uint32_t slowest = std::min(a, b);
        // A rate of 0.000 is an interval too long to print; the seconds stand then.
        if (fastest)
            shortest = {1000, fastest};
        if (slowest)
            longest = {1000, slowest};
    }
    if (shortest.numerator == 0)
        return std::nullopt;
    if (m.hasCaptured(3)) {
        const auto step = fromSeconds(m.capturedView(3));
        if (!step)
            return std::nullopt;
        interval.stepNumerator = step->numerator;
        interval.stepDenominator = step->denominator;
    }
    interval.minNumerator = shortest.numerator;
    interval.minDenominator = shortest.denominator;
    interval.maxNumerator = longest.numerator;
    interval.maxDenominator = longest.denominator;
    return interval;
}

class Parser {
public:
    void feed(QStringView raw)
    {
        if (raw.size() > kMaxLineLength)
            return;
        const QStringView line = raw.trimmed();
        if (line.isEmpty())
            return;
        if (line.startsWith(u'#')) {
            comment(line);
            return;
        }
        if (line.startsWith(u"ioctl:")) {
            capture_ = true;
            indexSeen_ = false;
            closeFormat();
            return;
        }

        static const QRegularExpression type(QStringLiteral(R"(^Type\s*:\s*(.*)$)"));
        static const QRegularExpression listed(QStringLiteral(R"(^\[\d{1,9}\]:\s*'([^']{1,7})'\s*(?:\((.*)\))?$)"));
        static const QRegularExpression index(QStringLiteral(R"(^Index\s*:\s*\d+$)"));
        static const QRegularExpression pixelFormat(
            QStringLiteral(R"(^Pixel Format\s*:\s*'([^']{1,7})'\s*(?:\((.*)\))?$)"));
        static const QRegularExpression name(QStringLiteral(R"(^Name\s*:\s*(.*)$)"));
        static const QRegularExpression flags(QStringLiteral(R"(^Flags\s*:\s*(.*)$)"));
        static const QRegularExpression size(QStringLiteral(R"(^Size\s*:\s*(\w+)\s+(.*)$)"));
        static const QRegularExpression interval(QStringLiteral(R"(^Interval\s*:\s*(\w+)\s+(.*)$)"));

        if (auto m = size.match(line); m.hasMatch()) {
            addSize(m.capturedView(1), m.capturedView(2));
        } else if (auto m = interval.match(line); m.hasMatch()) {
            addInterval(m.capturedView(1), m.capturedView(2));
        } else if (auto m = listed.match(line); m.hasMatch()) {
            openFormat(m.capturedView(1), /*older=*/false);
            if (current_ && m.hasCaptured(2))
                describe(m.capturedView(2));
        } else if (auto m = index.match(line); m.hasMatch()) {
            closeFormat();
            indexSeen_ = true;
        } else if (auto m = pixelFormat.match(line); m.hasMatch()) {
            // `--all` prints a "Pixel Format" of its own, for the current format
            // only; the older list always puts "Index" first.
            if (!indexSeen_)
                return;
            indexSeen_ = false;
            openFormat(m.capturedView(1), /*older=*/true);
            if (current_ && m.hasCaptured(2))
                readFlags(m.capturedView(2));
        } else if (auto m = name.match(line); m.hasMatch()) {
            if (olderHeaderOpen() && current_->description.isEmpty())
                current_->description = m.capturedView(1).trimmed().toString();
        } else if (auto m = flags.match(line); m.hasMatch()) {
            if (olderHeaderOpen())
                readFlags(m.capturedView(1));
        } else if (auto m = type.match(line); m.hasMatch()) {
            capture_ = m.capturedView(1).contains(u"Capture", Qt::CaseInsensitive);
        }
    }

    CameraFormatList take() { return std::move(list_); }

private:
    void comment(QStringView line)
    {
        static const QRegularExpression field(QStringLiteral(R"(^#\s*(source|card)\s*:\s*(.*)$)"),
                                              QRegularExpression::CaseInsensitiveOption);
        const auto m = field.match(line);
        if (!m.hasMatch())
            return;
        const QString value = m.capturedView(2).trimmed().toString();
        QString& target = m.capturedView(1).compare(u"card", Qt::CaseInsensitive) == 0 ? list_.card : list_.source;
        if (target.isEmpty())
            target = value;
    }

    void closeFormat()
    {
        current_ = nullptr;
        currentSize_ = nullptr;
    }

    // Sizes and intervals after a format that was not kept must not land on
    // the format before it, so every rejection closes the current one.
    void openFormat(QStringView code, bool older)
    {
        closeFormat();
        uint32_t fourcc = 0;
        if (!capture_ || list_.formats.size() >= size_t(kMaxFormats) || !parseFourcc(code, fourcc))
            return;
        list_.formats.push_back(PixelFormatEntry{});
        current_ = &list_.formats.back();
        current_->fourcc = fourcc;
        currentIsOlder_ = older;
    }

    bool olderHeaderOpen() const { return current_ && currentIsOlder_ && current_->sizes.empty(); }

    void describe(QStringView text)
    {
        QStringView description = text.trimmed();
        for (;;) {
            const qsizetype comma = description.lastIndexOf(u',');
            if (comma < 0)
                break;
            const QStringView word = description.mid(comma + 1).trimmed();
            if (!isFormatFlag(word))
                break;
            if (word == u"compressed")
                current_->compressed = true;
            description = description.left(comma).trimmed();
        }
        current_->description = description.toString();
    }

    void readFlags(QStringView text)
    {
        for (const QStringView word : text.split(u',')) {
            if (word.trimmed() == u"compressed")
                current_->compressed = true;
        }
    }

    void addSize(QStringView kind, QStringView body)
    {
        currentSize_ = nullptr;
        if (!current_ || current_->sizes.size() >= size_t(kMaxSizesPerFormat))
            return;
        auto parsed = parseSize(kind, body);
        if (!parsed)
            return;
        current_->sizes.push_back(std::move(*parsed));
        currentSize_ = &current_->sizes.back();
    }

    void addInterval(QStringView kind, QStringView body)
    {
        if (!currentSize_ || currentSize_->intervals.size() >= size_t(kMaxIntervalsPerSize))
            return;
        if (auto parsed = parseInterval(kind, body))
            currentSize_->intervals.push_back(*parsed);
    }

    CameraFormatList list_;
    // Both point at the last element of their vector and are re-pointed after
    // every push, so growth never leaves them dangling.
    PixelFormatEntry* current_ = nullptr;
    FrameSizeEntry* currentSize_ = nullptr;
    bool currentIsOlder_ = false;
    bool capture_ = true;
    bool indexSeen_ = false;
};

}  // namespace

QString fourccToString(uint32_t fourcc)
{
    QString text;
    for (int i = 0; i < 4; ++i) {
        uint32_t byte = (fourcc >> (8 * i)) & 0xff;
        if (i == 3)
            byte &= 0x7f;
        text.append(QChar(char16_t(byte)));
    }
    if (fourcc & (1u << 31))
        text.append(u"-BE");
    return text;
}

std::optional<CameraFormatList> parseFormatList(const QString& text, QString* problem)
{
    Parser parser;
    const QStringView all(text);
    qsizetype start = 0;
    while (start <= all.size()) {
        qsizetype end = all.indexOf(u'\n', start);
        if (end < 0)
            end = all.size();
        parser.feed(all.mid(start, end - start));
        start = end + 1;
    }
    CameraFormatList list = parser.take();
    if (list.formats.empty()) {
        if (problem)
            *problem = QStringLiteral("no pixel format found");
        return std::nullopt;
    }
    return list;
}

std::optional<CameraFormatList> loadFormatList(const QString& path, QString* problem)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (problem)
            *problem = QStringLiteral("cannot open %1: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    const QByteArray bytes = file.read(kMaxFileBytes + 1);
    if (bytes.size() > kMaxFileBytes) {
        if (problem)
            *problem = QStringLiteral("%1 is larger than a format list can be").arg(path);
        return std::nullopt;
    }
    auto list = parseFormatList(QString::fromUtf8(bytes), problem);
    if (!list && problem)
        *problem = QStringLiteral("%1: %2").arg(path, *problem);
    return list;
}

}  // namespace zavo::testing
