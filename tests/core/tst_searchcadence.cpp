// How often the detector looks for faces, as a user would notice it: a face
// stepping in after a while with nobody in view, a second face joining the
// first, a face lost for an instant, and the search's pace while nobody is
// there (which a user feels as a warm, busy machine). Counted in frames,
// never in time.
#include "AnalyzerTestSupport.h"
#include "MissingPrerequisite.h"
#include "zavocore/ZCDetectorClock_p.h"

#include <QFileInfo>
#include <QPainter>
#include <QRandomGenerator>
#include <QTest>

using namespace zavo;
using core::detail::FaceAnalyzer;
using core::detail::Guidance;
using testing::photo;

namespace {

constexpr double kFrame = 1.0 / 30;

QImage portrait(const QImage& picture)
{
    QImage frame = picture.scaled(720, 1280, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
    return frame.copy((frame.width() - 720) / 2, (frame.height() - 1280) / 2, 720, 1280);
}

// The empty-scene clip's first frame: face-like texture, no face.
QImage emptyScene()
{
    QImage image;
    testing::forEachFrame(testing::dataPath("E_no_face.mp4"), [&](const platform::SampleBuffer& frame) {
        auto& buffer = *frame.imageBuffer();
        buffer.lockBaseAddress(platform::PixelBuffer::ReadOnly);
        if (image.isNull())
            image = core::detail::copyToImage({buffer.baseAddress(), buffer.width(), buffer.height(),
                                               buffer.bytesPerRow(), buffer.pixelFormat()});
        buffer.unlockBaseAddress(platform::PixelBuffer::ReadOnly);
    });
    return portrait(image);
}

// Grace Hopper's photo 480 pixels wide (her face about 200) at each top
// left corner given, on grey.
QImage faces(const QList<QPoint>& corners)
{
    QImage frame(720, 1280, QImage::Format_ARGB32);
    frame.fill(Qt::darkGray);
    const QImage face = photo("matplotlib__grace_hopper.jpg").scaledToWidth(480, Qt::SmoothTransformation);
    QPainter painter(&frame);
    for (const QPoint& corner : corners)
        painter.drawImage(corner, face);
    return frame;
}

core::detail::FaceAnalysis analyseAt(FaceAnalyzer& analyzer, const platform::SampleBuffer& frame,
                                     std::optional<double> time)
{
    const auto& buffer = *frame.imageBuffer();
    const core::detail::FrameView view{buffer.baseAddress(), buffer.width(), buffer.height(), buffer.bytesPerRow(),
                                       buffer.pixelFormat()};
    return analyzer.analyze(view, QPointF(view.width / 2.0, view.height / 2.0), time);
}

// A detector fed one frame at a time, at 30 frames a second, each analysed
// before the next.
struct Feed : testing::DetectorRig {
    double time = 0;
    explicit Feed(double steadyDuration = 0.6) : DetectorRig(settings(steadyDuration)) { detector->launchWizard(); }
    static core::ZCDetectorSettings settings(double steadyDuration)
    {
        core::ZCDetectorSettings settings;
        settings.synchronousProcessing = true;
        settings.steadyDuration = steadyDuration;
        return settings;
    }
    void frames(const QImage& image, int count)
    {
        feed(image, time, time + (count - 0.5) * kFrame);
        time += count * kFrame;
    }
    // Frames of image until the delegate's events end in one that until()
    // accepts; how many it took, or -1 after limit frames.
    int framesUntil(const QImage& image, int limit, const std::function<bool(const QString&)>& until)
    {
        for (int n = 1; n <= limit; ++n) {
            const qsizetype before = delegate->events().size();
            frames(image, 1);
            const QStringList events = delegate->events();
            if (std::any_of(events.begin() + before, events.end(), until))
                return n;
        }
        return -1;
    }
};

}  // namespace

class TestSearchCadence : public QObject {
    Q_OBJECT

    // Step limits and the frame watchdog stay out of the way.
    std::optional<core::detail::HeldDetectorClock> clock;

private slots:
    void init()
    {
        if (!QFileInfo(FaceAnalyzer::defaultNetworkPath()).isFile())
            ZAVO_SKIP_MISSING("no face network in this build: run scripts/fetch-model.sh, then configure again");
        clock.emplace();
    }
    void cleanup() { clock.reset(); }

