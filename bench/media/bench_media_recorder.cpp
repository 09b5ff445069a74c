// The frame-dump recorder's two costs, measured on real frames:
//   append  MB/s of appendStorageWithSampleBuffer, against writing the same
//           bytes to one file in the same folder with plain sequential writes;
//   flush   seconds from endRecordWithCompletion to its completion (reading
//           the frame files back and encoding the 180x320 MP4).
//   aside   for comparison, the same files written aside and renamed into
//           place by hand, with nothing of the recorder around the write.
// usage: bench_media_recorder FRAMES.raw WIDTH HEIGHT COUNT FPS WORKDIR
// FRAMES.raw holds COUNT BGRA frames of WIDTH x HEIGHT, rows unpadded.
#include "base/FileSystem.h"
#include "recording/ZMSaveVideoService.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <chrono>
#include <cstdio>
#include <future>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace zavo;
using namespace zavo::platform;
using Clock = std::chrono::steady_clock;

namespace {

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

/// The baseline: the same bytes, one sequential file, plain write(2) calls.
double plainWriteSeconds(const QString& path, const std::vector<SampleBuffer>& frames)
{
    const auto start = Clock::now();
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (const SampleBuffer& frame : frames) {
        const PixelBuffer& image = *frame.imageBuffer();
        const size_t size = image.bytesPerRow() * size_t(image.height());
        if (::write(fd, image.baseAddress(), size) != ssize_t(size))
            std::perror("write");
    }
    ::close(fd);
    const double seconds = secondsSince(start);
    QFile::remove(path);
    return seconds;
}

/// Atomic like the recorder's writes (aside, then renamed), written by hand.
double unsyncedAtomicSeconds(const QString& folder, const std::vector<SampleBuffer>& frames)
{
    const auto start = Clock::now();
    int index = 0;
    for (const SampleBuffer& frame : frames) {
        const PixelBuffer& image = *frame.imageBuffer();
        const size_t size = image.bytesPerRow() * size_t(image.height());
        const QByteArray aside = QFile::encodeName(folder + "/.unsynced.tmp");
        const int fd = ::open(aside.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (::write(fd, image.baseAddress(), size) != ssize_t(size))
            std::perror("write");
        ::close(fd);
        ::rename(aside.constData(), QFile::encodeName(folder + QStringLiteral("/unsynced_%1.dat").arg(index++)).constData());
    }
    const double seconds = secondsSince(start);
    for (int i = 0; i < index; ++i)
        QFile::remove(folder + QStringLiteral("/unsynced_%1.dat").arg(i));
    return seconds;
}

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 7) {
        std::fprintf(stderr, "usage: bench_media_recorder FRAMES.raw WIDTH HEIGHT COUNT FPS WORKDIR\n");
        return 2;
    }
    const int width = std::atoi(argv[2]);
    const int height = std::atoi(argv[3]);
    const int count = std::atoi(argv[4]);
    const double fps = std::atof(argv[5]);
    const QString work = QString::fromLocal8Bit(argv[6]);
    setDocumentsDirectory(work);
    QDir(work + "/bright_fold").removeRecursively();

    // Frames in capture-like buffers (pooled, 64-byte aligned rows), read
    // up front so that only the recorder's own work is timed.
    auto pool = PixelBufferPool::create({PixelFormat::BGRA32, width, height});
    std::vector<SampleBuffer> frames;
    QFile raw(QString::fromLocal8Bit(argv[1]));
    if (!raw.open(QIODevice::ReadOnly))
        return 1;
    for (int i = 0; i < count; ++i) {
        auto buffer = pool->createPixelBuffer();
        for (int y = 0; y < height; ++y)
            raw.read(reinterpret_cast<char*>(buffer->baseAddress() + size_t(y) * buffer->bytesPerRow()), qint64(width) * 4);
        frames.emplace_back(buffer, MediaTime::make(i, int32_t(fps)), FormatDescription::forImageBuffer(*buffer));
    }
    const double bytes = double(frames.front().imageBuffer()->bytesPerRow()) * height * count;

    auto service = ZMSaveVideoService::create(width, height, fps);
    service->beginRecordWithFileURL(QUrl::fromLocalFile(work + "/bright_fold/ZMRecordedVideo.mp4"));
    QDir().mkpath(work + "/bright_fold");
    const double plain = plainWriteSeconds(work + "/bright_fold/plain.raw", frames);
    const double unsynced = unsyncedAtomicSeconds(work + "/bright_fold", frames);
    auto start = Clock::now();
    for (const SampleBuffer& frame : frames)
        service->appendStorageWithSampleBuffer(frame);
    const double append = secondsSince(start);

    std::promise<void> done;
    const double cpuBefore = cpuSeconds();
    start = Clock::now();
    service->endRecordWithCompletion([&done] { done.set_value(); });
    done.get_future().wait();
    const double flush = secondsSince(start);
    const double flushCpu = cpuSeconds() - cpuBefore;

    std::printf("append_mb_s %.1f\nplain_write_mb_s %.1f\nunsynced_atomic_mb_s %.1f\nflush_s %.3f\nflush_cpu_s %.3f\n",
                bytes / append / 1e6, bytes / plain / 1e6, bytes / unsynced / 1e6, flush, flushCpu);
    return 0;
}
