// The round button's fills and border in each state, its transitions, and its
// wrapping title.
#include "ui/ZCRoundButton.h"

#include <QSignalSpy>
#include <QVBoxLayout>
#include <QtTest>

using namespace zavo;

namespace {

// Waits for the running colour change, if any, to end.
bool settle(ZCRoundButton& button)
{
    return QTest::qWaitFor([&] { return !button.colorAnimation(); }, 2000);
}

// The fill, sampled left of the title and clear of the border.
QColor fill(ZCRoundButton& button) { return button.grab().toImage().pixelColor(6, button.height() / 2); }
QColor borderPixel(ZCRoundButton& button) { return button.grab().toImage().pixelColor(0, button.height() / 2); }

bool near(const QColor& a, const QColor& b, int tolerance = 3)
{
    return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance
        && std::abs(a.blue() - b.blue()) <= tolerance;
}

// The pressed fill is 80 % blue over the white page behind the button.
const QColor kPressedOverWhite(82, 155, 255);

class Page : public QWidget {
public:
    Page()
    {
        setAutoFillBackground(true);
        QPalette p = palette();
        p.setColor(QPalette::Window, Qt::white);
        setPalette(p);
        button = new ZCRoundButton(this);
        button->setText(QStringLiteral("Go"));
        button->setGeometry(0, 0, 200, 50);
        resize(200, 50);
    }
    ZCRoundButton* button;
};

}  // namespace

class TstUiRoundButton : public QObject {
    Q_OBJECT

private slots:
    void startsBlueWithItsPropertiesExposed()
    {
        Page page;
        page.show();
        ZCRoundButton& b = *page.button;
        QVERIFY(near(fill(b), zavoBlue()));
        QVERIFY(near(borderPixel(b), zavoBlue()));
        QCOMPARE(b.property("bgColor").value<QColor>(), zavoBlue());
        QCOMPARE(b.property("fontSize").toDouble(), 17.0);
        QCOMPARE(b.font().pixelSize(), 17);
        QCOMPARE(hexString(b.highlightedBgColor, true), QStringLiteral("#2782FFCC"));
        QCOMPARE(b.layer().cornerRadius, 6.0);
        QCOMPARE(b.layer().shadowOpacity, 0.0f);
    }

    void pressDarkensAndEveryReleaseRestores()
    {
        Page page;
        page.show();
        QVERIFY(QTest::qWaitForWindowExposed(&page));
        ZCRoundButton& b = *page.button;

        QTest::mousePress(&b, Qt::LeftButton);
        QVERIFY(b.colorAnimation());
        QCOMPARE(b.colorAnimation()->duration(), 200);
        QVERIFY(settle(b));
        QVERIFY2(near(fill(b), kPressedOverWhite), qPrintable(fill(b).name()));
        QTest::mouseRelease(&b, Qt::LeftButton);
        QVERIFY(settle(b));
        QVERIFY(near(fill(b), zavoBlue()));

        // Released outside the button: not a click, but the press is over.
        QSignalSpy clicked(&b, &QAbstractButton::clicked);
        QTest::mousePress(&b, Qt::LeftButton);
        QVERIFY(settle(b));
        QTest::mouseMove(&b, QPoint(-30, -30));
        QTest::mouseRelease(&b, Qt::LeftButton, {}, QPoint(-30, -30));
        QVERIFY(settle(b));
        QCOMPARE(clicked.count(), 0);
        QVERIFY(near(fill(b), zavoBlue()));
    }

