// The V4L2 backend against fake cameras that serve format lists recorded
// from real webcams: which format a session takes, what the frames look
// like, and what the backend does when a camera misbehaves or comes and goes,
// and what a laptop's other nodes (media-controller, infrared) do not become.
#include "FakeWebcams.h"
#include "LogRecorder.h"
#include "capture/ZMCameraCaptureManager.h"
#include "capture/ZMCameraDevices.h"
#include "camera/CaptureDevice_p.h"
#include "camera/CaptureSession.h"
#include "shell/DeviceScreen.h"
#include "shell/DeviceScreen_p.h"
#include "base/NotificationCenter.h"
#include "camera/v4l2/Enumeration_p.h"
#include "camera/v4l2/Provider_p.h"
#include "camera/v4l2/Stream_p.h"

#include <QElapsedTimer>
#include <QSet>
#include <QTest>

#include <thread>

#include <linux/videodev2.h>

using namespace zavo;
using namespace zavo::platform;
using namespace zavo::testing;

namespace {

int levelOf(int64_t index) { return 20 + int(index) * 3; }

/// Mean absolute difference of two NV12 frames of the same size, luma and
/// chroma, on the video-range scale of expected (a JPEG camera's frames come
/// in full range).
double pictureDifference(PixelBuffer& frame, const QByteArray& expectedNV12)
{
    const bool full = frame.pixelFormat() == PixelFormat::NV12FullRange;
    auto luma = [full](int v) { return full ? 16.0 + v * 219.0 / 255.0 : double(v); };
    auto chroma = [full](int v) { return full ? 128.0 + (v - 128) * 224.0 / 255.0 : double(v); };
    frame.lockBaseAddress();
    const int width = frame.width();
    const int height = frame.height();
    const auto* expected = reinterpret_cast<const uint8_t*>(expectedNV12.constData());
    double sum = 0;
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = frame.baseAddress(0) + size_t(y) * frame.bytesPerRow(0);
        for (int x = 0; x < width; ++x)
            sum += std::abs(luma(row[x]) - expected[size_t(y) * size_t(width) + size_t(x)]);
    }
    const uint8_t* expectedUV = expected + size_t(width) * size_t(height);
    for (int y = 0; y < height / 2; ++y) {
        const uint8_t* row = frame.baseAddress(1) + size_t(y) * frame.bytesPerRow(1);
        for (int x = 0; x < width; ++x)
            sum += std::abs(chroma(row[x]) - expectedUV[size_t(y) * size_t(width) + size_t(x)]);
    }
    frame.unlockBaseAddress();
    return sum / (double(width) * height * 1.5);
}

/// A camera whose formats are given as v4l2-ctl prints them.
std::shared_ptr<FakeCamera> listedCamera(const char* list, const QString& card)
{
    auto camera = std::make_shared<FakeCamera>();
    QString problem;
    auto formats = parseFormatList(QString::fromLatin1(list), &problem);
    if (!formats)
        qFatal("format list: %s", qPrintable(problem));
    camera->formats = *formats;
    camera->card = card;
    camera->busInfo = QStringLiteral("usb-fake-") + card;
    camera->feed = faceFeed();
    return camera;
}

// What a USB 2.0 webcam lists without minding its port: raw 720p at 30 fps
// needs 55 MB/s.
const char* kRawAndJpeg720p = R"(ioctl: VIDIOC_ENUM_FMT
	Type: Video Capture

	[0]: 'YUYV' (YUYV 4:2:2)
		Size: Discrete 1280x720
			Interval: Discrete 0.033s (30.000 fps)
			Interval: Discrete 0.100s (10.000 fps)
		Size: Discrete 640x480
			Interval: Discrete 0.033s (30.000 fps)
	[1]: 'MJPG' (Motion-JPEG, compressed)
		Size: Discrete 1280x720
			Interval: Discrete 0.033s (30.000 fps)
		Size: Discrete 640x480
			Interval: Discrete 0.033s (30.000 fps)
)";

// One of an IPU6 laptop's raw capture nodes: it takes whatever the
// media-controller pipeline is linked to deliver, YUV formats included.
const char* kIsysNode = R"(ioctl: VIDIOC_ENUM_FMT
	Type: Video Capture

	[0]: 'BG10' (10-bit Bayer BGBG/GRGR)
		Size: Stepwise 2x1 - 4672x3416 with step 2/1
	[1]: 'UYVY' (UYVY 4:2:2)
		Size: Stepwise 2x1 - 4672x3416 with step 2/1
	[2]: 'YUYV' (YUYV 4:2:2)
		Size: Stepwise 2x1 - 4672x3416 with step 2/1
)";

// A laptop's infrared face-login camera.
const char* kInfrared = R"(ioctl: VIDIOC_ENUM_FMT
	Type: Video Capture

	[0]: 'GREY' (8-bit Greyscale)
		Size: Discrete 640x360
			Interval: Discrete 0.067s (15.000 fps)
	[1]: 'Y16 ' (16-bit Greyscale)
		Size: Discrete 640x360
			Interval: Discrete 0.067s (15.000 fps)
)";

