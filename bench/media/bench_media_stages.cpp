// Where the time of the two media pipelines goes, stage by stage, on one
// thread each: decoding a clip into full-size ARGB frames (the frame-dump
// recorder's frames; the compressor now reads scaled NV12 instead), converting
// a frame into the encoder's picture, and encoding small pictures.
// usage: bench_media_stages CLIP.mp4 WORKDIR
#include "media/Asset.h"
#include "media/AssetWriter_p.h"
#include "media/VideoFrameConverter_p.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include <QCoreApplication>
#include <QFile>
#include <chrono>
#include <cstdio>
#include <future>
#include <vector>

using namespace zavo::platform;
using Clock = std::chrono::steady_clock;

namespace {

double msSince(Clock::time_point start) { return std::chrono::duration<double, std::milli>(Clock::now() - start).count(); }

/// Decodes the clip into full-size ARGB (pooled buffers, each released at
/// once) when keep is off; keeps every frame when it is on.
std::vector<SampleBuffer> decodeAll(const QString& path, bool keep, double* msPerFrame)
{
    auto asset = Asset::assetWithPath(path);
    auto reader = AssetReader::create(asset);
    auto output = AssetReaderTrackOutput::create(asset->tracksWithMediaType(MediaType::Video).front());
    output->setAlwaysCopiesSampleData(keep);
    reader->addOutput(output);
    reader->startReading();
    std::vector<SampleBuffer> frames;
    int count = 0;
    const auto start = Clock::now();
    for (auto sample = output->copyNextSampleBuffer(); sample.isValid(); sample = output->copyNextSampleBuffer(), ++count) {
        if (keep)
            frames.push_back(sample);
    }
    *msPerFrame = msSince(start) / double(count);
    return frames;
}

double convertMs(const std::vector<SampleBuffer>& frames, int width, int height)
{
    AVFrame* picture = av_frame_alloc();
    picture->format = AV_PIX_FMT_YUV420P;
    picture->width = width;
    picture->height = height;
    av_frame_get_buffer(picture, 0);
    ImagePlanes planes;
    planes.avPixelFormat = AV_PIX_FMT_YUV420P;
    planes.width = width;
    planes.height = height;
    for (int i = 0; i < 3; ++i) {
        planes.data[i] = picture->data[i];
        planes.bytesPerRow[i] = picture->linesize[i];
    }
    VideoFrameConverter converter;
    const auto start = Clock::now();
    for (const SampleBuffer& frame : frames)
        converter.convert(ImagePlanes::of(*frame.imageBuffer()), planes);
    const double ms = msSince(start) / double(frames.size());
    av_frame_free(&picture);
    return ms;
}

/// Encoding alone: source frames already at the output size.
double encodeMs(const QString& path, int width, int height, int count)
{
    QFile::remove(path);
    auto writer = AssetWriter::create(QUrl::fromLocalFile(path), FileType::MPEG4);
    auto input = AssetWriterInput::create(MediaType::Video, {VideoCodec::H264, width, height});
    auto adaptor = AssetWriterInputPixelBufferAdaptor::create(input, PixelBufferAttributes{PixelFormat::ARGB32, width, height});
    writer->addInput(input);
    writer->startWriting();
    writer->startSessionAtSourceTime(MediaTime::zero());
    // Moving noise-free gradients: content with motion for the encoder to find.
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        auto buffer = adaptor->pixelBufferPool()->createPixelBuffer();
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                uint8_t* p = buffer->baseAddress() + y * buffer->bytesPerRow() + x * 4;
                p[0] = 255, p[1] = uint8_t(x + i * 2), p[2] = uint8_t(y + i), p[3] = uint8_t((x ^ y) + i);
            }
        adaptor->appendPixelBuffer(buffer, MediaTime::make(i, 30));
    }
    input->markAsFinished();
    std::promise<void> done;
    writer->finishWriting([&done] { done.set_value(); });
    done.get_future().wait();
    QFile::remove(path);
    return msSince(start) / count;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_media_stages CLIP.mp4 WORKDIR\n");
        return 2;
    }
    const QString work = QString::fromLocal8Bit(argv[2]);
    double decode = 0;
    decodeAll(QString::fromLocal8Bit(argv[1]), false, &decode);
    std::printf("decode_to_argb_ms %.3f\n", decode);
    const auto frames = decodeAll(QString::fromLocal8Bit(argv[1]), true, &decode);
    std::printf("convert_to_320x180_ms %.3f\n", convertMs(frames, 320, 180));
    std::printf("convert_to_180x320_ms %.3f\n", convertMs(frames, 180, 320));
    std::printf("encode_320x180_ms %.3f\n", encodeMs(work + "/stages-encode.mp4", 320, 180, 240));
    return 0;
}
