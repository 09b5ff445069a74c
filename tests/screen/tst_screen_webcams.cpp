// Whole camera sessions on fake webcams that list the formats of real ones:
// the reference detector must reach a best shot through the real V4L2
// backend, and a busy, forbidden, unplugged, starved or silent camera must
// end the session the documented way, telling the host why in words its
// user can act on, and leaving no descriptor, mapping or thread behind.
#include "FakeWebcams.h"
#include "LogRecorder.h"
#include "PictureMarkers.h"
#include "ScreenTestSupport.h"

#include "base/DispatchQueue.h"
#include "camera/CaptureAuthorization_p.h"
#include "resources/ZMBundleLink_p.h"
#include "zavocore/ZavoCore_p.h"

#include <QApplication>
#include <QElapsedTimer>

using namespace zavo;
using namespace zavo::testing;
using platform::AuthorizationStatus;
using platform::CameraFailureReason;

namespace {
QString text(const char* key) { return ZMBundleLink::bundle().localizedString(QLatin1String(key)); }
}  // namespace

class TstScreenWebcams : public QObject {
    Q_OBJECT

    std::shared_ptr<HostDelegate> host;
    std::shared_ptr<ZMCameraViewController> screen;
    std::shared_ptr<core::ZCZavoConfiguration> configuration;
    std::unique_ptr<FakeWebcams> webcams;

    void present(bool recordVideo)
    {
        screen = asScreen(ZMCameraBuilder::viewController(host, configuration, nullptr, nullptr, recordVideo));
        QVERIFY(screen);
        screen->view()->resize(360, 640);
        screen->view()->show();
    }

    long endingCode() const
    {
        const Outcome outcome = host->last();
        if (!outcome.error || outcome.error->kind() != ZMCameraError::Case::bestShotError)
            return -1;
        return outcome.error->bestShotErrorValue()->code();
    }

private slots:
    void initTestCase()
    {
        platform::CaptureDeviceRegistry::shared().unregisterAll();
        core::ZCBestShotBuilder::setFactory({});
        (void)faceFeed();  // decodes the clip once, before any clock runs
        (void)LogRecorder::instance();
    }

    void init()
    {
        host = std::make_shared<HostDelegate>();
        configuration = std::make_shared<core::ZCZavoConfiguration>();
        // Limits that only bound a hang: each ending below comes from its
        // own cause long before these.
        configuration->detector.stepTimeout = 60;
        configuration->detector.frameTimeout = 60;
        webcams = std::make_unique<FakeWebcams>();
    }

    void cleanup()
    {
        if (screen)
            QVERIFY(releaseScreen(screen, 30000));
        QTRY_COMPARE_WITH_TIMEOUT(platform::DispatchQueue::liveThreadCount(), 0, 30000);
        QCOMPARE(webcams->kernel->openDescriptors(), 0);
        QCOMPARE(webcams->kernel->liveMappings(), 0);
        webcams.reset();
    }

    void recordedWebcamsGiveABestShot_data()
    {
        QTest::addColumn<QString>("file");
        QTest::newRow("1080p USB webcam") << "usb1080p_h264.txt";
        QTest::newRow("720p USB webcam") << "usb720p.txt";
        QTest::newRow("laptop camera") << "laptop_builtin.txt";
        QTest::newRow("640x480 only") << "only_640x480.txt";
        QTest::newRow("stepwise sizes") << "stepwise.txt";
        QTest::newRow("stepwise rates") << "stepwise_interval.txt";
    }

