// Scaling, format conversion, mirroring and turning of frames.
#include "media/VideoFrameConverter_p.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <QtTest>
#include <cstring>
#include <vector>

using namespace zavo::platform;

namespace {

/// A pixel whose four bytes name its position, so any mix-up shows.
uint32_t tag(int x, int y) { return 0xff000000u | uint32_t(y) << 8 | uint32_t(x); }

std::shared_ptr<PixelBuffer> taggedBuffer(int width, int height, PixelFormat format = PixelFormat::BGRA32)
{
    auto buffer = PixelBuffer::create(width, height, format);
    for (int y = 0; y < height; ++y) {
        auto* row = reinterpret_cast<uint32_t*>(buffer->baseAddress() + y * buffer->bytesPerRow());
        for (int x = 0; x < width; ++x)
            row[x] = tag(x, y);
    }
    return buffer;
}

uint32_t pixelAt(const PixelBuffer& buffer, int x, int y)
{
    uint32_t value;
    std::memcpy(&value, buffer.baseAddress() + y * buffer.bytesPerRow() + x * 4, 4);
    return value;
}

/// Where destination pixel (x, y) comes from in a w x h source, for a
/// clockwise turn followed by a left-right mirror.
QPoint sourceOf(int x, int y, int w, int h, int rotation, bool mirrored)
{
    const int dw = (rotation % 180) ? h : w;
    if (mirrored)
        x = dw - 1 - x;
    switch (rotation) {
    case 90: return {y, h - 1 - x};
    case 180: return {w - 1 - x, h - 1 - y};
    case 270: return {w - 1 - y, x};
    default: return {x, y};
    }
}

}  // namespace

class TstVideoFrameConverter : public QObject {
    Q_OBJECT

private slots:
    void turnsAndMirrorsEveryPixel_data()
    {
        QTest::addColumn<int>("rotation");
        QTest::addColumn<bool>("mirrored");
        QTest::addColumn<int>("destinationFormat");
        for (int rotation : {0, 90, 180, 270}) {
            for (bool mirrored : {false, true}) {
                // BGRA into BGRA turns the source's own planes; into ARGB it
                // goes through the scaler and the scratch planes first.
                QTest::addRow("%d%s-bgra", rotation, mirrored ? "-mirrored" : "")
                    << rotation << mirrored << int(PixelFormat::BGRA32);
                QTest::addRow("%d%s-argb", rotation, mirrored ? "-mirrored" : "")
                    << rotation << mirrored << int(PixelFormat::ARGB32);
            }
        }
    }

    void turnsAndMirrorsEveryPixel()
    {
        QFETCH(int, rotation);
        QFETCH(bool, mirrored);
        QFETCH(int, destinationFormat);
        // Wider than one 64-pixel tile, with odd sizes, to reach the edges.
        const int w = 131, h = 70;
        auto source = taggedBuffer(w, h);
        const bool turned = rotation % 180 != 0;
        auto destination = PixelBuffer::create(turned ? h : w, turned ? w : h, PixelFormat(destinationFormat));
        VideoFrameConverter converter;
        converter.setRotation(rotation);
        converter.setMirrored(mirrored);
        QVERIFY(converter.convert(*source, *destination));
        for (int y = 0; y < destination->height(); ++y) {
            for (int x = 0; x < destination->width(); ++x) {
                const QPoint from = sourceOf(x, y, w, h, rotation, mirrored);
                uint32_t expected = tag(from.x(), from.y());
                if (PixelFormat(destinationFormat) == PixelFormat::ARGB32)
                    expected = __builtin_bswap32(expected);  // B,G,R,A bytes become A,R,G,B
                if (pixelAt(*destination, x, y) != expected)
                    QFAIL(qPrintable(QStringLiteral("pixel %1,%2").arg(x).arg(y)));
            }
        }
    }

