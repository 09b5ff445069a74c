// The reference detector's public behaviour: what it reports, when, and on
// which terms it stops, with frames made from photos.
#include "CannedHttpServer.h"
#include "CoreTestSupport.h"
#include "base/DispatchQueue.h"
#include "zavocore/ZCDetectorClock_p.h"
#include "zavocore/ZCHttpLiveness.h"
#include "zavocore/ZCStepConfig.h"
#include "zavocore/ZavoCore_p.h"
#include "zavoweb/NetworkingError.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTimer>
#include <QTest>

using namespace zavo;
using core::ZCErrorCode;
using platform::MediaTime;

namespace {

using testing::photo;

QImage cameraFrame(const QImage& face)
{
    QImage frame = face.scaled(720, 1280, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
    return frame.copy((frame.width() - 720) / 2, (frame.height() - 1280) / 2, 720, 1280);
}

QImage darkened(QImage image)
{
    image = image.convertToFormat(QImage::Format_ARGB32);
    for (int y = 0; y < image.height(); ++y) {
        QRgb* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < image.width(); ++x)
            line[x] = qRgb(qRed(line[x]) / 4, qGreen(line[x]) / 4, qBlue(line[x]) / 4);
    }
    return image;
}

core::ZCDetectorSettings testSettings()
{
    core::ZCDetectorSettings settings;
    settings.synchronousProcessing = true;
    return settings;
}

int threadCount() { return QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(); }

// Answers every check with one scripted verdict, from a thread of its own.
class ScriptedLiveness final : public core::ZCOnlineLivenessProtocol {
public:
    ScriptedLiveness(bool live, platform::ErrorPtr error) : live_(live), error_(std::move(error)) {}
    void checkLiveness(const QImage& image, Completion completion) override
    {
        images.append(image);
        queue_->async([completion, live = live_, error = error_] { completion(live, error); });
    }
    QList<QImage> images;  // touched on the detector's thread only, read after it reported

private:
    bool live_;
    platform::ErrorPtr error_;
    platform::DispatchQueuePtr queue_ = platform::DispatchQueue::create(QStringLiteral("test.liveness"));
};

struct Rig : testing::DetectorRig {
    explicit Rig(core::ZCDetectorSettings settings = testSettings(),
                 std::shared_ptr<core::ZCOnlineLivenessProtocol> liveness = nullptr)
        : DetectorRig(settings, std::move(liveness))
    {
    }
};

}  // namespace

class TestDetector : public QObject {
    Q_OBJECT

    // The step limits and the frame watchdog run only when a test moves the
    // clock: how long an analysis takes on this machine changes no outcome.
    std::optional<core::detail::HeldDetectorClock> clock;

private slots:
    void init() { clock.emplace(); }
    void cleanup() { clock.reset(); }

    void steadyGoodFaceGivesOneBestShot_data()
    {
        QTest::addColumn<platform::PixelFormat>("format");
        QTest::newRow("BGRA") << platform::PixelFormat::BGRA32;
        QTest::newRow("ARGB") << platform::PixelFormat::ARGB32;
    }
    void steadyGoodFaceGivesOneBestShot()
    {
        QFETCH(platform::PixelFormat, format);
        Rig rig;
        const QImage frame = cameraFrame(photo("matplotlib__grace_hopper.jpg"));
        rig.detector->screenSize(QSizeF(360, 640), {20, 0, 10, 0});
        rig.detector->launchWizard();
        rig.feed(frame, 0.0, 0.5, format);
        QVERIFY(rig.delegate->shots().isEmpty());  // not steady long enough yet
        rig.feed(frame, 0.5, 1.5, format);

        QCOMPARE(rig.delegate->shots().size(), 1);
        QVERIFY(rig.delegate->errors().isEmpty());
        QVERIFY(rig.detector->faceFound());
        // Once the shot is out, frames are no longer looked at.
        QCOMPARE(rig.delegate->events().last(), QStringLiteral("shot"));

        const core::ZCBestShotPtr shot = rig.delegate->shots().front();
        QCOMPARE(shot->image().size(), QSize(720, 1280));
        QCOMPARE(shot->image().pixel(360, 640), frame.pixel(360, 640));
        QVERIFY(QRectF(0, 0, 720, 1280).contains(shot->faceRect()));
        QVERIFY(shot->faceRect().width() > 300);
        QVERIFY(shot->quality().total > 0.5);
        QVERIFY(shot->frameTime().seconds() <= 0.6);
        // The keypoints on the face, in the shot's pixels: the person's
        // right eye on the picture's left (these frames are unmirrored).
        QVERIFY(shot->keypoints());
        const core::ZCFaceKeypoints& points = *shot->keypoints();
        QVERIFY(shot->faceRect().contains(points.rightEye) && shot->faceRect().contains(points.leftEye));
        QVERIFY(shot->faceRect().contains(points.noseTip) && shot->faceRect().contains(points.mouth));
        QVERIFY(points.rightEye.x() < points.noseTip.x() && points.noseTip.x() < points.leftEye.x());
        QVERIFY(points.rightEye.y() < points.noseTip.y() && points.noseTip.y() < points.mouth.y());
        // The screen is exactly half the frame: rectangles are halved.
        const QRectF onScreen = rig.delegate->rects().last();
        QCOMPARE(onScreen, QRectF(shot->faceRect().topLeft() / 2, shot->faceRect().size() / 2));
    }

