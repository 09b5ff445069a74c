// The PipeWire camera path against the V4L2 one, each figure next to its
// baseline from the same run:
//
//  1. CPU per 640x480 YUY2 frame from the camera to a decoded NV12 frame:
//     through PipeWire (the capture thread's wait, decode and hand-back, plus
//     PipeWire's loop thread) against the V4L2 stream for the same format
//     (behind the fake kernel, whose copy into the buffer stands in for the
//     driver's DMA and is counted against V4L2), and the decode alone;
//  2. time from a producer's arrival to its listing, and from its removal
//     to the end of a stream reading from it.
//
// Needs pipewire, wireplumber, dbus-daemon and gst-launch-1.0 (it starts its
// own daemon, as the tests do). Usage: bench_pipewire [frames]
#include "FakeWebcams.h"
#include "PipeWireRig.h"
#include "camera/CaptureDevice_p.h"
#include "camera/pipewire/Provider_p.h"
#include "camera/v4l2/FrameDecoder_p.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>

#include <linux/videodev2.h>

#include <cstdio>
#include <map>

using namespace zavo;
using namespace zavo::platform;
using namespace zavo::testing;

namespace {

int64_t threadCpuNow()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

/// CPU nanoseconds of the process's threads with this name.
int64_t namedThreadCpu(const QString& wanted)
{
    int64_t total = 0;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
        QFile schedstat(tasks.filePath(task + QStringLiteral("/schedstat")));
        if (comm.open(QIODevice::ReadOnly) && schedstat.open(QIODevice::ReadOnly)
            && QString::fromUtf8(comm.readAll().trimmed()) == wanted)
            total += schedstat.readAll().split(' ').value(0).toLongLong();
    }
    return total;
}

CaptureDeviceFormatPtr formatOf(const CaptureDevicePtr& device, int width, int height, const char* fourcc)
{
    for (const auto& format : device->formats()) {
        if (format->width() == width && format->height() == height
            && fourCharCodeText(format->mediaSubType()) == QLatin1String(fourcc))
            return format;
    }
    return nullptr;
}

