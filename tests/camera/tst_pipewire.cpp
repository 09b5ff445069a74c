// Cameras through a real PipeWire daemon, as a desktop offers them: listed
// with their formats, gone when their producer goes, pictures upright in
// every format the frame path converts, and a whole session of the demo to a
// best shot on a face that reaches it only through PipeWire.
#include "camera/CaptureDevice_p.h"
#include "camera/pipewire/Provider_p.h"
#include "camera/pipewire/Stream_p.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include "MissingPrerequisite.h"
#include "PictureMarkers.h"
#include "PipeWireRig.h"

using namespace zavo::platform;
using namespace zavo::testing;

namespace {

struct Rgb {
    int r = 0, g = 0, b = 0;
};

/// The colour at (x, y) of an NV12 frame.
Rgb colourAt(const PixelBuffer& frame, int x, int y)
{
    const int luma = frame.baseAddress(0)[size_t(y) * frame.bytesPerRow(0) + size_t(x)];
    const uint8_t* chroma = frame.baseAddress(1) + size_t(y / 2) * frame.bytesPerRow(1) + size_t(x / 2) * 2;
    const double u = chroma[0] - 128.0, v = chroma[1] - 128.0;
    const bool full = frame.pixelFormat() == PixelFormat::NV12FullRange;
    const double l = full ? luma : 1.164 * (luma - 16);
    const double k = full ? 1.0 : 1.138;  // video-range chroma spans 224 of 255
    auto clamp = [](double c) { return std::clamp(int(std::lround(c)), 0, 255); };
    return {clamp(l + k * 1.402 * v), clamp(l - k * (0.344 * u + 0.714 * v)), clamp(l + k * 1.772 * u)};
}

QString describe(Rgb c) { return QStringLiteral("(%1, %2, %3)").arg(c.r).arg(c.g).arg(c.b); }

}  // namespace

class TstPipeWire : public QObject {
    Q_OBJECT

    std::unique_ptr<PipeWireRig> rig;
    QTemporaryDir scratch;

    CaptureDevicePtr listed(pipewire::Provider& provider, const QString& name)
    {
        for (const auto& device : provider.devices()) {
            if (device->location() == pipewire::kLocationPrefix + name)
                return device;
        }
        return nullptr;
    }

private slots:
    void initTestCase()
    {
        if (const QString tool = PipeWireRig::missingTool(); !tool.isEmpty())
            ZAVO_SKIP_MISSING(qPrintable(tool + QStringLiteral(" is not installed")));
        if (runTool(QStringLiteral("gst-inspect-1.0"), {"pipewiresink"}).isEmpty())
            ZAVO_SKIP_MISSING("GStreamer's pipewiresink is not installed (gstreamer1.0-pipewire)");
        rig = std::make_unique<PipeWireRig>();
        rig->start();
    }

    // A producer's node appears with its formats, under a location a host
    // can name; when the producer dies it is no longer listed and the device
    // object the host holds says it is gone.
    void listsACameraAndFollowsItsUnplug()
    {
        pipewire::Provider provider;
        QVERIFY(!listed(provider, "hotplug"));
        QVERIFY(rig->startCamera("hotplug", "videotestsrc is-live=true ! video/x-raw,format=YUY2,width=640,height=480,framerate=30/1"));
        QTRY_VERIFY_WITH_TIMEOUT(listed(provider, "hotplug"), 10000);
        const CaptureDevicePtr camera = listed(provider, "hotplug");
        QCOMPARE(camera->localizedName(), QStringLiteral("Test-hotplug"));
        QCOMPARE(camera->uniqueID(), QStringLiteral("pipewire:hotplug"));
        QCOMPARE(camera->formats().size(), size_t(1));
        QCOMPARE(camera->formats().front()->width(), 640);
        QCOMPARE(camera->formats().front()->height(), 480);
        QCOMPARE(camera->formats().front()->captureFrameRate(), 30.0);
        QVERIFY(camera->isConnected());
        // Listing again gives the same object while the camera stays.
        QCOMPARE(listed(provider, "hotplug"), camera);

        rig->killCamera("hotplug");
        QTRY_VERIFY_WITH_TIMEOUT(!listed(provider, "hotplug"), 10000);
        QVERIFY(!camera->isConnected());
    }

