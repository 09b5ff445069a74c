// The demo host's own logic: its command line, its choice of front camera,
// the summary it prints, the detector timing it installs and its wait for
// the session video to become final.
#include "FakeWebcams.h"
#include "DemoOptions.h"
#include "DemoSummary.h"
#include "DetectorTiming.h"
#include "VideoReadback.h"

#include "camera/CaptureAuthorization_p.h"
#include "camera/file/FileCaptureDevice.h"
#include "media/Asset.h"
#include "zavocore/ZCDetectorClock_p.h"
#include "zavocore/ZavoCore_p.h"

#include <QJsonArray>
#include <QTemporaryDir>
#include <QtTest>
#include <string>
#include <typeinfo>

using namespace zavo;
using namespace zavo::demo;
using namespace zavo::testing;

namespace {

const QString kClip = QStringLiteral(ZAVO_TEST_DATA_DIR "/A_zoom_blur_dark.mp4");

std::optional<DemoOptions> parse(const QStringList& arguments, QString* problem)
{
    QCommandLineParser parser;
    addDemoOptions(parser);
    return parseDemoOptions(parser, QStringList{QStringLiteral("zavocamera-demo")} + arguments, problem);
}

std::vector<platform::CaptureDevicePtr> frontCameras()
{
    return platform::CaptureDeviceDiscoverySession::discoverySession(
               {platform::kCaptureDeviceTypeBuiltInWideAngleCamera}, platform::MediaType::Video,
               platform::CaptureDevicePosition::Front)
        .devices();
}

class RecordingDelegate final : public core::ZCBestShotDelegate {
public:
    void detectionRect(const QRectF&, const QSizeF&) override {}
    bool bestShot(core::ZCBestShotPtr) override { return true; }
    void bestShotError(platform::ErrorPtr) override {}
};

/// Counts what reaches the screen's side of the detector.
class CountingDelegate final : public core::ZCBestShotDelegate {
public:
    std::atomic<int> faceBoxes{0};
    std::atomic<int> shots{0};
    std::atomic<Clock::rep> firstFaceBox{0};
    void detectionRect(const QRectF& rect, const QSizeF&) override
    {
        if (rect.isEmpty())
            return;
        Clock::rep none = 0;
        firstFaceBox.compare_exchange_strong(none, Clock::now().time_since_epoch().count());
        ++faceBoxes;
    }
    bool bestShot(core::ZCBestShotPtr) override
    {
        ++shots;
        return true;
    }
    void bestShotError(platform::ErrorPtr) override {}
};

std::vector<platform::SampleBuffer> clipFrames(const QString& path)
{
    std::vector<platform::SampleBuffer> frames;
    auto asset = platform::Asset::assetWithPath(path);
    auto tracks = asset->tracksWithMediaType(platform::MediaType::Video);
    auto reader = platform::AssetReader::create(asset);
    if (tracks.empty() || !reader)
        return frames;
    auto output = platform::AssetReaderTrackOutput::create(tracks.front(), {platform::PixelFormat::BGRA32});
    reader->addOutput(output);
    reader->startReading();
    for (auto frame = output->copyNextSampleBuffer(); frame.isValid(); frame = output->copyNextSampleBuffer())
        frames.push_back(frame);
    return frames;
}

platform::SampleBuffer blackFrame(int64_t frameIndex)
{
    auto pixels = platform::PixelBuffer::create(64, 64, platform::PixelFormat::BGRA32);
    return platform::SampleBuffer(pixels, platform::MediaTime::make(frameIndex, 30), nullptr);
}

}  // namespace