    // Each press leaves its zero-to-zero shadow animation in place; a release
    // takes over and removes itself when done.
    void shadowAnimationsNeverShowAShadow()
    {
        Page page;
        page.show();
        ZCRoundButton& b = *page.button;
        QVERIFY(!b.shadowAnimation());
        b.touchDown();
        QPointer<QVariantAnimation> press = b.shadowAnimation();
        QVERIFY(press);
        QCOMPARE(press->duration(), 200);
        QCOMPARE(press->startValue().typeId(), QMetaType::Double);
        QCOMPARE(press->endValue().typeId(), QMetaType::Int);
        QTRY_COMPARE(press->state(), QAbstractAnimation::Stopped);
        QVERIFY(press);
        b.touchUp();
        QVERIFY(!press);
        QVERIFY(b.shadowAnimation());
        QTRY_VERIFY(!b.shadowAnimation());
        QCOMPARE(b.layer().shadowOpacity, 0.0f);
    }

    void disablingGreysFillAndBorderAndEnablingRestoresThem()
    {
        Page page;
        page.show();
        ZCRoundButton& b = *page.button;
        b.setEnabled(false);
        QVERIFY(b.colorAnimation());
        QCOMPARE(b.colorAnimation()->duration(), 100);
        QVERIFY(!b.isEnabled());
        QVERIFY(settle(b));
        QVERIFY(near(fill(b), zavoAlto()));
        QVERIFY(near(borderPixel(b), zavoAlto()));
        QCOMPARE(b.layer().borderColor, zavoAlto());

        b.setEnabled(true);
        QVERIFY(settle(b));
        QVERIFY(near(fill(b), zavoBlue()));
        QCOMPARE(b.layer().backgroundColor, zavoBlue());
        QCOMPARE(b.layer().borderColor, zavoBlue());

        // Through a QWidget pointer (no override is called) the look follows too.
        static_cast<QWidget&>(b).setEnabled(false);
        QVERIFY(settle(b));
        QVERIFY(near(fill(b), zavoAlto()));
    }

    void sameEnabledValueAnimatesNothingButReachesTheBaseClass()
    {
        Page page;
        page.show();
        ZCRoundButton& b = *page.button;
        b.setEnabled(true);
        QVERIFY(!b.colorAnimation());
        QVERIFY(!b.shadowAnimation());

        // Disabled by its parent, then told "disabled" itself: no change to
        // animate, but the button now stays disabled when the parent is
        // enabled again, which only the base class can have done.
        page.setEnabled(false);
        QVERIFY(settle(b));
        QVERIFY(near(fill(b), zavoAlto()));
        b.setEnabled(false);
        QVERIFY(!b.colorAnimation());
        page.setEnabled(true);
        QVERIFY(!b.isEnabled());
        QVERIFY(!b.colorAnimation());
        QVERIFY(near(fill(b), zavoAlto()));
    }

    void longTitleWrapsAndTheLayoutMakesRoomForIt()
    {
        QWidget host;
        host.setFixedWidth(160);
        auto* column = new QVBoxLayout(&host);
        auto* b = new ZCRoundButton;
        b->setText(QStringLiteral("Take a new photo of your face and send it"));
        column->addWidget(b);
        column->addStretch();
        host.resize(160, 400);
        host.show();
        QVERIFY(QTest::qWaitForWindowExposed(&host));
        const int lineHeight = b->fontMetrics().lineSpacing();
        QTRY_VERIFY(b->height() >= 3 * lineHeight);
        QCOMPARE(b->height(), b->heightForWidth(b->width()));
        QVERIFY(b->heightForWidth(2000) < 2 * lineHeight + 16);

        // Text lies on several rows, centred: each text row has white pixels
        // on both halves of the button.
        const QImage image = b->grab().toImage();
        int rowsWithText = 0;
        for (int y = 0; y < image.height(); y += lineHeight / 2) {
            int left = 0, right = 0;
            for (int x = 2; x < image.width() - 2; ++x) {
                if (image.pixelColor(x, y).lightness() > 230)
                    ++(x < image.width() / 2 ? left : right);
            }
            if (left > 0 && right > 0)
                ++rowsWithText;
        }
        QVERIFY2(rowsWithText >= 3, qPrintable(QString::number(rowsWithText)));
    }
};

QTEST_MAIN(TstUiRoundButton)
#include "tst_ui_round_button.moc"