    // Each format the frame path converts arrives as an NV12 frame of the
    // negotiated size showing the test bars the right way round: the grey
    // bar at the left, the blue one at the right.
    void deliversUprightPicturesInEachFormat_data()
    {
        QTest::addColumn<QString>("raw");
        QTest::addColumn<bool>("jpeg");
        for (const char* raw : {"YUY2", "NV12", "I420", "BGRx", "RGBx"})
            QTest::newRow(raw) << raw << false;
        QTest::newRow("MJPG") << "I420" << true;
    }
    void deliversUprightPicturesInEachFormat()
    {
        QFETCH(QString, raw);
        QFETCH(bool, jpeg);
        const QString name = QStringLiteral("bars-") + QString::fromLatin1(QTest::currentDataTag());
        QVERIFY(rig->startCamera(name, QStringLiteral("videotestsrc is-live=true ! "
                                                      "video/x-raw,format=%1,width=320,height=240,framerate=30/1%2")
                                           .arg(raw, jpeg ? QStringLiteral(" ! jpegenc ! image/jpeg") : QString())));
        pipewire::Provider provider;
        QTRY_VERIFY_WITH_TIMEOUT(listed(provider, name), 10000);
        const CaptureDevicePtr camera = listed(provider, name);
        QCOMPARE(camera->formats().size(), size_t(1));

        ErrorPtr error;
        auto stream = camera->openStream(camera->formats().front(), &error);
        QVERIFY2(stream, error ? qPrintable(error->localizedDescription()) : "no stream");
        SampleBuffer frame;
        QCOMPARE(stream->read(frame), CaptureDeviceStream::ReadResult::Frame);
        const auto& pixels = *frame.imageBuffer();
        QCOMPARE(pixels.width(), 320);
        QCOMPARE(pixels.height(), 240);
        const Rgb grey = colourAt(pixels, 320 / 14, 240 / 4);
        const Rgb blue = colourAt(pixels, 320 * 13 / 14, 240 / 4);
        QVERIFY2(std::abs(grey.r - grey.g) < 30 && std::abs(grey.g - grey.b) < 30 && grey.g > 140,
                 qPrintable("left bar: " + describe(grey)));
        QVERIFY2(blue.b > 140 && blue.r < 80 && blue.g < 80, qPrintable("right bar: " + describe(blue)));
        // Frames keep coming, with growing times.
        SampleBuffer next;
        QCOMPARE(stream->read(next), CaptureDeviceStream::ReadResult::Frame);
        QVERIFY(next.presentationTimeStamp().seconds() > frame.presentationTimeStamp().seconds());
        stream.reset();
        rig->killCamera(name);
    }

    // The producer dying under a running stream ends the capture thread's
    // wait at once, with the reason a user can act on.
    void aKilledProducerEndsTheStreamAsUnplugged()
    {
        QVERIFY(rig->startCamera("doomed", "videotestsrc is-live=true ! video/x-raw,format=YUY2,width=320,height=240,framerate=30/1"));
        pipewire::Provider provider;
        QTRY_VERIFY_WITH_TIMEOUT(listed(provider, "doomed"), 10000);
        const CaptureDevicePtr camera = listed(provider, "doomed");
        ErrorPtr error;
        auto stream = camera->openStream(camera->formats().front(), &error);
        QVERIFY(stream);
        SampleBuffer frame;
        QCOMPARE(stream->read(frame), CaptureDeviceStream::ReadResult::Frame);
        rig->killCamera("doomed");
        CaptureDeviceStream::ReadResult result = CaptureDeviceStream::ReadResult::Frame;
        // Frames already on their way may still arrive; the end follows them.
        for (int i = 0; i < 100 && result == CaptureDeviceStream::ReadResult::Frame; ++i)
            result = stream->read(frame);
        QCOMPARE(result, CaptureDeviceStream::ReadResult::Ended);
        QVERIFY2(stream->endReason().contains(QLatin1String("unplugged")), qPrintable(stream->endReason()));
        QCOMPARE(stream->endCause(), CameraFailureReason::Unplugged);
        // Opening the gone camera again says so rather than waiting.
        QVERIFY(!camera->openStream(camera->formats().front(), &error));
        QCOMPARE(error->code(), long(CaptureErrorCode::DeviceNotAvailable));
    }

