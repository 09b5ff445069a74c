// The face frame and the notification banner, checked on their pixels.
#include "camera-screen/ZMCameraError.h"
#include "ui/ZMFaceDetectionView.h"
#include "ui/ZMVideoStreamNotificationView.h"

#include <QLabel>
#include <QVBoxLayout>
#include <QtTest>

using namespace zavo;

namespace {

// A plain opaque backdrop, so that what a transparent view leaves alone is
// known exactly.
class Backdrop : public QWidget {
public:
    explicit Backdrop(QColor color, QSize size = {})
    {
        setAutoFillBackground(true);
        QPalette p = palette();
        p.setColor(QPalette::Window, color);
        setPalette(p);
        if (!size.isEmpty())
            resize(size);
    }
};

QColor pixel(QWidget* widget, QPoint at) { return widget->grab().toImage().pixelColor(at); }

bool near(const QColor& a, const QColor& b, int tolerance = 3)
{
    return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance
        && std::abs(a.blue() - b.blue()) <= tolerance;
}

platform::ErrorPtr message(const QString& text)
{
    return std::make_shared<platform::ErrorObject>(QStringLiteral("test"), 1,
                                                   QVariantMap{{platform::kLocalizedDescriptionKey, text}});
}

const QString kLongText = QStringLiteral(
    "Your face is too far from the camera. Move a little closer, hold the device at eye level and keep your whole "
    "face inside the frame until the picture is taken.");

}  // namespace

class TstUiOverlayViews : public QObject {
    Q_OBJECT

private slots:
    void faceFrameDrawsTheStateColourAsARoundedBorder()
    {
        Backdrop backdrop(Qt::black, {120, 100});
        auto* frame = new ZMFaceDetectionView(Qt::green, Qt::red, &backdrop);
        frame->setGeometry(10, 10, 100, 80);
        backdrop.show();
        QVERIFY(QTest::qWaitForWindowExposed(&backdrop));

        const QPoint topEdge(60, 10), leftEdge(10, 50), inside(60, 50), corner(10, 10);
        QCOMPARE(pixel(&backdrop, topEdge), QColor(Qt::green));
        QCOMPARE(pixel(&backdrop, leftEdge), QColor(Qt::green));
        QCOMPARE(pixel(&backdrop, inside), QColor(Qt::black));
        QCOMPARE(pixel(&backdrop, corner), QColor(Qt::black));  // rounded away
        QCOMPARE(pixel(&backdrop, topEdge + QPoint(0, 1)), QColor(Qt::black));  // one point wide

        frame->switchToNegativeState();
        QCOMPARE(pixel(&backdrop, topEdge), QColor(Qt::red));
        QCOMPARE(pixel(&backdrop, inside), QColor(Qt::black));
        frame->switchToPositiveState();
        QCOMPARE(pixel(&backdrop, leftEdge), QColor(Qt::green));
    }

    void faceFrameSetsTheBorderOnlyOnARealChange()
    {
        ZMFaceDetectionView frame(Qt::green, Qt::red);
        frame.switchToPositiveState();  // already positive
        QCOMPARE(frame.borderColorChangeCount(), 0);
        frame.switchToNegativeState();
        frame.switchToNegativeState();
        QCOMPARE(frame.borderColorChangeCount(), 1);
        // Equal by value though built differently.
        ZMFaceDetectionView same(QColor::fromRgbF(1, 0, 0), QColor(255, 0, 0));
        same.switchToNegativeState();
        same.switchToPositiveState();
        QCOMPARE(same.borderColorChangeCount(), 0);
    }

    void plainFaceFrameDrawsNothing()
    {
        Backdrop backdrop(Qt::black, {80, 80});
        auto* frame = new ZMFaceDetectionView(QRect(5, 5, 50, 50), &backdrop);
        QCOMPARE(frame->pos(), QPoint(0, 0));  // the frame argument is not applied
        frame->setGeometry(0, 0, 80, 80);
        backdrop.show();
        frame->switchToNegativeState();
        QCOMPARE(frame->borderWidth(), 0.0);
        QCOMPARE(frame->borderColor().alpha(), 0);
        const QImage image = backdrop.grab().toImage();
        for (const QPoint at : {QPoint(0, 0), QPoint(40, 0), QPoint(0, 40), QPoint(40, 40)})
            QCOMPARE(image.pixelColor(at), QColor(Qt::black));
    }