    void mirroringWhileScalingMatchesTheUnmirroredPicture_data()
    {
        QTest::addColumn<int>("sourceFormat");
        QTest::addColumn<QSize>("destinationSize");
        QTest::addColumn<int>("destinationFormat");
        QTest::addColumn<int>("rotation");
        QTest::addColumn<bool>("mirrored");
        const QSize sizes[] = {{130, 74}, {67, 37}, {300, 150}};  // as is, shrunk unevenly, enlarged
        for (int format : {int(AV_PIX_FMT_NV12), int(AV_PIX_FMT_YUV420P)}) {
            for (const QSize& size : sizes) {
                for (int rotation : {0, 180}) {
                    for (bool mirrored : {false, true}) {
                        if (rotation == 0 && !mirrored)
                            continue;
                        for (int into : {int(PixelFormat::BGRA32), int(PixelFormat::ARGB32)})
                            QTest::addRow("%s %dx%d %s %d%s", format == AV_PIX_FMT_NV12 ? "nv12" : "yuv420p",
                                          size.width(), size.height(),
                                          into == int(PixelFormat::BGRA32) ? "bgra" : "argb", rotation,
                                          mirrored ? " mirrored" : "")
                                << format << size << into << rotation << mirrored;
                    }
                }
            }
        }
    }

    void mirroringWhileScalingMatchesTheUnmirroredPicture()
    {
        // A YUV camera frame goes through the scaler band by band and its rows
        // are flipped as they come out; the result must be exactly the plain
        // conversion, flipped.
        QFETCH(int, sourceFormat);
        QFETCH(QSize, destinationSize);
        QFETCH(int, destinationFormat);
        QFETCH(int, rotation);
        QFETCH(bool, mirrored);
        const int w = 130, h = 74;  // several bands, the last one short
        std::vector<uint8_t> luma(size_t(w) * h), chroma(size_t(w) * h / 2);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                luma[size_t(y) * w + size_t(x)] = uint8_t(16 + (x * 7 + y * 13) % 220);
        for (size_t i = 0; i < chroma.size(); ++i)
            chroma[i] = uint8_t(64 + (i * 37) % 128);
        ImagePlanes planes;
        planes.avPixelFormat = sourceFormat;
        planes.width = w;
        planes.height = h;
        planes.data[0] = luma.data();
        planes.bytesPerRow[0] = w;
        planes.data[1] = chroma.data();
        if (sourceFormat == AV_PIX_FMT_NV12) {
            planes.bytesPerRow[1] = w;
        } else {
            planes.data[2] = chroma.data() + chroma.size() / 2;
            planes.bytesPerRow[1] = planes.bytesPerRow[2] = w / 2;
        }
        const auto format = PixelFormat(destinationFormat);
        auto plain = PixelBuffer::create(destinationSize.width(), destinationSize.height(), format);
        auto flipped = PixelBuffer::create(destinationSize.width(), destinationSize.height(), format);
        VideoFrameConverter converter;
        QVERIFY(converter.convert(planes, *plain));
        converter.setRotation(rotation);
        converter.setMirrored(mirrored);
        QVERIFY(converter.convert(planes, *flipped));
        const bool leftRight = mirrored != (rotation == 180);
        const bool upsideDown = rotation == 180;
        const int dw = destinationSize.width(), dh = destinationSize.height();
        for (int y = 0; y < dh; ++y) {
            for (int x = 0; x < dw; ++x) {
                const uint32_t expected = pixelAt(*plain, leftRight ? dw - 1 - x : x, upsideDown ? dh - 1 - y : y);
                if (pixelAt(*flipped, x, y) != expected)
                    QFAIL(qPrintable(QStringLiteral("pixel %1,%2: %3 instead of %4")
                                         .arg(x)
                                         .arg(y)
                                         .arg(pixelAt(*flipped, x, y), 8, 16)
                                         .arg(expected, 8, 16)));
            }
        }
    }

    void scalesYuvCameraFormatsIntoBgra_data()
    {
        QTest::addColumn<int>("format");
        QTest::newRow("yuyv422") << int(AV_PIX_FMT_YUYV422);
        QTest::newRow("yuv420p") << int(AV_PIX_FMT_YUV420P);
        QTest::newRow("nv12") << int(AV_PIX_FMT_NV12);
    }