    void recordedWebcamsGiveABestShot()
    {
        QFETCH(QString, file);
        auto camera = fixtureCamera(file);
        camera->feed = pictureFeed(markedFace);
        webcams->kernel->plug(QStringLiteral("video0"), camera);
        PermissionScope permission(AuthorizationStatus::Authorized);
        present(false);
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 60000);
        const Outcome outcome = host->last();
        QVERIFY2(outcome.bestShot, qPrintable(outcome.error ? outcome.error->localizedDescription() : QString()));
        // Whatever the format (MJPEG, YUYV, NV12) and size: the shot is the
        // whole picture, upright, mirrored as the only camera is the front.
        const QImage image = outcome.bestShot->image();
        QString why;
        QVERIFY2(looksShownAs(image, markedFace(image.size()), 0, true, false, &why), qPrintable(why));
    }

    void aCameraThatGivesNoPicturesEndsTheSessionSayingWhy_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<CameraFailureReason>("reason");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("logged");
        QTest::newRow("busy") << "busy" << CameraFailureReason::Busy << "errors.camera_busy"
                              << "busy\\): /dev/video0 \\(HD Pro Webcam C920\\) is in use by another application";
        QTest::newRow("no USB bandwidth") << "bandwidth" << CameraFailureReason::NoBandwidth << "errors.camera_no_bandwidth"
                                          << "not enough USB bandwidth\\): .*not enough USB bandwidth for";
        QTest::newRow("silent") << "stall" << CameraFailureReason::NoPictures << "errors.camera_no_pictures"
                                << "no pictures\\): /dev/video0: no picture for 0.3 s";
        QTest::newRow("only broken buffers") << "errors" << CameraFailureReason::NoPictures << "errors.camera_no_pictures"
                                             << "no pictures\\): /dev/video0: 30 buffers in a row without a picture";
    }

    void aCameraThatGivesNoPicturesEndsTheSessionSayingWhy()
    {
        QFETCH(QString, fault);
        QFETCH(CameraFailureReason, reason);
        QFETCH(QString, key);
        QFETCH(QString, logged);
        // The silent camera is given up on sooner than a real one would be.
        webcams.reset();
        webcams = std::make_unique<FakeWebcams>(platform::v4l2::StreamLimits{std::chrono::milliseconds(300), 30});
        auto camera = fixtureCamera(QStringLiteral("usb1080p_h264.txt"));
        if (fault == QLatin1String("busy"))
            camera->setFormatErrno = EBUSY;
        else if (fault == QLatin1String("bandwidth"))
            camera->streamOnErrno = ENOSPC;
        else if (fault == QLatin1String("stall"))
            camera->stallAfter = 10;
        else
            camera->bufferFault = [](int64_t number) {
                return number > 10 ? FakeCamera::BufferFault::ErrorFlag : FakeCamera::BufferFault::None;
            };
        webcams->kernel->plug(QStringLiteral("video0"), camera);
        PermissionScope permission(AuthorizationStatus::Authorized);
        configuration->detector.minSharpness = 1e9;  // no shot may end it first
        LogRecorder::instance().clear();
        present(false);
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        QCOMPARE(endingCode(), 1004L);
        const Outcome outcome = host->last();
        QCOMPARE(outcome.error->cameraFailureReason(), reason);
        QVERIFY(text(qPrintable(key)) != key);
        QCOMPARE(outcome.error->localizedDescription(), text(qPrintable(key)));
        QCOMPARE(LogRecorder::instance().count(QRegularExpression("the camera stopped \\(" + logged)), 1);
    }

    void accessRefusalsSayWhy_data()
    {
        QTest::addColumn<bool>("portal");
        QTest::addColumn<CameraFailureReason>("reason");
        QTest::addColumn<QString>("says");
        // The default permission policy: what this user can open.
        QTest::newRow("not in the video group") << false << CameraFailureReason::NoPermission << "“video” group";
        // A camera portal that said no, as the desktop's policy would.
        QTest::newRow("the desktop's portal")
            << true << CameraFailureReason::PortalRefused << "Camera access was refused in the desktop's privacy settings.";
    }

    void accessRefusalsSayWhy()
    {
        QFETCH(bool, portal);
        QFETCH(CameraFailureReason, reason);
        QFETCH(QString, says);
        auto camera = fixtureCamera(QStringLiteral("laptop_builtin.txt"));
        std::optional<PermissionScope> permission;
        if (portal) {
            permission.emplace(AuthorizationStatus::Denied);
            permission->policy->setDenialReason(CameraFailureReason::PortalRefused);
        } else {
            camera->openErrno = EACCES;
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("no access to /dev/video0: .*\"video\" group"));
        }
        webcams->kernel->plug(QStringLiteral("video0"), camera);
        present(false);
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        const Outcome outcome = host->last();
        QVERIFY(outcome.error);
        QCOMPARE(outcome.error->kind(), ZMCameraError::Case::accessStatus);
        QCOMPARE(outcome.error->authorizationStatus(), AuthorizationStatus::Denied);
        QCOMPARE(outcome.error->cameraFailureReason(), reason);
        QVERIFY2(outcome.error->localizedDescription().contains(says), qPrintable(outcome.error->localizedDescription()));
    }

    void unpluggedWebcamEndsTheSessionAndKeepsItsVideo()
    {
        webcams->kernel->plug(QStringLiteral("video0"), fixtureCamera(QStringLiteral("usb720p.txt")));
        PermissionScope permission(AuthorizationStatus::Authorized);
        // No shot may end it first: the face must stay out of reach.
        configuration->detector.minSharpness = 1e9;
        present(true);
        QTRY_VERIFY_WITH_TIMEOUT(webcams->kernel->deliveredFrames() >= 30, 30000);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("the camera was unplugged"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("the camera stopped \\(unplugged\\): .*unplugged"));
        QElapsedTimer clock;
        clock.start();
        webcams->kernel->unplug(QStringLiteral("video0"));
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        qInfo("unplugged to outcome: %lld ms", (long long)clock.elapsed());
        QCOMPARE(endingCode(), 1004L);
        const Outcome outcome = host->last();
        QCOMPARE(outcome.error->cameraFailureReason(), CameraFailureReason::Unplugged);
        QCOMPARE(outcome.error->localizedDescription(), text("errors.camera_unplugged"));
        QVERIFY(outcome.videoFile);
        // Final once the host hears so (the file itself is briefly absent
        // while the recompressed rendition takes its place).
        QTRY_COMPARE_WITH_TIMEOUT(host->finals().size(), size_t(1), 30000);
        QTRY_VERIFY(!screen->livenessActivity()->isVisible());
        QVERIFY(decodableFrames(*outcome.videoFile) > 0);
        QCOMPARE(host->count(), 1);
    }
};

QTEST_MAIN(TstScreenWebcams)
#include "tst_screen_webcams.moc"
