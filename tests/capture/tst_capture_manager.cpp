// The capture manager against synthetic cameras: permission, configuration,
// format choice, frames, switching, preview layer, orientation, recorder
// callbacks, and a clean end.
#include "base/ThreadSafety.h"
#include "QueueBarriers.h"
#include "CameraTestSupport.h"

#include "capture/ZMCameraCaptureManager.h"
#include "camera/CaptureAuthorization_p.h"
#include "camera/CaptureVideoDataOutput_p.h"
#include "shell/DeviceScreen.h"
#include "shell/DeviceScreen_p.h"
#include "base/FileSystem.h"
#include "base/ProcessInfo_p.h"
#include "camera/synthetic/SyntheticCaptureDevice.h"

#include <QApplication>
#include <QTemporaryDir>
#include <QtTest>

#include <condition_variable>
#include <mutex>
#include <thread>

using namespace zavo;
using namespace zavo::platform;
using zavo::testing::processThreadCount;

Q_DECLARE_METATYPE(std::vector<zavo::platform::CaptureDeviceFormatPtr>)

namespace {

using Synthetic = SyntheticCaptureDevice;
using Position = CaptureDevicePosition;

std::shared_ptr<Synthetic> registerCamera(Synthetic::Configuration configuration)
{
    auto device = Synthetic::create(std::move(configuration));
    CaptureDeviceRegistry::shared().registerDevice(device);
    return device;
}

Synthetic::Configuration camera(const QString& id, Position position)
{
    Synthetic::Configuration configuration;
    configuration.uniqueID = id;
    configuration.localizedName = id;
    configuration.position = position;
    return configuration;
}

Synthetic::Configuration manualCamera(const QString& id, Position position)
{
    auto configuration = camera(id, position);
    configuration.frameSource = Synthetic::FrameSource::Manual;
    return configuration;
}

void configure(const std::shared_ptr<ZMCameraCaptureManager>& manager, Position position)
{
    std::atomic<int> calls{0};
    manager->configureWithCameraPosition(position, [&] { ++calls; });
    QTRY_COMPARE(calls.load(), 1);
    manager->captureSessionQueue()->sync([] {});
}

/// Waits until everything posted to the session queue so far has run.
void drain(const std::shared_ptr<ZMCameraCaptureManager>& manager) { manager->captureSessionQueue()->sync([] {}); }

/// Stops, waits for the completion, then for the last frame in flight.
bool stopAndWait(const std::shared_ptr<ZMCameraCaptureManager>& manager)
{
    std::atomic<bool> stopped{false};
    manager->stopWithCompletion([&] { stopped = true; });
    if (!QTest::qWaitFor([&] { return stopped.load(); }))
        return false;
    manager->setSampleBufferDelegateQueue()->sync([] {});
    return true;
}

std::shared_ptr<CaptureConnection> outputConnection(const std::shared_ptr<ZMCameraCaptureManager>& manager)
{
    const auto outputs = manager->session()->outputs();
    return outputs.empty() ? nullptr : outputs.front()->connectionWithMediaType(MediaType::Video);
}

class SpyDelegate final : public ZMCameraCaptureManagerDelegate {
public:
    bool shouldDeleteResultingVideo() override
    {
        ++deleteQuestions;
        return deleteVideo;
    }
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

    std::atomic<bool> deleteVideo{false};
    std::atomic<int> deleteQuestions{0};
    std::atomic<int> began{0};

private:
    zavo::Mutex mutex;
    std::vector<ErrorPtr> saved ZAVO_GUARDED_BY(mutex);
};

/// A policy that answers "granted" but whose status says otherwise, to see
/// that the manager reports the status and not the answer.
class GrantingButDeniedPolicy final : public CaptureAuthorizationPolicy {
public:
    AuthorizationStatus authorizationStatus() override { return status.load(); }
    void requestAccess(std::function<void(bool)> completion) override
    {
        status = AuthorizationStatus::Denied;
        completion(true);
    }
    std::atomic<AuthorizationStatus> status{AuthorizationStatus::NotDetermined};
};

/// Frames the handler saw; the handler can be held to make frames late.
struct HandlerProbe {
    zavo::Mutex mutex;
    std::condition_variable changed;
    std::vector<SampleBuffer> frames ZAVO_GUARDED_BY(mutex);
    bool holding ZAVO_GUARDED_BY(mutex) = false;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::atomic<bool> offQueue{false};