    void scalesYuvCameraFormatsIntoBgra()
    {
        QFETCH(int, format);
        // Video-range pure red: Y 81, Cb 90, Cr 240 (BT.601).
        const int w = 64, h = 48;
        std::vector<uint8_t> y(w * h, 81), cb(w * h, 90), cr(w * h, 240), packed(w * h * 2);
        for (int i = 0; i < w * h / 2; ++i) {
            const uint8_t quad[4] = {81, 90, 81, 240};
            std::memcpy(&packed[i * 4], quad, 4);
        }
        std::vector<uint8_t> interleaved(w * h / 2);
        for (size_t i = 0; i < interleaved.size(); i += 2) {
            interleaved[i] = 90;
            interleaved[i + 1] = 240;
        }
        ImagePlanes planes;
        planes.avPixelFormat = format;
        planes.width = w;
        planes.height = h;
        if (format == AV_PIX_FMT_YUYV422) {
            planes.data[0] = packed.data();
            planes.bytesPerRow[0] = w * 2;
        } else if (format == AV_PIX_FMT_NV12) {
            planes.data[0] = y.data();
            planes.data[1] = interleaved.data();
            planes.bytesPerRow[0] = w;
            planes.bytesPerRow[1] = w;
        } else {
            planes.data[0] = y.data();
            planes.data[1] = cb.data();
            planes.data[2] = cr.data();
            planes.bytesPerRow[0] = w;
            planes.bytesPerRow[1] = planes.bytesPerRow[2] = w / 2;
        }
        auto destination = PixelBuffer::create(32, 96, PixelFormat::BGRA32);
        VideoFrameConverter converter;
        converter.setRotation(90);
        QVERIFY(converter.convert(planes, *destination));
        const uint8_t* p = destination->baseAddress() + 40 * destination->bytesPerRow() + 16 * 4;
        QVERIFY2(p[0] < 12 && p[1] < 12 && p[2] > 240, qPrintable(QStringLiteral("%1 %2 %3").arg(p[0]).arg(p[1]).arg(p[2])));
    }

    void cameraFramesKeepTheirColoursInBgraOfTheirOwnSize_data()
    {
        QTest::addColumn<int>("format");
        QTest::addColumn<int>("yuvFormat");
        QTest::newRow("nv12 video range") << int(PixelFormat::NV12VideoRange) << int(AV_PIX_FMT_NV12);
        QTest::newRow("nv12 full range") << int(PixelFormat::NV12FullRange) << int(AV_PIX_FMT_NV12);
        QTest::newRow("yuv420p") << int(PixelFormat::NV12VideoRange) << int(AV_PIX_FMT_YUV420P);
    }

    void cameraFramesKeepTheirColoursInBgraOfTheirOwnSize()
    {
        // A real photo to YUV and back at the same size, which is the frame
        // handler's conversion of every camera frame: each range must come
        // back in its own range and matrix, with only 4:2:0's loss of colour.
        QFETCH(int, format);
        QFETCH(int, yuvFormat);
        QImage photo(QStringLiteral(ZAVO_TEST_DATA_DIR "/matplotlib__grace_hopper.jpg"));
        QVERIFY(!photo.isNull());
        photo = photo.convertToFormat(QImage::Format_ARGB32).copy(0, 0, 320, 240);
        auto original = PixelBuffer::create(320, 240, PixelFormat::BGRA32);
        for (int y = 0; y < 240; ++y)
            std::memcpy(original->baseAddress() + y * original->bytesPerRow(), photo.constScanLine(y), 320 * 4);
        auto yuv = PixelBuffer::create(320, 240, PixelFormat(format));
        VideoFrameConverter converter;
        QVERIFY(converter.convert(*original, *yuv));
        ImagePlanes planes = ImagePlanes::of(*yuv);
        std::vector<uint8_t> u(160 * 120), v(160 * 120);
        if (yuvFormat == AV_PIX_FMT_YUV420P) {
            // The same samples split into two planes.
            for (int y = 0; y < 120; ++y)
                for (int x = 0; x < 160; ++x) {
                    u[size_t(y * 160 + x)] = planes.data[1][y * planes.bytesPerRow[1] + 2 * x];
                    v[size_t(y * 160 + x)] = planes.data[1][y * planes.bytesPerRow[1] + 2 * x + 1];
                }
            planes.avPixelFormat = AV_PIX_FMT_YUV420P;
            planes.data[1] = u.data();
            planes.data[2] = v.data();
            planes.bytesPerRow[1] = planes.bytesPerRow[2] = 160;
        }
        auto back = PixelBuffer::create(320, 240, PixelFormat::BGRA32);
        QVERIFY(converter.convert(planes, *back));
        double error = 0;
        int worst = 0;
        for (int y = 0; y < 240; ++y)
            for (int x = 0; x < 320 * 4; x += 4)
                for (int c = 0; c < 3; ++c) {
                    const int d = std::abs(int(back->baseAddress()[y * back->bytesPerRow() + x + c])
                                           - int(original->baseAddress()[y * original->bytesPerRow() + x + c]));
                    error += d;
                    worst = std::max(worst, d);
                }
        error /= 320.0 * 240 * 3;
        // A wrong range or matrix shifts every pixel by 10 or more.
        QVERIFY2(error < 3.0, qPrintable(QStringLiteral("mean error %1, worst %2").arg(error).arg(worst)));
    }

