// Interaction steps that ask the user to act: how each is judged, and the
// wizard that runs them on real faces (frontal and three-quarter photos;
// a frontal photo turned in the hand stands for a printed face).
#include "MissingPrerequisite.h"
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
/// when it has landmarks; a turned solid head shows nose parallax to the
/// side it turns to.
FaceAnalysis face(double width, std::optional<double> yaw = 0.0, std::optional<double> parallax = std::nullopt)
{
    FaceAnalysis analysis;
    analysis.faces = {QRectF(100, 300, width * 720, width * 720)};
    if (yaw) {
        analysis.pose = FacePose{*yaw, 0, 0};
        analysis.noseParallax = parallax.value_or(*yaw / 60.0);
    }
    analysis.guidance = Guidance::None;
    return analysis;
}

/// Feeds the analyses to a judge at 30 frames a second from `from`; true
/// when the step was done by the last one.
bool judge(StepJudge& judge, const std::vector<FaceAnalysis>& frames, double& time, bool mirrored = true)
{
    bool done = false;
    for (const FaceAnalysis& frame : frames) {
        done = judge.observe(frame, 720, time, mirrored);
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

/// A head rendered turned by yaw degrees (pitch 0) from a real photo.
QImage headPose(const char* person, int yaw)
{
    return photo(QStringLiteral("headpose/%1_y%2_p+00.jpg")
                     .arg(QLatin1String(person))
                     .arg(yaw == 0 ? QStringLiteral("+00") : QString::asprintf("%+03d", yaw)));
}

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

    explicit Wizard(std::vector<core::ZCStepConfigPtr> steps, bool shuffle = false, bool frontCamera = true)
        : DetectorRig(wizardSettings(shuffle))
    {
        mirrored = frontCamera;
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

    void aTurnIsFromFacingTheCameraToTheAskedSideAndBack()
    {
        double time = 0;
        StepJudge left(ZCStepKind::TurnHeadLeft);
        // Mirrored frames (a front camera): the user's left is the frame's left.
        // Already turned when the step begins: no turn seen.
        QVERIFY(!judge(left, repeated(face(0.4, -35), 20), time));
        // Facing the camera, then one noisy frame far left: not a turn.
        QVERIFY(!judge(left, repeated(face(0.4, 0), 10), time));
        QVERIFY(!judge(left, {face(0.4, -40)}, time));
        QVERIFY(!judge(left, repeated(face(0.4, 2), 3), time));
        // Turned right: the wrong way.
        QVERIFY(!judge(left, repeated(face(0.4, 35), 15), time));
        // Left as far as a flat photo turned in the hand gets: no parallax.
        QVERIFY(!judge(left, repeated(face(0.4, -30, 0.0), 15), time));
        // Left, held, is not done until the user faces the camera again.
        QVERIFY(!judge(left, repeated(face(0.4, -30), 15), time));
        QVERIFY(!judge(left, repeated(face(0.4, -20), 15), time));
        QVERIFY(!judge(left, repeated(face(0.4, 0), 5), time));
        QVERIFY(judge(left, repeated(face(0.4, 0), 2), time));
        // Done stays done.
        QVERIFY(judge(left, repeated(face(0.4, 30), 3), time));

        // Unmirrored frames (a back camera): the user's left is the frame's right.
        for (const bool mirrored : {true, false}) {
            time = 0;
            StepJudge right(ZCStepKind::TurnHeadRight);
            const double usersRight = mirrored ? 30 : -30;
            QVERIFY(!judge(right, repeated(face(0.4, 0), 8), time, mirrored));
            QVERIFY(!judge(right, repeated(face(0.4, -usersRight), 8), time, mirrored));
            QVERIFY(!judge(right, repeated(face(0.4, 0), 8), time, mirrored));
            QVERIFY(!judge(right, repeated(face(0.4, usersRight), 8), time, mirrored));
            QVERIFY2(judge(right, repeated(face(0.4, 0), 8), time, mirrored), mirrored ? "mirrored" : "unmirrored");
        }
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
        two.noseParallax = 0.5;
        QVERIFY(!judge(twoFaces, repeated(two, 15), time));
        two.pose = FacePose{0, 0, 0};
        QVERIFY(!judge(twoFaces, repeated(two, 15), time));
    }

    void theFollowerTellsOnePersonFromAnother()
    {
        using core::detail::FaceFollower;
        using Change = FaceFollower::Change;
        core::detail::FaceAnalyzer analyzer{core::ZCDetectorSettings{}};
        const auto judged = [&](const QImage& image) {
            FaceAnalysis a = testing::analyse(analyzer, framed(image, 560));
            if (a.faces.size() != 1 || a.appearance.empty())
                qFatal("expected one judged face");
            return a;
        };
        const QImage grace = photo("matplotlib__grace_hopper.jpg");
        const FaceAnalysis hopper = judged(grace);
        const FaceAnalysis collins = judged(photo("skimage__astronaut.png"));
        const FaceAnalysis curie = judged(photo("xraylarch__Marie_Curie.jpg"));
        const FaceAnalysis curieTurned = judged(photo("xraylarch__Marie_Curie.jpg").mirrored(true, false));
        // The same face seen again, turned the other way: the same person.
        QVERIFY(core::detail::FaceAnalyzer::appearanceSimilarity(curie.appearance, curieTurned.appearance) > 0.8);
        // Another person in the same place, as large: someone else.
        QVERIFY(core::detail::FaceAnalyzer::appearanceSimilarity(hopper.appearance, collins.appearance) < 0.5);

        FaceFollower follower;
        double t = 0;
        const auto at = [](FaceAnalysis a, QPointF shift, double scale = 1.0) {
            const QRectF r = a.faces.front();
            a.faces = {QRectF(r.topLeft() + shift, r.size() * scale)};
            return a;
        };
        QCOMPARE(follower.observe(hopper, t), Change::None);
        QCOMPARE(follower.observe(at(hopper, {20, 10}, 1.1), t += 1.0 / 30), Change::None);
        // Several faces say nothing about who is who.
        FaceAnalysis two = hopper;
        two.faces.push_back(QRectF(0, 0, 100, 100));
        QCOMPARE(follower.observe(two, t += 1.0 / 30), Change::None);
        // A face across the frame in one frame: a cut to someone else.
        QCOMPARE(follower.observe(at(hopper, {400, 0}), t += 1.0 / 30), Change::Replaced);
        QCOMPARE(follower.observe(at(hopper, {400, 0}), t += 1.0 / 30), Change::None);
        // The same place and size, another person.
        const QRectF here = hopper.faces.front().translated(400, 0);
        FaceAnalysis other = collins;
        other.faces = {here};
        QCOMPARE(follower.observe(other, t += 1.0 / 30), Change::Replaced);
        // Gone: lost only after half a second.
        QCOMPARE(follower.observe(FaceAnalysis{}, t += 0.3), Change::None);
        QCOMPARE(follower.observe(FaceAnalysis{}, t += 0.3), Change::Lost);
        QCOMPARE(follower.observe(FaceAnalysis{}, t += 0.3), Change::None);
        QCOMPARE(follower.observe(curie, t += 1.0 / 30), Change::None);
    }

    void closerIsAClearlyWiderWholeFace()
    {
        double time = 0;
        StepJudge closer(ZCStepKind::MoveCloser);
        QVERIFY(!judge(closer, repeated(face(0.30), 10), time));
        QVERIFY(!judge(closer, repeated(face(0.35), 15), time));  // 1.17 times: not enough
        QVERIFY(!judge(closer, repeated(face(0.38), 15), time));  // 1.27 times: not enough
        FaceAnalysis cut = face(0.60);
        cut.guidance = Guidance::OffCentre;
        QVERIFY(!judge(closer, repeated(cut, 15), time));  // part of the face is out of the frame
        QVERIFY(judge(closer, repeated(face(0.40), 8), time));
    }

    void aTurnThenALookGivesTheShotOfTheLook()
    {
        if (!networkInstalled())
            ZAVO_SKIP_MISSING("the face network is not installed (scripts/setup.sh fetches it)");
        // A real head rendered turned (the user's right is the frame's right
        // in a front camera's mirrored frames).
        const QImage frontal = framed(headPose("hopper", 0));
        const QImage toFramesRight = framed(headPose("hopper", 45));
        Wizard wizard({std::make_shared<ZCStepConfig>(ZCStepKind::TurnHeadRight, 10),
                       std::make_shared<ZCStepConfig>(ZCStepKind::LookAtCamera, 10)});
        wizard.feed(frontal, 0.5);
        QCOMPARE(wizard.delegate->keys().value(0), QStringLiteral("steps.turn_right"));
        wizard.feed(toFramesRight, 0.5);
        // Turned, not yet back: no shot.
        QVERIFY(wizard.delegate->shots().isEmpty());
        wizard.feed(frontal, 1.5);
        QVERIFY2(wizard.delegate->shots().size() == 1, qPrintable(wizard.delegate->keys().join(QLatin1Char(' '))));
        QVERIFY(wizard.delegate->shots().front()->frameTime().seconds() >= 1.2);

        // The host's look step first: it still comes last, and the shot is
        // taken after the turn, facing the camera.
        Wizard lookFirst({std::make_shared<ZCStepConfig>(ZCStepKind::LookAtCamera, 10),
                          std::make_shared<ZCStepConfig>(ZCStepKind::TurnHeadLeft, 10)});
        lookFirst.feed(frontal, 1.0);
        QVERIFY(lookFirst.delegate->shots().isEmpty());
        QCOMPARE(lookFirst.delegate->keys().value(0), QStringLiteral("steps.turn_left"));
        lookFirst.feed(framed(headPose("hopper", -45)), 0.5);
        QVERIFY(lookFirst.delegate->shots().isEmpty());
        lookFirst.feed(frontal, 1.5);
        QCOMPARE(lookFirst.delegate->shots().size(), 1);
        QVERIFY(lookFirst.delegate->shots().front()->frameTime().seconds() >= 1.7);
        QVERIFY(std::abs(lookFirst.delegate->shots().front()->quality().headPose.yaw) < 12);
    }

    void leftAndRightAreTheUsersOwnWhateverTheMirroring()
    {
        if (!networkInstalled())
            ZAVO_SKIP_MISSING("the face network is not installed (scripts/setup.sh fetches it)");
        // An unmirrored (back) camera: the user's right is the frame's left.
        const QImage frontal = framed(headPose("collins", 0));
        for (const int yaw : {45, -45}) {
            Wizard wizard({std::make_shared<ZCStepConfig>(ZCStepKind::TurnHeadRight, 10)}, false, false);
            wizard.feed(frontal, 0.5);
            wizard.feed(framed(headPose("collins", yaw)), 0.5);
            wizard.feed(frontal, 1.5);
            QCOMPARE(wizard.delegate->shots().size(), yaw < 0 ? 1 : 0);
        }
    }

    /// A clip cut from one person turning to another facing the camera does
    /// not pass a turn: the face that turned is not the one facing back.
    void aSpliceOfTwoPeopleDoesNotPassATurn()
    {
        if (!networkInstalled())
            ZAVO_SKIP_MISSING("the face network is not installed (scripts/setup.sh fetches it)");
        Wizard wizard({std::make_shared<ZCStepConfig>(ZCStepKind::TurnHeadRight, 3)});
        wizard.feed(framed(headPose("hopper", 0)), 0.5);
        wizard.feed(framed(headPose("hopper", 45)), 0.5);
        wizard.feed(framed(headPose("collins", 0)), 1.5);
        // And the other way round: the second person turned, the first back.
        wizard.feed(framed(headPose("collins", 45)), 0.5);
        wizard.feed(framed(headPose("hopper", 0)), 1.5);
        QVERIFY(!wizard.delegate->codes().contains(1000));
        clock->advance(std::chrono::milliseconds(3100));
        QTRY_COMPARE(wizard.delegate->codes().count(1000), 1);
        QVERIFY(wizard.delegate->shots().isEmpty());
    }

    void aPrintTurnedInTheHandDoesNotPassATurn()
    {
        if (!networkInstalled())
            ZAVO_SKIP_MISSING("the face network is not installed (scripts/setup.sh fetches it)");
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
            ZAVO_SKIP_MISSING("the face network is not installed (scripts/setup.sh fetches it)");
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