// Raw frames only, small enough to make quickly.
const char* kSmallRaw = R"(ioctl: VIDIOC_ENUM_FMT
	Type: Video Capture

	[0]: 'YUYV' (YUYV 4:2:2)
		Size: Discrete 320x240
			Interval: Discrete 0.033s (30.000 fps)
)";

/// YUYV frames of one flat grey each, lighter with every frame, so that a
/// frame tells which one it is.
FrameFeed numberedFeed()
{
    return [](uint32_t fourcc, int width, int height, int64_t index) {
        if (fourcc != V4L2_PIX_FMT_YUYV)
            return QByteArray();
        QByteArray bytes(qsizetype(width) * height * 2, char(128));
        for (qsizetype i = 0; i < bytes.size(); i += 2)
            bytes[i] = char(levelOf(index));
        return bytes;
    };
}

/// The numbered feed's frame a picture shows.
int64_t frameNumberOf(const SampleBuffer& frame)
{
    PixelBuffer& pixels = *frame.imageBuffer();
    pixels.lockBaseAddress();
    const int luma = pixels.baseAddress(0)[0];
    pixels.unlockBaseAddress();
    for (int64_t index = 0; index < 60; ++index) {
        if (std::abs(levelOf(index) - luma) <= 1)
            return index;
    }
    return -1;
}

/// A session on device with the 1280x720 preset, not started.
CaptureSessionPtr sessionWith(const CaptureDevicePtr& device)
{
    auto session = CaptureSession::create();
    session->beginConfiguration();
    ErrorPtr error;
    session->addInput(CaptureDeviceInput::deviceInputWithDevice(device, &error));
    session->setSessionPreset(CaptureSessionPreset::Preset1280x720);
    session->commitConfiguration();
    return session;
}


}  // namespace