    void aMirroredShotNamesThePersonsOwnEyes()
    {
        // A front camera's mirrored frame shows the person's right eye on
        // the picture's right.
        Rig rig;
        rig.mirrored = true;
        rig.detector->launchWizard();
        rig.feed(cameraFrame(photo("matplotlib__grace_hopper.jpg")).mirrored(true, false), 0.0, 1.5);
        QCOMPARE(rig.delegate->shots().size(), 1);
        const auto& points = rig.delegate->shots().front()->keypoints();
        QVERIFY(points);
        QVERIFY(points->leftEye.x() < points->noseTip.x() && points->noseTip.x() < points->rightEye.x());
        QVERIFY(points->leftEar.x() < points->rightEar.x());
    }

    void timeGoingBackStartsTheSpellAgain()
    {
        Rig rig;
        const QImage good = cameraFrame(photo("matplotlib__grace_hopper.jpg"));
        rig.detector->launchWizard();
        rig.feed(good, 10.0, 10.5);
        rig.feed(good, 0.0, 0.5);  // the camera restarted its clock
        QVERIFY(rig.delegate->shots().isEmpty());
        rig.feed(good, 0.5, 0.7);
        QCOMPARE(rig.delegate->shots().size(), 1);
    }

    void framesBeforeTheWizardAreIgnored()
    {
        Rig rig;
        rig.feed(cameraFrame(photo("matplotlib__grace_hopper.jpg")), 0.0, 1.0);
        QVERIFY(rig.delegate->events().isEmpty());
        QVERIFY(!rig.detector->faceFound());
    }

    void noFaceIsReportedAtAModestPace()
    {
        Rig rig;
        rig.detector->launchWizard();
        rig.feed(photo("gpl/kphotoalbum__snow.jpg"), 0.0, 5.0);
        // After 0.2 s of no face, then every 2 s while it lasts.
        QCOMPARE(rig.delegate->codes(), (QList<long>{1022, 1022, 1022}));
        const auto report = rig.delegate->errors().front();
        QCOMPARE(report.domain, core::kZCErrorDomain);
        QCOMPARE(report.key, QStringLiteral("errors.no_face"));
        QCOMPARE(report.text, core::zc_localized("errors.no_face"));
        QVERIFY(report.text != report.key);
        QVERIFY(rig.delegate->rects().isEmpty());
        QVERIFY(!rig.detector->faceFound());
    }

    void guidanceFollowsTheSituation()
    {
        Rig rig;
        const QImage good = cameraFrame(photo("matplotlib__grace_hopper.jpg"));
        rig.detector->launchWizard();
        rig.feed(darkened(good), 0.0, 0.5);
        rig.feed(photo("gpl/kphotoalbum__qt-logo.jpg").scaled(720, 488), 0.5, 1.0);
        rig.feed(photo("gpl/kphotoalbum__snow.jpg"), 1.0, 1.5);
        QCOMPARE(rig.delegate->keys(),
                 (QStringList{"errors.too_dark", "errors.multiple_faces_detected", "errors.no_face"}));
        QCOMPARE(rig.delegate->codes(), (QList<long>{1021, 1023, 1022}));
        // The face frame goes away with the faces, once.
        QCOMPARE(rig.delegate->events().filter("rect:none").size(), 1);
        rig.feed(good, 1.5, 2.5);
        QCOMPARE(rig.delegate->shots().size(), 1);
    }

