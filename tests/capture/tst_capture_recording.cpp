// Whole capture sessions with a file camera and recording on, through each
// recorder, checked with FFmpeg's own prober; and the bad inputs: corrupt
// files, an unwritable Documents folder.
#include "MissingPrerequisite.h"
#include "base/ThreadSafety.h"
#include "CameraTestSupport.h"

#include "capture/ZMCameraCaptureManager.h"
#include "media/AssetWriter_p.h"
#include "camera/CaptureVideoDataOutput_p.h"
#include "camera/CaptureMovieFileOutput_p.h"
#include "shell/DeviceScreen.h"
#include "shell/DeviceScreen_p.h"
#include "camera/file/FileCaptureDevice.h"
#include "base/FileSystem.h"
#include "base/ProcessInfo_p.h"
#include "camera/synthetic/SyntheticCaptureDevice.h"
#include "recording/ZMSaveVideoExService.h"
#include "recording/ZMSaveVideoService.h"

#include <QApplication>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <cstring>
#include <mutex>
#include <optional>

using namespace zavo;
using namespace zavo::platform;
using zavo::testing::processThreadCount;

namespace {

const QString kClip = QStringLiteral(ZAVO_TEST_DATA_DIR "/A_zoom_blur_dark.mp4");

struct Probe {
    QString codec;
    QSize size;
    int frames = -1;
};

/// What ffprobe reads from the first video stream, counting decoded frames.
std::optional<Probe> probe(const QString& path)
{
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {"-v", "error", "-select_streams", "v:0", "-count_frames", "-show_entries",
                   "stream=codec_name,width,height,nb_read_frames", "-of", "default=noprint_wrappers=1", path});
    if (!ffprobe.waitForFinished(60000) || ffprobe.exitCode() != 0)
        return std::nullopt;
    Probe result;
    for (const QString& line : QString::fromUtf8(ffprobe.readAllStandardOutput()).split('\n')) {
        const QString value = line.section('=', 1);
        if (line.startsWith("codec_name="))
            result.codec = value;
        else if (line.startsWith("width="))
            result.size.setWidth(value.toInt());
        else if (line.startsWith("height="))
            result.size.setHeight(value.toInt());
        else if (line.startsWith("nb_read_frames="))
            result.frames = value.toInt();
    }
    return result;
}

class SpyDelegate final : public ZMCameraCaptureManagerDelegate {
public:
    bool shouldDeleteResultingVideo() override { return false; }
    void videoSaveProcessBegan() override { ++began; }
    void videoSavedWithError(ErrorPtr error) override
    {
        zavo::MutexLocker lock(mutex);
        saved.push_back(error);
    }
    std::vector<ErrorPtr> savedErrors()
    {
        zavo::MutexLocker lock(mutex);
        return saved;
    }
    void recordingDidFinish(std::optional<QString>, ErrorPtr) override { ++finals; }
    std::atomic<int> began{0};
    std::atomic<int> finals{0};

private:
    zavo::Mutex mutex;
    std::vector<ErrorPtr> saved ZAVO_GUARDED_BY(mutex);
};

/// A short clip made with the platform's own writer, for looping.
bool writeShortClip(const QString& path, int frames)
{
    auto writer = AssetWriter::create(QUrl::fromLocalFile(path), FileType::MPEG4);
    auto input = AssetWriterInput::create(MediaType::Video, {VideoCodec::H264, 64, 64});
    if (!writer || !input)
        return false;
    writer->addInput(input);
    auto adaptor = AssetWriterInputPixelBufferAdaptor::create(input);
    if (!writer->startWriting())
        return false;
    writer->startSessionAtSourceTime(MediaTime::zero());
    for (int i = 0; i < frames; ++i) {
        auto pixels = PixelBuffer::create(64, 64, PixelFormat::BGRA32);
        std::memset(pixels->baseAddress(), i * 20, pixels->dataSize());
        adaptor->appendPixelBuffer(pixels, MediaTime::make(i, 30));
    }
    input->markAsFinished();
    std::atomic<bool> done{false};
    writer->finishWriting([&] { done = true; });
    return QTest::qWaitFor([&] { return done.load(); }, 20000)
        && writer->status() == AssetWriter::Status::Completed;
}

