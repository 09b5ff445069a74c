// The camera screen against a scripted detector: how it is built, laid out
// and customized, and how it answers every kind of detector report, the
// liveness and recording callbacks and the user's buttons. No camera is
// registered, so capture runs without frames unless a test adds one.
#include "base/ThreadSafety.h"
#include "QueueBarriers.h"
#include "LogRecorder.h"
#include "ScreenTestSupport.h"

#include "camera/CaptureDevice.h"
#include "camera-screen/ZMLocalization.h"
#include "shell/CaptureVideoPreviewView_p.h"
#include "camera/CaptureMovieFileOutput_p.h"
#include "camera/synthetic/SyntheticCaptureDevice.h"
#include "recording/ZMSaveVideoExService.h"
#include "ui/ZMFaceDetectionView.h"
#include "ui/ZMVideoStreamNotificationView.h"
#include "zavocore/ZCErrorCodes.h"
#include "zavocore/ZavoCore_p.h"

#include <QAccessible>
#include <QApplication>
#include <QLabel>
#include <QSignalSpy>
#include <QTimer>
#include <QTranslator>
#include <QVariantAnimation>
#include <QPushButton>

#include <future>

using namespace zavo;
using namespace zavo::testing;
using platform::AuthorizationStatus;

namespace {

class ScriptedDetector final : public core::ZCBestShotDetectorProtocol {
public:
    explicit ScriptedDetector(std::weak_ptr<core::ZCBestShotDelegate> delegate) : delegate(std::move(delegate)) {}

    void pushFrame(const platform::SampleBuffer&) override
    {
        ++frames;
        if (!QCoreApplication::instance() || QThread::currentThread() != QCoreApplication::instance()->thread())
            framesOffMain = true;
    }
    void screenSize(const QSizeF& size, const platform::EdgeInsets& edges) override
    {
        sizes.push_back(size);
        lastEdges = edges;
    }
    bool faceFound() const override { return face; }
    void launchWizard() override { ++launches; }
    void defineStepsList(std::vector<core::ZCStepConfigPtr> list) override { steps = std::move(list); }
    void resume() override {}

    std::shared_ptr<core::ZCBestShotDelegate> target() const { return delegate.lock(); }

    std::weak_ptr<core::ZCBestShotDelegate> delegate;
    std::atomic<int> frames{0};
    std::atomic<bool> framesOffMain{false};
    std::vector<QSizeF> sizes;
    platform::EdgeInsets lastEdges;
    std::atomic<bool> face{false};
    int launches = 0;
    std::vector<core::ZCStepConfigPtr> steps;
};

/// A banner of the host's own that counts what it is asked to show.
class CountingBanner final : public QLabel, public ZMVideoStreamNotificationViewProtocol {
public:
    void showNotificationMessage(platform::ErrorPtr error) override
    {
        current = error;
        setText(error ? error->localizedDescription() : QString());
        if (error)
            shown.append(error->localizedDescription());
    }
    platform::ErrorPtr notificationMessage() const override { return current; }
    QWidget* widget() override { return this; }
    QSize sizeHint() const override { return {100, 37}; }

    platform::ErrorPtr current;
    QStringList shown;
};

class PlainFaceFrame final : public QWidget, public ZMFaceDetectionViewProtocol {
public:
    void switchToPositiveState() override { positive = true; }
    void switchToNegativeState() override { positive = false; }
    QWidget* widget() override { return this; }
    bool positive = true;
};

class Customizer final : public ZMUICustomizerProtocol {
public:
    std::unique_ptr<ZMFaceDetectionViewProtocol> faceDetectionFrameView() override
    {
        ++faceAsked;
        auto view = std::make_unique<PlainFaceFrame>();
        view->setGeometry(5, 6, 7, 8);
        face = view.get();
        return view;
    }
    std::unique_ptr<ZMVideoStreamNotificationViewProtocol> videoStreamNotificationView() override
    {
        ++bannerAsked;
        auto view = std::make_unique<CountingBanner>();
        banner = view.get();
        return view;
    }
    int faceAsked = 0;
    int bannerAsked = 0;
    PlainFaceFrame* face = nullptr;
    CountingBanner* banner = nullptr;
};

/// A customizer that keeps both defaults.
class EmptyCustomizer final : public ZMUICustomizerProtocol {};

class Step final : public core::ZCStepConfigProtocol {
public:
    double timeout() const override { return seconds; }
    void setTimeout(double value) override { seconds = value; }
    double seconds = 3;
};

platform::ErrorPtr detectorError(long code)
{
    return core::makeZCError(core::ZCErrorCode(code), QStringLiteral("errors.code_%1").arg(code));
}

platform::ErrorPtr networking(web::NetworkingError error) { return std::make_shared<web::NetworkingError>(error); }

}  // namespace