    void withNobodyInViewTheSearchFollowsTheFrameRateAndTheScene_data()
    {
        QTest::addColumn<double>("rate");     // frames a second; 0: no frame times
        QTest::addColumn<QString>("scene");   // changing from frame to frame, still, or still with noise
        QTest::addColumn<int>("every");       // frames from one search to the next
        QTest::newRow("30 fps, changing") << 30.0 << "changing" << 3;
        QTest::newRow("15 fps, changing") << 15.0 << "changing" << 2;
        QTest::newRow("60 fps, changing") << 60.0 << "changing" << 6;
        QTest::newRow("30 fps, still") << 30.0 << "still" << 15;
        // A real sensor's frames never repeat; its noise is no change.
        QTest::newRow("30 fps, still, noisy") << 30.0 << "noisy" << 15;
        QTest::newRow("still pictures") << 0.0 << "still" << 1;
    }
    void withNobodyInViewTheSearchFollowsTheFrameRateAndTheScene()
    {
        QFETCH(double, rate);
        QFETCH(QString, scene);
        QFETCH(int, every);
        FaceAnalyzer analyzer{core::ZCDetectorSettings()};
        const QImage empty = emptyScene();
        std::vector<platform::SampleBuffer> frames;
        if (scene == "changing") {
            // Five pictures in turn: whatever the cadence, no search sees
            // the picture the one before saw.
            const QImage snow = portrait(photo("gpl/kphotoalbum__snow.jpg"));
            QImage grey(empty.size(), QImage::Format_ARGB32);
            grey.fill(Qt::gray);
            for (const QImage& image : {empty, snow, empty.mirrored(false, true), snow.mirrored(false, true), grey})
                frames.push_back(testing::frameFromImage(image, platform::MediaTime::zero()));
        } else if (scene == "noisy") {
            QRandomGenerator random(7);
            for (int variant = 0; variant < 4; ++variant) {
                QImage noisy = empty.convertToFormat(QImage::Format_ARGB32);
                for (int y = 0; y < noisy.height(); ++y) {
                    QRgb* line = reinterpret_cast<QRgb*>(noisy.scanLine(y));
                    for (int x = 0; x < noisy.width(); ++x) {
                        const auto grain = [&](int c) { return std::clamp(c + random.bounded(-8, 9), 0, 255); };
                        line[x] = qRgb(grain(qRed(line[x])), grain(qGreen(line[x])), grain(qBlue(line[x])));
                    }
                }
                frames.push_back(testing::frameFromImage(noisy, platform::MediaTime::zero()));
            }
        } else {
            frames.push_back(testing::frameFromImage(empty, platform::MediaTime::zero()));
        }
        constexpr int kFrames = 90;
        for (int i = 0; i < kFrames; ++i) {
            const auto before = analyzer.work();
            const auto analysis = analyseAt(analyzer, frames[size_t(i) % frames.size()],
                                            rate > 0 ? 5.0 + i / rate : std::optional<double>());
            QVERIFY(analysis.faces.empty());
            QCOMPARE(analysis.guidance, Guidance::NoFace);
            const auto after = analyzer.work();
            // A frame between two searches costs no network run.
            if (after.wholeSearches == before.wholeSearches)
                QCOMPARE(after.networkRuns, before.networkRuns);
        }
        QCOMPARE(analyzer.work().wholeSearches, uint64_t(kFrames / every));
        // A camera that restarts its clock is searched at once.
        if (rate > 0) {
            const auto before = analyzer.work().wholeSearches;
            analyseAt(analyzer, frames.front(), 0.0);
            QCOMPARE(analyzer.work().wholeSearches, before + 1);
        }
    }

    void aFaceSteppingIntoAnEmptySceneIsBoxedWithinThreeFrames_data()
    {
        // Stretches one frame apart: the face lands at each point of the
        // search's cadence.
        QTest::addColumn<int>("emptyFrames");
        QTest::newRow("60") << 60;
        QTest::newRow("61") << 61;
        QTest::newRow("62") << 62;
    }
    void aFaceSteppingIntoAnEmptySceneIsBoxedWithinThreeFrames()
    {
        QFETCH(int, emptyFrames);
        Feed feed;
        feed.frames(emptyScene(), emptyFrames);
        QVERIFY(feed.delegate->rects().isEmpty());
        QCOMPARE(feed.delegate->codes().value(0), 1022);
        const int frames = feed.framesUntil(faces({{120, 360}}), 10, [](const QString& e) { return e == "rect"; });
        QVERIFY2(frames >= 1 && frames <= 3, qPrintable(QString::number(frames)));
    }

    void aSecondFaceJoiningIsReportedWithinHalfASecond_data()
    {
        QTest::addColumn<int>("followedFrames");
        QTest::newRow("30") << 30;
        QTest::newRow("37") << 37;  // the other half of the sweep's round
    }
    void aSecondFaceJoiningIsReportedWithinHalfASecond()
    {
        QFETCH(int, followedFrames);
        Feed feed(100);  // no shot ends the session
        feed.frames(faces({{120, 40}}), followedFrames);
        QVERIFY(!feed.delegate->rects().isEmpty());
        QVERIFY(!feed.delegate->codes().contains(1023));
        // The second face well outside the first one's square: only the
        // search for new faces finds it. Each square of that search comes
        // round every 15 frames, and the banner waits 0.2 s (6 frames).
        const int frames = feed.framesUntil(faces({{120, 40}, {120, 700}}), 30,
                                            [](const QString& e) { return e == "error:1023"; });
        QVERIFY2(frames >= 1 && frames <= 15 + 7, qPrintable(QString::number(frames)));
    }

    void aFaceLostForAFrameIsFoundAgainOnTheNext()
    {
        Feed feed(100);
        const QImage face = faces({{120, 360}});
        feed.frames(face, 10);
        feed.frames(emptyScene(), 1);
        QCOMPARE(feed.delegate->events().last(), QStringLiteral("rect:none"));
        QCOMPARE(feed.framesUntil(face, 3, [](const QString& e) { return e == "rect"; }), 1);
    }
};

QTEST_GUILESS_MAIN(TestSearchCadence)
#include "tst_searchcadence.moc"