struct Session {
    std::shared_ptr<ZMCameraCaptureManager> manager = ZMCameraCaptureManager::create();
    std::shared_ptr<SpyDelegate> delegate = std::make_shared<SpyDelegate>();

    bool configure()
    {
        manager->setRecordVideo(true);
        manager->setDelegate(delegate);
        std::atomic<bool> configured{false};
        manager->configureWithCameraPosition(CaptureDevicePosition::Front, [&] { configured = true; });
        return QTest::qWaitFor([&] { return configured.load(); });
    }
};

}  // namespace

class TstCaptureRecording : public QObject {
    Q_OBJECT

    QTemporaryDir scratch;
    QString documents;
    int baselineThreads = 0;  // the process at rest: the GUI thread and Qt's own

private slots:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable("ffprobe").isEmpty())
            ZAVO_SKIP_MISSING("ffprobe is needed to check the recorded files");
        QVERIFY(scratch.isValid());
        QVERIFY(QFile::exists(kClip));
        CaptureDeviceRegistry::shared().setProviders({});
        screens::setMainScreenBoundsOverride(QRectF(0, 0, 320, 568));
        baselineThreads = processThreadCount();
    }

    /// Every session leaves nothing running once its work is done.
    void cleanup() { QTRY_COMPARE_WITH_TIMEOUT(processThreadCount(), baselineThreads, 30000); }

    void init()
    {
        CaptureDeviceRegistry::shared().unregisterAll();
        ProcessInfo::resetOperatingSystemVersion();
        documents = scratch.filePath(QString::fromLatin1(QTest::currentTestFunction()) + "-" +
                                     QString::fromLatin1(QTest::currentDataTag()).replace(' ', '_'));
        QDir().mkpath(documents);
        setDocumentsDirectory(documents);
    }

    void cleanupTestCase() { setDocumentsDirectory({}); }

    void fileCameraReportsTheClipAndLoops()
    {
        ErrorPtr error;
        auto clip = FileCaptureDevice::create(kClip, CaptureDevicePosition::Front, &error);
        QVERIFY(clip);
        const auto format = clip->activeFormat();
        QCOMPARE(FourCharCodetoString(format->mediaSubType()), QStringLiteral("420v"));
        QCOMPARE(QSize(format->width(), format->height()), QSize(720, 1280));
        QCOMPARE(format->captureFrameRate(), 30.0);

        const QString shortClip = scratch.filePath("short.mp4");
        QVERIFY(writeShortClip(shortClip, 6));
        auto looping = FileCaptureDevice::create(shortClip, CaptureDevicePosition::Back);
        QVERIFY(looping);
        auto session = CaptureSession::create();
        session->addInput(CaptureDeviceInput::deviceInputWithDevice(looping, nullptr));
        session->startRunning();
        QVERIFY(looping->isOpen());
        QTRY_VERIFY(looping->loopCount() >= 2);
        session->stopRunning();
        QVERIFY(!looping->isOpen());
        QVERIFY(session->capturedFrameCount() >= 12);
    }

    void corruptFilesNeverReachACamera()
    {
        const QString garbage = scratch.filePath("garbage.mp4");
        QVERIFY(writeFileAtomically(garbage, QByteArray(4096, '\x5a')));
        ErrorPtr error;
        QVERIFY(!FileCaptureDevice::create(garbage, CaptureDevicePosition::Front, &error));
        QVERIFY(error);
        QVERIFY(!FileCaptureDevice::create(scratch.filePath("missing.mp4"), CaptureDevicePosition::Front, &error));

        // A clip cut off in the middle (its index comes first, so the index
        // is whole): it plays the frames it still has.
        QFile original(kClip);
        QVERIFY(original.open(QIODevice::ReadOnly));
        const QString truncated = scratch.filePath("truncated.mp4");
        QVERIFY(writeFileAtomically(truncated, original.read(original.size() / 2)));
        error.reset();
        auto camera = FileCaptureDevice::create(truncated, CaptureDevicePosition::Front, &error);
        QVERIFY2(camera, error ? qPrintable(error->localizedDescription()) : "no error");
        CaptureDeviceRegistry::shared().registerDevice(camera);
        Session session;
        QVERIFY(session.configure());
        std::atomic<int> frames{0};
        session.manager->defineSampleBufferhandler([&](const SampleBuffer&) { ++frames; });
        session.manager->start();
        QTRY_VERIFY(frames.load() > 3);
        std::atomic<bool> stopped{false};
        session.manager->stopWithCompletion([&] { stopped = true; });
        QTRY_VERIFY_WITH_TIMEOUT(stopped.load(), 20000);
        session.manager->setSampleBufferDelegateQueue()->sync([] {});
        QVERIFY(!camera->isOpen());
    }

    void recordingAFileCameraSession_data()
    {
        QTest::addColumn<bool>("movieOutput");
        QTest::addColumn<QSize>("size");
        QTest::newRow("movie output, recompressed") << true << QSize(320, 180);
        QTest::newRow("frame dump") << false << QSize(180, 320);
    }

    void recordingAFileCameraSession()
    {
        QFETCH(bool, movieOutput);
        QFETCH(QSize, size);
        if (!movieOutput)
            ProcessInfo::setOperatingSystemVersion({15, 0, 0});
        auto clip = FileCaptureDevice::create(kClip, CaptureDevicePosition::Front);
        QVERIFY(clip);
        CaptureDeviceRegistry::shared().registerDevice(clip);

        QString file;
        int64_t handled = 0;
        int64_t recorded = 0;
        {
            Session session;
            QVERIFY(session.configure());
            auto recorder = session.manager->saveVideoService();
            QCOMPARE(bool(std::dynamic_pointer_cast<ZMSaveVideoExService>(recorder)), movieOutput);
            QCOMPARE(bool(std::dynamic_pointer_cast<ZMSaveVideoService>(recorder)), !movieOutput);

            // The recorder gets each frame before the handler does: with the
            // frame dump, frame k's file exists when the handler sees frame k.
            std::atomic<int64_t> frames{0};
            std::atomic<bool> recorderFirst{true};
            const QString folder = documents + "/bright_fold/";
            session.manager->defineSampleBufferhandler([&](const SampleBuffer&) {
                const int64_t index = frames++;
                if (!movieOutput && !QFile::exists(folder + QStringLiteral("bf_sample_buffer_%1.dat").arg(index)))
                    recorderFirst = false;
            });
            session.manager->start();
            QTRY_VERIFY_WITH_TIMEOUT(frames.load() >= 110, 20000);

            std::atomic<bool> stopped{false};
            std::atomic<bool> fileDoneAtStop{false};
            session.manager->stopWithCompletion([&] {
                fileDoneAtStop = !session.delegate->savedErrors().empty();
                stopped = true;
            });
            QTRY_VERIFY_WITH_TIMEOUT(stopped.load(), 60000);
            session.manager->setSampleBufferDelegateQueue()->sync([] {});
            handled = frames.load();
            QVERIFY(recorderFirst.load());
            QCOMPARE(session.delegate->began.load(), 1);
            // The frame dump finishes its file before the stop completes. The
            // movie output completes the stop at once and finishes on its own
            // thread, which on a busy machine may or may not be done by then.
            if (!movieOutput)
                QVERIFY(fileDoneAtStop.load());

            const size_t reports = movieOutput ? 2 : 1;
            QTRY_COMPARE_WITH_TIMEOUT(session.delegate->savedErrors().size(), reports, 120000);
            for (const auto& error : session.delegate->savedErrors())
                QVERIFY2(!error, error ? qPrintable(error->localizedDescription()) : "");
            file = session.manager->videoFile();
            if (auto exService = std::dynamic_pointer_cast<ZMSaveVideoExService>(recorder)) {
                recorded = exService->videoFileOutput()->recordedFrameCount();
                // How many frames a loaded machine lets the encoder keep is
                // a benchmark figure (bench_capture); here the file must hold
                // exactly the frames the output says it recorded.
                QVERIFY(recorded > 0);
                QVERIFY(recorded <= exService->videoFileOutput()->offeredFrameCount());
            }
        }
        QCOMPARE(file, documents + "/bright_fold/ZMRecordedVideo.mp4");
        const auto result = probe(file);
        QVERIFY(result);
        QCOMPARE(result->codec, QStringLiteral("h264"));
        QCOMPARE(result->size, size);
        // The frame dump appends one more frame than it captured (an empty
        // one from the file after the last); the movie output keeps them all.
        QCOMPARE(int64_t(result->frames), movieOutput ? recorded : handled + 1);
        QVERIFY(!QFile::exists(documents + "/bright_fold/recompressed.mp4"));
    }

    void movieOutputRecorderReportsInTheDocumentedOrder()
    {
        struct Spy final : ZMSaveVideoServiceDelegate {
            void videoFlushingWillBegin() override { add("will-begin"); }
            void videoFlushingDidEndWithError(ErrorPtr error) override
            {
                add(error ? QStringLiteral("did-end %1").arg(error->code()) : QStringLiteral("did-end nil"));
            }
            void videoRecordingDidFinish(ErrorPtr error) override
            {
                add(error ? QStringLiteral("final %1").arg(error->code()) : QStringLiteral("final nil"));
            }
            void add(const QString& event)
            {
                zavo::MutexLocker lock(mutex);
                events << event;
            }
            QStringList seen()
            {
                zavo::MutexLocker lock(mutex);
                return events;
            }
            zavo::Mutex mutex;
            QStringList events ZAVO_GUARDED_BY(mutex);
        };
        auto camera = SyntheticCaptureDevice::create(
            {.formats = {SyntheticCaptureDevice::makeFormat("420v", 160, 288)}});
        auto session = CaptureSession::create();
        session->addInput(CaptureDeviceInput::deviceInputWithDevice(camera, nullptr));
        auto frames = CaptureVideoDataOutput::create();
        session->addOutput(frames);
        const auto connection = frames->connectionWithMediaType(MediaType::Video);
        auto spy = std::make_shared<Spy>();
        auto recorder = ZMSaveVideoExService::videoServiceWithDelegate(spy, 160, 288, 30);
        recorder->attachWithSession(session, connection);
        QCOMPARE(session->outputs().size(), size_t(2));
        QCOMPARE(recorder->videoFileOutput()->outputSettingsForConnection(connection).value(kVideoCodecKey).toString(),
                 QStringLiteral("avc1"));
        session->startRunning();

        const QString folder = documents + "/bright_fold";
        const QUrl url = QUrl::fromLocalFile(folder + "/ZMRecordedVideo.mp4");
        auto record = [&](int frameCount) {
            const int64_t before = camera->deliveredFrameCount();
            recorder->beginRecordWithFileURL(url);
            return QTest::qWaitFor([&] { return camera->deliveredFrameCount() >= before + frameCount; });
        };

        // Each recording starts from an empty folder.
        QDir().mkpath(folder);
        QVERIFY(writeFileAtomically(folder + "/left-over.txt", QByteArray("old")));
        QVERIFY(record(15));
        QVERIFY(!QFile::exists(folder + "/left-over.txt"));
        bool completed = false;
        recorder->endRecordWithCompletion([&] { completed = true; });
        // At once, without waiting for the file: its end is reported later,
        // from the output's thread (or already, on a busy machine).
        QVERIFY(completed);
        QCOMPARE(spy->seen().value(0), QStringLiteral("will-begin"));
        // The recording, then its recompression, and only then the end.
        QTRY_COMPARE_WITH_TIMEOUT(spy->seen(), (QStringList{"will-begin", "did-end nil", "did-end nil", "final nil"}),
                                  30000);
        QCOMPARE(probe(url.toLocalFile())->size, QSize(320, 180));

        // The capture manager stops the session first, then the recording:
        // the output finishes the file on its own thread as the session
        // stops, here well before the recorder is asked to end it. The
        // delegate still hears "will begin" first (its screen would
        // otherwise show the busy indicator after the end, for good).
        QVERIFY(record(15));
        session->stopRunning();
        QTRY_VERIFY(!recorder->videoFileOutput()->isRecording());
        QTRY_VERIFY(probe(url.toLocalFile()).has_value());
        recorder->endRecordWithCompletion({});
        QTRY_COMPARE_WITH_TIMEOUT(spy->seen().size(), 8, 30000);
        QCOMPARE(spy->seen().mid(4), (QStringList{"will-begin", "did-end nil", "did-end nil", "final nil"}));
        session->startRunning();

        // Below the compressor's version gate only the recording reports.
        ProcessInfo::setOperatingSystemVersion({15, 0, 0});
        QVERIFY(record(15));
        recorder->endRecordWithCompletion({});
        QTRY_COMPARE_WITH_TIMEOUT(spy->seen().size(), 11, 30000);
        QCOMPARE(spy->seen().mid(8), (QStringList{"will-begin", "did-end nil", "final nil"}));
        QCOMPARE(probe(url.toLocalFile())->size, QSize(160, 288));

        // Without a delegate: no report, no completion, no recompression.
        // Last, because the output tells the service of the file after it
        // stops counting as recording, and a delegate set again in between
        // would hear of it.
        ProcessInfo::resetOperatingSystemVersion();
        recorder->setDelegate({});
        QVERIFY(record(15));
        completed = false;
        recorder->endRecordWithCompletion([&] { completed = true; });
        QTRY_VERIFY(!recorder->videoFileOutput()->isRecording());
        QTRY_VERIFY(QFile::exists(url.toLocalFile()));
        // Once everything has wound down, nothing more was reported.
        const auto output = recorder->videoFileOutput();
        recorder.reset();
        session.reset();
        QTRY_VERIFY(!output->isRecording());
        QTRY_COMPARE_WITH_TIMEOUT(processThreadCount(), baselineThreads + 1, 30000);  // the output's own thread
        QVERIFY(!completed);
        QCOMPARE(spy->seen().size(), 11);
        QCOMPARE(probe(url.toLocalFile())->size, QSize(160, 288));
    }

    void unwritableDocumentsReportsErrors_data()
    {
        QTest::addColumn<bool>("movieOutput");
        QTest::newRow("movie output") << true;
        QTest::newRow("frame dump") << false;
    }

    void unwritableDocumentsReportsErrors()
    {
        QFETCH(bool, movieOutput);
        if (!movieOutput)
            ProcessInfo::setOperatingSystemVersion({15, 0, 0});
        // Tests run as root, so permissions stop nothing: a Documents folder
        // under a regular file cannot be created by anyone.
        const QString blocker = documents + "/blocker";
        QVERIFY(writeFileAtomically(blocker, QByteArray("not a folder")));
        setDocumentsDirectory(blocker + "/Documents");
        auto configuration = SyntheticCaptureDevice::Configuration{};
        configuration.formats = {SyntheticCaptureDevice::makeFormat("420v", 720, 1280)};
        CaptureDeviceRegistry::shared().registerDevice(SyntheticCaptureDevice::create(configuration));

        for (int i = 0; i < (movieOutput ? 2 : 1); ++i)
            QTest::ignoreMessage(QtWarningMsg,
                                 QRegularExpression(">>> Error while flushing video file <.*ZMRecordedVideo.mp4>: <.*>"));
        {
            Session session;
            QVERIFY(session.configure());
            std::atomic<int> frames{0};
            session.manager->defineSampleBufferhandler([&](const SampleBuffer&) { ++frames; });
            session.manager->start();
            QTRY_VERIFY(frames.load() >= 10);
            std::atomic<bool> stopped{false};
            session.manager->stopWithCompletion([&] { stopped = true; });
            QTRY_VERIFY_WITH_TIMEOUT(stopped.load(), 30000);
            QTRY_VERIFY_WITH_TIMEOUT(!session.delegate->savedErrors().empty(), 30000);
            QVERIFY(session.delegate->savedErrors().front());
            if (movieOutput) {
                // The recording failed, then so did its recompression.
                QTRY_COMPARE_WITH_TIMEOUT(session.delegate->savedErrors().size(), size_t(2), 30000);
                QCOMPARE(session.delegate->savedErrors()[1]->code(), 1001L);
                // The failed recording's report was already final.
                QCOMPARE(session.delegate->finals.load(), 1);
            } else {
                QCOMPARE(session.delegate->savedErrors().front()->code(), 1018L);
            }
            session.manager->setSampleBufferDelegateQueue()->sync([] {});
        }
        QVERIFY(!QFileInfo::exists(blocker + "/Documents"));
    }
};

QTEST_MAIN(TstCaptureRecording)
#include "tst_capture_recording.moc"
