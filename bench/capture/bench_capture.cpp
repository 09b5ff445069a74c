// Costs of the capture path, each against a baseline measured in the same run:
//
//  1. heap allocations per frame from the camera to the frame handler, with
//     recording off and on (each recorder), synthetic camera and file camera;
//  2. CPU time per 720x1280 frame for conversion to BGRA and delivery to the
//     handler, against a plain memcpy of the same BGRA frame;
//  3. a 30-second 720x1280 30 fps file-camera session recorded by the movie
//     file output: frames recorded / frames captured, and the encoder's
//     real-time factor;
//  4. time from configureWithCameraPosition to the first frame at the
//     handler, with the file camera.
//
// Allocations are counted by interposing malloc and friends for the whole
// process, per thread, so that the figures say which thread allocates.
//
// Usage: bench_capture [--quick]   (--quick shortens the long session to 8 s)
#include "capture/ZMCameraCaptureManager.h"
#include "shell/DeviceScreen.h"
#include "shell/DeviceScreen_p.h"
#include "camera/file/FileCaptureDevice.h"
#include "base/FileSystem.h"
#include "base/ProcessInfo_p.h"
#include "camera/synthetic/SyntheticCaptureDevice.h"
#include "recording/ZMSaveVideoExService.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

// ------------------------------------------------------- allocation counter