    void theStepTimesOut()
    {
        using namespace std::chrono_literals;
        auto settings = testSettings();
        settings.stepTimeout = 60;
        Rig rig(settings);
        rig.detector->defineStepsList({std::make_shared<core::ZCStepConfig>(2.0)});
        rig.detector->launchWizard();
        // A frame analysed is a launch seen; the step's own limit counts
        // from there, not the configured one, and not before it.
        rig.feed(photo("gpl/kphotoalbum__snow.jpg"), 0.0, 0.1);
        clock->advance(1900ms);
        rig.feed(photo("gpl/kphotoalbum__snow.jpg"), 0.1, 0.5);
        QVERIFY(!rig.delegate->codes().contains(1000));
        clock->advance(200ms);
        QTRY_COMPARE(rig.delegate->codes().count(1000), 1);
        QCOMPARE(rig.delegate->keys().last(), QStringLiteral("errors.step_timeout"));
        // The text says again what the user was last told: no face.
        const auto timeout = rig.delegate->errors().last();
        QCOMPARE(timeout.error->userInfo().value(core::kZCLastGuidanceInfoKey).toString(),
                 QStringLiteral("errors.no_face"));
        QVERIFY2(timeout.text.startsWith(core::zc_localized(QStringLiteral("errors.step_timeout")))
                     && timeout.text.endsWith(core::zc_localized(QStringLiteral("errors.no_face"))),
                 qPrintable(timeout.text));
        // The wizard is over: frames change nothing.
        const qsizetype events = rig.delegate->events().size();
        rig.feed(cameraFrame(photo("matplotlib__grace_hopper.jpg")), 0.5, 1.5);
        QCOMPARE(rig.delegate->events().size(), events);
    }

    /// A camera faster than the analysis keeps a frame always waiting; the
    /// step must still run out.
    void aStepRunsOutWhileFramesKeepComing()
    {
        auto settings = testSettings();
        settings.synchronousProcessing = false;
        settings.stepTimeout = 1;
        Rig rig(settings);
        rig.detector->launchWizard();
        const platform::SampleBuffer frame = testing::frameFromImage(photo("gpl/kphotoalbum__snow.jpg"), MediaTime::zero());
        QElapsedTimer wall;
        wall.start();
        bool advanced = false;
        for (int i = 0; !rig.delegate->codes().contains(1000) && wall.elapsed() < 20000; ++i) {
            rig.detector->pushFrame(platform::SampleBuffer(frame.imageBuffer(), MediaTime::make(i, 600),
                                                           frame.formatDescription()));
            // Once a frame was looked at, the wizard runs: move past its step.
            if (!advanced && !rig.delegate->events().isEmpty()) {
                clock->advance(std::chrono::seconds(2));
                advanced = true;
            }
        }
        QVERIFY(advanced);
        QCOMPARE(rig.delegate->codes().count(1000), 1);
    }

    void withoutStepsTheConfiguredTimeoutApplies()
    {
        auto settings = testSettings();
        settings.stepTimeout = 0.2;
        Rig rig(settings);
        rig.detector->launchWizard();
        rig.feed(photo("gpl/kphotoalbum__snow.jpg"), 0.0, 0.1);
        clock->advance(std::chrono::milliseconds(250));
        QTRY_COMPARE(rig.delegate->codes().count(1000), 1);
    }

    void framesThatStopEndTheSession()
    {
        using namespace std::chrono_literals;
        auto settings = testSettings();
        settings.frameTimeout = 0.3;
        Rig rig(settings);
        rig.detector->launchWizard();
        rig.feed(photo("gpl/kphotoalbum__snow.jpg"), 0.0, 0.1);
        clock->advance(200ms);
        rig.feed(photo("gpl/kphotoalbum__snow.jpg"), 0.1, 0.2);
        // Each frame restarts the watchdog.
        clock->advance(200ms);
        QVERIFY(!rig.delegate->codes().contains(1004));
        clock->advance(200ms);
        QTRY_COMPARE(rig.delegate->codes().count(1004), 1);
        rig.feed(cameraFrame(photo("matplotlib__grace_hopper.jpg")), 1.0, 2.0);
        QCOMPARE(rig.delegate->codes().count(1004), 1);
        QVERIFY(rig.delegate->shots().isEmpty());
    }

