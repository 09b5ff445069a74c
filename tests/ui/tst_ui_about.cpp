// The about screen's texts, where its labels sit, and the navigation bar it
// shows while it is up.
#include "ui/ZEAboutVC.h"

#include <QApplication>
#include <QLabel>
#include <QtTest>

using namespace zavo;

namespace {

std::shared_ptr<core::ZCZavoConfiguration> configuration(const QString& idVersion, const QString& sdkVersion)
{
    auto config = std::make_shared<core::ZCZavoConfiguration>();
    config->zavoIDSDKVersion = idVersion;
    config->zavoSDKVersion = sdkVersion;
    return config;
}

QString labelText(platform::ViewController& screen, const char* name)
{
    auto* label = screen.view()->findChild<QLabel*>(QLatin1String(name));
    return label ? label->text() : QStringLiteral("<missing>");
}

}  // namespace

class TstUiAbout : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        QCoreApplication::setApplicationName(QStringLiteral("Kiosk"));
        QCoreApplication::setApplicationVersion(QStringLiteral("2.1.0"));
        qApp->setProperty("CFBundleVersion", QStringLiteral("57"));
        qApp->setProperty("CFBundleName", QVariant());
    }

    void showsHostAndSdkVersions()
    {
        auto about = std::make_shared<ZEAboutVC>(configuration(QStringLiteral("3.4.5"), QStringLiteral("1.2.3")));
        QCOMPARE(labelText(*about, "applicationLabel"), QStringLiteral("Kiosk v.2.1.0(57)"));
        QCOMPARE(labelText(*about, "zavoIDSDKLabel"), QStringLiteral("ZavoID SDK v.3.4.5"));
        QCOMPARE(labelText(*about, "zavoSDKLabel"), QStringLiteral("Zavo SDK v.1.2.3"));

        // Read once, when the view is built.
        about->setZavoConfiguration(configuration(QStringLiteral("9"), QStringLiteral("9")));
        QCOMPARE(labelText(*about, "zavoSDKLabel"), QStringLiteral("Zavo SDK v.1.2.3"));
    }

    void nameThatIsNotAStringReadsUnknownAndEmptyVersionsStayEmpty()
    {
        QCoreApplication::setApplicationVersion(QStringLiteral("1.0"));
        qApp->setProperty("CFBundleVersion", QStringLiteral("1"));
        qApp->setProperty("CFBundleName", 42);
        ZEAboutVC about(configuration({}, {}));
        QCOMPARE(labelText(about, "applicationLabel"), QStringLiteral("unknown v.1.0(1)"));
        QCOMPARE(labelText(about, "zavoIDSDKLabel"), QStringLiteral("ZavoID SDK v."));
        QCOMPARE(labelText(about, "zavoSDKLabel"), QStringLiteral("Zavo SDK v."));
    }

    // Stacked 20 points apart from the top; each label starts 20 points in
    // and ends 20 points beyond the right edge, where long text is cut.
    void labelsStackFromTheTopAndRunPastTheRightEdge()
    {
        ZEAboutVC about(configuration(QString(200, QLatin1Char('7')), QStringLiteral("1")));
        QWidget* page = about.view();
        page->resize(300, 400);
        page->show();
        QVERIFY(QTest::qWaitForWindowExposed(page));
        int top = 0;
        for (const char* name : {"applicationLabel", "zavoIDSDKLabel", "zavoSDKLabel"}) {
            auto* label = page->findChild<QLabel*>(QLatin1String(name));
            QVERIFY(label);
            top += 20;
            QCOMPARE(label->geometry(), QRect(20, top, 300, label->sizeHint().height()));
            top += label->height();
        }
        page->resize(360, 400);
        QTRY_COMPARE(page->findChild<QLabel*>(QStringLiteral("zavoSDKLabel"))->width(), 360);

        const QImage image = page->grab().toImage();
        QCOMPARE(image.pixelColor(10, 390), QColor(Qt::white));
        QCOMPARE(image.pixelColor(355, 390), QColor(Qt::white));
    }

    void navigationBarShowsWhileTheScreenIsUp()
    {
        auto home = std::make_shared<platform::ViewController>();
        auto navigation = platform::NavigationController::create(home);
        navigation->setNavigationBarHidden(true);
        navigation->view()->resize(320, 480);
        navigation->view()->show();
        QVERIFY(QTest::qWaitForWindowExposed(navigation->view()));

        auto about = std::make_shared<ZEAboutVC>(configuration({}, {}));
        navigation->pushViewController(about);
        QTRY_VERIFY(!navigation->isNavigationBarHidden());
        QVERIFY(navigation->navigationBar()->isVisible());

        navigation->popViewController();
        QTRY_VERIFY(navigation->isNavigationBarHidden());
        QVERIFY(!navigation->navigationBar()->isVisible());
    }
};

QTEST_MAIN(TstUiAbout)
#include "tst_ui_about.moc"