class TestDemo : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { platform::CaptureDeviceRegistry::shared().setProviders({}); }
    void cleanup() { platform::CaptureDeviceRegistry::shared().unregisterAll(); }

    void commandLine()
    {
        QString problem;
        auto defaults = parse({}, &problem);
        QVERIFY2(defaults, qPrintable(problem));
        QCOMPARE(defaults->camera.kind, CameraChoice::Kind::Embedded);
        QVERIFY(defaults->recordVideo);
        QVERIFY(defaults->outputDirectory.isEmpty());
        QCOMPARE(defaults->timeoutSeconds, 120);

        auto file = parse({"--camera", kClip, "--no-record", "--output", "out", "--timeout", "0"}, &problem);
        QVERIFY2(file, qPrintable(problem));
        QCOMPARE(file->camera.kind, CameraChoice::Kind::File);
        QCOMPARE(file->camera.path, kClip);
        QVERIFY(!file->recordVideo);
        QCOMPARE(file->outputDirectory, QStringLiteral("out"));
        QCOMPARE(file->timeoutSeconds, 0);
        QCOMPARE(parse({"--camera", "synthetic"}, &problem)->camera.kind, CameraChoice::Kind::Synthetic);
        const auto webcam = parse({"--camera", "webcam"}, &problem);
        QCOMPARE(webcam->camera.kind, CameraChoice::Kind::V4L2);
        QVERIFY(webcam->camera.path.isEmpty());
        QVERIFY(parse({"--list-cameras"}, &problem)->listCameras);
        const auto steps = parse({"--steps", "left,look, closer", "--shuffle-steps"}, &problem);
        QVERIFY2(steps, qPrintable(problem));
        QCOMPARE(steps->steps, (std::vector<core::ZCStepKind>{core::ZCStepKind::TurnHeadLeft, core::ZCStepKind::LookAtCamera,
                                                               core::ZCStepKind::MoveCloser}));
        QVERIFY(steps->shuffleSteps && !defaults->shuffleSteps && defaults->steps.empty());
    }

    /// A named webcam leads as the front camera; without a name the
    /// automatic choice stands; a node that is no camera is refused.
    void webcamChoiceMakesThatCameraTheFrontOne()
    {
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), fixtureCamera(QStringLiteral("laptop_builtin.txt")));
        webcams.kernel->plug(QStringLiteral("video2"), fixtureCamera(QStringLiteral("usb1080p_h264.txt")));
        const auto providers = platform::CaptureDeviceRegistry::shared().providers();
        QString problem;
        {
            auto camera = FrontCamera::install({CameraChoice::Kind::V4L2, QStringLiteral("/dev/video2")}, &problem,
                                               providers);
            QVERIFY2(camera, qPrintable(problem));
            QCOMPARE(frontCameras().front()->location(), QStringLiteral("/dev/video2"));
            QCOMPARE(camera->description(), QStringLiteral("/dev/video2 (HD Pro Webcam C920)"));
        }
        {
            auto camera = FrontCamera::install({CameraChoice::Kind::V4L2, {}}, &problem, providers);
            QVERIFY2(camera, qPrintable(problem));
            QCOMPARE(frontCameras().front()->location(), QStringLiteral("/dev/video0"));
        }
        QVERIFY(!FrontCamera::install({CameraChoice::Kind::V4L2, QStringLiteral("/dev/video7")}, &problem, providers));
        QVERIFY2(problem.contains(QLatin1String("/dev/video7")), qPrintable(problem));
        // Any other camera hides the webcams.
        auto clip = FrontCamera::install({CameraChoice::Kind::Synthetic, {}}, &problem, providers);
        QVERIFY(platform::CaptureDeviceRegistry::shared().providers().empty());
    }

    void commandLineRefusesWhatCannotWork_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("problemPart");
        QTest::newRow("missing file") << QStringList{"--camera", "/nonexistent/clip.mp4"} << "no such camera";
        QTest::newRow("missing webcam") << QStringList{"--camera", "/dev/video987"} << "no such camera";
        QTest::newRow("folder") << QStringList{"--camera", ZAVO_TEST_DATA_DIR} << "folder";
        QTest::newRow("negative timeout") << QStringList{"--timeout", "-1"} << "--timeout";
        QTest::newRow("word timeout") << QStringList{"--timeout", "soon"} << "--timeout";
        QTest::newRow("unknown option") << QStringList{"--record"} << "record";
        QTest::newRow("stray argument") << QStringList{"extra"} << "extra";
        QTest::newRow("unknown step") << QStringList{"--steps", "look,blink"} << "blink";
    }

    void commandLineRefusesWhatCannotWork()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, problemPart);
        QString problem;
        QVERIFY(!parse(arguments, &problem));
        QVERIFY2(problem.contains(problemPart), qPrintable(problem));
    }

    /// The built-in clip becomes the only front camera, plays, and leaves no
    /// file and no camera behind.
    void embeddedClipIsTheFrontCameraWhileInstalled()
    {
        QString problem;
        auto camera = FrontCamera::install({CameraChoice::Kind::Embedded, {}}, &problem);
        QVERIFY2(camera, qPrintable(problem));
        const QString extracted = camera->clipPath();
        QVERIFY(QFileInfo(extracted).size() > 100000);
        const auto cameras = frontCameras();
        QCOMPARE(cameras.size(), size_t(1));
        QVERIFY(std::dynamic_pointer_cast<platform::FileCaptureDevice>(cameras.front()));
        QCOMPARE(cameras.front()->activeFormat()->width(), 720);
        camera.reset();
        QVERIFY(!QFile::exists(extracted));
        QVERIFY(frontCameras().empty());
    }

    void unplayableFileIsRefused()
    {
        QTemporaryDir scratch;
        const QString garbage = scratch.filePath("garbage.mp4");
        QFile file(garbage);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(4096, 'x'));
        file.close();
        QString problem;
        QVERIFY(!FrontCamera::install({CameraChoice::Kind::File, garbage}, &problem));
        QVERIFY2(problem.contains(garbage), qPrintable(problem));
        QVERIFY(frontCameras().empty());
    }

    void summaryOfABestShot()
    {
        const core::ZCQualityScore quality{0.81234, 0.9, 0.7, 0.6, 0.95, 0.88};
        SessionOutcome outcome;
        outcome.bestShot = std::make_shared<core::ZCBestShot>(QImage(720, 1280, QImage::Format_RGB32),
                                                              QRectF(100.5, 200, 300, 310), quality,
                                                              platform::MediaTime::make(3, 1));
        outcome.videoFile = QStringLiteral("/tmp/x/bright_fold/ZMRecordedVideo.mp4");
        outcome.timeToFirstFrameMs = 123.456;
        outcome.timeToBestShotMs = 2345.0;
        VideoInfo video{true, 118, QSize(320, 180), QSize(180, 320), {}};
        const QJsonObject summary = sessionSummary(outcome, video);
        QCOMPARE(summary["outcome"].toString(), QStringLiteral("bestShot"));
        QVERIFY(summary["errorCode"].isNull());
        QCOMPARE(summary["quality"]["total"].toDouble(), 0.812);
        QCOMPARE(summary["quality"]["pose"].toDouble(), 0.88);
        QCOMPARE(summary["faceBox"].toArray(), (QJsonArray{100.5, 200, 300, 310}));
        QCOMPARE(summary["videoPath"].toString(), *outcome.videoFile);
        QCOMPARE(summary["videoFrames"].toInt(), 118);
        QCOMPARE(summary["videoSize"].toArray(), (QJsonArray{320, 180}));
        QCOMPARE(summary["timeToFirstFrameMs"].toDouble(), 123.5);
        QVERIFY(!summary.contains("videoProblem"));
    }

    void summaryOfAnError()
    {
        SessionOutcome outcome;
        auto detectorError = std::make_shared<platform::ErrorObject>(
            core::kZCErrorDomain, 1004, QVariantMap{{QLatin1String(platform::kLocalizedDescriptionKey), "no frames"}});
        outcome.error = ZMCameraError::bestShotError(detectorError);
        const QJsonObject summary = sessionSummary(outcome, std::nullopt);
        QCOMPARE(summary["outcome"].toString(), QStringLiteral("error"));
        QCOMPARE(summary["errorCase"].toString(), QStringLiteral("bestShotError"));
        QCOMPARE(summary["errorCode"].toInt(), 2);
        QCOMPARE(summary["errorInnerCode"].toInt(), 1004);
        QVERIFY(!summary["errorText"].toString().isEmpty());
        QVERIFY(summary["quality"].isNull());
        QVERIFY(summary["videoPath"].isNull());
        QVERIFY(summary["videoFrames"].isNull());
        QVERIFY(summary["timeToBestShotMs"].isNull());

        outcome.error = ZMCameraError::canceled();
        outcome.videoFile = QStringLiteral("/v.mp4");
        const QJsonObject canceled = sessionSummary(outcome, VideoInfo{false, 0, {}, {}, "broken"});
        QCOMPARE(canceled["errorCase"].toString(), QStringLiteral("canceled"));
        QVERIFY(!canceled.contains("errorInnerCode"));
        QVERIFY(canceled["videoFrames"].isNull());
        QCOMPARE(canceled["videoProblem"].toString(), QStringLiteral("broken"));
    }

    void bestShotPictureShowsTheFaceBox()
    {
        QImage plain(200, 200, QImage::Format_RGB32);
        plain.fill(Qt::black);
        const core::ZCBestShot shot(plain, QRectF(50, 50, 100, 100), {}, platform::MediaTime::zero());
        const QImage drawn = annotatedBestShot(shot);
        QCOMPARE(drawn.size(), plain.size());
        QCOMPARE(QColor(drawn.pixel(100, 50)).green() > 100, true);  // on the box's top edge
        QCOMPARE(drawn.pixel(100, 100), plain.pixel(100, 100));      // inside stays as it was
    }

    /// Every detector built while the timing lives is timed, not just the
    /// first; once the timing is gone the builder is back to normal.
    void detectorTimingWrapsEveryBuild()
    {
        auto delegate = std::make_shared<RecordingDelegate>();
        auto configuration = std::make_shared<core::ZCZavoConfiguration>();
        core::ZCBestShotDetectorPtr lateDetector;
        {
            DetectorTiming timing;
            int observed = 0;
            timing.setFrameObserver([&](Clock::duration) { ++observed; });
            for (int session = 0; session < 2; ++session) {
                timing.markSessionStart();
                QVERIFY(!timing.timeToFirstFrame());
                auto detector = core::ZCBestShotBuilder::buildWithDelegate(delegate, nullptr, configuration);
                QVERIFY(detector);
                detector->launchWizard();
                detector->pushFrame(blackFrame(0));
                detector->pushFrame(blackFrame(1));
                QVERIFY(timing.timeToFirstFrame());
                QVERIFY(*timing.timeToFirstFrame() <= *timing.sinceSessionStart());
                QCOMPARE(timing.framesPushed(), 2);
            }
            QCOMPARE(observed, 4);
            lateDetector = core::ZCBestShotBuilder::buildWithDelegate(delegate, nullptr, configuration);
        }
        // A timed detector that outlives its timing still works.
        lateDetector->pushFrame(blackFrame(2));
        lateDetector.reset();
        // Back to normal: the builder gives the reference detector itself,
        // no longer wrapped.
        auto plain = core::ZCBestShotBuilder::buildWithDelegate(delegate, nullptr, configuration);
        QVERIFY(plain);
        const std::string type = typeid(*plain).name();
        QVERIFY2(type.find("ZCReferenceDetector") != std::string::npos, type.c_str());
        QVERIFY2(type.find("TimedDetector") == std::string::npos, type.c_str());
    }

    /// The timing notes the detector's face boxes and its shot on their way
    /// to the screen, which must still hear every one of them; a new session
    /// starts with nothing noted.
    void detectorTimingNotesFaceBoxesAndTheShot()
    {
        const auto frames = clipFrames(kClip);
        QVERIFY(!frames.empty());
        DetectorTiming timing;
        timing.markSessionStart();
        auto screen = std::make_shared<CountingDelegate>();
        auto configuration = std::make_shared<core::ZCZavoConfiguration>();
        configuration->detector.synchronousProcessing = true;
        const core::detail::HeldDetectorClock clock;
        auto detector = core::ZCBestShotBuilder::buildWithDelegate(screen, nullptr, configuration);
        detector->screenSize(QSizeF(360, 640), {});
        detector->launchWizard();
        QVERIFY(!timing.firstFaceBox());
        const Clock::time_point feedBegan = Clock::now();
        for (const auto& frame : frames)
            detector->pushFrame(frame);
        const Clock::time_point feedEnded = Clock::now();

        QVERIFY(screen->faceBoxes > 0);
        QCOMPARE(timing.faceBoxes(), screen->faceBoxes.load());
        QCOMPARE(screen->shots.load(), 1);
        QVERIFY(timing.bestShotTaken());
        QVERIFY(timing.firstFaceBox());
        // Noted before it was passed on.
        QVERIFY(*timing.firstFaceBox() <= Clock::time_point(Clock::duration(screen->firstFaceBox.load())));
        QVERIFY(*timing.firstFaceBox() <= *timing.bestShotTaken());
        // The 4 s clip was handed over faster than it plays, so its last
        // frame, the most overdue, fixes time zero about 4 s before the feed.
        const double lastStamp = frames.back().presentationTimeStamp().seconds();
        const auto stamp = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(lastStamp));
        QVERIFY(timing.presentationOrigin());
        QVERIFY(*timing.presentationOrigin() >= feedBegan - stamp);
        QVERIFY(*timing.presentationOrigin() <= feedEnded - stamp);

        timing.markSessionStart();
        QVERIFY(!timing.firstFaceBox());
        QCOMPARE(timing.faceBoxes(), 0);
        QVERIFY(!timing.bestShotTaken());
        QVERIFY(!timing.presentationOrigin());
    }

    void readsAFinishedVideo()
    {
        const VideoInfo info = readVideo(kClip);
        QVERIFY2(info.problem.isEmpty(), qPrintable(info.problem));
        QCOMPARE(info.size, QSize(720, 1280));
        QCOMPARE(info.frames, 120);
    }

    void readingABrokenVideoSaysWhy()
    {
        QTemporaryDir scratch;
        QVERIFY(!readVideo(scratch.filePath("missing.mp4")).problem.isEmpty());
        // The first half of an MP4 whose index is at its end: not a video yet.
        QFile source(kClip);
        QVERIFY(source.open(QIODevice::ReadOnly));
        QFile half(scratch.filePath("half.mp4"));
        QVERIFY(half.open(QIODevice::WriteOnly));
        half.write(source.read(source.size() / 2));
        half.close();
        const VideoInfo info = readVideo(half.fileName());
        QVERIFY(!info.problem.isEmpty());
        QVERIFY(info.frames < 120);
    }
};

QTEST_MAIN(TestDemo)
#include "tst_demo.moc"