namespace {

struct ThreadSlot {
    std::atomic<pid_t> tid{0};
    std::atomic<uint64_t> allocations{0};
};
std::array<ThreadSlot, 256> gSlots;
std::atomic<int> gNextSlot{0};
thread_local ThreadSlot* tSlot = nullptr;

inline void countAllocation()
{
    if (!tSlot) {
        const int index = gNextSlot.fetch_add(1);
        if (index >= int(gSlots.size()))
            return;
        tSlot = &gSlots[size_t(index)];
        tSlot->tid = pid_t(syscall(SYS_gettid));
    }
    tSlot->allocations.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define ZAVO_COUNT_ALLOCATIONS 1
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

void* malloc(size_t size)
{
    countAllocation();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size)
{
    countAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size)
{
    countAllocation();
    return __libc_realloc(pointer, size);
}
void* memalign(size_t alignment, size_t size)
{
    countAllocation();
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size)
{
    countAllocation();
    return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size)
{
    countAllocation();
    *out = __libc_memalign(alignment, size);
    return *out ? 0 : ENOMEM;
}
void free(void* pointer) { __libc_free(pointer); }
}
#endif

namespace {

using namespace zavo;
using namespace zavo::platform;
using Clock = std::chrono::steady_clock;

QString threadName(pid_t tid)
{
    QFile comm(QStringLiteral("/proc/self/task/%1/comm").arg(tid));
    if (!comm.open(QIODevice::ReadOnly))
        return QStringLiteral("(ended %1)").arg(tid);
    return QString::fromUtf8(comm.readAll()).trimmed();
}

/// Allocations so far, per thread id.
std::map<pid_t, uint64_t> allocationSnapshot()
{
    std::map<pid_t, uint64_t> snapshot;
    const int used = std::min(gNextSlot.load(), int(gSlots.size()));
    for (int i = 0; i < used; ++i)
        snapshot[gSlots[size_t(i)].tid.load()] += gSlots[size_t(i)].allocations.load();
    return snapshot;
}

/// Nanoseconds on CPU of every live thread (schedstat), per thread id.
std::map<pid_t, uint64_t> cpuSnapshot()
{
    std::map<pid_t, uint64_t> snapshot;
    for (const QString& entry : QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile stat(QStringLiteral("/proc/self/task/%1/schedstat").arg(entry));
        if (stat.open(QIODevice::ReadOnly))
            snapshot[entry.toInt()] = stat.readAll().split(' ').value(0).toULongLong();
    }
    return snapshot;
}

/// Names of the live threads, taken while they still run.
std::map<pid_t, QString> threadNames()
{
    std::map<pid_t, QString> names;
    for (const QString& entry : QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        names[entry.toInt()] = threadName(entry.toInt());
    return names;
}

/// Growth between two snapshots, summed per thread name.
std::map<QString, uint64_t> deltaByName(const std::map<pid_t, uint64_t>& before, const std::map<pid_t, uint64_t>& after,
                                        const std::map<pid_t, QString>& names)
{
    std::map<QString, uint64_t> byName;
    for (const auto& [tid, value] : after) {
        auto it = before.find(tid);
        const uint64_t delta = value - (it == before.end() ? 0 : it->second);
        auto name = names.find(tid);
        if (delta)
            byName[name == names.end() ? QStringLiteral("(short-lived)") : name->second] += delta;
    }
    return byName;
}

double processCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    while (!condition()) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

class Delegate final : public ZMCameraCaptureManagerDelegate {
public:
    bool shouldDeleteResultingVideo() override { return false; }
    void videoSaveProcessBegan() override {}
    void videoSavedWithError(ErrorPtr error) override
    {
        if (reports.fetch_add(1) == 0) {
            firstReport = Clock::now();
            firstError = error != nullptr;
        }
    }
    std::atomic<int> reports{0};
    Clock::time_point firstReport;
    std::atomic<bool> firstError{false};
};

struct Manager {
    std::shared_ptr<ZMCameraCaptureManager> manager = ZMCameraCaptureManager::create();
    std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
    std::atomic<int64_t> frames{0};

    explicit Manager(bool record, double fps = 30.0, CaptureDevicePosition position = CaptureDevicePosition::Front)
    {
        manager->setRecordVideo(record);
        manager->setFps(fps);
        manager->setDelegate(delegate);
        std::atomic<bool> configured{false};
        manager->configureWithCameraPosition(position, [&] { configured = true; });
        waitFor([&] { return configured.load(); }, std::chrono::seconds(10));
        manager->defineSampleBufferhandler([this](const SampleBuffer&) { frames.fetch_add(1); });
    }
    void stop()
    {
        std::atomic<bool> stopped{false};
        manager->stopWithCompletion([&] { stopped = true; });
        waitFor([&] { return stopped.load(); }, std::chrono::seconds(120));
        manager->setSampleBufferDelegateQueue()->sync([] {});
    }
};

void useCamera(const CaptureDevicePtr& device)
{
    CaptureDeviceRegistry::shared().unregisterAll();
    CaptureDeviceRegistry::shared().registerDevice(device);
}

std::shared_ptr<SyntheticCaptureDevice> syntheticCamera(double fps)
{
    SyntheticCaptureDevice::Configuration configuration;
    configuration.formats = {SyntheticCaptureDevice::makeFormat("420v", 720, 1280, {{1.0, fps}})};
    return SyntheticCaptureDevice::create(configuration);
}

// ---------------------------------------------------------- 1. allocations

void allocationsPerFrame(const char* label, const CaptureDevicePtr& camera, bool record, double fps, int frames)
{
    useCamera(camera);
    Manager m(record, fps);
    m.manager->start();
    waitFor([&] { return m.frames.load() >= 90; }, std::chrono::seconds(20));  // warm-up: pools fill up
    const auto before = allocationSnapshot();
    const int64_t firstFrame = m.frames.load();
    waitFor([&] { return m.frames.load() >= firstFrame + frames; }, std::chrono::seconds(60));
    const auto after = allocationSnapshot();
    const auto names = threadNames();
    const int64_t counted = m.frames.load() - firstFrame;
    m.stop();

    // The benchmark's own thread only waits; it is not on the frame path.
    auto byThread = deltaByName(before, after, names);
    byThread.erase(QStringLiteral("bench_capture"));
    uint64_t total = 0;
    for (const auto& [name, count] : byThread)
        total += count;
    std::printf("  %-44s %8.3f allocations/frame over %lld frames\n", label, double(total) / double(counted),
                static_cast<long long>(counted));
    for (const auto& [name, count] : byThread)
        std::printf("      %-22s %8.3f\n", qPrintable(name), double(count) / double(counted));
}

// -------------------------------------------------- 2. CPU time per frame

/// Conversion and delivery of one frame; the front camera's frames are
/// mirrored on the way, the back camera's are not.
double pathCpuPerFrame(CaptureDevicePosition position, int frames)
{
    SyntheticCaptureDevice::Configuration configuration;
    configuration.position = position;
    configuration.formats = {SyntheticCaptureDevice::makeFormat("420v", 720, 1280)};
    configuration.frameSource = SyntheticCaptureDevice::FrameSource::Manual;
    auto camera = SyntheticCaptureDevice::create(configuration);
    useCamera(camera);
    auto source = PixelBufferPool::create({PixelFormat::NV12VideoRange, 720, 1280});

    Manager m(false, 30.0, position);
    m.manager->start();
    m.manager->captureSessionQueue()->sync([] {});
    auto pushOne = [&] {
        const int64_t target = m.frames.load() + 1;
        camera->pushFrame(source->createPixelBuffer());
        waitFor([&] { return m.frames.load() >= target; }, std::chrono::seconds(5));
    };
    for (int i = 0; i < 30; ++i)
        pushOne();
    const auto before = cpuSnapshot();
    for (int i = 0; i < frames; ++i)
        pushOne();
    const auto after = cpuSnapshot();
    const auto byThread = deltaByName(before, after, threadNames());
    m.stop();
    double pathNs = 0;
    for (const auto& [name, ns] : byThread) {
        if (name == QLatin1String("CaptureSession") || name == QLatin1String("erDelegateQueue"))
            pathNs += double(ns) / frames;
    }
    return pathNs;
}

void cpuPerFrame(int frames)
{
    const double mirroredNs = pathCpuPerFrame(CaptureDevicePosition::Front, frames);
    const double plainNs = pathCpuPerFrame(CaptureDevicePosition::Back, frames);

    // Baseline: copying the same BGRA frame once.
    auto a = PixelBuffer::create(720, 1280, PixelFormat::BGRA32);
    auto b = PixelBuffer::create(720, 1280, PixelFormat::BGRA32);
    std::memset(a->baseAddress(), 7, a->dataSize());
    timespec t0{};
    timespec t1{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t0);
    for (int i = 0; i < frames; ++i) {
        std::memcpy(b->baseAddress(), a->baseAddress(), a->dataSize());
        asm volatile("" : : "r"(b->baseAddress()) : "memory");
    }
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t1);
    const double copyNs = (double(t1.tv_sec - t0.tv_sec) * 1e9 + double(t1.tv_nsec - t0.tv_nsec)) / frames;
    std::printf("  NV12 -> BGRA conversion + delivery, CPU of the capture thread and frame queue:\n");
    std::printf("    front camera (mirrored):   %.3f ms/frame = %.1fx the copy\n", mirroredNs / 1e6, mirroredNs / copyNs);
    std::printf("    back camera (unmirrored):  %.3f ms/frame = %.1fx the copy\n", plainNs / 1e6, plainNs / copyNs);
    std::printf("  baseline: memcpy of the 720x1280 BGRA frame (%zu bytes): %.3f ms/frame\n", a->dataSize(),
                copyNs / 1e6);
}

// --------------------------------------------- 3. long recorded session

void recordedSession(const QString& clip, int seconds)
{
    ProcessInfo::resetOperatingSystemVersion();
    auto camera = FileCaptureDevice::create(clip, CaptureDevicePosition::Front);
    useCamera(camera);
    Manager m(true);
    auto recorder = std::dynamic_pointer_cast<ZMSaveVideoExService>(m.manager->saveVideoService());
    const double cpuBefore = processCpuSeconds();
    const auto start = Clock::now();
    const auto cpuAtStart = cpuSnapshot();
    m.manager->start();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const auto cpuAtEnd = cpuSnapshot();
    const auto byThread = deltaByName(cpuAtStart, cpuAtEnd, threadNames());
    const int64_t captured = m.manager->session()->capturedFrameCount();
    const auto stopAt = Clock::now();
    m.stop();
    waitFor([&] { return m.delegate->reports.load() >= 1; }, std::chrono::seconds(120));
    const auto finished = m.delegate->firstReport;
    const double cpu = processCpuSeconds() - cpuBefore;
    const auto output = recorder->videoFileOutput();
    const int64_t recorded = output->recordedFrameCount();
    const double videoSeconds = double(recorded) / 30.0;
    const double wall = std::chrono::duration<double>(finished - start).count();
    std::printf("  %d s session, file camera 720x1280 at 30 fps, movie file output:\n", seconds);
    std::printf("    frames captured %lld, offered to the output %lld, recorded %lld, dropped %lld\n",
                static_cast<long long>(captured), static_cast<long long>(output->offeredFrameCount()),
                static_cast<long long>(recorded), static_cast<long long>(output->droppedFrameCount()));
    std::printf("    recorded / captured = %.4f (goal >= 0.99)%s\n", double(recorded) / double(captured),
                m.delegate->firstError ? "  [the recording reported an error]" : "");
    // Encoding: the movie output's thread, the writer's encode queue and
    // x264's worker threads.
    double encodeSeconds = 0;
    for (const auto& [name, ns] : byThread) {
        std::printf("      %-22s %7.3f CPU s\n", qPrintable(name), double(ns) / 1e9);
        if (name == QLatin1String("MovieFileOutput") || name.contains(QLatin1String("encode"))
            || name.startsWith(QLatin1String("x264")))
            encodeSeconds += double(ns) / 1e9;
    }
    std::printf("    encoder real-time factor (video seconds / encoder CPU seconds) = %.2f\n",
                videoSeconds / encodeSeconds);
    std::printf("    live: video seconds / wall seconds until the file was finished = %.3f\n", videoSeconds / wall);
    std::printf("    file finished %.0f ms after the stop; whole process CPU %.2f s = %.2f cores\n",
                std::chrono::duration<double, std::milli>(finished - stopAt).count(), cpu, cpu / wall);
    // Let the recompression finish before the next measurement.
    waitFor([&] { return m.delegate->reports.load() >= 2; }, std::chrono::seconds(120));
}

// ------------------------------------------------ 4. time to first frame

void timeToFirstFrame(const QString& clip, int runs)
{
    auto camera = FileCaptureDevice::create(clip, CaptureDevicePosition::Front);
    useCamera(camera);
    std::vector<double> milliseconds;
    for (int run = 0; run < runs; ++run) {
        auto manager = ZMCameraCaptureManager::create();
        std::atomic<bool> seen{false};
        Clock::time_point first;
        const auto start = Clock::now();
        manager->configureWithCameraPosition(CaptureDevicePosition::Front, [&] {
            manager->defineSampleBufferhandler([&](const SampleBuffer&) {
                if (!seen.exchange(true))
                    first = Clock::now();
            });
            manager->start();
        });
        waitFor([&] { return seen.load(); }, std::chrono::seconds(10));
        milliseconds.push_back(std::chrono::duration<double, std::milli>(first - start).count());
        std::atomic<bool> stopped{false};
        manager->stopWithCompletion([&] { stopped = true; });
        waitFor([&] { return stopped.load(); }, std::chrono::seconds(10));
        manager->setSampleBufferDelegateQueue()->sync([] {});
    }
    std::sort(milliseconds.begin(), milliseconds.end());
    std::printf("  configure -> first frame at the handler, file camera, %d runs: median %.1f ms, worst %.1f ms "
                "(goal < 300 ms)\n",
                runs, milliseconds[milliseconds.size() / 2], milliseconds.back());
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const bool quick = app.arguments().contains(QStringLiteral("--quick"));
    QTemporaryDir documents;
    setDocumentsDirectory(documents.path());
    CaptureDeviceRegistry::shared().setProviders({});
    screens::setMainScreenBoundsOverride(QRectF(0, 0, 320, 568));
    const QString clip = QStringLiteral(ZAVO_TEST_DATA_DIR "/A_zoom_blur_dark.mp4");

#ifdef ZAVO_COUNT_ALLOCATIONS
    std::printf("1. Heap allocations per frame, camera to handler (steady state, after 90 frames)\n");
    allocationsPerFrame("synthetic camera, recording off", syntheticCamera(60), false, 60, 300);
    allocationsPerFrame("synthetic camera, movie output recording", syntheticCamera(30), true, 30, 150);
    ProcessInfo::setOperatingSystemVersion({15, 0, 0});
    allocationsPerFrame("synthetic camera, frame-dump recording", syntheticCamera(30), true, 30, 150);
    ProcessInfo::resetOperatingSystemVersion();
    allocationsPerFrame("file camera, recording off", FileCaptureDevice::create(clip, CaptureDevicePosition::Front),
                        false, 30, 150);
#else
    std::printf("1. (allocation counting is off in sanitizer builds)\n");
#endif
    std::printf("\n2. CPU time per 720x1280 frame\n");
    cpuPerFrame(300);
    std::printf("\n3. Recorded session\n");
    recordedSession(clip, quick ? 8 : 30);
    std::printf("\n4. Start-up latency\n");
    timeToFirstFrame(clip, 10);
    screens::setMainScreenBoundsOverride(std::nullopt);
    return 0;
}
