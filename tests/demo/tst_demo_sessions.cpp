// Whole sessions the way the demo host runs them: the camera screen on the
// file camera until the best shot, with the video recorded, then released.
// Repeated sessions must not leave threads or open files behind.
#include "DemoCamera.h"
#include "DemoSession.h"
#include "ProcessCounters.h"

#include "camera/CaptureAuthorization_p.h"
#include "base/FileSystem.h"

#include <QTemporaryDir>
#include <QWidget>
#include <QtTest>

using namespace zavo;
using namespace zavo::demo;
using zavo::testing::ProcessCounters;

namespace {

const QString kClip = QStringLiteral(ZAVO_TEST_DATA_DIR "/A_zoom_blur_dark.mp4");
constexpr int kSessions = 5;

}  // namespace

class TestDemoSessions : public QObject {
    Q_OBJECT

    QTemporaryDir documents;
    std::unique_ptr<FrontCamera> camera;
    DetectorTiming timing;

    struct Ended {
        SessionOutcome outcome;
        std::optional<VideoInfo> video;
        bool sawFaceFrame = false;
    };

    /// One session to its end; the session is released before returning.
    std::optional<Ended> runSession()
    {
        DemoSession session(SessionOptions{}, &timing);
        QSignalSpy settled(&session, &DemoSession::videoSettled);
        QSignalSpy faceFrame(&session, &DemoSession::faceFrameShown);
        QWidget* view = session.view();
        view->resize(360, 640);
        view->show();
        session.start();
        if (!settled.wait(60000))
            return std::nullopt;
        Ended ended{*session.outcome(), session.video(), faceFrame.count() == 1};
        session.release();
        return ended;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(documents.isValid());
        platform::setDocumentsDirectory(documents.path());
        platform::CaptureAuthorization::setPolicy(std::make_shared<platform::FixedCaptureAuthorizationPolicy>(
            platform::AuthorizationStatus::NotDetermined, true));
        QString problem;
        camera = FrontCamera::install({CameraChoice::Kind::File, kClip}, &problem);
        QVERIFY2(camera, qPrintable(problem));
    }

    void cleanupTestCase()
    {
        camera.reset();
        platform::CaptureAuthorization::setPolicy(nullptr);
        platform::setDocumentsDirectory({});
    }

    void sessionEndsWithABestShotAndAFinalVideo()
    {
        const auto ended = runSession();
        QVERIFY(ended);
        const SessionOutcome& outcome = ended->outcome;
        QVERIFY2(outcome.bestShot, outcome.error ? qPrintable(outcome.error->localizedDescription()) : "");
        QVERIFY(ended->sawFaceFrame);
        QVERIFY(outcome.timeToFirstFrameMs);
        QVERIFY(*outcome.timeToFirstFrameMs < *outcome.timeToBestShotMs);
        QVERIFY(outcome.videoFile);
        QVERIFY(ended->video);
        QVERIFY2(ended->video->finished, qPrintable(ended->video->problem));
        QCOMPARE(ended->video->size, QSize(320, 180));  // the recompressed rendition
        QVERIFY(ended->video->frames > 0);
        // What the demo reported is what is on disk now.
        QCOMPARE(readVideo(*outcome.videoFile).frames, ended->video->frames);
    }

    /// After the first session has warmed up what lives for the whole
    /// process (the detector's cascades, Qt's own threads), further sessions
    /// end with the same threads and files as before them.
    void repeatedSessionsLeaveNothingBehind()
    {
        const ProcessCounters before = ProcessCounters::now();
        for (int i = 0; i < kSessions; ++i) {
            const auto ended = runSession();
            QVERIFY2(ended && ended->outcome.bestShot && ended->video && ended->video->finished, qPrintable(QStringLiteral("session %1").arg(i)));
        }
        // Threads of a released screen wind down on their own, right after.
        QTRY_COMPARE_WITH_TIMEOUT(ProcessCounters::now().leftSince(before), QStringList(), 20000);
    }
};

QTEST_MAIN(TestDemoSessions)
#include "tst_demo_sessions.moc"
