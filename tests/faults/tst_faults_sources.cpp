// Faults of what feeds a recorded session: a camera whose frames stop, one
// that vanishes, a file camera whose file is cut short, emptied or removed,
// and a liveness server that is slow, down or talks nonsense. Each ends the
// session with exactly one documented outcome, keeps the video of what was
// captured, releases the camera and leaves no thread, descriptor or file.
#include "FaultTestSupport.h"

#include "CannedHttpServer.h"
#include "camera/file/FileCaptureDevice.h"
#include "base/FileSystem.h"
#include "camera/synthetic/SyntheticCaptureDevice.h"
#include "zavocore/ZCHttpLiveness.h"

#include <QApplication>
#include <QTemporaryDir>

using namespace zavo;
using namespace zavo::testing;
using platform::CaptureDevicePosition;

namespace {

enum class Source {
    FramesStop,       // the synthetic camera hangs after a few frames
    CameraVanishes,   // the synthetic camera disconnects after a few frames
    FileRemoved,      // the file camera's file is deleted while it plays
    FileTruncated,    // the file camera plays the first third of a clip
    FileEmpty,        // the file camera's file has no bytes at all
    LivenessSlow,     // the server never answers within the client's timeout
    LivenessDown,     // nobody listens on the server's port
    LivenessGarbage,  // the server answers with something that is not JSON
};

/// The outcome in short: the error's case and what it carries, or "bestShot".
QString describe(const Outcome& outcome)
{
    if (outcome.bestShot)
        return QStringLiteral("bestShot");
    const ZMCameraError& error = *outcome.error;
    switch (error.kind()) {
    case ZMCameraError::Case::bestShotError:
        return QStringLiteral("bestShotError %1").arg(error.bestShotErrorValue()->code());
    case ZMCameraError::Case::networkingError:
        return QStringLiteral("networkingError %1").arg(int(error.networkingErrorValue()->kind()));
    case ZMCameraError::Case::error: {
        const auto* networking = platform::errorCast<web::NetworkingError>(error.errorValue().get());
        return networking ? QStringLiteral("error networking %1").arg(int(networking->kind()))
                          : QStringLiteral("error %1").arg(error.errorValue()->code());
    }
    default:
        return QStringLiteral("case %1").arg(int(error.kind()));
    }
}

const QString kLivenessConnectionError =
    QString::number(int(web::NetworkingError::Kind::LivenessConnectionError));

}  // namespace

Q_DECLARE_METATYPE(Source)

class TstFaultsSources : public QObject {
    Q_OBJECT

    QTemporaryDir scratch{QDir::currentPath() + QStringLiteral("/faults-sources-XXXXXX")};
    QString videoPath;
    std::shared_ptr<core::ZCZavoConfiguration> configuration;
    std::unique_ptr<PermissionScope> permission;
    std::unique_ptr<testing::CannedHttpServer> server;
    std::shared_ptr<core::ZCOnlineLivenessProtocol> liveness;
    std::shared_ptr<platform::CaptureDevice> camera;  // null when the file was refused
    QString clipCopy;                                 // the file camera's own copy

    /// A copy of a clip for the test to damage, cut to fraction of its bytes.
    QString copyOfClip(const char* clip, double fraction)
    {
        QFile original(dataPath(clip));
        if (!original.open(QIODevice::ReadOnly))
            return {};
        const QByteArray bytes = original.readAll();
        const QString copy = scratch.filePath(QStringLiteral("%1-%2").arg(fraction).arg(QLatin1String(clip)));
        if (!platform::writeFileAtomically(copy, bytes.left(qsizetype(bytes.size() * fraction))))
            return {};
        return copy;
    }

    void useFileCamera(const char* clip, double fraction)
    {
        clipCopy = copyOfClip(clip, fraction);
        QVERIFY(!clipCopy.isEmpty());
        platform::ErrorPtr error;
        auto file = platform::FileCaptureDevice::create(clipCopy, CaptureDevicePosition::Front, &error);
        // A file with nothing to play is refused as a camera: the host then
        // has no front camera at all.
        QCOMPARE(bool(file), fraction > 0);
        if (file)
            platform::CaptureDeviceRegistry::shared().registerDevice(file);
        camera = file;
    }

    void useSyntheticCamera(platform::SyntheticCaptureDevice::Configuration settings)
    {
        auto synthetic = platform::SyntheticCaptureDevice::create(std::move(settings));
        platform::CaptureDeviceRegistry::shared().registerDevice(synthetic);
        camera = synthetic;
    }