class TstV4L2 : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        CaptureDeviceRegistry::shared().unregisterAll();
        (void)LogRecorder::instance();
    }

    void recordedCamerasGiveTheExpectedFormatAndUprightFrames_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<int>("usbSpeed");
        // On the USB 2.0 ports they were recorded on: what they list fits.
        // YUYV is there at 1280x720 but at 10 fps; H.264 is never a candidate.
        QTest::newRow("1080p USB webcam") << "usb1080p_h264.txt" << "MJPG" << QSize(1280, 720) << 480;
        QTest::newRow("720p USB webcam") << "usb720p.txt" << "MJPG" << QSize(1280, 720) << 480;
        QTest::newRow("laptop camera") << "laptop_builtin.txt" << "MJPG" << QSize(1280, 720) << 480;
        // No frame rates listed: the largest size it has.
        QTest::newRow("640x480 only") << "only_640x480.txt" << "JPEG" << QSize(640, 480) << 480;
        // Every size from 32x32 up; raw frames first when no rate is known.
        // A Raspberry Pi camera: not on USB.
        QTest::newRow("stepwise sizes") << "stepwise.txt" << "YU12" << QSize(1280, 720) << 0;
        QTest::newRow("stepwise rates") << "stepwise_interval.txt" << "MJPG" << QSize(1280, 720) << 480;
    }

    void recordedCamerasGiveTheExpectedFormatAndUprightFrames()
    {
        QFETCH(QString, file);
        QFETCH(QString, code);
        QFETCH(QSize, size);
        QFETCH(int, usbSpeed);
        FakeWebcams webcams;
        auto camera = fixtureCamera(file);
        camera->usbSpeedMbps = usbSpeed;
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        auto device = webcams.only();
        QVERIFY(device);
        for (const auto& format : device->formats())
            QVERIFY2(fourCharCodeText(format->mediaSubType()) != QLatin1String("H264"), "a format that cannot be decoded is listed");

        const auto candidates = device->formatsForSessionPreset(CaptureSessionPreset::Preset1280x720);
        QVERIFY(!candidates.empty());
        QCOMPARE(fourCharCodeText(candidates.front()->mediaSubType()), code);
        QCOMPARE(QSize(candidates.front()->width(), candidates.front()->height()), size);

        ErrorPtr error;
        auto stream = device->openStream(candidates.front(), &error);
        QVERIFY2(stream, qPrintable(error ? error->localizedDescription() : QString()));
        SampleBuffer frame;
        QCOMPARE(stream->read(frame), CaptureDeviceStream::ReadResult::Frame);
        auto pixels = frame.imageBuffer();
        QCOMPARE(QSize(pixels->width(), pixels->height()), size);
        // The picture the camera sent, as it sent it: not turned, mirrored
        // or sheared (a wrong stride or size garbles it far beyond this).
        const QByteArray sent = faceFeed()(V4L2_PIX_FMT_NV12, size.width(), size.height(), 0);
        const double difference = pictureDifference(*pixels, sent);
        QVERIFY2(difference < 4.0, qPrintable(QString::number(difference)));
        stream.reset();
        QCOMPARE(webcams.kernel->openDescriptors(), 0);
        QCOMPARE(webcams.kernel->liveMappings(), 0);
    }

    void realWebcamJpegFramesDecode()
    {
        // The frames of a real webcam recording, as the camera sent them.
        QSize stored;
        auto camera = fixtureCamera(QStringLiteral("usb1080p_h264.txt"));
        camera->feed = storedJpegFeed(QStringLiteral(ZAVO_TEST_DATA_DIR "/gpl/kphotoalbum_movie.avi"), &stored);
        QCOMPARE(stored, QSize(160, 120));
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        auto device = webcams.only();
        QVERIFY(device);
        CaptureDeviceFormatPtr jpeg;
        for (const auto& format : device->formats()) {
            if (fourCharCodeText(format->mediaSubType()) == QLatin1String("MJPG") && QSize(format->width(), format->height()) == stored)
                jpeg = format;
        }
        QVERIFY(jpeg);
        ErrorPtr error;
        auto stream = device->openStream(jpeg, &error);
        QVERIFY(stream);
        SampleBuffer frame;
        for (int i = 0; i < 20; ++i)
            QCOMPARE(stream->read(frame), CaptureDeviceStream::ReadResult::Frame);
        QCOMPARE(static_cast<v4l2::Stream&>(*stream).damagedFrames(), 0);
    }

    void damagedFramesAreSkippedAndCounted_data()
    {
        QTest::addColumn<QString>("file");
        QTest::newRow("MJPEG") << "usb720p.txt";
        QTest::newRow("YUYV") << "only_640x480.txt";
    }

    void damagedFramesAreSkippedAndCounted()
    {
        QFETCH(QString, file);
        auto camera = fixtureCamera(file);
        camera->truncateEvery = 3;
        camera->unpaced = true;
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        auto device = webcams.only();
        QVERIFY(device);
        ErrorPtr error;
        auto stream = device->openStream(device->formatForSessionPreset(CaptureSessionPreset::Preset1280x720), &error);
        QVERIFY(stream);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("a damaged frame was skipped"));
        SampleBuffer frame;
        for (int i = 0; i < 10; ++i)
            QCOMPARE(stream->read(frame), CaptureDeviceStream::ReadResult::Frame);
        // 10 whole frames are frames 1, 2, 4, 5, ... 14; 3, 6, 9, 12 were cut.
        QCOMPARE(static_cast<v4l2::Stream&>(*stream).damagedFrames(), 4);
        QCOMPARE(webcams.kernel->deliveredFrames(), 14);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("skipped 4 damaged frames"));
        stream.reset();
    }

    void aRefusedFormatGivesWayToTheNextCandidate()
    {
        auto camera = fixtureCamera(QStringLiteral("usb1080p_h264.txt"));
        camera->substitution = FakeCamera::Substitution{V4L2_PIX_FMT_MJPEG, {1280, 720}, V4L2_PIX_FMT_YUYV, {640, 480}};
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        auto device = webcams.only();
        QVERIFY(device);
        const auto candidates = device->formatsForSessionPreset(CaptureSessionPreset::Preset1280x720);
        QVERIFY(candidates.size() > 1);

        auto session = sessionWith(device);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("refused MJPG 1280x720 \\(it gave YUYV 640x480\\); trying the next"));
        // The choice is explained for the format that opened, not for the refused one.
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(QStringLiteral("capture format of <.*>: %1 %2x%3 .*: .*; the driver refused 1 better$")
                                                               .arg(fourCharCodeText(candidates[1]->mediaSubType()))
                                                               .arg(candidates[1]->width())
                                                               .arg(candidates[1]->height())));
        session->startRunning();
        QVERIFY(!session->runtimeError());
        const auto negotiated = webcams.kernel->negotiated(QStringLiteral("video0"));
        QVERIFY(negotiated);
        QCOMPARE(negotiated->size, QSize(candidates[1]->width(), candidates[1]->height()));
        QTRY_VERIFY(session->capturedFrameCount() > 0);
        session->stopRunning();
        QCOMPARE(webcams.kernel->openDescriptors(), 0);
    }

    void busyOrForbiddenCamerasSayWhy_data()
    {
        QTest::addColumn<int>("openErrno");
        QTest::addColumn<int>("setFormatErrno");
        QTest::addColumn<int>("streamOnErrno");
        QTest::addColumn<long>("code");
        QTest::addColumn<CameraFailureReason>("reason");
        QTest::addColumn<QString>("says");
        const QString busy = QStringLiteral("/dev/video0 (HD Pro Webcam C920) is in use by another application");
        QTest::newRow("busy at format") << 0 << EBUSY << 0 << long(CaptureErrorCode::DeviceBusy)
                                        << CameraFailureReason::Busy << busy;
        QTest::newRow("busy at stream-on") << 0 << 0 << EBUSY << long(CaptureErrorCode::DeviceBusy)
                                           << CameraFailureReason::Busy << busy;
        QTest::newRow("forbidden") << EACCES << 0 << 0 << long(CaptureErrorCode::AccessDenied)
                                   << CameraFailureReason::NoPermission << "\"video\" group";
        // Every format refused for bandwidth: each was tried.
        QTest::newRow("no USB bandwidth") << 0 << 0 << ENOSPC << long(CaptureErrorCode::NoBandwidth)
                                          << CameraFailureReason::NoBandwidth << "not enough USB bandwidth for";
        QTest::newRow("gone at format") << 0 << ENODEV << 0 << long(CaptureErrorCode::DeviceNotAvailable)
                                        << CameraFailureReason::Unplugged << "was unplugged";
    }

    void busyOrForbiddenCamerasSayWhy()
    {
        QFETCH(int, openErrno);
        QFETCH(int, setFormatErrno);
        QFETCH(int, streamOnErrno);
        QFETCH(long, code);
        QFETCH(CameraFailureReason, reason);
        QFETCH(QString, says);
        auto camera = fixtureCamera(QStringLiteral("usb1080p_h264.txt"));
        camera->openErrno = openErrno;
        camera->setFormatErrno = setFormatErrno;
        camera->streamOnErrno = streamOnErrno;
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        if (openErrno)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("no access to /dev/video0"));
        auto device = webcams.only();
        QVERIFY(device);
        QCOMPARE(device->canOpen(), openErrno == 0);

        auto session = sessionWith(device);
        int posted = 0;
        NotificationCenter::defaultCenter().addObserver(this, kCaptureSessionRuntimeErrorNotification, session.get(),
                                                        [&](const Notification&) { ++posted; });
        LogRecorder::instance().clear();
        session->startRunning();
        NotificationCenter::defaultCenter().removeObserver(this);
        QCOMPARE(LogRecorder::instance().count(
                     QRegularExpression("Cannot start capture from .*" + QRegularExpression::escape(says))),
                 1);
        QCOMPARE(posted, 1);
        QVERIFY(session->runtimeError());
        QCOMPARE(session->runtimeError()->code(), code);
        QCOMPARE(cameraFailureReasonOf(session->runtimeError()), reason);
        if (reason == CameraFailureReason::NoBandwidth) {
            const int candidates = int(device->formatsForSessionPreset(CaptureSessionPreset::Preset1280x720).size());
            QCOMPARE(LogRecorder::instance().count(QRegularExpression("not enough USB bandwidth .*trying the next format")),
                     candidates - 1);
        }
        session->stopRunning();
        QCOMPARE(webcams.kernel->openDescriptors(), 0);
    }

    void unpluggingEndsTheStreamAndReleasesTheCamera()
    {
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), fixtureCamera(QStringLiteral("usb720p.txt")));
        auto device = webcams.only();
        QVERIFY(device);
        auto session = sessionWith(device);
        std::atomic<int> posted{0};
        NotificationCenter::defaultCenter().addObserver(this, kCaptureSessionRuntimeErrorNotification, session.get(),
                                                        [&](const Notification&) { ++posted; });
        session->startRunning();
        QTRY_VERIFY(session->capturedFrameCount() >= 3);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("ended: /dev/video0: the camera was unplugged"));
        webcams.kernel->unplug(QStringLiteral("video0"));
        QTRY_COMPARE(posted.load(), 1);
        NotificationCenter::defaultCenter().removeObserver(this);
        QCOMPARE(session->runtimeError()->code(), long(CaptureErrorCode::DeviceNotAvailable));
        QCOMPARE(cameraFailureReasonOf(session->runtimeError()), CameraFailureReason::Unplugged);
        session->stopRunning();
        QVERIFY(!session->isCapturing());
        QCOMPARE(webcams.kernel->openDescriptors(), 0);
        QCOMPARE(webcams.kernel->liveMappings(), 0);
        // Gone from the list, and the old object says so.
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("is gone"));
        QVERIFY(CaptureDeviceRegistry::shared().allDevices().empty());
        QVERIFY(!device->isConnected());
    }

    void camerasComeAndGoAndFaceTheirUser()
    {
        FakeWebcams webcams;
        auto usb = fixtureCamera(QStringLiteral("usb1080p_h264.txt"));
        auto laptop = fixtureCamera(QStringLiteral("laptop_builtin.txt"));
        auto second = fixtureCamera(QStringLiteral("usb720p.txt"));

        // A lone USB webcam serves as the front camera.
        webcams.kernel->plug(QStringLiteral("video2"), usb);
        auto cameras = ZMCameraDevices::availableCameras();
        QCOMPARE(cameras.size(), size_t(1));
        QCOMPARE(cameras[0].position, CaptureDevicePosition::Front);
        QCOMPARE(cameras[0].location, QStringLiteral("/dev/video2"));
        QCOMPARE(cameras[0].name, QStringLiteral("HD Pro Webcam C920"));

        // Plugged in later: the built-in camera faces front, the USB one
        // turns into a back camera; a second USB one too.
        webcams.kernel->plug(QStringLiteral("video0"), laptop);
        webcams.kernel->plug(QStringLiteral("video4"), second);
        cameras = ZMCameraDevices::availableCameras();
        QCOMPARE(cameras.size(), size_t(3));
        QCOMPARE(cameras[0].location, QStringLiteral("/dev/video0"));
        QCOMPARE(cameras[0].position, CaptureDevicePosition::Front);
        QCOMPARE(cameras[1].position, CaptureDevicePosition::Back);
        QCOMPARE(cameras[2].position, CaptureDevicePosition::Back);

        // The host's pick leads and faces front; the built-in one steps back.
        QVERIFY(!ZMCameraDevices::setPreferredCamera(QStringLiteral("/dev/video9")));
        QVERIFY(ZMCameraDevices::setPreferredCamera(cameras[2].uniqueID));
        cameras = ZMCameraDevices::availableCameras();
        QCOMPARE(cameras[0].location, QStringLiteral("/dev/video4"));
        QVERIFY(cameras[0].preferred);
        QCOMPARE(cameras[0].position, CaptureDevicePosition::Front);
        QCOMPARE(cameras[1].position, CaptureDevicePosition::Back);
        QCOMPARE(cameras[2].position, CaptureDevicePosition::Back);

        // Switching goes from the front camera to a back one and back.
        screens::setMainScreenBoundsOverride(QRectF(0, 0, 360, 640));
        auto manager = ZMCameraCaptureManager::create();
        manager->configureWithCameraPosition(CaptureDevicePosition::Front, {});
        manager->captureSessionQueue()->sync([] {});
        QCOMPARE(manager->session()->videoDevice()->location(), QStringLiteral("/dev/video4"));
        manager->switchCameraType();
        manager->captureSessionQueue()->sync([] {});
        QCOMPARE(manager->cameraPosition(), CaptureDevicePosition::Back);
        QCOMPARE(manager->session()->videoDevice()->location(), QStringLiteral("/dev/video0"));
        manager->switchCameraType();
        manager->captureSessionQueue()->sync([] {});
        QCOMPARE(manager->session()->videoDevice()->location(), QStringLiteral("/dev/video4"));
        manager.reset();
        screens::setMainScreenBoundsOverride({});

        // Unplugged: gone from the list; the pick waits for its return.
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("/dev/video4 .* is gone"));
        webcams.kernel->unplug(QStringLiteral("video4"));
        cameras = ZMCameraDevices::availableCameras();
        QCOMPARE(cameras.size(), size_t(2));
        QCOMPARE(cameras[0].location, QStringLiteral("/dev/video0"));
        QCOMPARE(cameras[0].position, CaptureDevicePosition::Front);
    }

    void onlyCamerasThatShowAFaceAreListed()
    {
        // An IPU6 laptop: dozens of raw capture nodes of the image
        // processor, its infrared face-login camera, and a USB webcam.
        FakeWebcams webcams;
        for (int n = 0; n < 32; ++n) {
            auto isys = listedCamera(kIsysNode, QStringLiteral("ipu6"));
            isys->mediaController = true;
            webcams.kernel->plug(QStringLiteral("video%1").arg(n), isys);
        }
        auto infrared = listedCamera(kInfrared, QStringLiteral("Integrated Camera: Integrated I"));
        webcams.kernel->plug(QStringLiteral("video32"), infrared);
        auto usb = fixtureCamera(QStringLiteral("usb1080p_h264.txt"));
        usb->byId = QStringLiteral("usb-046d_HD_Pro_Webcam_C920_A1B2C3D4-video-index0");
        webcams.kernel->plug(QStringLiteral("video34"), usb);

        LogRecorder::instance().clear();
        auto cameras = ZMCameraDevices::availableCameras();
        QCOMPARE(cameras.size(), size_t(1));
        QCOMPARE(cameras[0].location, QStringLiteral("/dev/video34"));
        QCOMPARE(cameras[0].position, CaptureDevicePosition::Front);
        QCOMPARE(cameras[0].uniqueID, QStringLiteral("v4l2:usb-046d_HD_Pro_Webcam_C920_A1B2C3D4-video-index0"));
        const QRegularExpression mediaController(QStringLiteral("/dev/video\\d+ \\(ipu6\\) is not used: .*media-controller"));
        const QRegularExpression greyOnly(
            QStringLiteral("/dev/video32 \\(Integrated Camera: Integrated I\\) is not used: .*greyscale.*\\(GREY Y16 \\)"));
        QCOMPARE(LogRecorder::instance().count(mediaController), 32);
        QCOMPARE(LogRecorder::instance().count(greyOnly), 1);

        // Said once per node, not at every listing.
        webcams.kernel->plug(QStringLiteral("video36"), fixtureCamera(QStringLiteral("usb720p.txt")));
        QCOMPARE(ZMCameraDevices::availableCameras().size(), size_t(2));
        QCOMPARE(LogRecorder::instance().count(mediaController), 32);
        QCOMPARE(LogRecorder::instance().count(greyOnly), 1);
    }

    void identicalCamerasGetNamesAndIdsOfTheirOwn()
    {
        // Two of the same model without serial numbers: udev's by-id link
        // can name only one of them; the other is known by its port.
        FakeWebcams webcams;
        auto model = [](const QString& byId, const QString& byPath) {
            auto camera = fixtureCamera(QStringLiteral("usb720p.txt"));
            camera->card = QStringLiteral("HD Webcam");
            camera->byId = byId;
            camera->byPath = byPath;
            return camera;
        };
        const QString firstPort = QStringLiteral("pci-0000:00:14.0-usb-0:1:1.0-video-index0");
        const QString secondPort = QStringLiteral("pci-0000:00:14.0-usb-0:2:1.0-video-index0");
        auto first = model(QStringLiteral("usb-Generic_HD_Webcam-video-index0"), firstPort);
        auto second = model(QString(), secondPort);
        auto third = model(QString(), QString());
        webcams.kernel->plug(QStringLiteral("video0"), first);
        webcams.kernel->plug(QStringLiteral("video2"), second);
        webcams.kernel->plug(QStringLiteral("video4"), third);

        auto cameras = ZMCameraDevices::availableCameras();
        QCOMPARE(cameras.size(), size_t(3));
        QCOMPARE(cameras[0].name, QStringLiteral("HD Webcam"));
        QCOMPARE(cameras[1].name, QStringLiteral("HD Webcam (2)"));
        QCOMPARE(cameras[2].name, QStringLiteral("HD Webcam (3)"));
        QCOMPARE(cameras[0].uniqueID, QStringLiteral("v4l2:usb-Generic_HD_Webcam-video-index0"));
        QCOMPARE(cameras[1].uniqueID, QStringLiteral("v4l2:") + secondPort);
        QCOMPARE(cameras[2].uniqueID, QStringLiteral("v4l2:usb-fake-usb720p.txt:HD Webcam"));

        // The first unplugged: the others keep their names. Plugged back in
        // under another node number, it is the same camera to a host that
        // picked it by its ID.
        QVERIFY(ZMCameraDevices::setPreferredCamera(cameras[0].uniqueID));
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("/dev/video0 \\(HD Webcam\\) is gone"));
        webcams.kernel->unplug(QStringLiteral("video0"));
        cameras = ZMCameraDevices::availableCameras();
        QCOMPARE(cameras.size(), size_t(2));
        QCOMPARE(cameras[0].name, QStringLiteral("HD Webcam (2)"));
        webcams.kernel->plug(QStringLiteral("video6"), first);
        cameras = ZMCameraDevices::availableCameras();
        QCOMPARE(cameras.size(), size_t(3));
        QCOMPARE(cameras[0].location, QStringLiteral("/dev/video6"));
        QVERIFY(cameras[0].preferred);
        QCOMPARE(cameras[0].name, QStringLiteral("HD Webcam"));
        QCOMPARE(cameras[1].name, QStringLiteral("HD Webcam (2)"));
    }

    void buffersWithoutAPictureAreSkipped_data()
    {
        QTest::addColumn<QList<int>>("flagged");  // frame numbers the driver flags as erroneous
        QTest::addColumn<QList<int>>("empty");    // and those it returns with bytesused 0
        QTest::addColumn<int>("pictures");        // frames read before the stream ends; 10: it goes on
        auto run = [](int from, int length) {
            QList<int> numbers;
            for (int n = from; n < from + length; ++n)
                numbers << n;
            return numbers;
        };
        QTest::newRow("some of each") << QList<int>{2, 5, 6} << QList<int>{3, 8} << 10;
        QTest::newRow("29 in a row") << run(3, 29) << QList<int>{} << 10;
        QTest::newRow("30 flagged in a row") << run(3, 30) << QList<int>{} << 2;
        QTest::newRow("30 of both in a row") << run(3, 15) << run(18, 15) << 2;
    }

    void buffersWithoutAPictureAreSkipped()
    {
        QFETCH(QList<int>, flagged);
        QFETCH(QList<int>, empty);
        QFETCH(int, pictures);
        auto camera = listedCamera(kSmallRaw, QStringLiteral("Flaky Webcam"));
        camera->feed = numberedFeed();
        camera->unpaced = true;
        const QSet<int> flaggedSet(flagged.begin(), flagged.end());
        const QSet<int> emptySet(empty.begin(), empty.end());
        camera->bufferFault = [flaggedSet, emptySet](int64_t number) {
            if (flaggedSet.contains(int(number)))
                return FakeCamera::BufferFault::ErrorFlag;
            return emptySet.contains(int(number)) ? FakeCamera::BufferFault::Empty : FakeCamera::BufferFault::None;
        };
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        auto device = webcams.only();
        QVERIFY(device);
        ErrorPtr error;
        auto stream = device->openStream(device->formats().front(), &error);
        QVERIFY(stream);
        if (!flagged.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("a buffer flagged as erroneous was skipped"));
        if (!empty.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("an empty buffer was skipped"));

        // Every picture is a new frame: a skipped buffer never shows the
        // one before it again.
        SampleBuffer frame;
        int64_t previous = 0;
        int read = 0;
        auto result = CaptureDeviceStream::ReadResult::Frame;
        while (read < 10 && (result = stream->read(frame)) == CaptureDeviceStream::ReadResult::Frame) {
            const int64_t number = frameNumberOf(frame) + 1;
            QVERIFY(number > 0);
            QVERIFY2(number > previous, qPrintable(QStringLiteral("frame %1 after %2").arg(number).arg(previous)));
            QVERIFY2(!flaggedSet.contains(int(number)) && !emptySet.contains(int(number)), qPrintable(QString::number(number)));
            previous = number;
            ++read;
        }
        QCOMPARE(read, pictures);
        if (pictures < 10) {
            QCOMPARE(result, CaptureDeviceStream::ReadResult::Ended);
            QCOMPARE(stream->endCause(), CameraFailureReason::NoPictures);
            QVERIFY2(stream->endReason().contains(QLatin1String("30 buffers in a row without a picture")),
                     qPrintable(stream->endReason()));
        }
        // Each skipped buffer counted as what it was.
        const int64_t delivered = webcams.kernel->deliveredFrames();
        auto upTo = [delivered](const QList<int>& numbers) {
            return int64_t(std::count_if(numbers.begin(), numbers.end(), [&](int n) { return n <= delivered; }));
        };
        auto& v4l2Stream = static_cast<v4l2::Stream&>(*stream);
        QCOMPARE(v4l2Stream.erroneousBuffers(), upTo(flagged));
        QCOMPARE(v4l2Stream.emptyBuffers(), upTo(empty));
        QCOMPARE(delivered, read + upTo(flagged) + upTo(empty));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("skipped \\d+ buffers flagged as erroneous and \\d+ empty ones"));
        stream.reset();
    }

    void aCameraThatFallsSilentEndsItsSession()
    {
        auto camera = listedCamera(kSmallRaw, QStringLiteral("Silent Webcam"));
        camera->feed = numberedFeed();
        camera->stallAfter = 5;
        FakeWebcams webcams(v4l2::StreamLimits{std::chrono::milliseconds(200), 30});
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        auto device = webcams.only();
        QVERIFY(device);
        auto session = sessionWith(device);
        std::atomic<int> posted{0};
        NotificationCenter::defaultCenter().addObserver(this, kCaptureSessionRuntimeErrorNotification, session.get(),
                                                        [&](const Notification&) { ++posted; });
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("ended: /dev/video0: no picture for 0.2 s"));
        session->startRunning();
        QTRY_COMPARE(posted.load(), 1);
        NotificationCenter::defaultCenter().removeObserver(this);
        QCOMPARE(session->capturedFrameCount(), 5);
        QCOMPARE(session->runtimeError()->code(), long(CaptureErrorCode::DeviceNotAvailable));
        QCOMPARE(cameraFailureReasonOf(session->runtimeError()), CameraFailureReason::NoPictures);
        session->stopRunning();
        QCOMPARE(webcams.kernel->openDescriptors(), 0);
    }

    void stoppingWakesAStreamWaitingOnASilentCamera()
    {
        auto camera = listedCamera(kSmallRaw, QStringLiteral("Silent Webcam"));
        camera->feed = numberedFeed();
        camera->stallAfter = 1;
        const auto patience = std::chrono::seconds(60);
        FakeWebcams webcams(v4l2::StreamLimits{patience, 30});
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        auto device = webcams.only();
        QVERIFY(device);
        ErrorPtr error;
        auto stream = device->openStream(device->formats().front(), &error);
        QVERIFY(stream);
        SampleBuffer frame;
        QCOMPARE(stream->read(frame), CaptureDeviceStream::ReadResult::Frame);
        std::atomic<bool> waiting{false};
        CaptureDeviceStream::ReadResult result = CaptureDeviceStream::ReadResult::Frame;
        std::thread reader([&] {
            waiting = true;
            result = stream->read(frame);
        });
        QTRY_VERIFY(waiting.load());
        QElapsedTimer clock;
        clock.start();
        stream->interrupt();
        reader.join();
        QCOMPARE(result, CaptureDeviceStream::ReadResult::Interrupted);
        // Only a bound: a wait that ignored the wake-up would take the minute.
        QVERIFY(clock.elapsed() < std::chrono::milliseconds(patience).count() / 2);
    }

    void rawFramesGiveWayToJpegWhereTheUsbPortIsTooSlow_data()
    {
        QTest::addColumn<int>("usbSpeed");
        QTest::addColumn<QString>("code");
        QTest::addColumn<double>("rawRate");  // YUYV 1280x720's fastest rate offered
        QTest::newRow("USB 2.0") << 480 << "MJPG" << 10.0;
        QTest::newRow("USB 3.0") << 5000 << "YUYV" << 30.0;
        QTest::newRow("not on USB") << 0 << "YUYV" << 30.0;
    }

    void rawFramesGiveWayToJpegWhereTheUsbPortIsTooSlow()
    {
        QFETCH(int, usbSpeed);
        QFETCH(QString, code);
        QFETCH(double, rawRate);
        auto camera = listedCamera(kRawAndJpeg720p, QStringLiteral("HD Webcam"));
        camera->usbSpeedMbps = usbSpeed;
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        LogRecorder::instance().clear();
        auto device = webcams.only();
        QVERIFY(device);
        const auto candidates = device->formatsForSessionPreset(CaptureSessionPreset::Preset1280x720);
        QCOMPARE(fourCharCodeText(candidates.front()->mediaSubType()), code);
        QCOMPARE(QSize(candidates.front()->width(), candidates.front()->height()), QSize(1280, 720));
        for (const auto& format : device->formats()) {
            if (fourCharCodeText(format->mediaSubType()) == QLatin1String("YUYV") && format->width() == 1280)
                QCOMPARE(format->captureFrameRate(), rawRate);
        }
        QCOMPARE(LogRecorder::instance().count(QRegularExpression(
                     "more than its USB port carries \\(24.6 MB/s\\), so not offered: YUYV 1280x720 at 30 fps \\(55.3 MB/s\\)$")),
                 usbSpeed == 480 ? 1 : 0);
    }

    void noBandwidthAtStreamOnTriesTheNextFormat()
    {
        // The bus is shared: a port that should carry JPEG 720p has no room
        // left for it now.
        auto camera = fixtureCamera(QStringLiteral("usb1080p_h264.txt"));
        camera->noBandwidthFor = {V4L2_PIX_FMT_MJPEG};
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        auto device = webcams.only();
        QVERIFY(device);
        auto session = sessionWith(device);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression("not enough USB bandwidth for MJPG 1280x720 at 30 fps; trying the next format"));
        session->startRunning();
        QVERIFY(!session->runtimeError());
        const auto negotiated = webcams.kernel->negotiated(QStringLiteral("video0"));
        QVERIFY(negotiated);
        QCOMPARE(negotiated->fourcc, uint32_t(V4L2_PIX_FMT_YUYV));
        QTRY_VERIFY(session->capturedFrameCount() > 0);
        session->stopRunning();
        QCOMPARE(webcams.kernel->openDescriptors(), 0);
        QCOMPARE(webcams.kernel->liveMappings(), 0);
    }

    void theRateTheDriverSetIsTheOneUsed()
    {
        // Asked for 30 fps, the camera answers 15 (a dim room, a slower
        // mode): frames are timed by what it said.
        auto camera = fixtureCamera(QStringLiteral("laptop_builtin.txt"));
        camera->parmAnswer = 15;
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        auto device = webcams.only();
        QVERIFY(device);
        const auto format = device->formatForSessionPreset(CaptureSessionPreset::Preset1280x720);
        QCOMPARE(format->captureFrameRate(), 30.0);
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("/dev/video0: asked for 30.000 fps, the driver set 15.000 fps"));
        ErrorPtr error;
        auto stream = device->openStream(format, &error);
        QVERIFY(stream);
        QCOMPARE(stream->frameRate(), 15.0);
        QCOMPARE(webcams.kernel->negotiated(QStringLiteral("video0"))->fps, 15.0);
        SampleBuffer frame;
        QCOMPARE(stream->read(frame), CaptureDeviceStream::ReadResult::Frame);
        QCOMPARE(qRound(1.0 / frame.duration().seconds()), 15);
    }

    void exposurePriorityAndPowerLineAreSetWhereTheCameraHasThem_data()
    {
        QTest::addColumn<bool>("exposure");
        QTest::addColumn<bool>("powerLine");
        QTest::addColumn<int>("chosen");     // the host's choice; 0 automatic
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<int>("hertz");
        QTest::newRow("Berlin") << true << true << 0 << QByteArray("Europe/Berlin") << 50;
        QTest::newRow("New York") << true << true << 0 << QByteArray("America/New_York") << 60;
        QTest::newRow("the host's choice") << true << true << 60 << QByteArray("Europe/Berlin") << 60;
        QTest::newRow("no controls") << false << false << 0 << QByteArray("Europe/Berlin") << 0;
    }

    void exposurePriorityAndPowerLineAreSetWhereTheCameraHasThem()
    {
        QFETCH(bool, exposure);
        QFETCH(bool, powerLine);
        QFETCH(int, chosen);
        QFETCH(QByteArray, zone);
        QFETCH(int, hertz);
        const QByteArray zoneBefore = qgetenv("TZ");
        qputenv("TZ", zone);
        QVERIFY(ZMCameraDevices::setPowerLineFrequency(chosen));
        QVERIFY(!ZMCameraDevices::setPowerLineFrequency(55));
        QCOMPARE(ZMCameraDevices::powerLineFrequency(), chosen);
        auto camera = fixtureCamera(QStringLiteral("usb720p.txt"));
        camera->exposurePriority = exposure;
        camera->powerLineFrequency = powerLine;
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), camera);
        auto device = webcams.only();
        QVERIFY(device);
        ErrorPtr error;
        auto stream = device->openStream(device->formatForSessionPreset(CaptureSessionPreset::Preset1280x720), &error);
        ZMCameraDevices::setPowerLineFrequency(0);
        qputenv("TZ", zoneBefore);
        QVERIFY(stream);
        const auto priority = webcams.kernel->control(QStringLiteral("video0"), V4L2_CID_EXPOSURE_AUTO_PRIORITY);
        QCOMPARE(priority, exposure ? std::optional<int>(0) : std::nullopt);
        const auto mains = webcams.kernel->control(QStringLiteral("video0"), V4L2_CID_POWER_LINE_FREQUENCY);
        const std::optional<int> expected = hertz == 60 ? std::optional<int>(V4L2_CID_POWER_LINE_FREQUENCY_60HZ)
            : hertz == 50                                 ? std::optional<int>(V4L2_CID_POWER_LINE_FREQUENCY_50HZ)
                                                          : std::nullopt;
        QCOMPARE(mains, expected);
    }
};

QTEST_MAIN(TstV4L2)
#include "tst_v4l2.moc"