    // The demo, as a user runs it with --camera pipewire:<node>, gets to a
    // best shot of a face only PipeWire delivers, and shows it as a front
    // camera should: the shot mirrored, the session video as the camera saw.
    void theDemoReachesABestShotThroughPipeWire()
    {
        const QSize size(720, 1280);
        const QImage reference = markedFace(size);
        // A webcam's way of sending: JPEG pictures in an AVI, decoded by the
        // producer and handed over raw at the clip's pace. At ThreadSanitizer's
        // pace the demo cannot take 30 frames a second, and GStreamer's
        // pipewiresink, short of buffers (PipeWire recycles one per cycle),
        // then stops sending for good: a slower camera keeps it going.
#if defined(__SANITIZE_THREAD__)
        const QString rate = QStringLiteral("8");
#else
        const QString rate = QStringLiteral("30");
#endif
        const QString still = scratch.filePath("face.png");
        const QString clip = scratch.filePath("face.avi");
        QVERIFY(reference.save(still));
        QVERIFY(zavo::testing::ffmpeg({"-loop", "1", "-framerate", rate, "-i", still, "-t", "12", "-c:v", "mjpeg", "-q:v", "4", clip}));
        QVERIFY(rig->startCamera("face", QStringLiteral("filesrc location=%1 ! avidemux ! jpegdec ! videoconvert ! "
                                                        "video/x-raw,format=I420 ! identity sync=true")
                                             .arg(clip)));
        pipewire::Provider provider;
        QTRY_VERIFY_WITH_TIMEOUT(listed(provider, "face"), 10000);
        QProcessEnvironment environment = rig->environment();
        environment.insert("PIPEWIRE_RUNTIME_DIR", rig->runtimeDir());
        environment.insert("QT_QPA_PLATFORM", "offscreen");
        environment.remove("DISPLAY");

        QProcess list;
        list.setProcessEnvironment(environment);
        list.start(QStringLiteral(ZAVO_DEMO_PATH), {"--list-cameras"});
        QVERIFY(list.waitForFinished(60000));
        QVERIFY2(list.readAllStandardOutput().contains("pipewire:face\t"), "not listed by --list-cameras");

        QProcess demo;
        demo.setProcessEnvironment(environment);
        demo.start(QStringLiteral(ZAVO_DEMO_PATH), {"--camera", "pipewire:face", "--output", scratch.filePath("out")});
        QVERIFY(demo.waitForFinished(300000));
        const QByteArray errors = demo.readAllStandardError();
        const QJsonObject summary = QJsonDocument::fromJson(demo.readAllStandardOutput().trimmed().split('\n').last()).object();
        QVERIFY2(summary.value("outcome").toString() == QLatin1String("bestShot"),
                 qPrintable(QJsonDocument(summary).toJson() + errors.right(2000)));
        QString why;
        QVERIFY2(looksShownAs(QImage(summary.value("bestShotImage").toString()), reference, 0, true, false, &why),
                 qPrintable("best shot: " + why));
        QVERIFY2(looksShownAs(shownLastFrame(summary.value("videoPath").toString(), scratch.path()), reference, 0,
                              false, false, &why),
                 qPrintable("session video: " + why));
        rig->killCamera("face");
    }

    // A failed check leaves no producer behind to confuse the next test.
    void cleanup()
    {
        if (rig)
            rig->killAllCameras();
    }
    void cleanupTestCase() { rig.reset(); }
};

QTEST_GUILESS_MAIN(TstPipeWire)
#include "tst_pipewire.moc"
