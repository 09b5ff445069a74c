// The live preview under the camera screen: what it paints from the newest
// frame (front camera mirrored, aspect-fill crop), drawn one to one or
// scaled, and repaints of only part of it.
#include "camera/CaptureSession.h"
#include "camera/CaptureVideoPreviewLayer.h"
#include "shell/CaptureVideoPreviewView_p.h"
#include "camera/synthetic/SyntheticCaptureDevice.h"

#include <QPainter>
#include <QtTest>
#include <cstring>

using namespace zavo::platform;

namespace {

constexpr uint8_t kDark = 16;
constexpr uint8_t kLight = 235;

/// A grey frame whose left half has leftLuma and right half rightLuma.
std::shared_ptr<PixelBuffer> halvesFrame(int width, int height, uint8_t leftLuma, uint8_t rightLuma)
{
    auto buffer = PixelBuffer::create(width, height, PixelFormat::NV12VideoRange);
    buffer->lockBaseAddress();
    for (int row = 0; row < height; ++row) {
        uint8_t* luma = buffer->baseAddress(0) + size_t(row) * buffer->bytesPerRow(0);
        std::memset(luma, leftLuma, size_t(width / 2));
        std::memset(luma + width / 2, rightLuma, size_t(width - width / 2));
    }
    for (int row = 0; row < buffer->heightOfPlane(1); ++row)
        std::memset(buffer->baseAddress(1) + size_t(row) * buffer->bytesPerRow(1), 128, size_t(width));
    buffer->unlockBaseAddress();
    return buffer;
}

bool isLight(QRgb pixel) { return qGray(pixel) > 200; }
bool isDark(QRgb pixel) { return qGray(pixel) < 40; }

/// A front camera (mirrored in the preview) the test hands frames to.
struct FrontPreview {
    std::shared_ptr<SyntheticCaptureDevice> device;
    std::shared_ptr<CaptureSession> session = CaptureSession::create();
    std::shared_ptr<CaptureVideoPreviewLayer> layer = CaptureVideoPreviewLayer::layerWithSession(session);

    FrontPreview()
    {
        SyntheticCaptureDevice::Configuration configuration;
        configuration.uniqueID = QStringLiteral("preview");
        configuration.frameSource = SyntheticCaptureDevice::FrameSource::Manual;
        configuration.formats = {SyntheticCaptureDevice::makeFormat("420v", 64, 32)};
        device = SyntheticCaptureDevice::create(configuration);
        session->addInput(CaptureDeviceInput::deviceInputWithDevice(device, nullptr));
        session->startRunning();
    }
    ~FrontPreview() { session->stopRunning(); }
};

QImage rendered(QWidget& view, const QRegion& region)
{
    QImage image(view.size(), QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::magenta);
    // render() puts the region's top-left corner at the offset given.
    view.render(&image, region.boundingRect().topLeft(), region);
    return image;
}

}  // namespace

class TstPreview : public QObject {
    Q_OBJECT

private slots:
    void showsTheNewestFrameMirroredOneToOne()
    {
        FrontPreview preview;
        QWidget window;
        auto* view = new CaptureVideoPreviewView(preview.layer, &window);
        preview.layer->setFrame(QRectF(0, 0, 64, 32));
        window.resize(64, 32);
        window.show();
        QTRY_COMPARE(view->geometry(), QRect(0, 0, 64, 32));

        preview.device->pushFrame(halvesFrame(64, 32, kDark, kLight));
        QTRY_VERIFY(view->paintedFrameCount() >= 1);
        QImage image = view->grab().toImage();
        // Mirrored: the camera's light right half is on the left.
        QVERIFY(isLight(image.pixel(2, 16)) && isLight(image.pixel(31, 16)));
        QVERIFY(isDark(image.pixel(32, 16)) && isDark(image.pixel(61, 16)));

        // A burst ends on the newest frame, however many were skipped.
        for (int i = 0; i < 10; ++i)
            preview.device->pushFrame(halvesFrame(64, 32, kDark, kLight));
        preview.device->pushFrame(halvesFrame(64, 32, kLight, kDark));
        QTRY_COMPARE(preview.layer->receivedFrameCount(), int64_t(12));
        QTRY_VERIFY(isDark(view->grab().toImage().pixel(2, 16)));
        image = view->grab().toImage();
        QVERIFY(isLight(image.pixel(61, 16)));
    }

    void aspectFillScalesTheCentreUp()
    {
        FrontPreview preview;
        QWidget window;
        auto* view = new CaptureVideoPreviewView(preview.layer, &window);
        // 64x32 into 128x128: scaled by four, the centre 32x32 is shown.
        preview.layer->setFrame(QRectF(0, 0, 128, 128));
        window.resize(128, 128);
        window.show();
        QTRY_COMPARE(view->geometry(), QRect(0, 0, 128, 128));
        preview.device->pushFrame(halvesFrame(64, 32, kDark, kLight));
        QTRY_VERIFY(view->paintedFrameCount() >= 1);
        const QImage image = view->grab().toImage();
        for (int y : {0, 64, 127}) {
            QVERIFY(isLight(image.pixel(4, y)));
            QVERIFY(isDark(image.pixel(123, y)));
        }
    }

    // The overlay's small views repaint small parts of the preview: each part
    // must show the image that belongs there, and nothing else is touched.
    void partialRepaintDrawsOnlyItsParts()
    {
        FrontPreview preview;
        QWidget window;
        auto* view = new CaptureVideoPreviewView(preview.layer, &window);
        preview.layer->setFrame(QRectF(0, 0, 64, 32));
        window.resize(64, 32);
        window.show();
        QTRY_COMPARE(view->geometry(), QRect(0, 0, 64, 32));
        preview.device->pushFrame(halvesFrame(64, 32, kDark, kLight));
        QTRY_VERIFY(view->paintedFrameCount() >= 1);

        const QRegion parts = QRegion(4, 4, 8, 8) + QRegion(44, 20, 10, 6);
        const QImage image = rendered(*view, parts);
        QVERIFY(isLight(image.pixel(4, 4)) && isLight(image.pixel(11, 11)));
        QVERIFY(isDark(image.pixel(44, 20)) && isDark(image.pixel(53, 25)));
        QCOMPARE(image.pixel(30, 16), QColor(Qt::magenta).rgba());
        QCOMPARE(image.pixel(60, 2), QColor(Qt::magenta).rgba());
    }

    void releasedWhileFramesArriveIsClean()
    {
        FrontPreview preview;
        for (int round = 0; round < 20; ++round) {
            auto view = std::make_unique<CaptureVideoPreviewView>(preview.layer);
            view->resize(64, 32);
            for (int i = 0; i < 3; ++i)
                preview.device->pushFrame(halvesFrame(64, 32, kDark, kLight));
            view.reset();
        }
        QTRY_VERIFY(preview.layer->receivedFrameCount() >= 60);
        QCoreApplication::processEvents();
    }
};

QTEST_MAIN(TstPreview)
#include "tst_preview.moc"
