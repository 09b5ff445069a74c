// Whole camera sessions: a file camera as the front camera, the reference
// detector, and the recording on or off, from the builder to the host's
// delegate and the video file left behind.
#include "MissingPrerequisite.h"
#include "PictureMarkers.h"
#include "ScreenTestSupport.h"

#include "base/ProcessInfo_p.h"
#include "shell/CaptureVideoPreviewView_p.h"
#include "shell/DeviceScreen.h"

#include "media/Asset.h"
#include "camera/file/FileCaptureDevice.h"
#include "zavocore/ZCDetectorClock_p.h"
#include "zavocore/ZCErrorCodes.h"
#include "zavocore/ZCStepConfig.h"
#include "zavocore/ZavoCore_p.h"

#include <QApplication>
#include <QFile>
#include <QTemporaryDir>

#include <chrono>
#include <thread>

using namespace zavo;
using namespace zavo::testing;
using platform::AuthorizationStatus;

class TstScreenSession : public QObject {
    Q_OBJECT

    std::shared_ptr<HostDelegate> host;
    std::shared_ptr<ZMCameraViewController> screen;
    std::shared_ptr<core::ZCZavoConfiguration> configuration;
    std::unique_ptr<PermissionScope> permission;
    // The detector's step limit and frame watchdog run only when a test
    // moves this clock: a slow machine changes no outcome.
    std::optional<core::detail::HeldDetectorClock> clock;

    QTemporaryDir scratch;
    static constexpr QSize kMarkedClipSize{1280, 720};

    std::shared_ptr<platform::FileCaptureDevice> useCamera(const char* clip, platform::CaptureDevicePosition position)
    {
        return useCameraFile(dataPath(clip), position);
    }
    std::shared_ptr<platform::FileCaptureDevice> useCameraFile(const QString& clip,
                                                               platform::CaptureDevicePosition position)
    {
        platform::ErrorPtr error;
        auto camera = platform::FileCaptureDevice::create(clip, position, &error);
        if (!camera)
            qWarning("%s: %s", qPrintable(clip), qPrintable(error ? error->localizedDescription() : QString()));
        else
            platform::CaptureDeviceRegistry::shared().registerDevice(camera);
        return camera;
    }
    void useFrontCamera(const char* clip) { QVERIFY(useCamera(clip, platform::CaptureDevicePosition::Front)); }

    void clickChangeCamera()
    {
        QAbstractButton* button = screen->changeCameraButton();
        QVERIFY(button && button->isVisible());
        QTest::mouseClick(button, Qt::LeftButton);
    }

    void present(bool recordVideo)
    {
        screen = asScreen(ZMCameraBuilder::viewController(host, configuration, nullptr, nullptr, recordVideo));
        QVERIFY(screen);
        screen->view()->resize(360, 640);
        screen->view()->show();
    }

    /// Waits until the screen has shown the banner with this code, or any
    /// banner: a sign that the detector is looking at frames.
    bool waitForBanner(std::optional<long> code = std::nullopt)
    {
        return QTest::qWaitFor(
            [&] {
                const auto shown = screen->notificationView().notificationMessage();
                return shown && (!code || shown->code() == *code);
            },
            30000);
    }

    /// Waits until the recorder is done with the file: the host has been
    /// told the video is final. The file's state in between proves nothing:
    /// the recompressed file takes the recorded one's place by a removal and
    /// a move, so a poll can catch it absent.
    void waitForSavedVideo(const QString& path, bool kept)
    {
        QTRY_COMPARE_WITH_TIMEOUT(host->finals().size(), size_t(1), 30000);
        QTRY_VERIFY_WITH_TIMEOUT(!screen->livenessActivity()->isVisible(), 30000);
        if (kept)
            QVERIFY(decodableFrames(path) > 0);
        else
            QVERIFY(!QFile::exists(path));
    }

private slots:
    void initTestCase()
    {
        platform::CaptureDeviceRegistry::shared().setProviders({});
        platform::CaptureDeviceRegistry::shared().unregisterAll();
        core::ZCBestShotBuilder::setFactory({});
    }

    void init()
    {
        host = std::make_shared<HostDelegate>();
        configuration = std::make_shared<core::ZCZavoConfiguration>();
        clock.emplace();
        permission = std::make_unique<PermissionScope>(AuthorizationStatus::Authorized);
    }

