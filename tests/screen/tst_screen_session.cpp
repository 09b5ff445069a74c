// Whole camera sessions: a file camera as the front camera, the reference
// detector, and the recording on or off, from the builder to the host's
// delegate and the video file left behind.
#include "ScreenTestSupport.h"

#include "platform/Asset.h"
#include "platform/FileCaptureDevice.h"
#include "zavocore/ZavoCore.h"

#include <QApplication>
#include <QFile>

using namespace zavo;
using namespace zavo::testing;
using platform::AuthorizationStatus;

class TstScreenSession : public QObject {
    Q_OBJECT

    std::shared_ptr<HostDelegate> host;
    std::shared_ptr<ZMCameraViewController> screen;
    std::shared_ptr<core::ZCZavoConfiguration> configuration;
    std::unique_ptr<PermissionScope> permission;

    void useFrontCamera(const char* clip)
    {
        platform::ErrorPtr error;
        auto camera = platform::FileCaptureDevice::create(dataPath(clip), platform::CaptureDevicePosition::Front, &error);
        QVERIFY2(camera, qPrintable(error ? error->localizedDescription() : QString()));
        platform::CaptureDeviceRegistry::shared().registerDevice(camera);
    }

    void present(bool recordVideo)
    {
        screen = asScreen(ZMCameraBuilder::viewController(host, configuration, nullptr, nullptr, recordVideo));
        QVERIFY(screen);
        screen->view()->resize(360, 640);
        screen->view()->show();
    }

    /// Waits until the recorder is done with the file: the busy indicator
    /// is down again and the file (if kept) is a complete MP4.
    void waitForSavedVideo(const QString& path, bool kept)
    {
        QTRY_VERIFY_WITH_TIMEOUT(!screen->livenessActivity()->isVisible()
                                     && (kept ? decodableFrames(path) > 0 : !QFile::exists(path)),
                                 30000);
    }

private slots:
    void initTestCase()
    {
        platform::CaptureDeviceRegistry::shared().setV4L2Enabled(false);
        platform::CaptureDeviceRegistry::shared().unregisterAll();
        core::ZCBestShotBuilder::setFactory({});
    }

    void init()
    {
        host = std::make_shared<HostDelegate>();
        configuration = std::make_shared<core::ZCZavoConfiguration>();
        configuration->detector.stepTimeout = 10;
        permission = std::make_unique<PermissionScope>(AuthorizationStatus::Authorized);
    }

    void cleanup()
    {
        if (screen)
            QVERIFY(releaseScreen(screen, 30000));
        permission.reset();
        platform::CaptureDeviceRegistry::shared().unregisterAll();
        // The recompression of one session's video must not overlap the
        // next session's recording into the same file; and nothing of a
        // session may be left running.
        QTRY_COMPARE_WITH_TIMEOUT(platform::DispatchQueue::liveThreadCount(), 0, 30000);
    }

    void faceClipGivesABestShotAndItsVideo()
    {
        useFrontCamera("A_zoom_blur_dark.mp4");
        present(true);
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        const Outcome outcome = host->last();
        QVERIFY2(outcome.bestShot, qPrintable(outcome.error ? outcome.error->localizedDescription() : QString()));
        QVERIFY(!outcome.bestShot->image().isNull());
        QVERIFY(outcome.videoFile && outcome.videoFile->endsWith(QStringLiteral("bright_fold/ZMRecordedVideo.mp4")));
        QVERIFY(!screen->closedByUser());
        waitForSavedVideo(*outcome.videoFile, true);
        QCOMPARE(host->count(), 1);
    }

    void faceClipWithoutRecordingHasNoVideo()
    {
        useFrontCamera("A_zoom_blur_dark.mp4");
        present(false);
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        QVERIFY(host->last().bestShot);
        QCOMPARE(host->last().videoFile, std::nullopt);
    }

    void twoFacesShowTheBannerAndGiveNoShot()
    {
        configuration->detector.stepTimeout = 3;
        useFrontCamera("C_two_faces.mp4");
        present(false);
        QSet<long> bannerCodes;
        const bool ended = QTest::qWaitFor(
            [&] {
                if (auto shown = screen->notificationView().notificationMessage())
                    bannerCodes.insert(shown->code());
                return host->count() > 0;
            },
            30000);
        QVERIFY(ended);
        QVERIFY(bannerCodes.contains(1023));
        const Outcome outcome = host->last();
        QVERIFY(!outcome.bestShot);
        QCOMPARE(outcome.error->kind(), ZMCameraError::Case::bestShotError);
        QCOMPARE(outcome.error->bestShotErrorValue()->code(), 1000L);
    }

    void refusedPermissionEndsWithTheVideoPath()
    {
        permission.reset();
        permission = std::make_unique<PermissionScope>(AuthorizationStatus::Denied);
        useFrontCamera("A_zoom_blur_dark.mp4");
        present(true);
        QTRY_COMPARE(host->count(), 1);
        QCOMPARE(host->last().error->kind(), ZMCameraError::Case::accessStatus);
        QCOMPARE(host->last().error->authorizationStatus(), AuthorizationStatus::Denied);
        QVERIFY(host->last().videoFile && host->last().videoFile->endsWith(QStringLiteral("ZMRecordedVideo.mp4")));
    }

    void emptySceneIsKeptUnlessOnlyFaceVideoIsWanted_data()
    {
        QTest::addColumn<bool>("saveOnlyFaceVideo");
        QTest::newRow("face video only") << true;
        QTest::newRow("every video") << false;
    }

    void emptySceneIsKeptUnlessOnlyFaceVideoIsWanted()
    {
        QFETCH(bool, saveOnlyFaceVideo);
        configuration->saveOnlyFaceVideo = saveOnlyFaceVideo;
        configuration->detector.stepTimeout = 2;
        useFrontCamera("E_no_face.mp4");
        present(true);
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        QVERIFY(!host->last().bestShot);
        QVERIFY(host->last().videoFile);
        QVERIFY(!screen->bestShotDetector()->faceFound());
        waitForSavedVideo(*host->last().videoFile, !saveOnlyFaceVideo);
    }
};

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    TstScreenSession test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_screen_session.moc"
