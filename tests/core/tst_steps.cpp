// Interaction steps that ask the user to act: how each is judged, and the
// wizard that runs them on real faces (frontal and three-quarter photos;
// a frontal photo turned in the hand stands for a printed face).
#include "AnalyzerTestSupport.h"
#include "zavocore/ZCDetectorClock_p.h"
#include "zavocore/ZCInteractionStep_p.h"
#include "zavocore/ZCStepConfig.h"

#include <QPainter>
#include <QSet>
#include <QTest>
#include <QTransform>

using namespace zavo;
using core::ZCStepConfig;
using core::ZCStepKind;
using core::detail::FaceAnalysis;
using core::detail::FacePose;
using core::detail::Guidance;
using core::detail::StepJudge;

namespace {

/// One face of the given width (a fraction of a 720 px frame), with a pose
/// when it has landmarks.
FaceAnalysis face(double width, std::optional<double> yaw = 0.0)
{
    FaceAnalysis analysis;
    analysis.faces = {QRectF(100, 300, width * 720, width * 720)};
    if (yaw)
        analysis.pose = FacePose{*yaw, 0, 0};
    analysis.guidance = Guidance::None;
    return analysis;
}

/// Feeds the analyses to a judge at 30 frames a second from `from`; true
/// when the step was done by the last one.
bool judge(StepJudge& judge, const std::vector<FaceAnalysis>& frames, double& time)
{
    bool done = false;
    for (const FaceAnalysis& frame : frames) {
        done = judge.observe(frame, 720, time);
        time += 1.0 / 30;
    }
    return done;
}

std::vector<FaceAnalysis> repeated(const FaceAnalysis& analysis, int frames)
{
    return std::vector<FaceAnalysis>(size_t(frames), analysis);
}

// A photo in the middle of a portrait camera frame, `width` pixels wide.
QImage framed(const QImage& photo, int width = 720)
{
    QImage frame(720, 1280, QImage::Format_ARGB32);
    frame.fill(QColor(90, 90, 90));
    const QImage scaled = photo.scaledToWidth(width, Qt::SmoothTransformation);
    QPainter(&frame).drawImage((720 - scaled.width()) / 2, (1280 - scaled.height()) / 2, scaled);
    return frame;
}

using testing::photo;

core::ZCDetectorSettings wizardSettings(bool shuffle)
{
    core::ZCDetectorSettings settings;
    settings.synchronousProcessing = true;
    settings.shuffleSteps = shuffle;
    return settings;
}

/// A detector running the given steps, fed one stretch of frames after
/// another.
struct Wizard : testing::DetectorRig {
    double time = 0;

    explicit Wizard(std::vector<core::ZCStepConfigPtr> steps, bool shuffle = false)
        : DetectorRig(wizardSettings(shuffle))
    {
        detector->screenSize(QSizeF(360, 640), {});
        detector->defineStepsList(std::move(steps));
        detector->launchWizard();
    }
    void feed(const QImage& image, double seconds)
    {
        DetectorRig::feed(image, time, time + seconds);
        time += seconds;
    }
};

bool networkInstalled()
{
    core::detail::FaceAnalyzer analyzer{core::ZCDetectorSettings{}};
    return analyzer.usesNetwork();
}

}  // namespace

class TestSteps : public QObject {
    Q_OBJECT

    // Step limits run only when a test moves the clock.
    std::optional<core::detail::HeldDetectorClock> clock;

private slots:
    void init() { clock.emplace(); }
    void cleanup() { clock.reset(); }

    void aTurnIsAHeldTurnFromFacingTheCamera()
    {
        double time = 0;
        StepJudge left(ZCStepKind::TurnHeadLeft);
        // Already turned when the step begins: the turn is not seen done.
        QVERIFY(!judge(left, repeated(face(0.4, -35), 20), time));
        // Facing the camera, then one noisy frame far left: not a turn.
        QVERIFY(!judge(left, repeated(face(0.4, 0), 10), time));
        QVERIFY(!judge(left, {face(0.4, -40)}, time));
        QVERIFY(!judge(left, repeated(face(0.4, 2), 3), time));
        // Turned right: the wrong way.
        QVERIFY(!judge(left, repeated(face(0.4, 35), 15), time));
        // Left for a fifth of a second.
        QVERIFY(!judge(left, repeated(face(0.4, -30), 5), time));
        QVERIFY(judge(left, repeated(face(0.4, -30), 2), time));
        // Done stays done.
        QVERIFY(judge(left, repeated(face(0.4, 0), 3), time));

        time = 0;
        StepJudge right(ZCStepKind::TurnHeadRight);
        QVERIFY(judge(right, repeated(face(0.4, 0), 3), time) == false);
        QVERIFY(judge(right, repeated(face(0.4, 30), 8), time));
    }

    void aTurnNeedsOneFaceWithLandmarks()
    {
        double time = 0;
        StepJudge withoutLandmarks(ZCStepKind::TurnHeadRight);
        QVERIFY(!StepJudge::canJudge(ZCStepKind::TurnHeadRight, face(0.4, std::nullopt)));
        QVERIFY(!judge(withoutLandmarks, repeated(face(0.4, std::nullopt), 30), time));

        StepJudge twoFaces(ZCStepKind::TurnHeadRight);
        FaceAnalysis two = face(0.4, 0);
        two.faces.push_back(QRectF(400, 300, 200, 200));
        QVERIFY(!judge(twoFaces, repeated(two, 5), time));
        two.pose = FacePose{30, 0, 0};
        QVERIFY(!judge(twoFaces, repeated(two, 15), time));
    }