    void useLiveness(const QUrl& url)
    {
        web::ZWLivenessClient::Settings settings;
        settings.url = url;
        settings.timeout = std::chrono::milliseconds(500);
        liveness = std::make_shared<core::ZCHttpLiveness>(settings);
    }

    void produce(Source source)
    {
        switch (source) {
        case Source::FramesStop:
            return useSyntheticCamera({.stopAfterFrames = 10});
        case Source::CameraVanishes:
            return useSyntheticCamera({.vanishAfterFrames = 10});
        case Source::FileRemoved:
            // Removed while the first pass plays; the loop back to its start
            // then finds nothing to reopen.
            useFileCamera("E_no_face.mp4", 1.0);
            return;
        case Source::FileTruncated:
            return useFileCamera("A_zoom_blur_dark.mp4", 1.0 / 3);
        case Source::FileEmpty:
            return useFileCamera("A_zoom_blur_dark.mp4", 0);
        case Source::LivenessSlow:
            server = std::make_unique<testing::CannedHttpServer>();
            server->stayMute();
            useLiveness(server->url());
            break;
        case Source::LivenessDown: {
            QTcpServer unused;
            QVERIFY(unused.listen(QHostAddress::LocalHost));
            const quint16 port = unused.serverPort();
            unused.close();
            useLiveness(QUrl(QStringLiteral("http://127.0.0.1:%1/liveness").arg(port)));
            break;
        }
        case Source::LivenessGarbage:
            server = std::make_unique<testing::CannedHttpServer>();
            server->answer(200, "<html>it works</html>");
            useLiveness(server->url());
            break;
        }
        useFileCamera("A_zoom_blur_dark.mp4", 1.0);
    }

    bool cameraIsOpen() const
    {
        if (auto file = std::dynamic_pointer_cast<platform::FileCaptureDevice>(camera))
            return file->isOpen();
        if (auto synthetic = std::dynamic_pointer_cast<platform::SyntheticCaptureDevice>(camera))
            return synthetic->isOpen();
        return false;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(scratch.isValid());
        platform::setDocumentsDirectory(scratch.filePath(QStringLiteral("Documents")));
        videoPath = scratch.filePath(QStringLiteral("Documents/bright_fold/ZMRecordedVideo.mp4"));
        QVERIFY(prepareSuite());
    }

    void cleanupTestCase() { platform::setDocumentsDirectory({}); }

    void init()
    {
        LogRecorder::instance().clear();
        // The default step limit (30 s) only bounds a hang, like the waits.
        configuration = std::make_shared<core::ZCZavoConfiguration>();
        permission = std::make_unique<PermissionScope>(platform::AuthorizationStatus::Authorized);
    }

    void cleanup()
    {
        liveness.reset();
        server.reset();
        permission.reset();
        camera.reset();
        forgetCamerasAndSettle();
    }

    void sourceFaultEndsTheSessionOnce_data()
    {
        QTest::addColumn<Source>("source");
        QTest::addColumn<Recorder>("recorder");
        // describe() of the host's one outcome.
        QTest::addColumn<QString>("outcome");
        // A log line that must appear (a pattern), if any.
        QTest::addColumn<QString>("logged");
        // The recorder's reports as the screen gets them ("ok": success).
        QTest::addColumn<QStringList>("reports");
        // Whether a playable session video is left in the recording folder.
        QTest::addColumn<bool>("videoLeft");

        const QString noFrames = QStringLiteral("bestShotError 1004");
        // The movie-output recorder reports the recording, then its recompression.
        const QStringList okTwice{QStringLiteral("ok"), QStringLiteral("ok")};
        const QStringList okOnce{QStringLiteral("ok")};
        QTest::newRow("frames stop, movie output")
            << Source::FramesStop << Recorder::MovieOutput << noFrames << QStringLiteral("^no frame for 1 s$") << okTwice << true;
        QTest::newRow("frames stop, frame dump")
            << Source::FramesStop << Recorder::FrameDump << noFrames << QStringLiteral("^no frame for 1 s$") << okOnce << true;
        QTest::newRow("camera vanishes, movie output")
            << Source::CameraVanishes << Recorder::MovieOutput << noFrames
            << QStringLiteral("^Capture from <Synthetic Camera> ended: the device was disconnected$") << okTwice << true;
        QTest::newRow("camera vanishes, frame dump")
            << Source::CameraVanishes << Recorder::FrameDump << noFrames
            << QStringLiteral("^Capture from <Synthetic Camera> ended: the device was disconnected$") << okOnce << true;
        QTest::newRow("file removed while playing")
            << Source::FileRemoved << Recorder::MovieOutput << noFrames
            << QStringLiteral("^Capture from <.*> ended: cannot reopen ") << okTwice << true;
        QTest::newRow("file cut to a third")
            << Source::FileTruncated << Recorder::MovieOutput << QStringLiteral("bestShot") << QString() << okTwice << true;
        QTest::newRow("empty file") << Source::FileEmpty << Recorder::MovieOutput << noFrames
                                    << QStringLiteral("^no frame for 1 s$") << QStringList{} << false;
        QTest::newRow("liveness server slow")
            << Source::LivenessSlow << Recorder::MovieOutput << QStringLiteral("networkingError ") + kLivenessConnectionError
            << QStringLiteral("^liveness check failed: ") << okTwice << true;
        QTest::newRow("liveness server down")
            << Source::LivenessDown << Recorder::MovieOutput << QStringLiteral("networkingError ") + kLivenessConnectionError
            << QStringLiteral("^liveness check failed: ") << okTwice << true;
        QTest::newRow("liveness server garbage")
            << Source::LivenessGarbage << Recorder::MovieOutput
            << QStringLiteral("error networking ") + kLivenessConnectionError << QStringLiteral("^liveness check failed: ")
            << okTwice << true;
    }