    SampleBufferHandler handler(const std::shared_ptr<ZMCameraCaptureManager>& manager)
    {
        auto queue = manager->setSampleBufferDelegateQueue();
        return [this, queue](const SampleBuffer& frame) {
            if (inside.fetch_add(1) != 0)
                overlapped = true;
            if (!queue->isCurrent())
                offQueue = true;
            zavo::MutexLocker lock(mutex);
            frames.push_back(frame);
            changed.notify_all();
            while (holding)
            mutex.wait(changed);
            inside.fetch_sub(1);
        };
    }
    size_t count()
    {
        zavo::MutexLocker lock(mutex);
        return frames.size();
    }
    void hold(bool on)
    {
        zavo::MutexLocker lock(mutex);
        holding = on;
        changed.notify_all();
    }
};

}  // namespace

class TstCaptureManager : public QObject {
    Q_OBJECT

    QTemporaryDir documents;
    int baselineThreads = 0;  // the process at rest

private slots:
    void initTestCase()
    {
        QVERIFY(documents.isValid());
        setDocumentsDirectory(documents.path());
        baselineThreads = processThreadCount();
    }

    /// Whatever a test started has ended once it is over.
    void cleanup()
    {
        QTRY_COMPARE(DispatchQueue::liveThreadCount(), 0);
        QTRY_COMPARE(processThreadCount(), baselineThreads);
    }

    void init()
    {
        CaptureDeviceRegistry::shared().setProviders({});
        CaptureDeviceRegistry::shared().unregisterAll();
        CaptureAuthorization::setPolicy(nullptr);
        screens::setMainScreenBoundsOverride(QRectF(0, 0, 320, 568));
        Device::setOrientation(DeviceOrientation::Portrait);
        ProcessInfo::resetOperatingSystemVersion();
    }

    void initialStateAndHelpers()
    {
        auto manager = ZMCameraCaptureManager::create();
        QVERIFY(!manager->orientationEnabled());
        QVERIFY(!manager->recordVideo());
        QCOMPARE(manager->fps(), 30.0);
        QCOMPARE(manager->frameWidth(), 720.0);
        QCOMPARE(manager->frameHeight(), 1280.0);
        QCOMPARE(manager->cameraPosition(), Position::Unspecified);
        QVERIFY(!manager->session());
        QVERIFY(!manager->delegate());
        QVERIFY(manager->videoFile().isEmpty());
        QCOMPARE(manager->captureSessionQueue()->label(), QStringLiteral("CaptureSessionQueue"));
        QCOMPARE(manager->setSampleBufferDelegateQueue()->label(), QStringLiteral("SampleBufferDelegateQueue"));
        const QVariantMap settings = manager->videoSettings();
        QCOMPARE(settings.size(), 1);
        QCOMPARE(settings.value(kPixelBufferPixelFormatTypeKey).toUInt(), 0x42475241u);
        QCOMPARE(FourCharCodetoString(0x34323076), QStringLiteral("420v"));
        QCOMPARE(FourCharCodetoString(0x42475241), QStringLiteral("BGRA"));
    }