    // The banner gets its height from the parent layout through
    // heightForWidth; the card stays 10 points inside it on every side, and
    // the label 10 points inside the card and after the icon.
    void bannerGrowsWithItsTextAndKeepsItsMargins()
    {
        Backdrop host(Qt::white);
        host.setFixedWidth(320);
        auto* column = new QVBoxLayout(&host);
        column->setContentsMargins(0, 0, 0, 0);
        auto* banner = new ZMVideoStreamNotificationView;
        column->addWidget(banner);
        column->addStretch();
        host.resize(320, 600);
        host.show();
        QVERIFY(QTest::qWaitForWindowExposed(&host));

        auto* card = banner->findChild<QWidget*>(QStringLiteral("backgroundView"));
        auto* icon = banner->findChild<QLabel*>(QStringLiteral("iconView"));
        QLabel* label = banner->notificationLabel();
        QVERIFY(card && icon);
        QVERIFY(!icon->pixmap().isNull());
        QCOMPARE(icon->size(), QSize(24, 24));

        auto check = [&] {
            QCOMPARE(card->geometry(), banner->rect().adjusted(10, 10, -10, -10));
            QCOMPARE(icon->x(), 10);
            QVERIFY(std::abs(icon->geometry().center().y() - card->rect().center().y()) <= 1);
            QCOMPARE(label->geometry(), card->rect().adjusted(10 + icon->width() + 10, 10, -10, -10));
            QVERIFY(label->height() >= label->heightForWidth(label->width()));
        };
        // The new height travels up through three layouts, one event each.
        auto settledHeight = [&] { return label->heightForWidth(label->width()) + 4 * 10; };
        banner->showNotificationMessage(message(QStringLiteral("Hold still")));
        QTRY_COMPARE(banner->height(), settledHeight());
        check();
        const int oneLine = banner->height();

        banner->showNotificationMessage(message(kLongText));
        QTRY_COMPARE(banner->height(), settledHeight());
        QCOMPARE(banner->height(), banner->heightForWidth(320));
        check();
        QVERIFY2(banner->height() >= oneLine + 2 * label->fontMetrics().lineSpacing(), "wraps onto 3+ lines");

        // White margin outside the card, the translucent black card inside it.
        const QImage image = banner->grab().toImage();
        const int middle = banner->height() / 2;
        QCOMPARE(image.pixelColor(5, middle), QColor(Qt::white));
        QCOMPARE(image.pixelColor(banner->width() - 5, middle), QColor(Qt::white));
        QCOMPARE(image.pixelColor(banner->width() / 2, 5), QColor(Qt::white));
        QVERIFY(near(image.pixelColor(12, middle), QColor(178, 178, 178)));
        QVERIFY(near(image.pixelColor(banner->width() - 12, middle), QColor(178, 178, 178)));
    }

    void bannerShowsTheDescriptionAndKeepsTheError()
    {
        ZMVideoStreamNotificationView banner;
        QVERIFY(!banner.notificationMessage());
        auto canceled = std::make_shared<ZMCameraError>(ZMCameraError::canceled());
        platform::ErrorPtr shown = canceled;
        banner.showNotificationMessage(shown);
        banner.showNotificationMessage(shown);
        QCOMPARE(banner.notificationLabel()->text(), *canceled->errorDescription());
        QCOMPARE(banner.notificationMessage(), shown);
        QCOMPARE(canceled.use_count(), 3L);  // canceled, shown and the banner's one

        // Markup in a message is shown as it is, not interpreted.
        banner.showNotificationMessage(message(QStringLiteral("<b>5 < 6</b>")));
        QCOMPARE(banner.notificationLabel()->textFormat(), Qt::PlainText);
        QCOMPARE(canceled.use_count(), 2L);

        banner.showNotificationMessage(nullptr);
        QVERIFY(banner.notificationLabel()->text().isEmpty());
        QVERIFY(!banner.notificationMessage());
    }
};

QTEST_MAIN(TstUiOverlayViews)
#include "tst_ui_overlay_views.moc"
