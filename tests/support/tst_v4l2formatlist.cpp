// The reader that turns v4l2-ctl's format lists into formats, sizes and
// frame rates: both layouts, every interval form, and what it must drop.
// The recorded lists themselves are checked where they are used, by the
// formats the backend chooses from them (tst_v4l2).
#include "V4L2FormatList.h"

#include <QtTest>

using namespace zavo::testing;

namespace {

QString lines(int count, const QString& pattern)
{
    QString text;
    for (int n = 1; n <= count; ++n)
        text += pattern.arg(n);
    return text;
}

}  // namespace

class TstV4L2FormatList : public QObject {
    Q_OBJECT

private slots:
    void intervalForms_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QList<uint>>("expected");  // min, max, step as numerator, denominator
        QTest::newRow("rate wins") << "Discrete 0.133s (7.500 fps)" << QList<uint>{1000, 7500, 0, 0, 0, 0};
        QTest::newRow("seconds alone") << "Discrete 0.033s" << QList<uint>{33, 1000, 0, 0, 0, 0};
        QTest::newRow("continuous") << "Continuous 0.033s - 1.000s (1.000-30.000 fps)"
                                    << QList<uint>{1000, 30000, 1000, 1000, 0, 0};
        QTest::newRow("stepwise") << "Stepwise 0.040s - 1.000s with step 0.040s" << QList<uint>{40, 1000, 1000, 1000, 40, 1000};
        // Too slow to print as a rate: the seconds stand in for it.
        QTest::newRow("zero rate") << "Stepwise 0.033s - 5000.000s with step 0.001s (0.000-30.000 fps)"
                                   << QList<uint>{1000, 30000, 5000000, 1000, 1, 1000};
    }

    void intervalForms()
    {
        QFETCH(QString, line);
        QFETCH(QList<uint>, expected);
        const auto list = parseFormatList("[0]: 'YUYV' (YUYV 4:2:2)\nSize: Discrete 640x480\nInterval: " + line);
        QVERIFY(list);
        const auto& i = list->formats.at(0).sizes.at(0).intervals.at(0);
        QCOMPARE((QList<uint>{i.minNumerator, i.minDenominator, i.maxNumerator, i.maxDenominator, i.stepNumerator,
                              i.stepDenominator}),
                 expected);
    }

    void bothLayoutsReadAlike()
    {
        const QString sizes = QStringLiteral("\t\tSize: Continuous 16x16 - 1920x1080\n"
                                             "\t\tSize: Stepwise 32x32 - 640x480 with step 8/4\n"
                                             "\t\t\tInterval: Stepwise 0.033s - 1.000s with step 0.000s (1.000-30.000 fps)\n");
        const auto current = parseFormatList("ioctl: VIDIOC_ENUM_FMT\n\tType: Video Capture\n\n"
                                             "\t[0]: 'MJPG' (Motion-JPEG, compressed)\n" + sizes +
                                             "\t[1]: 'Y10 ' (10-bit Greyscale)\n" + sizes);
        const auto older = parseFormatList("ioctl: VIDIOC_ENUM_FMT\n\tIndex       : 0\n\tType        : Video Capture\n"
                                           "\tPixel Format: 'MJPG' (compressed)\n\tName        : Motion-JPEG\n" + sizes +
                                           "\n\tIndex       : 1\n\tType        : Video Capture\n"
                                           "\tPixel Format: 'Y10 '\n\tName        : 10-bit Greyscale\n" + sizes);
        QVERIFY(current && older);
        QCOMPARE(current->formats.size(), size_t(2));
        QVERIFY(current->formats == older->formats);
        QCOMPARE(current->formats[1].fourcc, fourccOf("Y10 "));
        QCOMPARE(current->formats[0].sizes[0].stepWidth, 1u);  // a continuous range steps by one
    }

    void rejectedLinesDoNotLeakIntoTheirNeighbours()
    {
        const auto list = parseFormatList(QStringLiteral(
            "[0]: 'YUYV' (YUYV 4:2:2)\nSize: Discrete 640x480\nInterval: Discrete 0.033s (30.000 fps)\n"
            "Size: Discrete 0x480\nInterval: Discrete 0.200s (5.000 fps)\n"
            "Size: Discrete 99999999999999999999x1\nInterval: Discrete 0.100s\n"
            "Size: Stepwise 640x480 - 320x240 with step 1/1\nInterval: Discrete 99999999999.000s\n"
            "[1]: 'ABCDE' (not a fourcc)\nSize: Discrete 320x240\n"
            "Type: Video Output\n[2]: 'RGB3' (24-bit RGB 8-8-8)\nSize: Discrete 320x240\n"));
        QVERIFY(list);
        QCOMPARE(list->formats.size(), size_t(1));
        QCOMPARE(list->formats[0].sizes.size(), size_t(1));
        QCOMPARE(list->formats[0].sizes[0].intervals.size(), size_t(1));

        // Past each bound, what follows a dropped entry must not land on the last one kept.
        const QString format = QStringLiteral("[%1]: 'YUYV' (YUYV 4:2:2)\n");
        const QString size = QStringLiteral("Size: Discrete %1x480\n");
        const QString interval = QStringLiteral("Interval: Discrete 0.0%1s\n");
        auto many = parseFormatList(lines(kMaxFormats + 5, format) + size.arg(1));
        QCOMPARE(many->formats.size(), size_t(kMaxFormats));
        QVERIFY(many->formats.back().sizes.empty());
        many = parseFormatList(format.arg(0) + lines(kMaxSizesPerFormat + 5, size) + interval.arg(1));
        QCOMPARE(many->formats[0].sizes.size(), size_t(kMaxSizesPerFormat));
        QVERIFY(many->formats[0].sizes.back().intervals.empty());
        many = parseFormatList(format.arg(0) + size.arg(1) + lines(kMaxIntervalsPerSize + 5, interval));
        QCOMPARE(many->formats[0].sizes[0].intervals.size(), size_t(kMaxIntervalsPerSize));
    }

    void junkYieldsNothing()
    {
        QString problem;
        QVERIFY(!parseFormatList(QString(), &problem));
        QVERIFY(!problem.isEmpty());
        // What `--all` prints for the current format is not an entry of the list.
        QVERIFY(!parseFormatList(QStringLiteral("Format Video Capture:\n\tPixel Format      : 'YUYV' (YUYV 4:2:2)\n")));
        QVERIFY(!parseFormatList(QStringLiteral("[0]: '\n[1]: ''\nSize: Discrete 640x480\n")));
        QVERIFY(!loadFormatList(QStringLiteral(ZAVO_TEST_DATA_DIR "/v4l2/no_such_camera.txt")));
        // Arbitrary bytes are the webcam_formats fuzz harness's business.
    }
};

QTEST_APPLESS_MAIN(TstV4L2FormatList)
#include "tst_v4l2formatlist.moc"
