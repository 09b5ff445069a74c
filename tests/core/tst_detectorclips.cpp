// The reference detector on real camera clips, every frame analysed in
// timestamp order.
#include "CoreTestSupport.h"
#include "zavocore/ZCDetectorClock_p.h"

#include <QTest>

using namespace zavo;

namespace {

// Feeds a whole clip through a freshly launched detector.
std::shared_ptr<testing::RecordingDelegate> runClip(const QString& file, core::ZCDetectorSettings settings = {})
{
    settings.synchronousProcessing = true;
    // Time stands still while the clip is fed: however slowly this machine
    // analyses it, no step limit or frame watchdog runs out half way.
    const core::detail::HeldDetectorClock clock;
    auto delegate = std::make_shared<testing::RecordingDelegate>();
    auto configuration = std::make_shared<core::ZCZavoConfiguration>();
    configuration->detector = settings;
    auto detector = core::ZCBestShotBuilder::buildWithDelegate(delegate, nullptr, configuration);
    detector->screenSize(QSizeF(360, 640), {});
    detector->launchWizard();
    const bool read = testing::forEachFrame(testing::dataPath(file), [&](const platform::SampleBuffer& frame) {
        detector->pushFrame(frame);
    });
    if (!read)
        qWarning("cannot read %s", qPrintable(file));
    return delegate;
}

}  // namespace

class TestDetectorClips : public QObject {
    Q_OBJECT

private slots:
    void zoomBlurDarkGivesASharpEarlyShot()
    {
        const auto delegate = runClip(QStringLiteral("A_zoom_blur_dark.mp4"));
        QCOMPARE(delegate->shots().size(), 1);
        QVERIFY(delegate->errors().isEmpty());
        const double t = delegate->shots().front()->frameTime().seconds();
        QVERIFY2(t < 2.0, qPrintable(QString::number(t)));
        QVERIFY2(t < 1.0 || (t > 1.5 && t < 2.5) || t > 3.2, qPrintable(QString::number(t)));
    }

    void withoutAShotTheBlurAndTheZoomAreNamed()
    {
        // A spell too long to complete shows the guidance of the whole clip:
        // the blur at 1 s, then the zoom brings the face to three quarters
        // of the frame's width, too close for a portrait, before the dark
        // spell and the last blur, which that message covers.
        core::ZCDetectorSettings settings;
        settings.steadyDuration = 10;
        const auto delegate = runClip(QStringLiteral("A_zoom_blur_dark.mp4"), settings);
        QVERIFY(delegate->shots().isEmpty());
        QCOMPARE(delegate->keys(), (QStringList{"errors.blurred", "errors.face_too_close"}));
    }

    void faceLeavesThenNoFace()
    {
        core::ZCDetectorSettings settings;
        settings.steadyDuration = 10;
        const auto delegate = runClip(QStringLiteral("gpl/B_face_leaves.mp4"), settings);
        const QStringList events = delegate->events();
        QVERIFY(!events.isEmpty());
        QCOMPARE(events.front(), QStringLiteral("rect"));
        const qsizetype gone = events.indexOf(QStringLiteral("rect:none"));
        QVERIFY(gone > 30);  // the face was followed for about 1.8 s first
        QCOMPARE(events.indexOf(QStringLiteral("rect"), gone), -1);
        // On its way out the face is cut by the frame's edge (1010); once it
        // is gone, no face (1022), and nothing else.
        const QList<long> codes = delegate->codes();
        QVERIFY(!codes.isEmpty());
        QCOMPARE(codes.last(), 1022);
        QVERIFY(events.indexOf(QStringLiteral("error:1022")) > gone);
        for (long code : codes)
            QVERIFY2(code == 1010 || code == 1022, qPrintable(QString::number(code)));
    }

    void twoFacesNeverGiveAShot()
    {
        const auto delegate = runClip(QStringLiteral("C_two_faces.mp4"));
        QVERIFY(delegate->shots().isEmpty());
        QVERIFY(!delegate->codes().isEmpty());
        for (long code : delegate->codes())
            QCOMPARE(code, 1023);
    }

    void anEmptySceneNeverShowsAFace()
    {
        // Face-like texture, searched only every few frames: no face frame,
        // and the no-face banner at its usual pace (after 0.2 s, then every
        // 2 s of the 2 s clip).
        const auto delegate = runClip(QStringLiteral("E_no_face.mp4"));
        QVERIFY(delegate->rects().isEmpty());
        QCOMPARE(delegate->codes(), (QList<long>{1022}));
    }

    void webcamClipGivesAShot()
    {
        const auto delegate = runClip(QStringLiteral("gpl/R_kphotoalbum_movie.mp4"));
        QCOMPARE(delegate->shots().size(), 1);
        QCOMPARE(delegate->shots().front()->image().size(), QSize(160, 120));
    }
};

QTEST_GUILESS_MAIN(TestDetectorClips)
#include "tst_detectorclips.moc"
