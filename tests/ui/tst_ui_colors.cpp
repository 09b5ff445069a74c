// The palette, the hexadecimal initializers and formatter, the colour input
// error and the brand font's fallback.
#include "ui/ZavoColors.h"
#include "ui/ZavoFonts.h"

#include <QFontDatabase>
#include <QLabel>
#include <QSet>
#include <QtTest>

using namespace zavo;

class TstUiColors : public QObject {
    Q_OBJECT

private slots:
    void paletteFormatsAsItsHexValue_data()
    {
        QTest::addColumn<QColor>("color");
        QTest::addColumn<QString>("hex");
        QTest::newRow("blue") << zavoBlue() << "#2782FF";
        QTest::newRow("alto") << zavoAlto() << "#E0E0E0";
        QTest::newRow("gray") << zavoGray() << "#757575";
        QTest::newRow("lightGray") << zavoLightGray() << "#C6C6C8";
        QTest::newRow("black") << zavoBlack() << "#404040";
    }

    // Every n/255 component must come back as n: truncation turns the
    // slightest rounding error below n into n - 1.
    void paletteFormatsAsItsHexValue()
    {
        QFETCH(QColor, color);
        QFETCH(QString, hex);
        QCOMPARE(hexString(color, false), hex);
        QCOMPARE(hexString(color, true), hex + QStringLiteral("FF"));
        const uint32_t value = hex.mid(1).toUInt(nullptr, 16);
        QCOMPARE(colorWithHex6(value, 1.0), color);
        QCOMPARE(colorWithHex8(value << 8 | 0xFF), color);
    }

    void initializersReadTheirBitLayouts()
    {
        // 0.5 x 255 = 127.5, truncated to 127.
        QCOMPARE(hexString(colorWithHex3(0xF00, 0.5), true), QStringLiteral("#FF00007F"));
        // Bits above the layout's width are ignored.
        QCOMPARE(colorWithHex3(0xA0F0, 1.0), colorWithHex3(0x0F0, 1.0));
        QCOMPARE(colorWithHex6(0xAB2782FF, 1.0), zavoBlue());

        QCOMPARE(colorWithHex4(0xF00F), QColor::fromRgbF(1, 0, 0, 1));
        QCOMPARE(hexString(colorWithHex4(0x7A35), true), QStringLiteral("#77AA3355"));
        QCOMPARE(hexString(colorWithHex8(0x11223344), true), QStringLiteral("#11223344"));
        QCOMPARE(hexString(colorWithHex6(0x2782FF, 0.8), true), QStringLiteral("#2782FFCC"));
    }

    void hexStringTruncatesTowardZero()
    {
        // 39.9 of 255 prints as 27 (39), where rounding would give 28.
        const QColor almost40 = QColor::fromRgbF(39.9f / 255, 0, 0, 1);
        QCOMPARE(hexString(almost40, false), QStringLiteral("#270000"));
    }

    void extendedRangeComponentsAreNotClamped()
    {
        const QColor extended = QColor::fromRgbF(1.5f, 0.5f, -0.25f, 1.0f);
        QCOMPARE(extended.spec(), QColor::ExtendedRgb);
        // 382.5 -> 382 (three digits), 127.5 -> 127, -63.75 -> -63 printed as
        // a 32-bit two's complement.
        QCOMPARE(hexString(extended, false), QStringLiteral("#17E7FFFFFFFC1"));
        QCOMPARE(hexString(extended, true), QStringLiteral("#17E7FFFFFFFC1FF"));
    }

    void colourWithoutRgbGivesZeros()
    {
        QCOMPARE(hexString(QColor(), false), QStringLiteral("#000000"));
        QCOMPARE(hexString(QColor(), true), QStringLiteral("#00000000"));
        // Other colour models are converted, not zeroed.
        QCOMPARE(hexString(zavoBlue().toHsv(), false), QStringLiteral("#2782FF"));
    }

    void inputErrorHasCodesAndHashesByCase()
    {
        using Case = UIColorInputError::Case;
        const UIColorInputError missingHash(Case::missingHashMarkAsPrefix);
        const UIColorInputError unscannable(Case::unableToScanHexValue);
        const UIColorInputError badLength(Case::mismatchedHexStringLength);
        QCOMPARE(missingHash.code(), 0L);
        QCOMPARE(unscannable.code(), 1L);
        QCOMPARE(badLength.code(), 2L);
        QCOMPARE(badLength.domain(), QStringLiteral("ZavoCamera.UIColorInputError"));
        QVERIFY(badLength.localizedDescription().contains(QStringLiteral("UIColorInputError error 2")));
        QVERIFY(missingHash == UIColorInputError(Case::missingHashMarkAsPrefix));
        QVERIFY(!(missingHash == unscannable));
        QCOMPARE(qHash(unscannable, 7), qHash(1, 7));
        QCOMPARE(std::hash<UIColorInputError>{}(badLength), std::hash<int>{}(2));
        const QSet<UIColorInputError> set{missingHash, unscannable, missingHash};
        QCOMPARE(set.size(), 2);
    }

    void etelkaFallsBackToTheSystemFont()
    {
        const QFont font = etelka(17);
        QCOMPARE(font.pixelSize(), 17);
        if (QFontDatabase::hasFamily(kEtelkaFontFamily)) {
            QCOMPARE(font.family(), kEtelkaFontFamily);
            return;
        }
        QCOMPARE(font.family(), QFontDatabase::systemFont(QFontDatabase::GeneralFont).family());
        QVERIFY(!fontNamed(kEtelkaFontFamily, 17));
        const QString installed = QFontDatabase::families().value(0);
        QVERIFY(!installed.isEmpty());
        const auto named = fontNamed(installed, 12.5);
        QVERIFY(named);
        QCOMPARE(named->family(), installed);
        QCOMPARE(named->pixelSize(), 13);  // whole layout points
    }

    void fontSizesAreLayoutPointsWhateverTheScreensDpi()
    {
        // Screens report 96 dpi (and often more): a size in Qt's points comes
        // out a third larger than the layout it sits in, one in layout points
        // must not.
        QFont qtPoints = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
        qtPoints.setPointSizeF(15);
        QVERIFY(QFontInfo(qtPoints).pixelSize() >= 20);
        QCOMPARE(QFontInfo(etelka(15)).pixelSize(), 15);
        QLabel label(QStringLiteral("Hg"));
        label.setFont(etelka(15));
        QVERIFY(label.sizeHint().height() < 15 * 1.4);
    }
};

QTEST_MAIN(TstUiColors)
#include "tst_ui_colors.moc"