    void closerIsAClearlyWiderWholeFace()
    {
        double time = 0;
        StepJudge closer(ZCStepKind::MoveCloser);
        QVERIFY(!judge(closer, repeated(face(0.30), 10), time));
        QVERIFY(!judge(closer, repeated(face(0.35), 15), time));  // 1.17 times: not enough
        FaceAnalysis cut = face(0.60);
        cut.guidance = Guidance::TooClose;
        QVERIFY(!judge(closer, repeated(cut, 15), time));  // part of the face is out of the frame
        QVERIFY(judge(closer, repeated(face(0.40), 8), time));
    }

    void aTurnThenALookGivesTheShotOfTheLook()
    {
        if (!networkInstalled())
            QSKIP("the face network is not installed (scripts/setup.sh fetches it)");
        const QImage frontal = framed(photo("matplotlib__grace_hopper.jpg"));
        const QImage threeQuarter = framed(photo("xraylarch__Marie_Curie.jpg"));
        Wizard wizard({std::make_shared<ZCStepConfig>(ZCStepKind::TurnHeadRight, 10),
                       std::make_shared<ZCStepConfig>(ZCStepKind::LookAtCamera, 10)});
        wizard.feed(frontal, 0.5);
        QCOMPARE(wizard.delegate->keys().value(0), QStringLiteral("steps.turn_right"));
        QVERIFY(wizard.delegate->shots().isEmpty());
        wizard.feed(threeQuarter, 0.5);
        QVERIFY(wizard.delegate->shots().isEmpty());
        wizard.feed(frontal, 1.5);
        QCOMPARE(wizard.delegate->shots().size(), 1);
        QVERIFY(wizard.delegate->shots().front()->frameTime().seconds() >= 1.0);

        // The other way round, and with the look first: the shot comes once
        // the last step is done.
        Wizard mirrored({std::make_shared<ZCStepConfig>(ZCStepKind::LookAtCamera, 10),
                         std::make_shared<ZCStepConfig>(ZCStepKind::TurnHeadLeft, 10)});
        mirrored.feed(frontal, 1.0);
        QVERIFY(mirrored.delegate->shots().isEmpty());
        QCOMPARE(mirrored.delegate->keys().last(), QStringLiteral("steps.turn_left"));
        mirrored.feed(threeQuarter.mirrored(true, false), 0.5);
        QCOMPARE(mirrored.delegate->shots().size(), 1);
        QVERIFY(mirrored.delegate->shots().front()->frameTime().seconds() < 1.0);
    }

    void aPrintTurnedInTheHandDoesNotPassATurn()
    {
        if (!networkInstalled())
            QSKIP("the face network is not installed (scripts/setup.sh fetches it)");
        const QImage print = photo("matplotlib__grace_hopper.jpg");
        Wizard wizard({std::make_shared<ZCStepConfig>(ZCStepKind::TurnHeadRight, 3)});
        wizard.feed(framed(print), 0.5);
        wizard.feed(framed(testing::turnedAway(print, 0.5)), 1.0);
        wizard.feed(framed(testing::turnedAway(print.mirrored(true, false), 0.5).mirrored(true, false)), 1.0);
        QVERIFY(!wizard.delegate->codes().contains(1000));
        clock->advance(std::chrono::milliseconds(3100));
        QTRY_COMPARE(wizard.delegate->codes().count(1000), 1);
        QVERIFY(wizard.delegate->shots().isEmpty());
    }

    void closerThenLook()
    {
        if (!networkInstalled())
            QSKIP("the face network is not installed (scripts/setup.sh fetches it)");
        const QImage face = photo("matplotlib__grace_hopper.jpg");
        Wizard wizard({std::make_shared<ZCStepConfig>(ZCStepKind::MoveCloser, 10)});
        wizard.feed(framed(face, 400), 0.5);
        QCOMPARE(wizard.delegate->keys().value(0), QStringLiteral("steps.move_closer"));
        wizard.feed(framed(face, 440), 0.5);  // a little closer is not enough
        wizard.feed(framed(face, 560), 0.5);
        // The look step the host left out follows, and gives the shot.
        wizard.feed(framed(face, 560), 1.0);
        QCOMPARE(wizard.delegate->shots().size(), 1);
        // Taken after the step was done (at 1.2 s at the earliest).
        QVERIFY(wizard.delegate->shots().front()->frameTime().seconds() >= 1.2);
    }

    void stepsCanBeShuffledForEachSession()
    {
        const auto firstPrompt = [](bool shuffle) -> QString {
            Wizard wizard({std::make_shared<ZCStepConfig>(ZCStepKind::TurnHeadLeft),
                           std::make_shared<ZCStepConfig>(ZCStepKind::TurnHeadRight),
                           std::make_shared<ZCStepConfig>(ZCStepKind::MoveCloser)},
                          shuffle);
            (void)QTest::qWaitFor([&] { return !wizard.delegate->keys().isEmpty(); });
            return wizard.delegate->keys().value(0);
        };
        QSet<QString> inOrder, shuffled;
        for (int session = 0; session < 12; ++session) {
            inOrder.insert(firstPrompt(false));
            shuffled.insert(firstPrompt(true));
        }
        QCOMPARE(inOrder, QSet<QString>{QStringLiteral("steps.turn_left")});
        // Twelve draws of one in three: all the same by chance once in 177147.
        QVERIFY(shuffled.size() > 1);
    }
};

QTEST_GUILESS_MAIN(TestSteps)
#include "tst_steps.moc"