    void cleanup()
    {
        if (screen)
            QVERIFY(releaseScreen(screen, 30000));
        permission.reset();
        platform::ProcessInfo::resetOperatingSystemVersion();
        platform::Device::setOrientationOverride(std::nullopt);
        platform::CaptureDeviceRegistry::shared().unregisterAll();
        // The recompression of one session's video must not overlap the
        // next session's recording into the same file; and nothing of a
        // session may be left running.
        QTRY_COMPARE_WITH_TIMEOUT(platform::DispatchQueue::liveThreadCount(), 0, 30000);
        clock.reset();
    }

    void everyPathShowsThePictureAsItsCameraSideWants_data()
    {
        QTest::addColumn<bool>("back");
        QTest::addColumn<bool>("frameDump");
        // A camera mounted turned, on a device whose orientation says so: the
        // camera sees the scene turned, and the connection turns it back.
        QTest::addColumn<int>("deviceOrientation");  // 0: the screen's own
        QTest::addColumn<int>("mounting");           // how the camera sees the scene, turned clockwise
        QTest::newRow("front camera, movie recorder") << false << false << 0 << 0;
        QTest::newRow("front camera, frame-dump recorder") << false << true << 0 << 0;
        QTest::newRow("back camera, movie recorder") << true << false << 0 << 0;
        QTest::newRow("back camera, frame-dump recorder") << true << true << 0 << 0;
        QTest::newRow("front camera, device turned left") << false << true
                                                          << int(platform::DeviceOrientation::LandscapeLeft) << 90;
        QTest::newRow("front camera, device turned right") << false << true
                                                           << int(platform::DeviceOrientation::LandscapeRight) << 270;
    }

    // The front camera is a mirror: the preview, the frames the detector
    // judges (the best shot is one of them) and the session video all show
    // the user as in a mirror. The back camera shows the scene as it is.
    // Every path is upright. Each picture is read back by its content, the
    // videos decoded by ffmpeg as a player shows them.
    void everyPathShowsThePictureAsItsCameraSideWants()
    {
        QFETCH(bool, back);
        QFETCH(bool, frameDump);
        QFETCH(int, deviceOrientation);
        QFETCH(int, mounting);
        if (!haveFfmpegTools())
            ZAVO_SKIP_MISSING("ffmpeg makes the marked clip and decodes the session videos");
        const QImage reference = markedFace(kMarkedClipSize);
        const QString clip = scratch.filePath(QStringLiteral("marked-face-%1.mp4").arg(mounting));
        if (!QFile::exists(clip))
            QVERIFY(makeStillClip(clip, shownAs(reference, mounting, false)));
        if (frameDump)
            platform::ProcessInfo::setOperatingSystemVersion({15, 0, 0});
        if (deviceOrientation)
            platform::Device::setOrientationOverride(platform::DeviceOrientation(deviceOrientation));
        std::shared_ptr<platform::FileCaptureDevice> front;
        if (back) {
            // The session starts at the front, which shows no face, then
            // switches once the front camera has been seen working.
            front = useCamera("E_no_face.mp4", platform::CaptureDevicePosition::Front);
            QVERIFY(front && useCameraFile(clip, platform::CaptureDevicePosition::Back));
        } else {
            QVERIFY(useCameraFile(clip, platform::CaptureDevicePosition::Front));
        }
        present(true);
        if (back) {
            QTRY_VERIFY_WITH_TIMEOUT(front->loopCount() >= 1, 30000);
            clickChangeCamera();
        }
        const bool mirrored = !back;
        QString why;

        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        const Outcome outcome = host->last();
        QVERIFY2(outcome.bestShot, qPrintable(outcome.error ? outcome.error->localizedDescription() : QString()));
        // The preview as the screen shows it, its own views over it; the
        // last frame it painted is the shot's camera's. The preview follows
        // the device's orientation only when the host turns on orientation
        // following: here it shows the camera's own view.
        const QImage screenshot = screen->view()->grab().toImage();
        QVERIFY2(looksShownAs(screenshot, reference, mounting, mirrored, true, &why),
                 qPrintable("preview: " + why));

        const QImage shot = outcome.bestShot->image();
        QVERIFY2(looksShownAs(shot, reference, 0, mirrored, false, &why), qPrintable("best shot: " + why));
        // The face is where the box says.
        QPointF centre = markedFaceCentre(kMarkedClipSize);
        if (mirrored)
            centre.setX(kMarkedClipSize.width() - centre.x());
        const QPointF scaled(centre.x() * shot.width() / kMarkedClipSize.width(),
                             centre.y() * shot.height() / kMarkedClipSize.height());
        QVERIFY2(outcome.bestShot->faceRect().contains(scaled), qPrintable(QStringLiteral("box %1,%2 %3x%4, face at %5,%6")
                                                                          .arg(outcome.bestShot->faceRect().x())
                                                                          .arg(outcome.bestShot->faceRect().y())
                                                                          .arg(outcome.bestShot->faceRect().width())
                                                                          .arg(outcome.bestShot->faceRect().height())
                                                                          .arg(scaled.x())
                                                                          .arg(scaled.y())));

        QTRY_COMPARE_WITH_TIMEOUT(host->finals().size(), size_t(1), 60000);
        const auto final = host->finals().front();
        QVERIFY(final.videoFile && !final.error);
        // The movie recorder records from the camera through a connection of
        // its own, which is not mirrored, as the phone's movie output records
        // what the camera sees; the frame-dump recorder stores the frames the
        // detector was given, mirrored at the front. After a switch the frame
        // dump keeps its first camera's shape (the front's 360x640) and fits
        // the back camera's frames into it.
        const bool videoMirrored = mirrored && frameDump;
        const QImage videoReference = back && frameDump ? fittedInto(reference, QSize(360, 640)) : reference;
        const QImage lastFrame = shownLastFrame(*final.videoFile, scratch.path());
        if (qEnvironmentVariableIsSet("ZAVO_KEEP_PICTURES")) {
            const QString tag = QString::fromLatin1(QTest::currentDataTag()).replace(' ', '_').replace(',', "");
            screenshot.save(QStringLiteral("/tmp/pic-%1-preview.png").arg(tag));
            shot.save(QStringLiteral("/tmp/pic-%1-shot.png").arg(tag));
            lastFrame.save(QStringLiteral("/tmp/pic-%1-video.png").arg(tag));
        }
        QVERIFY2(looksShownAs(lastFrame, videoReference, 0, videoMirrored, false, &why),
                 qPrintable("session video: " + why));
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
        // Told when the video is final: it then decodes at its final size,
        // with no polling.
        QTRY_COMPARE_WITH_TIMEOUT(host->finals().size(), size_t(1), 30000);
        const auto final = host->finals().front();
        QCOMPARE(final.outcomesBefore, 1);
        QCOMPARE(final.videoFile, outcome.videoFile);
        QVERIFY(!final.error);
        QVERIFY(decodableFrames(*final.videoFile) > 0);
        waitForSavedVideo(*outcome.videoFile, true);
        QCOMPARE(host->count(), 1);
        QCOMPARE(host->finals().size(), size_t(1));
    }