    void rebuildsTheScalerOnlyWhenTheShapeChanges()
    {
        VideoFrameConverter converter;
        auto big = taggedBuffer(320, 240);
        auto small = PixelBuffer::create(160, 120, PixelFormat::NV12VideoRange);
        for (int i = 0; i < 5; ++i)
            QVERIFY(converter.convert(*big, *small));
        QCOMPARE(converter.scalerSetupCount(), 1);
        auto other = PixelBuffer::create(80, 60, PixelFormat::NV12VideoRange);
        QVERIFY(converter.convert(*big, *other));
        QCOMPARE(converter.scalerSetupCount(), 2);
        auto fullRange = PixelBuffer::create(80, 60, PixelFormat::NV12FullRange);
        QVERIFY(converter.convert(*big, *fullRange));
        QCOMPARE(converter.scalerSetupCount(), 3);
        // Video range maps black to 16, full range to 0.
        auto black = PixelBuffer::create(320, 240, PixelFormat::BGRA32);
        std::memset(black->baseAddress(), 0, black->dataSize());
        QVERIFY(converter.convert(*black, *fullRange));
        QVERIFY(converter.convert(*black, *other));
        QCOMPARE(int(fullRange->baseAddress()[0]), 0);
        QCOMPARE(int(other->baseAddress()[0]), 16);
    }

    void shrinkingAveragesInsteadOfSkipping_data()
    {
        QTest::addColumn<int>("scaling");
        QTest::newRow("bilinear") << int(VideoFrameConverter::Scaling::Bilinear);
        QTest::newRow("bicubic") << int(VideoFrameConverter::Scaling::Bicubic);
    }

    void shrinkingAveragesInsteadOfSkipping()
    {
        QFETCH(int, scaling);
        // A one-pixel checkerboard shrunk 4x (and 5x, which averages 2-pixel
        // blocks first) must come out flat grey; sampling would give stripes.
        auto source = PixelBuffer::create(80, 60, PixelFormat::ARGB32);
        for (int y = 0; y < 60; ++y)
            std::memset(source->baseAddress() + y * source->bytesPerRow(), 0, source->bytesPerRow());
        for (int y = 0; y < 60; ++y)
            for (int x = (y % 2); x < 80; x += 2)
                std::memset(source->baseAddress() + y * source->bytesPerRow() + x * 4, 255, 4);
        VideoFrameConverter converter;
        converter.setScaling(VideoFrameConverter::Scaling(scaling));
        for (QSize size : {QSize(20, 15), QSize(16, 12)}) {
            auto destination = PixelBuffer::create(size.width(), size.height(), PixelFormat::BGRA32);
            QVERIFY(converter.convert(*source, *destination));
            for (int y = 1; y < size.height() - 1; ++y)
                for (int x = 1; x < size.width() - 1; ++x)
                    for (int c = 0; c < 4; ++c) {
                        const int value = destination->baseAddress()[y * destination->bytesPerRow() + x * 4 + c];
                        QVERIFY2(qAbs(value - 128) <= 12, qPrintable(QStringLiteral("%1 at %2,%3").arg(value).arg(x).arg(y)));
                    }
        }
    }