    void unreadableFramesAreReportedOnce()
    {
        Rig rig;
        rig.detector->launchWizard();
        auto buffer = platform::PixelBuffer::create(64, 64, platform::PixelFormat::NV12VideoRange);
        for (int i = 0; i < 3; ++i)
            rig.detector->pushFrame(platform::SampleBuffer(buffer, MediaTime::make(i, 30),
                                                           platform::FormatDescription::forImageBuffer(*buffer)));
        QCOMPARE(rig.delegate->codes(), QList<long>{1001});
        QCOMPARE(rig.delegate->keys(), QStringList{"errors.unsupported_frames"});
    }

    void aMissingCascadeIsReportedAtLaunch()
    {
        // The face cascades matter only without the network; the eyes'
        // always.
        auto settings = testSettings();
        settings.eyeCascadePath = QStringLiteral("/nonexistent/eye.xml");
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("face detector unavailable"));
        Rig rig(settings);
        rig.detector->launchWizard();
        rig.feed(cameraFrame(photo("matplotlib__grace_hopper.jpg")), 0.0, 0.1);
        QCOMPARE(rig.delegate->keys(), QStringList{"errors.detector_unavailable"});
    }

    void livenessDecidesAboutTheShot_data()
    {
        QTest::addColumn<bool>("live");
        QTest::addColumn<int>("errorKind");  // -1: none
        QTest::addColumn<QStringList>("tail");
        QTest::newRow("accepted") << true << -1 << QStringList{"liveness:on", "liveness:off", "shot"};
        QTest::newRow("refused") << false << -1 << QStringList{"liveness:on", "liveness:off", "error:1007"};
        QTest::newRow("server error")
            << false << int(web::NetworkingError::Kind::ZavoError) << QStringList{"liveness:on", "liveness:off", "error:0"};
    }
    void livenessDecidesAboutTheShot()
    {
        QFETCH(bool, live);
        QFETCH(int, errorKind);
        QFETCH(QStringList, tail);
        platform::ErrorPtr error;
        if (errorKind >= 0)
            error = std::make_shared<web::NetworkingError>(web::NetworkingError::zavoError(11038, "several"));
        auto liveness = std::make_shared<ScriptedLiveness>(live, error);
        Rig rig(testSettings(), liveness);
        const QImage good = cameraFrame(photo("matplotlib__grace_hopper.jpg"));
        rig.detector->launchWizard();
        rig.feed(good, 0.0, 1.0);
        QTRY_COMPARE(rig.delegate->events().mid(rig.delegate->events().size() - 3), tail);
        QCOMPARE(liveness->images.size(), 1);
        QCOMPARE(liveness->images.front().size(), QSize(720, 1280));
        if (error) {
            // Passed on as the checker reported it.
            QCOMPARE(rig.delegate->errors().last().error, error);
        }
        if (live)
            return;
        // Paused: frames are not looked at until resume().
        const int before = rig.delegate->events().size();
        rig.feed(good, 1.0, 2.0);
        QCOMPARE(rig.delegate->events().size(), before);
        rig.detector->resume();
        rig.feed(good, 2.0, 3.0);
        QTRY_COMPARE(liveness->images.size(), 2);
    }

    void aQualityComplaintSendsTheSearchOn()
    {
        auto complaint = std::make_shared<web::NetworkingError>(web::NetworkingError::livenessQualityError("Too dark"));
        auto liveness = std::make_shared<ScriptedLiveness>(false, complaint);
        Rig rig(testSettings(), liveness);
        const QImage good = cameraFrame(photo("matplotlib__grace_hopper.jpg"));
        rig.detector->launchWizard();
        rig.feed(good, 0.0, 1.0);
        QTRY_VERIFY(!rig.delegate->errors().isEmpty());
        QCOMPARE(rig.delegate->errors().front().error, platform::ErrorPtr(complaint));
        rig.feed(good, 1.0, 2.0);
        QTRY_VERIFY(liveness->images.size() >= 2);
    }

    void httpLivenessEndToEnd()
    {
        testing::CannedHttpServer server;
        server.answer(200, R"({"live": true})");
        auto liveness = std::make_shared<core::ZCHttpLiveness>(web::ZWLivenessClient::Settings{server.url()});
        Rig rig(testSettings(), liveness);
        rig.detector->launchWizard();
        rig.feed(cameraFrame(photo("matplotlib__grace_hopper.jpg")), 0.0, 1.0);
        QTRY_COMPARE(rig.delegate->shots().size(), 1);
        QCOMPARE(server.requests().size(), 1);
    }

    void aDeclinedShotIsFollowedByAnother()
    {
        Rig rig;
        rig.delegate->setAcceptShots(false);
        rig.detector->launchWizard();
        // Shots at 0.6 s and, after a new steady spell, at 1.23 s.
        rig.feed(cameraFrame(photo("matplotlib__grace_hopper.jpg")), 0.0, 1.5);
        QCOMPARE(rig.delegate->shots().size(), 2);
    }

    void destroyingLeavesNoThreadBehind()
    {
        auto settings = testSettings();
        settings.synchronousProcessing = false;
        const auto session = [&] {
            Rig rig(settings);
            rig.detector->launchWizard();
            rig.feed(cameraFrame(photo("matplotlib__grace_hopper.jpg")), 0.0, 0.5);
            // Released with frames waiting and probably one being analysed.
        };
        // The first analysis starts OpenCV's worker pool, which stays for the
        // process; count after it, so that this test does not depend on
        // which tests ran before it.
        session();
        const int before = threadCount();
        session();
        // Threads end on their own time; one that never does fails this. The
        // limit only bounds that, however busy the machine.
        QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= before, 30000);
    }

    void theDetectorMayBeReleasedFromADelegateCall()
    {
        // The last owner lets go inside bestShot, on the detector's thread.
        struct Owner final : core::ZCBestShotDelegate {
            core::ZCBestShotDetectorPtr detector;
            std::atomic<bool> shot{false};
            void detectionRect(const QRectF&, const QSizeF&) override {}
            bool bestShot(core::ZCBestShotPtr) override
            {
                detector.reset();
                shot = true;
                return true;
            }
            void bestShotError(platform::ErrorPtr) override {}
        };
        auto owner = std::make_shared<Owner>();
        auto configuration = std::make_shared<core::ZCZavoConfiguration>();
        configuration->detector = testSettings();
        configuration->detector.synchronousProcessing = false;
        owner->detector = core::ZCBestShotBuilder::buildWithDelegate(owner, nullptr, configuration);
        std::weak_ptr<core::ZCBestShotDetectorProtocol> detector = owner->detector;
        owner->detector->launchWizard();
        const platform::SampleBuffer frame =
            testing::frameFromImage(cameraFrame(photo("matplotlib__grace_hopper.jpg")), MediaTime::zero());
        // Frames come from the event loop, like a camera's would.
        int number = 0;
        QTimer camera;
        connect(&camera, &QTimer::timeout, this, [&] {
            if (auto d = detector.lock())
                d->pushFrame(platform::SampleBuffer(frame.imageBuffer(), MediaTime::make(number++, 30), frame.formatDescription()));
        });
        camera.start(5);
        QTRY_VERIFY_WITH_TIMEOUT(owner->shot, 20000);
        QTRY_VERIFY(detector.expired());
    }

    void theBuilderTakesAnotherFactory()
    {
        struct Stub final : core::ZCBestShotDetectorProtocol {
            void pushFrame(const platform::SampleBuffer&) override {}
            void screenSize(const QSizeF&, const platform::EdgeInsets&) override {}
            bool faceFound() const override { return true; }
            void launchWizard() override {}
            void defineStepsList(std::vector<core::ZCStepConfigPtr>) override {}
            void resume() override {}
        };
        auto stub = std::make_shared<Stub>();
        core::ZCBestShotBuilder::setFactory([stub](auto, auto, auto) { return stub; });
        auto delegate = std::make_shared<testing::RecordingDelegate>();
        QCOMPARE(core::ZCBestShotBuilder::buildWithDelegate(delegate, nullptr, nullptr), core::ZCBestShotDetectorPtr(stub));
        core::ZCBestShotBuilder::setFactory({});
        auto reference = core::ZCBestShotBuilder::buildWithDelegate(delegate, nullptr, nullptr);
        QVERIFY(reference && reference != stub);
        QVERIFY(!reference->faceFound());
    }
};

QTEST_GUILESS_MAIN(TestDetector)
#include "tst_detector.moc"