class TstScreenFlow : public QObject {
    Q_OBJECT

    std::shared_ptr<HostDelegate> host;
    std::shared_ptr<ZMCameraViewController> screen;
    std::shared_ptr<ScriptedDetector> detector;
    std::shared_ptr<core::ZCZavoConfiguration> configuration;
    std::shared_ptr<Customizer> customizer;
    std::unique_ptr<PermissionScope> permission;
    int detectorsBuilt = 0;

    /// A built screen, shown at 360x640, with capture started and the
    /// wizard launched.
    void present(bool recordVideo = false, std::shared_ptr<ZMUICustomizerProtocol> ui = nullptr)
    {
        auto customization = ui ? std::make_shared<ZMCustomization>(ui) : nullptr;
        screen = asScreen(ZMCameraBuilder::viewController(host, configuration, nullptr, customization, recordVideo));
        QVERIFY(screen);
        screen->view()->resize(360, 640);
        screen->view()->show();
        QTRY_VERIFY(detector && detector->launches == 1);
        // Start runs on the session queue after the wizard was launched.
        QTRY_VERIFY(screen->captureManager()->session() && screen->captureManager()->session()->isRunning());
    }

    std::shared_ptr<core::ZCBestShotDelegate> reporter() const { return detector->target(); }
    QWidget* banner() const { return screen->notificationView().widget(); }

    void report(long code) { reporter()->bestShotError(detectorError(code)); }

private slots:
    void initTestCase()
    {
        platform::CaptureDeviceRegistry::shared().setProviders({});
        platform::CaptureDeviceRegistry::shared().unregisterAll();
    }

    void init()
    {
        host = std::make_shared<HostDelegate>();
        configuration = std::make_shared<core::ZCZavoConfiguration>();
        customizer = std::make_shared<Customizer>();
        permission = std::make_unique<PermissionScope>(AuthorizationStatus::Authorized);
        detectorsBuilt = 0;
        core::ZCBestShotBuilder::setFactory([this](std::weak_ptr<core::ZCBestShotDelegate> delegate, auto, auto) {
            ++detectorsBuilt;
            detector = std::make_shared<ScriptedDetector>(std::move(delegate));
            return detector;
        });
    }

    void cleanup()
    {
        if (screen)
            QVERIFY(releaseScreen(screen));
        detector.reset();
        core::ZCBestShotBuilder::setFactory({});
        permission.reset();
        platform::CaptureDeviceRegistry::shared().unregisterAll();
        ZMLocalization::followApplicationLocale();
    }

    // ------------------------------------------------------------ building