    void shrinksADecodedMovieFrameByAveragingEachPlane_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::newRow("a quarter, as the compressor reads 720x1280") << 16 << 24;
        QTest::newRow("an uneven step") << 20 << 30;
    }

    void shrinksADecodedMovieFrameByAveragingEachPlane()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        // A decoder's I420 picture (wider rows than its width, as decoders
        // pad them) with luma, blue and red chroma in different patterns, so a
        // swapped or misplaced plane shows in the NV12 result.
        constexpr int kWidth = 64, kHeight = 96, kPadding = 32;
        std::vector<uint8_t> y((kWidth + kPadding) * kHeight), u((kWidth / 2 + kPadding) * kHeight / 2),
            v((kWidth / 2 + kPadding) * kHeight / 2);
        ImagePlanes planes;
        planes.avPixelFormat = AV_PIX_FMT_YUV420P;
        planes.width = kWidth;
        planes.height = kHeight;
        planes.data[0] = y.data();
        planes.data[1] = u.data();
        planes.data[2] = v.data();
        planes.bytesPerRow[0] = kWidth + kPadding;
        planes.bytesPerRow[1] = planes.bytesPerRow[2] = kWidth / 2 + kPadding;
        for (int row = 0; row < kHeight; ++row)
            for (int x = 0; x < kWidth; ++x)
                y[row * planes.bytesPerRow[0] + x] = uint8_t(16 + (x + row) % 4 * 60);  // averages to 106
        for (int row = 0; row < kHeight / 2; ++row)
            for (int x = 0; x < kWidth / 2; ++x) {
                u[row * planes.bytesPerRow[1] + x] = row < kHeight / 4 ? 40 : 200;  // top dark, bottom light
                v[row * planes.bytesPerRow[2] + x] = x < kWidth / 4 ? 60 : 180;     // left dark, right light
            }

        VideoFrameConverter converter;
        converter.setScaling(VideoFrameConverter::Scaling::Area);
        auto destination = PixelBuffer::create(width, height, PixelFormat::NV12VideoRange);
        QVERIFY(converter.convert(planes, *destination));
        const uint8_t* luma = destination->baseAddress(0);
        const uint8_t* chroma = destination->baseAddress(1);
        // Sampling instead of averaging would give the pattern's own values
        // (16, 76, 136, 196); blocks of an uneven step hold a few more of one.
        int sum = 0;
        for (int row = 0; row < height; ++row)
            for (int x = 0; x < width; ++x) {
                const int value = luma[row * destination->bytesPerRow(0) + x];
                sum += value;
                QVERIFY2(qAbs(value - 106) <= 20, qPrintable(QStringLiteral("luma %1 at %2,%3").arg(value).arg(x).arg(row)));
            }
        QVERIFY(qAbs(sum / (width * height) - 106) <= 2);
        // Away from the edges between the halves every chroma sample is one
        // of the source's two values, in its own half: a swapped U and V, or
        // one plane read at the other's stride, gives other values there.
        const int chromaWidth = width / 2, chromaHeight = height / 2;
        for (int row : {0, chromaHeight - 1})
            for (int x : {0, chromaWidth - 1}) {
                const uint8_t* pair = chroma + row * destination->bytesPerRow(1) + x * 2;
                // (The box filter's fixed-point weights may round by one.)
                QVERIFY(qAbs(pair[0] - (row == 0 ? 40 : 200)) <= 1);
                QVERIFY(qAbs(pair[1] - (x == 0 ? 60 : 180)) <= 1);
            }
    }

    void refusesWhatItCannotTurnAndLeavesTheDestinationAlone()
    {
        VideoFrameConverter converter;
        converter.setRotation(90);
        auto source = taggedBuffer(8, 4);
        std::vector<uint8_t> packed(4 * 8 * 2, 0x5a);
        ImagePlanes yuyv;
        yuyv.avPixelFormat = AV_PIX_FMT_YUYV422;
        yuyv.width = 4;
        yuyv.height = 8;
        yuyv.data[0] = packed.data();
        yuyv.bytesPerRow[0] = 8;
        source->lockBaseAddress();
        QVERIFY(!converter.convert(ImagePlanes::of(*source), yuyv));
        source->unlockBaseAddress();
        QVERIFY(std::all_of(packed.begin(), packed.end(), [](uint8_t b) { return b == 0x5a; }));

        ImagePlanes unknown = yuyv;
        unknown.avPixelFormat = -1;
        auto destination = PixelBuffer::create(4, 8, PixelFormat::BGRA32);
        QVERIFY(!converter.convert(unknown, *destination));
    }
};

QTEST_GUILESS_MAIN(TstVideoFrameConverter)
#include "tst_videoframeconverter.moc"
