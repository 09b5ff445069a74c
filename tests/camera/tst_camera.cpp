// The camera platform: discovery, devices, sessions, the frame output, the
// preview, permission and orientation, driven through synthetic cameras.
#include "base/ThreadSafety.h"
#include "QueueBarriers.h"
#include "CameraTestSupport.h"

#include "camera/CaptureAuthorization_p.h"
#include "camera/CaptureDevice.h"
#include "camera/CaptureSession.h"
#include "camera/CaptureVideoDataOutput_p.h"
#include "camera/CaptureVideoPreviewLayer.h"
#include "camera/OrientedFrameConverter_p.h"
#include "shell/CaptureVideoPreviewView_p.h"
#include "shell/DeviceScreen.h"
#include "shell/DeviceScreen_p.h"
#include "base/DispatchQueue.h"
#include "base/NotificationCenter.h"
#include "camera/synthetic/SyntheticCaptureDevice.h"
#include "camera/v4l2/Enumeration_p.h"
#include "camera/v4l2/Provider_p.h"

#include <QApplication>
#include <QtTest>

#include <linux/videodev2.h>

#include <condition_variable>
#include <mutex>
#include <thread>

using namespace zavo::platform;
using zavo::testing::greenAt;
using zavo::testing::makeHalfWhiteFrame;
using zavo::testing::processThreadCount;

namespace {

using Synthetic = SyntheticCaptureDevice;

std::shared_ptr<Synthetic> registerCamera(Synthetic::Configuration configuration)
{
    auto device = Synthetic::create(std::move(configuration));
    CaptureDeviceRegistry::shared().registerDevice(device);
    return device;
}

Synthetic::Configuration manualCamera(const QString& id, int width = 64, int height = 32)
{
    Synthetic::Configuration configuration;
    configuration.uniqueID = id;
    configuration.frameSource = Synthetic::FrameSource::Manual;
    configuration.formats = {Synthetic::makeFormat("420v", width, height)};
    return configuration;
}

/// Records what reaches it; can hold the delegate queue until released.
class RecordingDelegate final : public CaptureVideoDataOutputSampleBufferDelegate {
public:
    void captureOutputDidOutputSampleBuffer(CaptureVideoDataOutput&, const SampleBuffer& sampleBuffer,
                                            CaptureConnection&) override
    {
        zavo::MutexLocker lock(mutex);
        frames.push_back(sampleBuffer);
        changed.notify_all();
        while (holding)
            mutex.wait(changed);
    }

    void hold()
    {
        zavo::MutexLocker lock(mutex);
        holding = true;
    }
    void release()
    {
        zavo::MutexLocker lock(mutex);
        holding = false;
        changed.notify_all();
    }
    std::vector<SampleBuffer> received()
    {
        zavo::MutexLocker lock(mutex);
        return frames;
    }
    size_t count() { return received().size(); }

private:
    zavo::Mutex mutex;
    std::condition_variable changed;
    std::vector<SampleBuffer> frames ZAVO_GUARDED_BY(mutex);
    bool holding ZAVO_GUARDED_BY(mutex) = false;
};

struct RunningSession {
    CaptureSessionPtr session;
    std::shared_ptr<CaptureVideoDataOutput> output;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    DispatchQueuePtr queue = DispatchQueue::create(QStringLiteral("test.frames"));

    explicit RunningSession(const CaptureDevicePtr& device)
    {
        session = CaptureSession::create();
        session->addInput(CaptureDeviceInput::deviceInputWithDevice(device, nullptr));
        output = CaptureVideoDataOutput::create();
        output->setSampleBufferDelegate(delegate, queue);
        session->addOutput(output);
    }
};

}  // namespace

class TstCamera : public QObject {
    Q_OBJECT

    int baselineThreads = 0;  // the process at rest

private slots:
    void initTestCase() { baselineThreads = processThreadCount(); }