    void builderRefusesACustomizationWithoutCustomizer()
    {
        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression("the customization has no uiCustomizer"));
        QVERIFY(!ZMCameraBuilder::viewController(host, configuration, nullptr, std::make_shared<ZMCustomization>(nullptr),
                                                 true));
    }

    void builderFillsTheScreenAndStartsNothing()
    {
        auto customization = std::make_shared<ZMCustomization>(customizer);
        auto built = ZMCameraBuilder::viewController(host, configuration, nullptr, customization, true);
        screen = asScreen(built);
        QVERIFY(screen);
        QCOMPARE(screen->delegate(), std::shared_ptr<ZMCameraDelegate>(host));
        QVERIFY(screen->captureManager()->recordVideo());
        QCOMPARE(built->viewController(), std::static_pointer_cast<platform::ViewController>(screen));
        // Nothing loaded, nothing asked, nothing built yet.
        QVERIFY(!screen->isViewLoaded());
        QCOMPARE(detectorsBuilt, 0);
        QCOMPARE(customizer->faceAsked + customizer->bannerAsked, 0);
        QVERIFY(!screen->captureManager()->session());

        // The steps go to the detector, which is built for them.
        auto step = std::make_shared<Step>();
        screen->defineInteractionsStep({step});
        QCOMPARE(detectorsBuilt, 1);
        QCOMPARE(detector->steps.size(), size_t(1));
        QCOMPARE(detector->steps.front(), core::ZCStepConfigPtr(step));
    }

    // ------------------------------------------------------ views, layout

    void viewsAreLaidOutOnEveryResize()
    {
        present();
        QPushButton* close = screen->closeButton();
        QCOMPARE(close->parentWidget(), screen->controls());
        QCOMPARE(close->geometry(), QRect(360 - 10 - 44, 10, 44, 44));
        QVERIFY(!close->icon().isNull());
        QCOMPARE(banner()->parentWidget(), screen->controls());
        QVERIFY(!banner()->isVisible());
        QCOMPARE(banner()->geometry().top(), 54);
        QCOMPARE(banner()->width(), 360);
        QVERIFY(banner()->height() > 0);
        QCOMPARE(screen->faceDetectionView().widget()->parentWidget(), screen->controls());
        QVERIFY(dynamic_cast<ZMFaceDetectionView*>(&screen->faceDetectionView()));
        QVERIFY(!screen->livenessActivity()->isVisible());
        QVERIFY(screen->changeCameraButton()->isVisible());
        QCOMPARE(screen->controls()->geometry(), screen->view()->rect());

        // The preview fills the screen, before and after a resize.
        QTRY_VERIFY(screen->view()->findChild<platform::CaptureVideoPreviewView*>());
        auto* preview = screen->view()->findChild<platform::CaptureVideoPreviewView*>();
        QCOMPARE(preview->layer(), screen->captureManager()->previewLayer());
        QTRY_COMPARE(preview->geometry(), QRect(0, 0, 360, 640));

        screen->view()->resize(500, 700);
        QTRY_COMPARE(detector->sizes.back(), QSizeF(500, 700));
        QCOMPARE(preview->layer()->frame(), QRectF(0, 0, 500, 700));
        QTRY_COMPARE(preview->geometry(), QRect(0, 0, 500, 700));
        QCOMPARE(close->geometry(), QRect(500 - 10 - 44, 10, 44, 44));
        QCOMPARE(banner()->width(), 500);
        QCOMPARE(screen->controls()->geometry(), QRect(0, 0, 500, 700));
        QCOMPARE(detector->lastEdges, platform::EdgeInsets{});
    }

    void controlsAreNamedAndReachableByKeyboard()
    {
        present();
        QCOMPARE(screen->closeButton()->accessibleName(), QStringLiteral("Close"));
        QVERIFY(!screen->closeButton()->accessibleDescription().isEmpty());
        QCOMPARE(screen->changeCameraButton()->accessibleName(), QStringLiteral("Switch camera"));
        QVERIFY(!screen->livenessActivity()->accessibleName().isEmpty());
        QVERIFY(screen->closeButton()->focusPolicy() & Qt::TabFocus);
        QVERIFY(screen->changeCameraButton()->focusPolicy() & Qt::TabFocus);

        // The banner's message is what assistive technology hears.
        report(1010);
        QTRY_VERIFY(banner()->isVisible());
        QCOMPARE(banner()->accessibleDescription(), detectorError(1010)->localizedDescription());
    }

    // The screen relabels itself when the language changes, and a host's
    // wording wins whether its translator came before the screen or after.
    void labelsFollowTheLanguageWithTheHostsWordingFirst()
    {
        QTranslator host;
        QVERIFY(host.load(QStringLiteral(":/host/host_overrides.qm")));
        ZMLocalization::setLocale(QLocale(QLocale::English));
        QVERIFY(QCoreApplication::installTranslator(&host));
        present();
        QAbstractButton* switchCamera = screen->changeCameraButton();
        QPushButton* close = screen->closeButton();
        QCOMPARE(switchCamera->text(), QStringLiteral("Use the other camera"));
        QCOMPARE(close->toolTip(), QStringLiteral("Done"));

        screen->view()->setWindowTitle(QStringLiteral("Identity check"));
        ZMLocalization::setLocale(QLocale(QLocale::Spanish));
        QTRY_COMPARE(screen->livenessActivity()->accessibleName(), QStringLiteral("Procesando"));
        QCOMPARE(close->accessibleDescription(), QStringLiteral("Detiene la cámara sin tomar una foto"));
        QCOMPARE(banner()->accessibleName(), QStringLiteral("Mensaje"));
        QCOMPARE(switchCamera->text(), QStringLiteral("Use the other camera"));
        // The form's name for the root is relabelled; the host's title stays.
        QCOMPARE(screen->view()->accessibleName(), QStringLiteral("Cámara"));
        QCOMPARE(screen->view()->windowTitle(), QStringLiteral("Identity check"));

        QVERIFY(QCoreApplication::removeTranslator(&host));
        QTRY_COMPARE(switchCamera->text(), QStringLiteral("Cambiar de cámara"));
        QCOMPARE(close->toolTip(), QStringLiteral("Cerrar"));

        QVERIFY(QCoreApplication::installTranslator(&host));
        QTRY_COMPARE(close->toolTip(), QStringLiteral("Done"));
        QCOMPARE(switchCamera->text(), QStringLiteral("Use the other camera"));
    }

    void switchCameraButtonFollowsTheConfiguration()
    {
        configuration->isShowSwitchCamera = false;
        present();
        QVERIFY(!screen->changeCameraButton()->isVisible());
    }

    void customizerViewsReplaceTheBuiltInOnes()
    {
        present(false, customizer);
        QCOMPARE(customizer->faceAsked, 1);
        QCOMPARE(customizer->bannerAsked, 1);
        QCOMPARE(&screen->faceDetectionView(), static_cast<ZMFaceDetectionViewProtocol*>(customizer->face));
        QCOMPARE(&screen->notificationView(), static_cast<ZMVideoStreamNotificationViewProtocol*>(customizer->banner));
        // The banner gets the layout rules, the face frame keeps its own frame.
        QCOMPARE(customizer->banner->parentWidget(), screen->controls());
        QVERIFY(!customizer->banner->isVisible());
        QCOMPARE(customizer->banner->geometry(), QRect(0, 54, 360, 37));
        QCOMPARE(customizer->face->geometry(), QRect(5, 6, 7, 8));
        screen->view()->resize(400, 640);
        QTRY_COMPARE(customizer->banner->geometry(), QRect(0, 54, 400, 37));
    }

    void customizerWithoutViewsKeepsTheBuiltInOnes()
    {
        present(false, std::make_shared<EmptyCustomizer>());
        QVERIFY(dynamic_cast<ZMFaceDetectionView*>(&screen->faceDetectionView()));
        QVERIFY(dynamic_cast<ZMVideoStreamNotificationView*>(&screen->notificationView()));
    }

    void faceFrameMovesFromRestWithTheDefaultCurve()
    {
        present();
        QWidget* face = screen->faceDetectionView().widget();
        reporter()->detectionRect(QRectF(40, 60, 120, 150), QSizeF(720, 1280));
        QTRY_VERIFY(face->findChild<QVariantAnimation*>());
        auto* animation = face->findChild<QVariantAnimation*>();
        QVERIFY(face->isVisible());
        QCOMPARE(animation->duration(), 150);
        QCOMPARE(animation->easingCurve().type(), QEasingCurve::InOutQuad);
        // The geometry may round to the target a tick before the move ends.
        QTRY_COMPARE(animation->state(), QAbstractAnimation::Stopped);
        QCOMPARE(face->geometry(), QRect(40, 60, 120, 150));
    }

    // Rectangles arrive every frame, well within one move: the frame must
    // still land on a face that stays put, to the pixel.
    void faceFrameArrivesOnATargetThatKeepsBeingReported()
    {
        present();
        QWidget* face = screen->faceDetectionView().widget();
        reporter()->detectionRect(QRectF(10, 10, 60, 80), {});
        QTRY_COMPARE(face->geometry(), QRect(10, 10, 60, 80));

        const QRectF target(203.4, 311.6, 121.2, 149.7);
        QTimer reports;
        reports.setInterval(33);
        QObject::connect(&reports, &QTimer::timeout, [&] { reporter()->detectionRect(target, {}); });
        reports.start();
        QTRY_COMPARE(face->geometry(), target.toRect());
        // Still there while reports keep coming (the move is under way or done).
        for (int i = 0; i < 5; ++i) {
            QSignalSpy tick(&reports, &QTimer::timeout);
            QVERIFY(tick.wait());
            QCOMPARE(face->geometry(), target.toRect());
        }
    }

    void faceFrameFollowsAMovingFace()
    {
        present();
        QWidget* face = screen->faceDetectionView().widget();
        QRectF target(0, 100, 100, 120);
        QTimer reports;
        reports.setInterval(33);
        QObject::connect(&reports, &QTimer::timeout, [&] {
            target.translate(6, 0);
            reporter()->detectionRect(target, {});
            if (target.left() >= 180)
                reports.stop();
        });
        reports.start();
        // How close it stays while the face moves depends on how often the
        // event loop gets to run; on the face once it stops, it must be.
        QTRY_VERIFY(!reports.isActive());
        QTRY_COMPARE(face->geometry(), target.toRect());
    }

    void zeroRectangleHidesTheFrameWithoutAnimating()
    {
        present();
        QWidget* face = screen->faceDetectionView().widget();
        reporter()->detectionRect(QRectF(40, 60, 120, 150), {});
        QTRY_COMPARE(face->geometry(), QRect(40, 60, 120, 150));
        auto* animation = face->findChild<QVariantAnimation*>();
        // Both reports are handled in one turn: the move starts, then stops.
        reporter()->detectionRect(QRectF(140, 260, 120, 150), {});
        reporter()->detectionRect(QRectF(), {});
        QTRY_VERIFY(!face->isVisible());
        QCOMPARE(animation->state(), QAbstractAnimation::Stopped);
        const QRect left = face->geometry();
        QVERIFY(left.width() > 0 && left != QRect(140, 260, 120, 150));
        // The next face moves the frame from where it was left, not from a
        // zero rectangle.
        reporter()->detectionRect(QRectF(140, 260, 120, 150), {});
        QTRY_VERIFY(face->isVisible());
        QCOMPARE(animation->startValue().toRectF(), QRectF(left));
    }

    // Messages on live video are light; the banner keeps the platform's text
    // colour, so the overlay it sits in must make that colour light.
    void bannerTextIsLightOnTheOverlay()
    {
        present();
        auto* label = banner()->findChild<QLabel*>(QStringLiteral("notificationLabel"));
        QVERIFY(label);
        report(long(core::ZCErrorCode::FaceSize));
        QTRY_VERIFY(banner()->isVisible());
        QVERIFY(label->palette().color(label->foregroundRole()).lightness() > 200);
        // Text the application shows elsewhere keeps the platform default.
        QLabel outside;
        QCOMPARE(outside.palette().color(QPalette::WindowText), QApplication::palette().color(QPalette::WindowText));
    }

    void customizerBannerInheritsTheLightText()
    {
        present(false, customizer);
        QLabel* label = customizer->banner;
        QVERIFY(label->palette().color(QPalette::Active, label->foregroundRole()).lightness() > 200);
        QVERIFY(label->palette().color(QPalette::Inactive, label->foregroundRole()).lightness() > 200);
    }

    // ----------------------------------------------------- detector errors

    void endingDetectorCodes_data()
    {
        QTest::addColumn<long>("code");
        QTest::newRow("step timeout") << 1000L;
        QTest::newRow("no frames") << 1004L;
        QTest::newRow("liveness refused") << 1007L;
    }

    void endingDetectorCodes()
    {
        QFETCH(long, code);
        present();
        report(code);
        QTRY_COMPARE(host->count(), 1);
        const Outcome outcome = host->last();
        QCOMPARE(outcome.error->kind(), ZMCameraError::Case::bestShotError);
        QCOMPARE(outcome.error->bestShotErrorValue()->code(), code);
        QCOMPARE(outcome.videoFile, std::nullopt);
        QVERIFY(!screen->closedByUser());
        QVERIFY(!banner()->isVisible());
        auto* frame = dynamic_cast<ZMFaceDetectionView*>(&screen->faceDetectionView());
        QCOMPARE(frame->borderColor(), frame->negativeDetectionColor());
        // The capture session was running: the stop completes on its queue.
        QVERIFY2(outcome.thread.endsWith(QStringLiteral("SessionQueue")), qPrintable(outcome.thread));
    }

    void longMessagesStayTwoSecondsAndAreNotRepeated()
    {
        present(false, customizer);
        report(1023);
        QTRY_VERIFY(banner()->isVisible());
        report(1023);  // the same text while it is up: not shown again
        report(1023);
        QTRY_VERIFY_WITH_TIMEOUT(!banner()->isVisible(), 4000);
        QCOMPARE(customizer->banner->shown.size(), 1);
        QVERIFY(!customizer->banner->current);
        QVERIFY(customizer->face->positive);

        report(1010);
        QTRY_COMPARE(customizer->banner->shown.size(), 2);
        QVERIFY(banner()->isVisible());
        QCOMPARE(host->count(), 0);
        QVERIFY(screen->closedByUser());
    }

    void guidanceIsThrottledIntoShortMessages()
    {
        present(false, customizer);
        // One burst, queued before any of it runs: it collapses into one
        // short message, the newest.
        for (int i = 0; i < 10; ++i)
            report(i % 2 ? 1001 : 1022);
        QCOMPARE(customizer->banner->shown.size(), 0);  // never shown directly
        QTRY_VERIFY(banner()->isVisible());
        QTRY_VERIFY(!banner()->isVisible());
        QCOMPARE(customizer->banner->shown, QStringList{detectorError(1001)->localizedDescription()});
        QCOMPARE(host->count(), 0);
    }

    void livenessQualityMessageBlocksOthersForTwoSeconds()
    {
        present(false, customizer);
        reporter()->bestShotError(networking(web::NetworkingError::livenessQualityError(QStringLiteral("Too dark"))));
        QTRY_VERIFY(!screen->canShow());
        QCOMPARE(customizer->banner->shown, QStringList{QStringLiteral("Too dark")});
        report(1010);
        QTRY_VERIFY_WITH_TIMEOUT(screen->canShow(), 4000);
        QCOMPARE(customizer->banner->shown.size(), 1);
        report(1010);
        QTRY_COMPARE(customizer->banner->shown.size(), 2);
        QCOMPARE(host->count(), 0);
    }

    void networkingErrorsThatEndTheSession()
    {
        present();
        reporter()->bestShotError(networking(web::NetworkingError::zavoError(11038, QStringLiteral("server text"))));
        QTRY_COMPARE(host->count(), 1);
        auto error = *host->last().error;
        QCOMPARE(error.kind(), ZMCameraError::Case::networkingError);
        QCOMPARE(error.networkingErrorValue()->serverCode(), 11038);
        QCOMPARE(error.errorDescription(), core::zc_localized(QStringLiteral("errors.multiple_faces_detected")));

        reporter()->bestShotError(networking(web::NetworkingError::zavoError(500, QStringLiteral("server text"))));
        QTRY_COMPARE(host->count(), 2);
        error = *host->last().error;
        QCOMPARE(error.kind(), ZMCameraError::Case::error);
        QCOMPARE(platform::errorCast<web::NetworkingError>(error.errorValue().get())->serverCode(), 500);
        QCOMPARE(error.errorDescription(), QStringLiteral("server text"));

        auto timeout = std::make_shared<platform::ErrorObject>(QStringLiteral("Net"), 7);
        reporter()->bestShotError(networking(web::NetworkingError::connectionError(timeout)));
        QTRY_COMPARE(host->count(), 3);
        error = *host->last().error;
        QCOMPARE(error.kind(), ZMCameraError::Case::networkingError);
        QCOMPARE(error.networkingErrorValue()->kind(), web::NetworkingError::Kind::LivenessConnectionError);

        reporter()->bestShotError(networking(web::NetworkingError::livenessQualityError()));
        QTRY_COMPARE(host->count(), 4);
        error = *host->last().error;
        QCOMPARE(error.kind(), ZMCameraError::Case::error);
        QCOMPARE(platform::errorCast<web::NetworkingError>(error.errorValue().get())->kind(),
                 web::NetworkingError::Kind::LivenessQualityError);

        reporter()->bestShotError(std::make_shared<platform::ErrorObject>(QStringLiteral("Other"), 1000));
        QTRY_COMPARE(host->count(), 5);
        QCOMPARE(host->last().error->kind(), ZMCameraError::Case::error);
        QVERIFY(!screen->closedByUser());
    }

    // ------------------------------------------------- best shot, endings

    void bestShotEndsTheSessionWithTheRecordedVideo()
    {
        platform::CaptureDeviceRegistry::shared().registerDevice(platform::SyntheticCaptureDevice::create());
        present(true);
        QTRY_VERIFY(screen->captureManager()->recordedFrameCount() > 0);
        reporter()->bestShotError(detectorError(1010));
        QTRY_VERIFY(banner()->isVisible());
        auto shot = std::make_shared<core::ZCBestShot>(QImage(8, 8, QImage::Format_RGB32), QRectF(), core::ZCQualityScore{},
                                                       platform::MediaTime());
        // Reported from another thread, as the detector does.
        std::atomic<bool> acknowledged{false};
        std::thread([&, delegate = reporter()] { acknowledged = delegate->bestShot(shot); }).join();
        QVERIFY(acknowledged);
        QVERIFY(!screen->closedByUser());
        QTRY_COMPARE(host->count(), 1);
        QCOMPARE(host->last().bestShot, core::ZCBestShotPtr(shot));
        QCOMPARE(host->last().videoFile, screen->captureManager()->videoFile());
        QVERIFY(host->last().videoFile->endsWith(QStringLiteral("bright_fold/ZMRecordedVideo.mp4")));
        QVERIFY(!banner()->isVisible());
    }

    void closeCancelsEachTimeItIsClicked()
    {
        int dismissCalls = 0;
        present();
        screen->setDismissHandler([&] { ++dismissCalls; });
        QTest::mouseClick(screen->closeButton(), Qt::LeftButton);
        QTRY_COMPARE(host->count(), 1);
        QTest::mouseClick(screen->closeButton(), Qt::LeftButton);
        QTRY_COMPARE(host->count(), 2);
        for (const Outcome& outcome : host->outcomes())
            QCOMPARE(outcome.error->kind(), ZMCameraError::Case::canceled);
        QVERIFY(screen->closedByUser());
        QTest::keyClick(screen->closeButton(), Qt::Key_Escape);
        QTRY_COMPARE(host->count(), 3);
        QCOMPARE(host->last().error->kind(), ZMCameraError::Case::canceled);
        QCOMPARE(dismissCalls, 0);
    }

    // ------------------------------------- the host deletes the view

    /// Puts the screen's view into a container of the host's, shown.
    std::unique_ptr<QWidget> embed()
    {
        auto container = std::make_unique<QWidget>();
        screen->view()->setParent(container.get());
        container->resize(360, 640);
        container->show();
        return container;
    }

    void deletedContainerBeforeThePermissionAnswerCancelsAndStartsNothing()
    {
        // A permission dialog still open: the answer comes after the host
        // has taken the screen down.
        // The request comes on a platform thread; the test answers on main.
        struct PendingPolicy final : platform::CaptureAuthorizationPolicy {
            platform::AuthorizationStatus authorizationStatus() override { return AuthorizationStatus::NotDetermined; }
            void requestAccess(std::function<void(bool)> completion) override
            {
                zavo::MutexLocker lock(mutex);
                pending = std::move(completion);
            }
            bool asked()
            {
                zavo::MutexLocker lock(mutex);
                return bool(pending);
            }
            void answer(bool granted)
            {
                std::function<void(bool)> completion;
                {
                    zavo::MutexLocker lock(mutex);
                    completion = std::exchange(pending, nullptr);
                }
                completion(granted);
            }
            zavo::Mutex mutex;
            std::function<void(bool)> pending ZAVO_GUARDED_BY(mutex);
        };
        auto policy = std::make_shared<PendingPolicy>();
        platform::CaptureAuthorization::setPolicy(policy);
        platform::CaptureDeviceRegistry::shared().registerDevice(platform::SyntheticCaptureDevice::create());
        screen = asScreen(ZMCameraBuilder::viewController(host, configuration, nullptr, nullptr, true));
        auto container = embed();
        QTRY_VERIFY(policy->asked());
        container.reset();
        QTRY_COMPARE(host->count(), 1);
        QCOMPARE(host->last().error->kind(), ZMCameraError::Case::canceled);
        policy->answer(true);
        // The answer hops to the main queue and from there to the session
        // queue, where a screen that ignored the close would launch.
        QVERIFY(zavo::testing::flushQueues({&platform::DispatchQueue::main(), screen->captureManager()->captureSessionQueue().get()}));
        QCOMPARE(detector->launches, 0);
        QVERIFY(!screen->captureManager()->session() || !screen->captureManager()->session()->isRunning());
        QVERIFY(!screen->view());  // never built again
        QCOMPARE(host->count(), 1);
        platform::CaptureAuthorization::setPolicy(nullptr);
    }

    void deletedContainerWhileFramesFlowOrABannerIsUpCancelsOnce_data()
    {
        QTest::addColumn<bool>("banner");
        QTest::newRow("frames flowing") << false;
        QTest::newRow("banner up") << true;
    }

    void deletedContainerWhileFramesFlowOrABannerIsUpCancelsOnce()
    {
        QFETCH(bool, banner);
        platform::CaptureDeviceRegistry::shared().registerDevice(platform::SyntheticCaptureDevice::create());
        screen = asScreen(ZMCameraBuilder::viewController(host, configuration, nullptr, nullptr, true));
        auto container = embed();
        QTRY_VERIFY(detector && detector->frames > 3);
        if (banner) {
            report(1010);
            QTRY_VERIFY(this->banner()->isVisible());
        }
        container.reset();
        QTRY_COMPARE(host->count(), 1);
        QCOMPARE(host->last().error->kind(), ZMCameraError::Case::canceled);
        QTRY_VERIFY(!screen->captureManager()->session()->isRunning());
        // Reports that were on their way find no widget to touch: the face
        // frame, the banner and its timer, the busy indicator.
        reporter()->detectionRect(QRectF(10, 10, 50, 50), QSizeF(720, 1280));
        report(1022);
        reporter()->livenessIsActive(true);
        // The banner shown before the close hides itself on a timer: let it
        // fire into the dead view, and whatever it sets off land.
        QVERIFY(zavo::testing::settleMainTimers());
        QVERIFY(zavo::testing::flushQueues({screen->captureManager()->captureSessionQueue().get(), &platform::DispatchQueue::main()}));
        QCOMPARE(host->count(), 1);
        QVERIFY(!screen->view());
    }

    void deletedContainerAfterTheOutcomeLetsTheRecordingFinish()
    {
        platform::CaptureDeviceRegistry::shared().registerDevice(platform::SyntheticCaptureDevice::create());
        screen = asScreen(ZMCameraBuilder::viewController(host, configuration, nullptr, nullptr, true));
        auto container = embed();
        // A frame in the movie itself: frames reach the movie output from the
        // capture thread, and the manager's count says only that the frame
        // queue saw one. Closed before the recording took a frame, the
        // session rightly ends with "no frames" and no video.
        std::shared_ptr<ZMSaveVideoExService> movie;
        QTRY_VERIFY((movie = std::dynamic_pointer_cast<ZMSaveVideoExService>(screen->captureManager()->saveVideoService())));
        QTRY_VERIFY(movie->videoFileOutput()->recordedFrameCount() > 0);
        screen->close();
        QTRY_COMPARE(host->count(), 1);
        container.reset();  // while the recording is being finished
        QTRY_COMPARE_WITH_TIMEOUT(host->finals().size(), size_t(1), 30000);
        QCOMPARE(host->count(), 1);
        QCOMPARE(host->finals().front().videoFile, host->last().videoFile);
    }

    void outcomesAreDroppedOnceTheHostLetsGo()
    {
        auto& log = zavo::testing::LogRecorder::instance();
        log.clear();
        present();
        const auto tally = host->tally;
        std::weak_ptr<HostDelegate> watch = host;
        // The session queue is held so that the close is still on its way
        // when the host lets go: a screen that took the delegate at the
        // click would keep it alive and tell it.
        std::promise<void> gate;
        auto opened = gate.get_future().share();
        screen->captureManager()->captureSessionQueue()->async([opened] { opened.wait(); });
        QTest::mouseClick(screen->closeButton(), Qt::LeftButton);
        host.reset();
        QVERIFY(watch.expired());
        gate.set_value();
        report(1000);
        // Both endings run their stop and find nobody to tell.
        QTRY_VERIFY(!screen->closedByUser());
        screen->captureManager()->captureSessionQueue()->sync([] {});
        QVERIFY(zavo::testing::flushMainQueue());  // a delivery hopping through the main queue lands here
        QCOMPARE(tally->load(), 0);
        // Dropped, but not silently: the host is told where it looks.
        QVERIFY(log.count(QRegularExpression(QStringLiteral("dropped: its delegate no longer exists"))) >= 1);
        host = std::make_shared<HostDelegate>();
    }

    void refusedPermissionEndsWithItsStatus()
    {
        permission.reset();
        permission = std::make_unique<PermissionScope>(AuthorizationStatus::Denied);
        screen = asScreen(ZMCameraBuilder::viewController(host, configuration, nullptr, nullptr, true));
        screen->view()->show();
        QTRY_COMPARE(host->count(), 1);
        QCOMPARE(host->last().error->kind(), ZMCameraError::Case::accessStatus);
        QCOMPARE(host->last().error->authorizationStatus(), AuthorizationStatus::Denied);
        // The session never ran: the stop completes on the main thread, and
        // no video is named, although recording was on.
        QCOMPARE(host->last().thread, QStringLiteral("main"));
        QCOMPARE(host->last().videoFile, std::nullopt);
        QVERIFY(!screen->closedByUser());
        QCOMPARE(detector->launches, 0);
    }

    // ------------------------------------------- liveness and recording

    void busyIndicatorFollowsLivenessAndSaving()
    {
        present();
        QWidget* busy = screen->livenessActivity();
        reporter()->livenessIsActive(true);
        QTRY_VERIFY(busy->isVisible());
        reporter()->livenessIsActive(false);
        QTRY_VERIFY(!busy->isVisible());
        std::thread([s = screen] { s->videoSaveProcessBegan(); }).join();
        QTRY_VERIFY(busy->isVisible());
        std::thread([s = screen] { s->videoSavedWithError(nullptr); }).join();
        QTRY_VERIFY(!busy->isVisible());
    }

    void videoIsDeletedOnlyWithoutAFace_data()
    {
        QTest::addColumn<bool>("saveOnlyFaceVideo");
        QTest::addColumn<bool>("faceFound");
        QTest::addColumn<bool>("deleted");
        QTest::newRow("face-only, none seen") << true << false << true;
        QTest::newRow("face-only, face seen") << true << true << false;
        QTest::newRow("keep all") << false << false << false;
    }

    void videoIsDeletedOnlyWithoutAFace()
    {
        QFETCH(bool, saveOnlyFaceVideo);
        QFETCH(bool, faceFound);
        QFETCH(bool, deleted);
        configuration->saveOnlyFaceVideo = saveOnlyFaceVideo;
        present();
        detector->face = faceFound;
        // Asked from a recorder thread while the main thread keeps running.
        auto answer = std::async(std::launch::async, [s = screen] { return s->shouldDeleteResultingVideo(); });
        QTRY_VERIFY(answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready);
        QCOMPARE(answer.get(), deleted);
    }

    // ------------------------------------------------- frames, lifetime

    void framesReachTheDetectorOnTheMainThreadAndReleaseIsClean()
    {
        platform::CaptureDeviceRegistry::shared().registerDevice(platform::SyntheticCaptureDevice::create());
        present();
        QTRY_VERIFY(detector->frames > 3);
        QVERIFY(!detector->framesOffMain);
        // Let go while frames are flowing: the frame queue may be waiting in
        // its hop to the main queue.
        auto manager = std::weak_ptr<ZMCameraCaptureManager>(screen->captureManager());
        QVERIFY(releaseScreen(screen));
        QTRY_VERIFY(manager.expired());
        QCOMPARE(host->count(), 0);
    }

    void releasedBeforeCaptureIsConfigured()
    {
        screen = asScreen(ZMCameraBuilder::viewController(host, configuration, nullptr, nullptr, false));
        screen->view()->show();
        // The configuration task still holds the screen; it must end on the
        // main thread once that task lets go.
        QVERIFY(releaseScreen(screen));
    }
};

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    TstScreenFlow test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_screen_flow.moc"