/// Reads frames from stream (after a few to settle) and returns the reading
/// thread's CPU per frame in microseconds; *extra gets the named helper
/// thread's CPU per frame over the same span.
double cpuPerFrame(CaptureDeviceStream& stream, int frames, const QString& helperThread, double* extra)
{
    SampleBuffer frame;
    for (int i = 0; i < 10; ++i)
        stream.read(frame);
    const int64_t helperBefore = helperThread.isEmpty() ? 0 : namedThreadCpu(helperThread);
    const int64_t before = threadCpuNow();
    int read = 0;
    while (read < frames && stream.read(frame) == CaptureDeviceStream::ReadResult::Frame)
        ++read;
    const int64_t spent = threadCpuNow() - before;
    if (extra)
        *extra = helperThread.isEmpty() ? 0.0
                                        : double(namedThreadCpu(helperThread) - helperBefore) / 1000.0 / std::max(read, 1);
    return double(spent) / 1000.0 / std::max(read, 1);
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int frames = argc > 1 ? std::max(30, atoi(argv[1])) : 300;
    if (const QString tool = PipeWireRig::missingTool(); !tool.isEmpty()) {
        std::fprintf(stderr, "bench_pipewire: %s is not installed\n", qPrintable(tool));
        return 1;
    }

    // V4L2: the recorded built-in camera lists YUYV 640x480 at 30 fps.
    double v4l2Us = 0;
    double decodeUs = 0;
    {
        FakeWebcams webcams;
        webcams.kernel->plug(QStringLiteral("video0"), fixtureCamera(QStringLiteral("laptop_builtin.txt")));
        const auto device = webcams.only();
        const auto format = device ? formatOf(device, 640, 480, "YUYV") : nullptr;
        ErrorPtr error;
        auto stream = format ? device->openStream(format, &error) : nullptr;
        if (!stream) {
            std::fprintf(stderr, "bench_pipewire: no V4L2 stream\n");
            return 1;
        }
        v4l2Us = cpuPerFrame(*stream, frames, {}, nullptr);

        // The decode alone, on one YUYV frame of the same size.
        std::vector<uint8_t> yuyv(640 * 480 * 2);
        for (size_t i = 0; i < yuyv.size(); ++i)
            yuyv[i] = uint8_t((i * 7) & 0xff);
        auto decoder = v4l2::FrameDecoder::create(V4L2_PIX_FMT_YUYV, 640, 480, 1280, false);
        auto pool = PixelBufferPool::create({PixelFormat::NV12VideoRange, 640, 480});
        const int64_t before = threadCpuNow();
        for (int i = 0; i < frames; ++i) {
            auto pixels = pool->createPixelBuffer();
            decoder->decode(yuyv.data(), yuyv.size(), *pixels);
        }
        decodeUs = double(threadCpuNow() - before) / 1000.0 / frames;
    }

    PipeWireRig rig;
    rig.start();
    if (QTest::currentTestFailed()) {
        std::fprintf(stderr, "bench_pipewire: the PipeWire daemon did not start\n");
        return 1;
    }
    pipewire::Provider provider;
    auto listed = [&](const QString& name) -> CaptureDevicePtr {
        for (const auto& device : provider.devices()) {
            if (device->location() == pipewire::kLocationPrefix + name)
                return device;
        }
        return nullptr;
    };
    provider.devices();  // connected before the clock starts

    QElapsedTimer arrival;
    arrival.start();
    rig.startCamera(QStringLiteral("bench"), QStringLiteral("videotestsrc is-live=true pattern=ball ! "
                                                            "video/x-raw,format=YUY2,width=640,height=480,framerate=30/1"));
    CaptureDevicePtr device;
    while (!(device = listed(QStringLiteral("bench"))) && arrival.elapsed() < 10000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    const double listingMs = arrival.nsecsElapsed() / 1e6;  // includes gst-launch's own start
    if (!device) {
        std::fprintf(stderr, "bench_pipewire: the producer was never listed\n");
        return 1;
    }
    ErrorPtr error;
    auto stream = device->openStream(device->formats().front(), &error);
    if (!stream) {
        std::fprintf(stderr, "bench_pipewire: no PipeWire stream\n");
        return 1;
    }
    double loopUs = 0;
    const double pipewireUs = cpuPerFrame(*stream, frames, QStringLiteral("zavo-pipewire"), &loopUs);

    // From the kill: the daemon sees the producer's socket close and removes
    // its node; the stream hears of it from the registry.
    QElapsedTimer removal;
    removal.start();
    rig.killCamera(QStringLiteral("bench"));
    SampleBuffer frame;
    while (stream->read(frame) == CaptureDeviceStream::ReadResult::Frame) {
    }
    const double endMs = removal.nsecsElapsed() / 1e6;

    std::printf("CPU per 640x480 YUY2 frame, %d frames\n", frames);
    std::printf("  decode alone (FrameDecoder)        %7.1f us\n", decodeUs);
    std::printf("  V4L2 stream (fake kernel)           %7.1f us   %.2fx decode\n", v4l2Us, v4l2Us / decodeUs);
    std::printf("  PipeWire stream, capture thread     %7.1f us\n", pipewireUs);
    std::printf("  PipeWire loop thread                %7.1f us\n", loopUs);
    std::printf("  PipeWire total                      %7.1f us   %.2fx V4L2, %.2fx decode\n", pipewireUs + loopUs,
                (pipewireUs + loopUs) / v4l2Us, (pipewireUs + loopUs) / decodeUs);
    std::printf("producer started -> listed            %7.1f ms (includes gst-launch starting)\n", listingMs);
    std::printf("producer killed -> stream ended       %7.1f ms (%s)\n", endMs, qPrintable(stream->endReason()));
    return 0;
}