    /// Sessions, cameras and queues of a test are all gone once it is over.
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
    }

    /// The data output must never pass the camera's own buffer on (its
    /// delegate may keep frames); the preview shows upright BGRA frames as
    /// they come and needs every other one in BGRA.
    void orientedConverterKeepsOrCopiesUprightFramesAsEachConsumerNeeds()
    {
        using Upright = OrientedFrameConverter::Upright;
        CaptureConnection connection;  // portrait, unmirrored
        auto nv12 = PixelBuffer::create(4, 2, PixelFormat::NV12VideoRange);
        auto bgra = PixelBuffer::create(4, 2, PixelFormat::BGRA32);
        std::memset(bgra->baseAddress(), 0x3c, bgra->bytesPerRow() * 2);
        OrientedFrameConverter converter;
        const auto back = CaptureDevicePosition::Back;

        QCOMPARE(converter.convert(bgra, &connection, back, PixelFormat::BGRA32, Upright::Kept), bgra);
        const auto shown = converter.convert(nv12, &connection, back, PixelFormat::BGRA32, Upright::Kept);
        QVERIFY(shown && shown != nv12);
        QCOMPARE(shown->pixelFormat(), PixelFormat::BGRA32);
        const auto copy = converter.convert(bgra, &connection, back, PixelFormat::BGRA32, Upright::Copied);
        QVERIFY(copy && copy != bgra);
        QCOMPARE(copy->baseAddress()[0], uint8_t(0x3c));
        QCOMPARE(converter.convert(nullptr, &connection, back, PixelFormat::BGRA32, Upright::Copied), nullptr);
    }

    /// A turn swaps the sides, a front camera with automatic mirroring comes
    /// out mirrored, and the description the data output stamps on its
    /// samples follows a camera that changes size.
    void orientedConverterTurnsMirrorsAndDescribesWhatItMade()
    {
        CaptureConnection connection;
        connection.setVideoOrientation(VideoOrientation::LandscapeLeft);  // 90 degrees clockwise
        auto source = PixelBuffer::create(6, 4, PixelFormat::BGRA32);
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 6; ++x)
                source->baseAddress()[y * source->bytesPerRow() + x * 4] = uint8_t(10 * y + x);
        OrientedFrameConverter converter;
        auto turned = converter.convert(source, &connection, CaptureDevicePosition::Back, PixelFormat::BGRA32,
                                        OrientedFrameConverter::Upright::Copied);
        QVERIFY(turned);
        QCOMPARE(QSize(turned->width(), turned->height()), QSize(4, 6));
        QCOMPARE(turned->baseAddress()[0], uint8_t(30));  // bottom-left corner comes to the top left
        QCOMPARE(QSize(converter.description()->width(), converter.description()->height()), QSize(4, 6));

        connection.setVideoOrientation(VideoOrientation::Portrait);
        connection.setAutomaticallyAdjustsVideoMirroring(true);
        auto mirrored = converter.convert(source, &connection, CaptureDevicePosition::Front, PixelFormat::BGRA32,
                                          OrientedFrameConverter::Upright::Copied);
        QVERIFY(mirrored);
        QCOMPARE(mirrored->baseAddress()[0], uint8_t(5));  // the top row's last pixel
        QCOMPARE(QSize(converter.description()->width(), converter.description()->height()), QSize(6, 4));
    }

    void discoveryListsCamerasInRegistrationOrderByPosition()
    {
        auto front1 = registerCamera({.uniqueID = "a", .position = CaptureDevicePosition::Front});
        auto back = registerCamera({.uniqueID = "b", .position = CaptureDevicePosition::Back});
        auto front2 = registerCamera({.uniqueID = "c", .position = CaptureDevicePosition::Front});
        const QStringList types{kCaptureDeviceTypeBuiltInWideAngleCamera};

        auto fronts = CaptureDeviceDiscoverySession::discoverySession(types, MediaType::Video,
                                                                      CaptureDevicePosition::Front)
                          .devices();
        QCOMPARE(fronts, (std::vector<CaptureDevicePtr>{front1, front2}));
        QCOMPARE(CaptureDeviceDiscoverySession::discoverySession(types, MediaType::Video,
                                                                 CaptureDevicePosition::Unspecified)
                     .devices()
                     .size(),
                 size_t(3));
        QVERIFY(CaptureDeviceDiscoverySession::discoverySession(types, MediaType::Audio, CaptureDevicePosition::Front)
                    .devices()
                    .empty());
        QVERIFY(CaptureDeviceDiscoverySession::discoverySession({"OtherType"}, MediaType::Video,
                                                                CaptureDevicePosition::Front)
                    .devices()
                    .empty());

        // Re-registering an ID replaces the camera in its place; a vanished
        // camera leaves discovery.
        auto replacement = registerCamera({.uniqueID = "a", .position = CaptureDevicePosition::Front});
        front2->disconnect();
        QVERIFY(!front2->isConnected());
        QCOMPARE(CaptureDeviceDiscoverySession::discoverySession(types, MediaType::Video,
                                                                 CaptureDevicePosition::Front)
                     .devices(),
                 (std::vector<CaptureDevicePtr>{replacement}));
    }

    void v4l2FormatsAndPositionsMapOntoDeviceTerms()
    {
        QCOMPARE(v4l2::mediaSubTypeFor(V4L2_PIX_FMT_NV12, false), uint32_t(PixelFormat::NV12VideoRange));
        QCOMPARE(v4l2::mediaSubTypeFor(V4L2_PIX_FMT_NV12, true), uint32_t(PixelFormat::NV12FullRange));
        QCOMPARE(v4l2::mediaSubTypeFor(V4L2_PIX_FMT_YUYV, false), fourCharCode("YUYV"));
        QCOMPARE(v4l2::mediaSubTypeFor(V4L2_PIX_FMT_MJPEG, false), fourCharCode("MJPG"));
        QCOMPARE(v4l2::positionForCard("Integrated Camera: Integrated C"), CaptureDevicePosition::Front);
        QCOMPARE(v4l2::positionForCard("HD Webcam C920"), CaptureDevicePosition::Unspecified);
    }

    void realWebcamIsListedWhenPresent()
    {
        CaptureDeviceRegistry::shared().setProviders(defaultCaptureDeviceProviders());
        const auto devices = CaptureDeviceRegistry::shared().allDevices();
        if (devices.empty())
            QSKIP("no V4L2 capture device on this machine");
        for (const auto& device : devices) {
            QVERIFY(!device->formats().empty());
            QVERIFY(device->activeFormat());
        }
        // A real camera streams BGRA frames through a session.
        RunningSession run(devices.front());
        run.session->startRunning();
        if (run.session->runtimeError())
            QSKIP("the V4L2 camera is busy or cannot stream");
        QTRY_VERIFY_WITH_TIMEOUT(run.delegate->count() >= 3, 10000);
        run.session->stopRunning();
        QCOMPARE(run.delegate->received().front().imageBuffer()->pixelFormat(), PixelFormat::BGRA32);
    }

    void configurationNeedsTheLockAndHonoursFaults()
    {
        auto formats = std::vector{Synthetic::makeFormat("420v", 640, 480), Synthetic::makeFormat("420f", 1280, 720),
                                   Synthetic::makeFormat("420v", 720, 1280)};
        auto device = Synthetic::create({.formats = formats});
        QCOMPARE(device->activeFormat(), formats[0]);

        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("set without the configuration lock"));
        device->setActiveFormat(formats[2]);
        QCOMPARE(device->activeFormat(), formats[0]);
        QVERIFY(device->lockForConfiguration());
        device->setActiveFormat(formats[2]);
        device->setFocusMode(FocusMode::ContinuousAutoFocus);
        device->setFocusPointOfInterest({0.25, 0.75});
        device->unlockForConfiguration();
        QCOMPARE(device->activeFormat(), formats[2]);
        QCOMPARE(device->focusMode(), FocusMode::ContinuousAutoFocus);
        QCOMPARE(device->focusPointOfInterest(), QPointF(0.25, 0.75));

        // Size presets fit either way round, in the camera's own orientation;
        // unknown presets are refused.
        QVERIFY(device->supportsSessionPreset(CaptureSessionPreset::Preset1280x720));
        QVERIFY(device->supportsSessionPreset(CaptureSessionPreset::Preset640x480));
        QCOMPARE(device->formatForSessionPreset(CaptureSessionPreset::Preset1280x720), formats[2]);
        QCOMPARE(device->formatForSessionPreset(CaptureSessionPreset::Preset640x480), formats[0]);
        QCOMPARE(device->formatForSessionPreset(CaptureSessionPreset::InputPriority), formats[2]);
        QVERIFY(!device->supportsSessionPreset("1920x1080"));

        auto stubborn = Synthetic::create({.focusSupported = false, .lockFails = true});
        ErrorPtr error;
        QVERIFY(!stubborn->lockForConfiguration(&error));
        QVERIFY(error);
        QVERIFY(!stubborn->isFocusModeSupported(FocusMode::ContinuousAutoFocus));
        QVERIFY(stubborn->isFocusModeSupported(FocusMode::Locked));

        auto refusing = Synthetic::create({.inputFails = true});
        QVERIFY(!CaptureDeviceInput::deviceInputWithDevice(refusing, &error));
        QCOMPARE(error->code(), long(CaptureErrorCode::InputRefused));
        QVERIFY(!CaptureDeviceInput::deviceInputWithDevice(nullptr, &error));
    }

    void sessionTakesOneCameraAndOutputsTheCameraAccepts()
    {
        auto session = CaptureSession::create();
        auto first = CaptureDeviceInput::deviceInputWithDevice(Synthetic::create({.uniqueID = "1"}), nullptr);
        auto second = CaptureDeviceInput::deviceInputWithDevice(Synthetic::create({.uniqueID = "2"}), nullptr);
        auto output = CaptureVideoDataOutput::create();
        QVERIFY(session->canAddOutput(output));
        session->addOutput(output);
        QVERIFY(!output->connectionWithMediaType(MediaType::Video));  // no camera yet
        QVERIFY(session->canAddInput(first));
        session->addInputWithNoConnections(first);
        QVERIFY(!session->canAddInput(second));
        QVERIFY(output->connectionWithMediaType(MediaType::Video));
        QVERIFY(!CaptureSession::create()->canAddOutput(output));  // already in a session

        auto refusing = CaptureSession::create();
        refusing->addInput(CaptureDeviceInput::deviceInputWithDevice(
            Synthetic::create({.refusesVideoDataOutput = true}), nullptr));
        QVERIFY(!refusing->canAddOutput(CaptureVideoDataOutput::create()));
    }

    void runningSessionDeliversBgraFramesAndClosesTheCameraOnStop()
    {
        auto device = Synthetic::create({.formats = {Synthetic::makeFormat("420v", 96, 160, {{1, 60}})}});
        {
            RunningSession run(device);
            QVERIFY(!device->isOpen());
            run.session->startRunning();
            QVERIFY(run.session->isRunning());
            QVERIFY(device->isOpen());
            QTRY_VERIFY(run.delegate->count() >= 5);
            run.session->stopRunning();
            QVERIFY(!run.session->isRunning());
            QVERIFY(!device->isOpen());
            QVERIFY(!run.session->isCapturing());

            const auto frames = run.delegate->received();
            for (size_t i = 0; i < frames.size(); ++i) {
                const auto& pixels = *frames[i].imageBuffer();
                QCOMPARE(pixels.pixelFormat(), PixelFormat::BGRA32);
                QCOMPARE(pixels.width(), 96);
                QCOMPARE(pixels.height(), 160);
                if (i > 0)
                    QVERIFY(frames[i].presentationTimeStamp() > frames[i - 1].presentationTimeStamp());
            }
            QCOMPARE(frames.front().presentationTimeStamp(), MediaTime::zero());
        }
        QTRY_COMPARE(processThreadCount(), baselineThreads);
    }

    void connectionTurnsAndMirrorsFrames_data()
    {
        QTest::addColumn<int>("orientation");
        QTest::addColumn<bool>("mirrored");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<bool>("whiteOnRight");
        QTest::addColumn<bool>("whiteAtBottom");
        // The source is 64x32 with its right half white.
        QTest::newRow("portrait") << int(VideoOrientation::Portrait) << false << QSize(64, 32) << true << false;
        QTest::newRow("portrait mirrored") << int(VideoOrientation::Portrait) << true << QSize(64, 32) << false << false;
        QTest::newRow("upside down") << int(VideoOrientation::PortraitUpsideDown) << false << QSize(64, 32) << false
                                     << false;
        QTest::newRow("landscape left") << int(VideoOrientation::LandscapeLeft) << false << QSize(32, 64) << false << true;
        QTest::newRow("landscape right") << int(VideoOrientation::LandscapeRight) << false << QSize(32, 64) << false
                                         << false;
    }

    void connectionTurnsAndMirrorsFrames()
    {
        QFETCH(int, orientation);
        QFETCH(bool, mirrored);
        QFETCH(QSize, size);
        QFETCH(bool, whiteOnRight);
        QFETCH(bool, whiteAtBottom);
        auto device = Synthetic::create(manualCamera("turn"));
        RunningSession run(device);
        auto connection = run.output->connectionWithMediaType(MediaType::Video);
        connection->setVideoOrientation(VideoOrientation(orientation));
        connection->setVideoMirrored(mirrored);
        run.session->startRunning();
        device->pushFrame(makeHalfWhiteFrame(64, 32));
        QTRY_COMPARE(run.delegate->count(), size_t(1));
        run.session->stopRunning();

        const auto& pixels = *run.delegate->received().front().imageBuffer();
        QCOMPARE(QSize(pixels.width(), pixels.height()), size);
        if (size.width() > size.height()) {
            QCOMPARE(greenAt(pixels, size.width() - 1, 0) > 128, whiteOnRight);
            QCOMPARE(greenAt(pixels, 0, 0) > 128, !whiteOnRight);
        } else {
            QCOMPARE(greenAt(pixels, 0, size.height() - 1) > 128, whiteAtBottom);
            QCOMPARE(greenAt(pixels, 0, 0) > 128, !whiteAtBottom);
        }
    }

    void lateFramesAreDroppedNotQueued()
    {
        auto device = Synthetic::create(manualCamera("late"));
        RunningSession run(device);
        run.delegate->hold();
        run.session->startRunning();
        device->pushFrame(makeHalfWhiteFrame(64, 32), MediaTime::make(1, 30));
        QTRY_COMPARE(run.delegate->count(), size_t(1));
        // The delegate is busy: these arrive late and are dropped.
        for (int i = 2; i <= 6; ++i)
            device->pushFrame(makeHalfWhiteFrame(64, 32), MediaTime::make(i, 30));
        QTRY_COMPARE(device->deliveredFrameCount(), 6);
        QTRY_COMPARE(run.output->droppedFrameCount(), int64_t(5));
        run.delegate->release();
        run.queue->sync([] {});  // the delivery has finished: the slot is free
        device->pushFrame(makeHalfWhiteFrame(64, 32), MediaTime::make(7, 30));
        QTRY_COMPARE(run.delegate->count(), size_t(2));
        run.session->stopRunning();
        // Nothing stale was waiting: the second frame delivered is the one
        // captured after the delegate got free.
        const auto frames = run.delegate->received();
        QCOMPARE(frames.size(), size_t(2));
        QVERIFY(frames[1].presentationTimeStamp() > frames[0].presentationTimeStamp());
        QCOMPARE(run.output->deliveredFrameCount(), int64_t(2));
    }

    void cameraTroubleIsLoggedAndNeverHangsAStop()
    {
        {
            // Vanishes after three frames.
            auto device = Synthetic::create({.localizedName = "Flaky", .vanishAfterFrames = 3});
            RunningSession run(device);
            QTest::ignoreMessage(QtWarningMsg, "Capture from <Flaky> ended: the device was disconnected");
            run.session->startRunning();
            QTRY_VERIFY(run.session->runtimeError());
            QVERIFY(run.session->isRunning());
            QVERIFY(!device->isConnected());
            run.session->stopRunning();
            QCOMPARE(run.session->capturedFrameCount(), int64_t(3));
        }
        {
            // Goes silent: stopping must not wait for a frame.
            auto device = Synthetic::create({.stopAfterFrames = 2});
            RunningSession run(device);
            run.session->startRunning();
            QTRY_COMPARE(device->deliveredFrameCount(), 2);
            run.session->stopRunning();
            QVERIFY(!device->isOpen());
        }
        {
            auto device = Synthetic::create({.localizedName = "Broken", .openFails = true});
            RunningSession run(device);
            QTest::ignoreMessage(QtWarningMsg, "Cannot start capture from <Broken>: Cannot open Broken");
            run.session->startRunning();
            QVERIFY(run.session->runtimeError());
            QVERIFY(!run.session->isCapturing());
            run.session->stopRunning();
        }
        {
            // A running session that is simply dropped stops itself.
            auto device = Synthetic::create();
            RunningSession run(device);
            run.session->startRunning();
            QVERIFY(device->isOpen());
            run.session.reset();
            run.output.reset();
            QVERIFY(!device->isOpen());
        }
        QTRY_COMPARE(processThreadCount(), baselineThreads);
    }

    void cameraSwitchWhileRunningKeepsTimeGoingForward()
    {
        auto first = Synthetic::create({.uniqueID = "first", .formats = {Synthetic::makeFormat("420v", 32, 32, {{1, 60}})}});
        auto second = Synthetic::create({.uniqueID = "second", .formats = {Synthetic::makeFormat("420v", 32, 32, {{1, 60}})}});
        RunningSession run(first);
        run.session->startRunning();
        QTRY_VERIFY(run.delegate->count() >= 3);
        run.session->beginConfiguration();
        run.session->removeInput(run.session->inputs().front());
        run.session->addInput(CaptureDeviceInput::deviceInputWithDevice(second, nullptr));
        run.session->commitConfiguration();
        QVERIFY(!first->isOpen());
        QVERIFY(second->isOpen());
        const size_t before = run.delegate->count();
        QTRY_VERIFY(run.delegate->count() >= before + 3);
        run.session->stopRunning();
        const auto frames = run.delegate->received();
        for (size_t i = 1; i < frames.size(); ++i)
            QVERIFY(frames[i].presentationTimeStamp() > frames[i - 1].presentationTimeStamp());
    }

    void previewLayerShowsTheNewestFrame()
    {
        auto device = Synthetic::create(manualCamera("preview"));
        auto session = CaptureSession::create();
        auto layer = CaptureVideoPreviewLayer::layerWithSession(session);
        QVERIFY(!layer->connection());
        session->addInput(CaptureDeviceInput::deviceInputWithDevice(device, nullptr));
        QVERIFY(layer->connection());
        QCOMPARE(layer->videoGravity(), CaptureVideoPreviewLayer::VideoGravity::ResizeAspectFill);

        QWidget window;
        window.resize(200, 300);
        auto* view = new CaptureVideoPreviewView(layer, &window);
        window.show();
        layer->setFrame(QRectF(10, 20, 100, 150));
        QTRY_COMPARE(view->geometry(), QRect(10, 20, 100, 150));

        session->startRunning();
        // Twenty frames arrive while the GUI thread is busy (it handles no
        // events until they are all in): the view paints the newest one, not
        // a backlog of twenty.
        const int paintedBefore = view->paintedFrameCount();
        for (int i = 0; i < 20; ++i)
            device->pushFrame(makeHalfWhiteFrame(64, 32));
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (layer->receivedFrameCount() < 20 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        QCOMPARE(layer->receivedFrameCount(), int64_t(20));
        QTRY_VERIFY(view->paintedFrameCount() > paintedBefore);
        // Any late paint lands once the frames' hops and the update requests
        // they posted have run.
        QVERIFY(zavo::testing::flushQueues({&DispatchQueue::main()}));
        // At most a frame caught mid-conversion besides the newest.
        QVERIFY2(view->paintedFrameCount() - paintedBefore <= 2,
                 qPrintable(QString::number(view->paintedFrameCount() - paintedBefore)));
        QCOMPARE(layer->newestFrame().position, CaptureDevicePosition::Front);
        session->stopRunning();

        // The layer does not keep the session (and its camera) alive.
        std::weak_ptr<CaptureSession> weakSession = session;
        session.reset();
        QVERIFY(weakSession.expired());
        QVERIFY(!layer->connection());
    }

    void aspectFillCropsAndAspectFitLetterboxes()
    {
        QRectF source;
        QRectF target;
        CaptureVideoPreviewView::placeImage({720, 1280}, {0, 0, 400, 400},
                                            CaptureVideoPreviewLayer::VideoGravity::ResizeAspectFill, source, target);
        QCOMPARE(target, QRectF(0, 0, 400, 400));
        QCOMPARE(source, QRectF(0, 280, 720, 720));
        CaptureVideoPreviewView::placeImage({720, 1280}, {0, 0, 400, 400},
                                            CaptureVideoPreviewLayer::VideoGravity::ResizeAspect, source, target);
        QCOMPARE(source, QRectF(0, 0, 720, 1280));
        QCOMPARE(target, QRectF(87.5, 0, 225, 400));
    }

    void permissionPolicies()
    {
        // The default policy: any openable camera authorizes; none restricts.
        QCOMPARE(CaptureAuthorization::authorizationStatusForMediaType(MediaType::Video), AuthorizationStatus::Restricted);
        registerCamera({});
        QCOMPARE(CaptureAuthorization::authorizationStatusForMediaType(MediaType::Video), AuthorizationStatus::Authorized);

        auto policy = std::make_shared<FixedCaptureAuthorizationPolicy>(AuthorizationStatus::NotDetermined, false);
        CaptureAuthorization::setPolicy(policy);
        std::atomic<int> answer{-1};
        std::atomic<bool> answeredOnCaller{true};
        const auto caller = std::this_thread::get_id();
        CaptureAuthorization::requestAccessForMediaType(MediaType::Video, [&](bool granted) {
            answeredOnCaller = std::this_thread::get_id() == caller;
            answer = granted;
        });
        QTRY_COMPARE(answer.load(), 0);
        QVERIFY(!answeredOnCaller.load());
        QCOMPARE(CaptureAuthorization::authorizationStatusForMediaType(MediaType::Video), AuthorizationStatus::Denied);
        QCOMPARE(policy->requestCount(), 1);
        CaptureAuthorization::setPolicy(nullptr);
    }

    void screenRotationIsTheDeviceOrientation_data()
    {
        QTest::addColumn<QString>("platform");
        QTest::addColumn<int>("native");
        QTest::addColumn<int>("reported");
        QTest::addColumn<int>("device");
        const int primary = Qt::PrimaryOrientation, portrait = Qt::PortraitOrientation,
                  landscape = Qt::LandscapeOrientation, invertedPortrait = Qt::InvertedPortraitOrientation,
                  invertedLandscape = Qt::InvertedLandscapeOrientation;
        const int upright = int(DeviceOrientation::Portrait), right = int(DeviceOrientation::LandscapeRight),
                  left = int(DeviceOrientation::LandscapeLeft), down = int(DeviceOrientation::PortraitUpsideDown);
        // xcb calls every unrotated output Landscape, wide or tall.
        QTest::newRow("xcb unrotated monitor") << "xcb" << primary << landscape << upright;
        QTest::newRow("xcb rotate left") << "xcb" << primary << portrait << right;
        QTest::newRow("xcb rotate right") << "xcb" << primary << invertedPortrait << left;
        QTest::newRow("xcb inverted") << "xcb" << primary << invertedLandscape << down;
        QTest::newRow("wayland normal") << "wayland" << primary << landscape << upright;
        QTest::newRow("wayland-egl 90") << "wayland-egl" << primary << portrait << right;
        // Plug-ins that report only the screen's shape: never a rotation.
        QTest::newRow("offscreen") << "offscreen" << primary << primary << upright;
        QTest::newRow("eglfs tall panel") << "eglfs" << primary << portrait << upright;
        QTest::newRow("linuxfb wide panel") << "linuxfb" << primary << landscape << upright;
        // A plug-in that knows its native orientation is taken at its word.
        QTest::newRow("tablet turned left") << "android" << portrait << landscape << left;
        QTest::newRow("tablet upright") << "android" << portrait << portrait << upright;
    }

    void screenRotationIsTheDeviceOrientation()
    {
        QFETCH(QString, platform);
        QFETCH(int, native);
        QFETCH(int, reported);
        QFETCH(int, device);
        QCOMPARE(int(screens::deviceOrientationFor(platform, Qt::ScreenOrientation(native),
                                                   Qt::ScreenOrientation(reported))),
                 device);
    }

    void aPinnedOrientationHidesTheScreens()
    {
        std::vector<int> seen;
        int observer = 0;
        NotificationCenter::defaultCenter().addObserver(&observer, kDeviceOrientationDidChangeNotification, nullptr,
                                                        [&](const Notification& n) {
                                                            seen.push_back(n.userInfo.value("orientation").toInt());
                                                        });
        Device::setOrientation(DeviceOrientation::Portrait);
        Device::setOrientationOverride(DeviceOrientation::LandscapeLeft);
        Device::setOrientationOverride(DeviceOrientation::LandscapeLeft);  // no change, no post
        QCOMPARE(Device::orientation(), DeviceOrientation::LandscapeLeft);
        // The screen turns meanwhile: nothing the camera follows changes.
        Device::setOrientation(DeviceOrientation::LandscapeRight);
        QCOMPARE(Device::orientation(), DeviceOrientation::LandscapeLeft);
        // Unpinned, the screen's last rotation is in force again.
        Device::setOrientationOverride(std::nullopt);
        QCOMPARE(Device::orientation(), DeviceOrientation::LandscapeRight);
        NotificationCenter::defaultCenter().removeObserver(&observer);
        QCOMPARE(seen, (std::vector<int>{1, 3, 4}));
        Device::setOrientation(DeviceOrientation::Portrait);
    }

    void theOffscreenScreenIsUpright()
    {
        // What the process measured on its own screen at start.
        Device::followScreen(QGuiApplication::primaryScreen());
        QCOMPARE(screens::deviceOrientationFor(QGuiApplication::platformName(),
                                               QGuiApplication::primaryScreen()->nativeOrientation(),
                                               QGuiApplication::primaryScreen()->orientation()),
                 DeviceOrientation::Portrait);
    }

    void orientationChangesArePostedAndScreenBoundsReadAnywhere()
    {
        std::vector<int> seen;
        int observer = 0;
        NotificationCenter::defaultCenter().addObserver(&observer, kDeviceOrientationDidChangeNotification, nullptr,
                                                        [&](const Notification& n) {
                                                            seen.push_back(n.userInfo.value("orientation").toInt());
                                                        });
        Device::setOrientation(DeviceOrientation::LandscapeLeft);
        Device::setOrientation(DeviceOrientation::FaceUp);
        NotificationCenter::defaultCenter().removeObserver(&observer);
        QCOMPARE(seen, (std::vector<int>{3, 5}));
        QCOMPARE(Device::orientation(), DeviceOrientation::FaceUp);
        Device::setOrientation(DeviceOrientation::Portrait);

        // The real (offscreen) screen is known; an override replaces it for
        // every thread.
        QVERIFY(!MainScreen::bounds().isEmpty());
        screens::setMainScreenBoundsOverride(QRectF(0, 0, 320, 480));
        QRectF fromQueue;
        DispatchQueue::create("test.bounds")->sync([&] { fromQueue = MainScreen::bounds(); });
        QCOMPARE(fromQueue, QRectF(0, 0, 320, 480));
        screens::setMainScreenBoundsOverride(std::nullopt);
    }
};

QTEST_MAIN(TstCamera)
#include "tst_camera.moc"