    void videoBecomesFinalWhileTheMainThreadIsBusy()
    {
        // A host quitting: its event loop has stopped while the recorder
        // still recompresses. The recorder must reach its end without the
        // main queue, or the process would wait for it for ever.
        useFrontCamera("A_zoom_blur_dark.mp4");
        present(true);
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (host->finals().empty() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));  // no event processing here, on purpose
        QCOMPARE(host->finals().size(), size_t(1));
        QCOMPARE(host->finals().front().videoFile, host->last().videoFile);
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
        QVERIFY(waitForBanner(1023));
        // However long the faces were in view, they gave no shot; the step
        // then runs out.
        QCOMPARE(host->count(), 0);
        clock->advance(std::chrono::seconds(3));
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        const Outcome outcome = host->last();
        QVERIFY(!outcome.bestShot);
        QCOMPARE(outcome.error->kind(), ZMCameraError::Case::bestShotError);
        QCOMPARE(outcome.error->bestShotErrorValue()->code(), 1000L);
    }

    /// The change-camera button takes the session to the other camera and
    /// back while it records; the video goes on through both switches.
    void changeCameraButtonSwitchesWhileRecording()
    {
        // A pass through a camera's clip (2 s at the front, 4 s at the back)
        // is an event the test can wait for, whatever the machine's speed.
        const auto front = useCamera("E_no_face.mp4", platform::CaptureDevicePosition::Front);
        const auto back = useCamera("C_two_faces.mp4", platform::CaptureDevicePosition::Back);
        QVERIFY(front && back);
        configuration->detector.steadyDuration = 60;  // no shot ends the session early
        present(true);
        QTRY_VERIFY_WITH_TIMEOUT(front->loopCount() >= 1, 30000);
        QVERIFY(!back->isOpen());

        clickChangeCamera();
        QTRY_VERIFY_WITH_TIMEOUT(back->loopCount() >= 1, 30000);
        QVERIFY(!front->isOpen());
        clickChangeCamera();
        QTRY_VERIFY_WITH_TIMEOUT(back->isOpen() == false && front->loopCount() >= 2, 30000);
        QCOMPARE(host->count(), 0);

        screen->closeButton()->click();
        QTRY_COMPARE_WITH_TIMEOUT(host->finals().size(), size_t(1), 30000);
        QVERIFY(!host->finals().front().error);
        // Passes of 2, 4 and 2 s went by: the video holds all of them, with
        // its time running forward across the switches.
        const auto tracks = platform::Asset::assetWithPath(*host->finals().front().videoFile)
                                ->tracksWithMediaType(platform::MediaType::Video);
        QCOMPARE(tracks.size(), size_t(1));
        const double seconds = tracks.front()->duration().seconds();
        QVERIFY2(seconds > 7.5 && seconds < 16, qPrintable(QString::number(seconds)));
    }

    /// With one camera the switch finds none at the other side and leaves
    /// the session without a camera: frames stop, and the watchdog ends it.
    void changeCameraWithOneCameraEndsWithNoFrames()
    {
        const auto front = useCamera("E_no_face.mp4", platform::CaptureDevicePosition::Front);
        QVERIFY(front);
        present(false);
        QVERIFY(waitForBanner());
        clickChangeCamera();
        QTRY_VERIFY_WITH_TIMEOUT(!front->isOpen(), 30000);
        QCOMPARE(host->count(), 0);
        clock->advance(std::chrono::seconds(3));
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        QCOMPARE(host->last().error->bestShotErrorValue()->code(), 1004L);
    }

    /// A step that asks the user to act shows its prompt in the banner; not
    /// done in its time, it ends the session.
    void aStepPromptShowsInTheBannerAndAStepNotDoneEndsTheSession()
    {
        useFrontCamera("A_zoom_blur_dark.mp4");
        screen = asScreen(ZMCameraBuilder::viewController(host, configuration, nullptr, nullptr, false));
        QVERIFY(screen);
        screen->defineInteractionsStep({std::make_shared<core::ZCStepConfig>(core::ZCStepKind::TurnHeadLeft, 5)});
        screen->view()->resize(360, 640);
        screen->view()->show();
        QVERIFY(waitForBanner(long(core::ZCErrorCode::StepPrompt)));
        const QString prompt = screen->notificationView().notificationMessage()->localizedDescription();
        QCOMPARE(prompt, core::zc_localized(QStringLiteral("steps.turn_left")));
        QVERIFY(!prompt.startsWith(QStringLiteral("steps.")));
        clock->advance(std::chrono::seconds(5));
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        QVERIFY(!host->last().bestShot);
        QCOMPARE(host->last().error->bestShotErrorValue()->code(), 1000L);
    }

    void refusedPermissionNamesNoEarlierVideo()
    {
        // An earlier session's video lies where this one's would go.
        useFrontCamera("A_zoom_blur_dark.mp4");
        present(true);
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        const QString earlier = *host->last().videoFile;
        waitForSavedVideo(earlier, true);
        QVERIFY(releaseScreen(screen, 30000));

        host = std::make_shared<HostDelegate>();
        permission.reset();
        permission = std::make_unique<PermissionScope>(AuthorizationStatus::Denied);
        present(true);
        QTRY_COMPARE(host->count(), 1);
        QCOMPARE(host->last().error->kind(), ZMCameraError::Case::accessStatus);
        QCOMPARE(host->last().error->authorizationStatus(), AuthorizationStatus::Denied);
        QCOMPARE(host->last().videoFile, std::nullopt);
        QVERIFY(QFile::exists(earlier));
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
        QVERIFY(waitForBanner());
        clock->advance(std::chrono::seconds(2));
        QTRY_COMPARE_WITH_TIMEOUT(host->count(), 1, 30000);
        QCOMPARE(host->last().error->bestShotErrorValue()->code(), 1000L);
        QVERIFY(!host->last().bestShot);
        QVERIFY(host->last().videoFile);
        QVERIFY(!screen->bestShotDetector()->faceFound());
        waitForSavedVideo(*host->last().videoFile, !saveOnlyFaceVideo);
        // Deleted: final with no file and no error.
        QTRY_COMPARE_WITH_TIMEOUT(host->finals().size(), size_t(1), 30000);
        QCOMPARE(host->finals().front().videoFile.has_value(), !saveOnlyFaceVideo);
        QVERIFY(!host->finals().front().error);
    }
};

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    TstScreenSession test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_screen_session.moc"