    void permissionIsAnsweredLaterOnMainWithAFreshStatus_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<bool>("grants");
        QTest::addColumn<int>("expected");
        QTest::addColumn<int>("requests");
        QTest::newRow("denied") << 2 << true << 2 << 0;
        QTest::newRow("restricted") << 1 << true << 1 << 0;
        QTest::newRow("authorized") << 3 << false << 3 << 0;
        QTest::newRow("asked, granted") << 0 << true << 3 << 1;
        QTest::newRow("asked, refused") << 0 << false << 2 << 1;
    }

    void permissionIsAnsweredLaterOnMainWithAFreshStatus()
    {
        QFETCH(int, status);
        QFETCH(bool, grants);
        QFETCH(int, expected);
        QFETCH(int, requests);
        auto policy = std::make_shared<FixedCaptureAuthorizationPolicy>(AuthorizationStatus(status), grants);
        CaptureAuthorization::setPolicy(policy);
        std::vector<int> answers;
        bool onMain = false;
        ZMCameraCaptureManager::requestAccessForVideoWithCompletion([&](AuthorizationStatus answer) {
            answers.push_back(int(answer));
            onMain = DispatchQueue::main().isCurrent();
        });
        QVERIFY(answers.empty());  // never inside the call
        QTRY_COMPARE(answers.size(), size_t(1));
        QCOMPARE(answers.front(), expected);
        QVERIFY(onMain);
        QCOMPARE(policy->requestCount(), requests);
        QVERIFY(zavo::testing::flushMainQueue());  // a second answer would have landed
        QCOMPARE(answers.size(), size_t(1));
    }

    void permissionReportsTheStatusNotTheRequestAnswer()
    {
        CaptureAuthorization::setPolicy(std::make_shared<GrantingButDeniedPolicy>());
        int answer = -1;
        ZMCameraCaptureManager::requestAccessForVideoWithCompletion([&](AuthorizationStatus s) { answer = int(s); });
        QTRY_COMPARE(answer, int(AuthorizationStatus::Denied));
    }

    void stopOfASessionThatIsNotRunningCompletesAtOnce()
    {
        registerCamera(camera("front", Position::Front));
        auto manager = ZMCameraCaptureManager::create();
        bool completed = false;
        manager->stopWithCompletion([&] { completed = true; });
        QVERIFY(completed);  // unconfigured
        configure(manager, Position::Front);
        completed = false;
        manager->stopWithCompletion([&] { completed = true; });
        QVERIFY(completed);  // configured, never started
    }

    void configurationPicksTheCameraAndMirrorsOnlyTheFront_data()
    {
        QTest::addColumn<int>("requested");
        QTest::addColumn<QString>("device");
        QTest::addColumn<bool>("mirrored");
        QTest::newRow("front") << 2 << "front" << true;
        QTest::newRow("back") << 1 << "back" << false;
        QTest::newRow("unspecified looks up the front") << 0 << "front" << false;
    }

    void configurationPicksTheCameraAndMirrorsOnlyTheFront()
    {
        QFETCH(int, requested);
        QFETCH(QString, device);
        QFETCH(bool, mirrored);
        registerCamera(camera("back", Position::Back));
        registerCamera(camera("front", Position::Front));
        auto manager = ZMCameraCaptureManager::create();
        configure(manager, Position(requested));
        QCOMPARE(int(manager->cameraPosition()), requested);
        QCOMPARE(manager->camera()->uniqueID(), device);
        QCOMPARE(manager->session()->videoDevice(), manager->camera());
        auto connection = outputConnection(manager);
        QVERIFY(connection);
        QCOMPARE(connection->isVideoMirrored(), mirrored);
        QCOMPARE(connection->videoOrientation(), VideoOrientation::Portrait);
        QCOMPARE(manager->camera()->focusMode(), FocusMode::ContinuousAutoFocus);
    }

    void configurationFailuresLeaveAUsableManager_data()
    {
        QTest::addColumn<bool>("registerBack");
        QTest::addColumn<bool>("inputFails");
        QTest::addColumn<bool>("outputRefused");
        QTest::newRow("no back camera") << false << false << false;
        QTest::newRow("input fails") << true << true << false;
        QTest::newRow("output refused") << true << false << true;
    }

    void configurationFailuresLeaveAUsableManager()
    {
        QFETCH(bool, registerBack);
        QFETCH(bool, inputFails);
        QFETCH(bool, outputRefused);
        registerCamera(camera("front", Position::Front));
        if (registerBack) {
            auto configuration = camera("back", Position::Back);
            configuration.inputFails = inputFails;
            configuration.refusesVideoDataOutput = outputRefused;
            registerCamera(configuration);
        }
        auto manager = ZMCameraCaptureManager::create();
        configure(manager, Position::Back);
        auto session = manager->session();
        QVERIFY(session);
        QVERIFY(session->outputs().empty());
        QVERIFY(!manager->saveVideoService());
        QCOMPARE(manager->cameraPosition(), outputRefused ? Position::Back : Position::Unspecified);
        QCOMPARE(session->inputs().size(), size_t(outputRefused ? 1 : 0));

        // Start and stop still work and end.
        manager->start();
        drain(manager);
        QVERIFY(session->isRunning());
        QVERIFY(stopAndWait(manager));
    }

    void formatChoice_data()
    {
        QTest::addColumn<std::vector<CaptureDeviceFormatPtr>>("formats");
        QTest::addColumn<double>("screenHeight");
        QTest::addColumn<int>("chosen");  // index into formats, -1: none
        QTest::addColumn<QString>("preset");
        QTest::addColumn<int>("position");
        QTest::addColumn<QString>("logLine");
        QTest::addColumn<bool>("refusesSizePresets");

        auto f = [](const char(&code)[5], int w, int h, std::vector<FrameRateRange> r = {{1, 30}}) {
            return Synthetic::makeFormat(code, w, h, std::move(r));
        };
        QTest::newRow("latest qualifying 420v wins, fps is a ceiling")
            << std::vector{f("420v", 720, 1280), f("420v", 720, 1280), f("420f", 720, 1280),
                           f("420v", 720, 1280, {{1, 60}})}
            << 568.0 << 1 << CaptureSessionPreset::InputPriority << 2
            << "format <420v> width = <720> height = <1280> fps = <30.000>" << false;
        QTest::newRow("a format without frame rates passes")
            << std::vector{f("420v", 720, 1280), f("420v", 720, 1280, {})} << 568.0 << 1
            << CaptureSessionPreset::InputPriority << 2 << "format <420v> width = <720> height = <1280> fps = <0.000>" << false;
        QTest::newRow("only the first range counts")
            << std::vector{f("420v", 720, 1280, {{1, 60}, {1, 30}})} << 568.0 << -1
            << CaptureSessionPreset::Preset1280x720 << 2 << QString() << false;
        QTest::newRow("landscape formats fall back to 1280x720")
            << std::vector{f("420v", 1280, 720), f("420v", 640, 480)} << 568.0 << -1
            << CaptureSessionPreset::Preset1280x720 << 2 << QString() << false;
        QTest::newRow("a 480-point screen falls back to 640x480")
            << std::vector{f("420v", 1280, 720), f("420v", 640, 480)} << 480.0 << -1
            << CaptureSessionPreset::Preset640x480 << 2 << QString() << false;
        QTest::newRow("unsupported fallback clears the position")
            << std::vector{f("420v", 1920, 1080)} << 568.0 << -1 << CaptureSessionPreset::High << 0 << QString() << true;
    }

    void formatChoice()
    {
        QFETCH(std::vector<CaptureDeviceFormatPtr>, formats);
        QFETCH(double, screenHeight);
        QFETCH(int, chosen);
        QFETCH(QString, preset);
        QFETCH(int, position);
        QFETCH(QString, logLine);
        QFETCH(bool, refusesSizePresets);
        auto configuration = camera("front", Position::Front);
        configuration.formats = formats;
        if (refusesSizePresets)
            configuration.unsupportedPresets = {CaptureSessionPreset::Preset640x480, CaptureSessionPreset::Preset1280x720};
        auto device = registerCamera(configuration);
        screens::setMainScreenBoundsOverride(QRectF(0, 0, 320, screenHeight));
        if (!logLine.isEmpty())
            QTest::ignoreMessage(QtInfoMsg, qPrintable(logLine));
        auto manager = ZMCameraCaptureManager::create();
        configure(manager, Position::Front);
        QCOMPARE(manager->session()->sessionPreset(), preset);
        QCOMPARE(int(manager->cameraPosition()), position);
        QCOMPARE(device->activeFormat(), chosen >= 0 ? formats[size_t(chosen)] : formats.front());
        // Mirroring follows the request even when the position was cleared.
        QVERIFY(outputConnection(manager)->isVideoMirrored());
    }

    void focus()
    {
        auto configuration = camera("front", Position::Front);
        configuration.focusSupported = false;
        auto plain = registerCamera(configuration);
        auto manager = ZMCameraCaptureManager::create();
        configure(manager, Position::Front);
        QCOMPARE(plain->focusMode(), FocusMode::Locked);
        manager->setupFocus({0.1, 0.2}, plain);
        QCOMPARE(plain->focusPointOfInterest(), QPointF(0.5, 0.5));

        auto focusing = Synthetic::create(camera("other", Position::Back));
        manager->setupFocus({0.1, 0.2}, focusing);
        QCOMPARE(focusing->focusPointOfInterest(), QPointF(0.1, 0.2));
        QCOMPARE(focusing->focusMode(), FocusMode::Locked);  // the point alone
        manager->setupFocus({0.3, 0.3}, nullptr);
    }

    void framesReachTheHandlerInCaptureOrderOneAtATime()
    {
        auto device = registerCamera(camera("front", Position::Front));
        HandlerProbe probe;
        auto manager = ZMCameraCaptureManager::create();
        configure(manager, Position::Front);
        manager->defineSampleBufferhandler(probe.handler(manager));
        manager->start();
        QTRY_VERIFY(probe.count() >= 10);
        QVERIFY(stopAndWait(manager));
        QVERIFY(!device->isOpen());
        QVERIFY(!probe.overlapped.load());
        QVERIFY(!probe.offQueue.load());
        zavo::MutexLocker lock(probe.mutex);
        for (size_t i = 0; i < probe.frames.size(); ++i) {
            const auto& pixels = *probe.frames[i].imageBuffer();
            QCOMPARE(pixels.pixelFormat(), PixelFormat::BGRA32);
            QCOMPARE(QSize(pixels.width(), pixels.height()), QSize(720, 1280));
            if (i > 0)
                QVERIFY(probe.frames[i].presentationTimeStamp() > probe.frames[i - 1].presentationTimeStamp());
        }
    }

    void lateFramesAreDroppedNotQueued()
    {
        auto device = registerCamera(manualCamera("front", Position::Front));
        HandlerProbe probe;
        auto manager = ZMCameraCaptureManager::create();
        configure(manager, Position::Front);
        manager->defineSampleBufferhandler(probe.handler(manager));
        probe.hold(true);
        manager->start();
        drain(manager);
        for (int i = 0; i < 8; ++i)
            device->pushFrame(PixelBuffer::create(720, 1280, PixelFormat::NV12VideoRange));
        QTRY_COMPARE(device->deliveredFrameCount(), 8);
        QCOMPARE(probe.count(), size_t(1));
        probe.hold(false);
        manager->setSampleBufferDelegateQueue()->sync([] {});
        // The busy handler made seven frames late; none of them was kept.
        QCOMPARE(probe.count(), size_t(1));
        device->pushFrame(PixelBuffer::create(720, 1280, PixelFormat::NV12VideoRange));
        QTRY_COMPARE(probe.count(), size_t(2));
        QVERIFY(stopAndWait(manager));
    }

    void switchingCameras()
    {
        auto front = registerCamera(camera("front", Position::Front));
        auto back = registerCamera(camera("back", Position::Back));
        auto manager = ZMCameraCaptureManager::create();

        manager->switchCameraType();  // before configuration: nothing
        drain(manager);
        QVERIFY(!manager->session());

        configure(manager, Position::Front);
        manager->start();
        manager->switchCameraType();
        drain(manager);
        QCOMPARE(manager->cameraPosition(), Position::Back);
        QCOMPARE(manager->session()->videoDevice(), CaptureDevicePtr(back));
        QVERIFY(!outputConnection(manager)->isVideoMirrored());
        QCOMPARE(manager->camera(), CaptureDevicePtr(front));  // the switch leaves camera alone
        QVERIFY(back->isOpen());
        QVERIFY(!front->isOpen());

        manager->switchCameraType();
        drain(manager);
        QCOMPARE(manager->cameraPosition(), Position::Front);
        QVERIFY(outputConnection(manager)->isVideoMirrored());
        QVERIFY(front->isOpen());

        // No back camera any more: the switch fails and leaves no camera.
        back->disconnect();
        QTest::ignoreMessage(QtWarningMsg, "Error creating capture device input: No camera device");
        manager->switchCameraType();
        drain(manager);
        QCOMPARE(manager->cameraPosition(), Position::Unspecified);
        QVERIFY(manager->session()->inputs().empty());
        QVERIFY(!front->isOpen());
        QVERIFY(stopAndWait(manager));
    }

    void previewLayerLookup()
    {
        registerCamera(camera("front", Position::Front));
        auto manager = ZMCameraCaptureManager::create();

        QTest::ignoreMessage(QtWarningMsg, "Error: session not configurred!");
        QVERIFY(!manager->previewLayer());

        // Without a session: logged once, answered twice.
        std::vector<CaptureVideoPreviewLayerPtr> answers;
        zavo::Mutex mutex;
        QTest::ignoreMessage(QtWarningMsg, "Error: session not configurred!");
        manager->findPreviewLayerWithCompletion([&](CaptureVideoPreviewLayerPtr layer) {
            zavo::MutexLocker lock(mutex);
            answers.push_back(layer);
        });
        drain(manager);
        QCOMPARE(answers.size(), size_t(2));
        QVERIFY(!answers[0]);
        QVERIFY(answers[1]);
        QVERIFY(!answers[1]->session());
        answers.clear();

        configure(manager, Position::Front);
        CaptureVideoPreviewLayerPtr held;
        manager->findPreviewLayerWithCompletion([&](CaptureVideoPreviewLayerPtr layer) { held = layer; });
        drain(manager);
        QVERIFY(held);
        QCOMPARE(held->session(), manager->session());
        CaptureVideoPreviewLayerPtr again;
        manager->findPreviewLayerWithCompletion([&](CaptureVideoPreviewLayerPtr layer) { again = layer; });
        drain(manager);
        QCOMPARE(again, held);
        QCOMPARE(manager->previewLayer(), held);

        manager->updateLayerFrameWithRect(QRectF(0, 0, 375, 812));
        QCOMPARE(held->frame(), QRectF(0, 0, 375, 812));

        std::weak_ptr<CaptureVideoPreviewLayer> old = held;
        held.reset();
        again.reset();
        QVERIFY(old.expired());
        manager->updateLayerFrameWithRect(QRectF(0, 0, 1, 1));  // no layer: nothing
        manager->findPreviewLayerWithCompletion([&](CaptureVideoPreviewLayerPtr layer) { held = layer; });
        drain(manager);
        QVERIFY(held);
        QVERIFY(held->frame().isNull());
    }

    void orientationFollowsTheDeviceOnlyWhenEnabled_data()
    {
        QTest::addColumn<int>("device");
        QTest::addColumn<int>("video");
        QTest::newRow("unknown") << 0 << 1;
        QTest::newRow("portrait") << 1 << 1;
        QTest::newRow("upside down") << 2 << 1;
        QTest::newRow("landscape left") << 3 << 3;
        QTest::newRow("landscape right") << 4 << 4;
        QTest::newRow("face up") << 5 << 1;
        QTest::newRow("face down") << 6 << 1;
    }

    void orientationFollowsTheDeviceOnlyWhenEnabled()
    {
        QFETCH(int, device);
        QFETCH(int, video);
        registerCamera(camera("front", Position::Front));
        auto manager = ZMCameraCaptureManager::create();
        configure(manager, Position::Front);
        auto layer = manager->previewLayer();
        auto preview = layer->connection();
        auto output = outputConnection(manager);

        Device::setOrientation(DeviceOrientation(device));
        QCOMPARE(int(CaptureSessionHelpers::currentOrientation()), video);
        QCOMPARE(preview->videoOrientation(), VideoOrientation::Portrait);  // not enabled

        manager->setOrientationEnabled(true);
        Device::setOrientation(DeviceOrientation(device));
        QCOMPARE(int(preview->videoOrientation()), video);
        QCOMPARE(output->videoOrientation(), VideoOrientation::Portrait);  // only the preview turns
    }

    void recorderCallbacksReachTheDelegate()
    {
        auto manager = ZMCameraCaptureManager::create();
        auto delegate = std::make_shared<SpyDelegate>();
        const auto error = std::make_shared<const ErrorObject>("test", 7, QVariantMap{{kLocalizedDescriptionKey, "boom"}});

        // No delegate: the error is logged, nothing else happens.
        QTest::ignoreMessage(QtWarningMsg, ">>> Error while flushing video file <>: <Error Domain=test Code=7 \"boom\">");
        manager->videoFlushingDidEndWithError(error);
        manager->videoFlushingWillBegin();

        manager->setDelegate(delegate);
        manager->videoFlushingWillBegin();
        QCOMPARE(delegate->began.load(), 1);

        // Recording makes videoFile known; the file is then deleted on
        // request. (The camera refuses the frame output, so no recorder is
        // made and only these direct calls report.)
        auto refusing = camera("front", Position::Front);
        refusing.refusesVideoDataOutput = true;
        registerCamera(refusing);
        configure(manager, Position::Front);
        manager->setRecordVideo(true);
        manager->start();
        drain(manager);
        const QString file = manager->videoFile();
        QCOMPARE(file, documents.path() + "/bright_fold/ZMRecordedVideo.mp4");
        QVERIFY(stopAndWait(manager));

        QDir().mkpath(QFileInfo(file).path());
        QVERIFY(writeFileAtomically(file, QByteArray("video")));
        delegate->deleteVideo = true;
        const QString flushLine = QStringLiteral(">>> Error while flushing video file <%1>: <Error Domain=test Code=7 \"boom\">").arg(file);
        QTest::ignoreMessage(QtWarningMsg, qPrintable(flushLine));
        manager->videoFlushingDidEndWithError(error);
        QVERIFY(!QFile::exists(file));
        // A second report deletes again, which now fails and is logged; the
        // delegate still gets the recorder's own error.
        QTest::ignoreMessage(QtWarningMsg, qPrintable(flushLine));
        const QString deleteLine = QStringLiteral(">>> Error while deleting video file <%1>").arg(file);
        QTest::ignoreMessage(QtWarningMsg, qPrintable(deleteLine));
        manager->videoFlushingDidEndWithError(error);
        QTest::ignoreMessage(QtWarningMsg, qPrintable(deleteLine));
        manager->videoFlushingDidEndWithError(nullptr);
        const auto saved = delegate->savedErrors();
        QCOMPARE(saved.size(), size_t(3));
        QCOMPARE(saved[0], ErrorPtr(error));
        QCOMPARE(saved[1], ErrorPtr(error));
        QVERIFY(!saved[2]);
        QCOMPARE(delegate->deleteQuestions.load(), 3);
    }

    void cameraTroubleWhileRunningNeverHangsAStop()
    {
        auto configuration = camera("Flaky", Position::Front);
        configuration.vanishAfterFrames = 5;
        registerCamera(configuration);
        HandlerProbe probe;
        auto manager = ZMCameraCaptureManager::create();
        configure(manager, Position::Front);
        manager->defineSampleBufferhandler(probe.handler(manager));
        QTest::ignoreMessage(QtWarningMsg, "Capture from <Flaky> ended: the device was disconnected");
        manager->start();
        QTRY_VERIFY(manager->session()->runtimeError());
        QCOMPARE(manager->session()->capturedFrameCount(), int64_t(5));
        // How many reach the handler depends on its speed (late frames are
        // dropped); that every frame is either handled or dropped does not.
        auto output = std::dynamic_pointer_cast<CaptureVideoDataOutput>(manager->session()->outputs().front());
        QVERIFY(output);
        QTRY_COMPARE(output->deliveredFrameCount() + output->droppedFrameCount(), int64_t(5));
        manager->setSampleBufferDelegateQueue()->sync([] {});
        QCOMPARE(int64_t(probe.count()), output->deliveredFrameCount());
        QVERIFY(probe.count() >= 1);
        QVERIFY(stopAndWait(manager));

        auto silentConfiguration = camera("Silent", Position::Back);
        silentConfiguration.stopAfterFrames = 2;
        auto silent = registerCamera(silentConfiguration);
        configure(manager, Position::Back);
        manager->start();
        QTRY_COMPARE(silent->deliveredFrameCount(), 2);
        QVERIFY(stopAndWait(manager));
        QVERIFY(!silent->isOpen());
    }

    void releasingTheManagerLeavesNothingBehind()
    {
        auto device = registerCamera(camera("front", Position::Front));
        CaptureVideoPreviewLayerPtr layer;  // the screen keeps its layer
        HandlerProbe probe;
        {
            auto manager = ZMCameraCaptureManager::create();
            configure(manager, Position::Front);
            manager->findPreviewLayerWithCompletion([&](CaptureVideoPreviewLayerPtr l) { layer = l; });
            manager->defineSampleBufferhandler(probe.handler(manager));
            manager->start();
            QTRY_VERIFY(probe.count() >= 3);
            QVERIFY(device->isOpen());
            // Released while running, without a stop (the probe must not be
            // called once this scope is left).
            manager->defineSampleBufferhandler({});
            manager->setSampleBufferDelegateQueue()->sync([] {});
            manager.reset();
        }
        QTRY_VERIFY(!device->isOpen());
        QTRY_COMPARE(DispatchQueue::liveThreadCount(), 0);
        QTRY_COMPARE(processThreadCount(), baselineThreads);
        QVERIFY(layer);
        QVERIFY(!layer->session());
    }
};

QTEST_MAIN(TstCaptureManager)
#include "tst_capture_manager.moc"