    void sourceFaultEndsTheSessionOnce()
    {
        QFETCH(Source, source);
        QFETCH(Recorder, recorder);
        QFETCH(QString, outcome);
        QFETCH(QString, logged);
        QFETCH(QStringList, reports);
        QFETCH(bool, videoLeft);
        useRecorder(recorder);
        // Where a camera going quiet is the fault, it is noticed after a
        // second; elsewhere the watchdog only bounds a hang, so a stall of
        // a busy machine cannot turn the outcome into "no frames".
        configuration->detector.frameTimeout = outcome == QLatin1String("bestShotError 1004") ? 1 : 30;
        const QString temp = QDir::tempPath();
        const QSet<QString> tempBefore = filesUnder({temp});
        const ProcessCounters before = ProcessCounters::now();
        produce(source);
        if (QTest::currentTestFailed())
            return;

        Session session;
        session.present(configuration, liveness, true);
        if (source == Source::FileRemoved) {
            QTRY_VERIFY(cameraIsOpen());
            QVERIFY(QFile::remove(clipCopy));
        }
        QVERIFY(session.waitForOutcome());
        QCOMPARE(describe(session.host->last()), outcome);
        // Only a session that recorded frames names a video.
        QCOMPARE(session.host->last().videoFile, videoLeft ? std::optional<QString>(videoPath) : std::nullopt);
        QVERIFY(session.waitForReports(reports.size()));
        if (!logged.isEmpty())
            QVERIFY2(LogRecorder::instance().count(QRegularExpression(logged)) > 0, qPrintable(logged));
        if (source == Source::LivenessSlow || source == Source::LivenessGarbage)
            QCOMPARE(server->requests().size(), 1);
        QVERIFY(session.release());
        QCOMPARE(session.host->count(), 1);
        QVERIFY(!cameraIsOpen());

        // What was captured before the fault is a finished video.
        QCOMPARE(session.watch->savedCodes(), reports);
        if (videoLeft) {
            QCOMPARE(entriesOf(QFileInfo(videoPath).path()), QStringList{QStringLiteral("ZMRecordedVideo.mp4")});
            QVERIFY(decodableFrames(videoPath) > 0);
        } else {
            QCOMPARE(entriesOf(QFileInfo(videoPath).path()), QStringList{});
        }
        QCOMPARE(filesUnder({temp}) - tempBefore, QSet<QString>{});
        liveness.reset();
        server.reset();
        ZAVO_COMPARE_COUNTERS(before);
    }
};

int main(int argc, char** argv)
{
    // A temporary folder of the suite's own, so that files others leave in
    // the system's one are not taken for this suite's leftovers.
    const QByteArray temp = QDir::currentPath().toLocal8Bit() + "/faults-sources-tmp";
    QDir().mkpath(QString::fromLocal8Bit(temp));
    qputenv("TMPDIR", temp);
    QApplication app(argc, argv);
    TstFaultsSources test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_faults_sources.moc"
