// What a running camera session costs the machine, and where it goes.
//
//   bench_session_cost [--seconds N] [--latency-runs N]
//
// A real session (the demo's, on the file camera, 720x1280 at 30 fps) runs
// for N seconds (default 10) in each state a user meets, with recording off
// and on:
//   waiting  a clip with no face in it (generated: testsrc2), nothing found;
//   judging  clip A looped, a face judged every frame, the shot never taken
//            (a steady spell nobody can hold);
//   steps    clip A looped, a head turn asked for that never comes.
// Each state runs in a child process of its own (this program again), so
// each has its own peak memory and starts without the threads, pools and
// caches of the one before. The child samples /proc/self/task every 100 ms
// and charges each thread's CPU (utime + stime) to a phase by the thread's
// name; the whole process's CPU from /proc/self/stat is the total, and what
// no living thread accounts for (threads that ended between samples) is
// reported as "ended", so the phases add up to the total. The main thread's
// painting is timed by its own CPU clock and moved to the preview.
//
// The baseline, measured in the same run: the project's own decoder path
// (the file camera's stream: FFmpeg to NV12) playing the same clip in real
// time, each frame converted to BGRA as the data output does, for the same
// time. Figures are CPU seconds per second of video.
//
// Then, on a clip where a face appears after 2 s of no face, with the
// normal configuration: time from the face's first frame to the detector's
// first face box (goal 150 ms), and from the first frame the analyzer finds
// good to the best shot (goal 700 ms).
//
// Offscreen by default; in a real window when DISPLAY is set (the X server's
// own CPU is not counted). Exits non-zero when a state delivered no frames,
// a face state never saw a face, or the no-face clip produced a face box:
// such a run is broken, not cheap.
#include "BenchSupport.h"
#include "DemoSession.h"
#include "MediaTestSupport.h"

#include "camera/CaptureDevice_p.h"
#include "camera/OrientedFrameConverter_p.h"
#include "camera/file/FileCaptureDevice.h"
#include "media/Asset.h"
#include "zavocore/ZCFaceAnalyzer_p.h"
#include "zavocore/ZCStepConfig.h"

#include <QApplication>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QThread>
#include <QWidget>

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <time.h>
#include <unistd.h>

using namespace zavo;
using namespace zavo::demo;

namespace {

constexpr double kWarmUpSeconds = 1.0;
constexpr auto kSampleInterval = std::chrono::milliseconds(100);
constexpr double kLeadInSeconds = 2.0;
constexpr double kFirstBoxGoalMs = 150;
constexpr double kShotGoalMs = 700;
const char* const kResultTag = "RESULT ";

double ms(Clock::duration duration) { return std::chrono::duration<double, std::milli>(duration).count(); }

double threadCpuSeconds()
{
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// ------------------------------------------------------------------ /proc

struct TaskStat {
    QByteArray name;
    double cpuSeconds = 0;  // utime + stime
};

/// One /proc stat file: the name between the first '(' and the last ')'
/// (a name may hold either), then utime and stime, fields 14 and 15.
bool readStat(const char* path, TaskStat& out)
{
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char buffer[1024];
    const ssize_t size = ::read(fd, buffer, sizeof buffer - 1);
    ::close(fd);
    if (size <= 0)
        return false;
    buffer[size] = 0;
    const char* open = std::strchr(buffer, '(');
    const char* close = std::strrchr(buffer, ')');
    if (!open || !close || close < open)
        return false;
    out.name = QByteArray(open + 1, int(close - open - 1));
    // After ") ": state is field 3, so utime and stime are the 12th and 13th.
    const char* field = close + 2;
    unsigned long long utime = 0, stime = 0;
    for (int index = 3; index <= 15 && *field; ++index) {
        if (index == 14)
            utime = std::strtoull(field, nullptr, 10);
        if (index == 15)
            stime = std::strtoull(field, nullptr, 10);
        field = std::strchr(field, ' ');
        if (!field)
            break;
        ++field;
    }
    static const double ticks = double(sysconf(_SC_CLK_TCK));
    out.cpuSeconds = double(utime + stime) / ticks;
    return true;
}

double processCpuSeconds()
{
    TaskStat stat;
    return readStat("/proc/self/stat", stat) ? stat.cpuSeconds : 0;
}

/// VmHWM: the most this process ever had resident.
double peakRssMiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').front().toDouble() / 1024.0;
    }
    return 0;
}

// ---------------------------------------------------------------- phases

enum Phase { Camera, Detector, Preview, Recording, MainThread, Other, kPhaseCount };
constexpr std::array<const char*, kPhaseCount> kPhaseKeys{"camera", "detector", "preview", "recording", "main", "other"};

/// Thread names are the last 15 characters of a queue's label (base's
/// DispatchQueue), or what the thread set itself; threads that never name
/// themselves (FFmpeg's codec threads, OpenCV's workers) carry the name of
/// the thread that made them.
Phase phaseOf(pid_t tid, const QByteArray& name)
{
    if (tid == getpid())
        return MainThread;
    // The capture thread reads and decodes the camera and converts for the
    // data output; the session queue opens the camera (and so starts the
    // first decoder threads); the delegate queue hands frames on.
    if (name == "CaptureSession" || name.endsWith("SessionQueue") || name.endsWith("DelegateQueue"))
        return Camera;
    if (name == "ZCDetector")
        return Detector;
    if (name.endsWith("View.convert"))
        return Preview;
    if (name == "MovieFileOutput" || name.contains("Writer.") || name.contains("VideoService")
        || name.contains("VideoExService") || name.contains("VideoFlush") || name == "videoQueue")
        return Recording;
    return Other;
}

// ------------------------------------------------------- thread sampler

/// Keeps every thread's last CPU figure, sampled on a thread of its own
/// often enough that a thread that ends loses at most one interval.
class ThreadSampler {
public:
    struct Thread {
        QByteArray name;
        double atStart = 0;  // 0 for a thread born during the window
        double last = 0;
    };
    struct Result {
        double wallSeconds = 0;
        double processCpu = 0;  // without the sampler's own
        double samplerCpu = 0;
        std::map<pid_t, Thread> threads;
    };

    void start()
    {
        threads_.clear();
        sample(true);
        processAtStart_ = processCpuSeconds();
        began_ = Clock::now();
        stop_ = false;
        thread_ = std::thread([this] {
            pthread_setname_np(pthread_self(), "CostSampler");
            samplerTid_ = gettid();
            const double cpuAtStart = threadCpuSeconds();
            std::unique_lock lock(stopMutex_);
            while (!stopWake_.wait_for(lock, kSampleInterval, [this] { return stop_; })) {
                lock.unlock();
                sample(false);
                lock.lock();
            }
            samplerCpu_ = threadCpuSeconds() - cpuAtStart;
        });
    }

    Result stop()
    {
        {
            std::lock_guard lock(stopMutex_);
            stop_ = true;
        }
        stopWake_.notify_all();
        thread_.join();
        sample(false);
        Result result;
        result.wallSeconds = std::chrono::duration<double>(Clock::now() - began_).count();
        result.samplerCpu = samplerCpu_;
        result.processCpu = processCpuSeconds() - processAtStart_ - samplerCpu_;
        std::lock_guard lock(mutex_);
        result.threads = threads_;
        result.threads.erase(samplerTid_);
        return result;
    }

private:
    void sample(bool atStart)
    {
        DIR* tasks = opendir("/proc/self/task");
        if (!tasks)
            return;
        char path[300];
        TaskStat stat;
        while (const dirent* entry = readdir(tasks)) {
            if (entry->d_name[0] < '0' || entry->d_name[0] > '9')
                continue;
            std::snprintf(path, sizeof path, "/proc/self/task/%s/stat", entry->d_name);
            if (!readStat(path, stat))
                continue;  // ended while listed
            const pid_t tid = pid_t(std::atoi(entry->d_name));
            std::lock_guard lock(mutex_);
            auto [it, added] = threads_.try_emplace(tid);
            if (added && atStart)
                it->second.atStart = stat.cpuSeconds;
            it->second.name = stat.name;  // a thread may name itself after it started
            it->second.last = stat.cpuSeconds;
        }
        closedir(tasks);
    }

    std::mutex mutex_;
    std::map<pid_t, Thread> threads_;
    std::thread thread_;
    std::mutex stopMutex_;
    std::condition_variable stopWake_;
    bool stop_ = false;
    std::atomic<pid_t> samplerTid_{0};
    double samplerCpu_ = 0;  // written by the sampler before it ends, read after join
    double processAtStart_ = 0;
    Clock::time_point began_;
};

/// Times the main thread's painting by its own CPU clock, so it can be
/// charged to the preview rather than to the main thread's other work.
class PaintTimedApplication final : public QApplication {
public:
    using QApplication::QApplication;
    bool timing = false;
    double paintCpu = 0;

    bool notify(QObject* receiver, QEvent* event) override
    {
        const auto type = event->type();
        const bool paint = type == QEvent::UpdateRequest || type == QEvent::Paint || type == QEvent::UpdateLater;
        if (!timing || depth_ > 0 || !paint || QThread::currentThread() != thread()) {
            ++depth_;
            const bool result = QApplication::notify(receiver, event);
            --depth_;
            return result;
        }
        ++depth_;
        const double began = threadCpuSeconds();
        const bool result = QApplication::notify(receiver, event);
        paintCpu += threadCpuSeconds() - began;
        --depth_;
        return result;
    }

private:
    int depth_ = 0;
};

// ----------------------------------------------------------- the states

enum class StateKind { Waiting, Judging, Steps };

struct StateChoice {
    const char* key;
    StateKind kind;
    bool faceClip;
};

constexpr std::array<StateChoice, 3> kStates{{
    {"waiting", StateKind::Waiting, false},
    {"judging", StateKind::Judging, true},
    {"steps", StateKind::Steps, true},
}};

const StateChoice* stateNamed(const QString& key)
{
    for (const auto& state : kStates) {
        if (key == QLatin1String(state.key))
            return &state;
    }
    return nullptr;
}

void printResult(const QJsonObject& result)
{
    std::printf("%s%s\n", kResultTag, QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
    std::fflush(stdout);
}

SessionOptions optionsFor(const StateChoice& state, bool record)
{
    SessionOptions options;
    options.recordVideo = record;
    options.videoLimit = std::chrono::milliseconds(120000);
    const bool judging = state.kind != StateKind::Waiting;
    options.adjustConfiguration = [judging](core::ZCZavoConfiguration& configuration) {
        // Without a face the look step would end the session at its limit.
        configuration.detector.stepTimeout = 1e6;
        // A spell nobody can hold: the face is judged every frame, and the
        // shot never taken.
        if (judging)
            configuration.detector.steadyDuration = 1e6;
    };
    if (state.kind == StateKind::Steps)
        options.steps = {std::make_shared<core::ZCStepConfig>(core::ZCStepKind::TurnHeadLeft, 1e6)};
    return options;
}

/// One state, in this (child) process; prints its result.
int runState(PaintTimedApplication& app, const StateChoice& state, bool record, const QString& clip, double seconds)
{
    QJsonObject result{{"state", state.key}, {"recording", record}};
    auto fail = [&](const QString& why) {
        result.insert("error", why);
        printResult(result);
        std::fprintf(stderr, "%s%s: %s\n", state.key, record ? " recording" : "", qPrintable(why));
        return 1;
    };
    bench::Fixture fixture;
    if (!fixture.install(clip))
        return fail(QStringLiteral("cannot install the camera"));
    DetectorTiming timing;
    // From the host's first call: what a user's whole session costs, start
    // (the face network loaded, the first frames) included.
    const double cpuBeforeSession = processCpuSeconds();
    const Clock::time_point beforeSession = Clock::now();
    DemoSession session(optionsFor(state, record), &timing);
    QWidget* view = session.view();
    view->resize(bench::kScreenSize);
    view->show();
    session.start();
    if (!bench::runUntil([&] { return timing.framesPushed() > 0; }, 20000))
        return fail(QStringLiteral("no frame reached the detector"));
    bench::runUntil([] { return false; }, int(kWarmUpSeconds * 1000));

    const int framesBefore = timing.framesPushed();
    ThreadSampler sampler;
    app.paintCpu = 0;
    app.timing = true;
    sampler.start();
    bench::runUntil([] { return false; }, int(seconds * 1000));
    const ThreadSampler::Result cost = sampler.stop();
    app.timing = false;
    const double withStart = (processCpuSeconds() - cpuBeforeSession - cost.samplerCpu)
                           / std::chrono::duration<double>(Clock::now() - beforeSession).count();
    const int frames = timing.framesPushed() - framesBefore;
    const double peakRunning = peakRssMiB();
    const bool endedEarly = session.outcome().has_value();
    const int faceBoxes = timing.faceBoxes();

    bool settled = false;
    QObject::connect(&session, &DemoSession::videoSettled, [&] { settled = true; });
    session.cancel();
    bench::runUntil([&] { return settled; }, 150000);
    const Clock::time_point releasing = Clock::now();
    session.release();
    const double releaseMs = ms(Clock::now() - releasing);
    if (releaseMs > 1000) {
        // Not part of the cost, but a session slow to let go is worth naming.
        QStringList alive;
        const QDir tasks(QStringLiteral("/proc/self/task"));
        for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
            if (comm.open(QIODevice::ReadOnly))
                alive << QString::fromUtf8(comm.readAll().trimmed());
        }
        std::fprintf(stderr, "releasing the session took %.0f ms; threads then: %s\n", releaseMs,
                     qPrintable(alive.join(QStringLiteral(", "))));
    }

    // Per second of video: the camera plays in real time.
    const double perSecond = 1.0 / cost.wallSeconds;
    std::array<double, kPhaseCount> phases{};
    std::map<QByteArray, std::pair<int, double>> byName;  // name: threads, CPU
    double assigned = 0;
    for (const auto& [tid, thread] : cost.threads) {
        double cpu = thread.last - thread.atStart;
        if (tid == getpid()) {
            phases[Preview] += app.paintCpu;
            cpu -= app.paintCpu;
            assigned += app.paintCpu;
        }
        phases[phaseOf(tid, thread.name)] += cpu;
        assigned += cpu;
        auto& entry = byName[tid == getpid() ? QByteArray("(main thread)") : thread.name];
        entry.first += 1;
        entry.second += thread.last - thread.atStart;
    }
    QJsonObject phaseObject;
    for (int phase = 0; phase < kPhaseCount; ++phase)
        phaseObject.insert(kPhaseKeys[phase], phases[phase] * perSecond);
    phaseObject.insert("ended", (cost.processCpu - assigned) * perSecond);
    QJsonArray threads;
    for (const auto& [name, entry] : byName) {
        const Phase phase = name == "(main thread)" ? MainThread : phaseOf(0, name);
        threads.append(QJsonObject{{"name", QString::fromUtf8(name)},
                                   {"phase", kPhaseKeys[phase]},
                                   {"threads", entry.first},
                                   {"cpu", entry.second * perSecond}});
    }
    result.insert("seconds", cost.wallSeconds);
    result.insert("frames", frames);
    result.insert("fps", frames * perSecond);
    result.insert("phases", phaseObject);
    result.insert("main_paint", app.paintCpu * perSecond);
    result.insert("total", cost.processCpu * perSecond);
    result.insert("total_with_start", withStart);
    result.insert("sampler", cost.samplerCpu * perSecond);
    result.insert("threads", threads);
    result.insert("face_boxes", faceBoxes);
    result.insert("release_ms", releaseMs);
    result.insert("peak_rss_running_mib", peakRunning);
    result.insert("peak_rss_mib", peakRssMiB());

    if (frames <= 0)
        return fail(QStringLiteral("no frames reached the detector while measured"));
    if (endedEarly)
        return fail(QStringLiteral("the session ended while measured"));
    if (state.kind == StateKind::Waiting && faceBoxes > 0)
        return fail(QStringLiteral("the detector reported %1 face boxes on the clip without a face").arg(faceBoxes));
    if (state.kind != StateKind::Waiting && faceBoxes == 0)
        return fail(QStringLiteral("the detector never reported the face"));
    printResult(result);
    return 0;
}

// -------------------------------------------------------------- the floor

/// The decode-and-convert floor, in this (child) process: the file camera's
/// own stream plays the clip in real time, and each frame is converted to
/// BGRA as the data output converts it for its delegate.
int runFloor(const QString& clip, double seconds)
{
    QJsonObject result{{"floor", clip}};
    platform::ErrorPtr error;
    auto device = platform::FileCaptureDevice::create(clip, platform::CaptureDevicePosition::Front, &error);
    auto stream = device ? device->openStream(device->activeFormat(), &error) : nullptr;
    if (!stream) {
        result.insert("error", QStringLiteral("cannot play %1").arg(clip));
        printResult(result);
        return 1;
    }
    std::atomic<int> frames{0};
    std::thread player([&] {
        pthread_setname_np(pthread_self(), "FloorPlayer");
        platform::OrientedFrameConverter converter;
        platform::SampleBuffer frame;
        while (stream->read(frame) == platform::CaptureDeviceStream::ReadResult::Frame) {
            if (converter.convert(frame.imageBuffer(), nullptr, platform::CaptureDevicePosition::Front,
                                  platform::PixelFormat::BGRA32, platform::OrientedFrameConverter::Upright::Copied))
                frames.fetch_add(1);
            frame = platform::SampleBuffer();
        }
    });
    std::this_thread::sleep_for(std::chrono::duration<double>(kWarmUpSeconds));
    const int framesBefore = frames.load();
    const double cpuBefore = processCpuSeconds();
    const Clock::time_point began = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double cpu = processCpuSeconds() - cpuBefore;
    const double wall = std::chrono::duration<double>(Clock::now() - began).count();
    const int counted = frames.load() - framesBefore;
    stream->interrupt();
    player.join();
    result.insert("cpu", cpu / wall);
    result.insert("fps", counted / wall);
    result.insert("peak_rss_mib", peakRssMiB());
    if (counted <= 0) {
        result.insert("error", QStringLiteral("no frames decoded"));
        printResult(result);
        return 1;
    }
    printResult(result);
    return 0;
}

// ---------------------------------------------------------------- latency

/// The stamp of the first frame at or after `from` that the analyzer, fed
/// every frame in order, finds good; negative when none is.
double firstGoodFrameSeconds(const QString& clip, double from)
{
    auto asset = platform::Asset::assetWithPath(clip);
    auto tracks = asset->tracksWithMediaType(platform::MediaType::Video);
    auto reader = platform::AssetReader::create(asset);
    if (tracks.empty() || !reader)
        return -1;
    auto output = platform::AssetReaderTrackOutput::create(tracks.front(), {platform::PixelFormat::BGRA32});
    reader->addOutput(output);
    reader->startReading();
    core::detail::FaceAnalyzer analyzer{core::ZCDetectorSettings()};
    for (auto frame = output->copyNextSampleBuffer(); frame.isValid(); frame = output->copyNextSampleBuffer()) {
        const double stamp = frame.presentationTimeStamp().seconds();
        if (stamp + 1e-6 < from)
            continue;
        const auto& pixels = *frame.imageBuffer();
        const core::detail::FrameView view{pixels.baseAddress(), pixels.width(), pixels.height(), pixels.bytesPerRow(),
                                           pixels.pixelFormat()};
        if (analyzer.analyze(view, QPointF(view.width / 2.0, view.height / 2.0)).isGood())
            return stamp;
    }
    return -1;
}

/// Sessions with the normal configuration on the clip whose face appears
/// at kLeadInSeconds, in this (child) process.
int runLatency(const QString& clip, int runs)
{
    QJsonObject result{{"latency", clip}};
    auto fail = [&](const QString& why) {
        result.insert("error", why);
        printResult(result);
        std::fprintf(stderr, "latency: %s\n", qPrintable(why));
        return 1;
    };
    const double firstGood = firstGoodFrameSeconds(clip, kLeadInSeconds);
    if (firstGood < 0)
        return fail(QStringLiteral("the analyzer finds no good frame in %1").arg(clip));
    result.insert("face_at", kLeadInSeconds);
    result.insert("first_good_at", firstGood);
    bench::Fixture fixture;
    if (!fixture.install(clip))
        return fail(QStringLiteral("cannot install the camera"));
    DetectorTiming timing;
    QJsonArray firstBoxes, shots;
    for (int run = 0; run < runs; ++run) {
        SessionOptions options;  // the normal configuration, recording on
        DemoSession session(options, &timing);
        QWidget* view = session.view();
        view->resize(bench::kScreenSize);
        view->show();
        session.start();
        if (!bench::runUntil([&] { return session.outcome().has_value(); }, 30000))
            return fail(QStringLiteral("run %1: no outcome within 30 s").arg(run));
        if (!session.outcome()->bestShot)
            return fail(QStringLiteral("run %1: the session ended without a best shot").arg(run));
        const auto origin = timing.presentationOrigin();
        const auto firstBox = timing.firstFaceBox();
        const auto shot = timing.bestShotTaken();
        if (!origin || !firstBox || !shot)
            return fail(QStringLiteral("run %1: the detector's reports are missing").arg(run));
        auto at = [&](double seconds) {
            return *origin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
        };
        if (*firstBox < at(kLeadInSeconds))
            return fail(QStringLiteral("run %1: a face box %2 ms before the face appeared")
                            .arg(run)
                            .arg(ms(at(kLeadInSeconds) - *firstBox), 0, 'f', 0));
        firstBoxes.append(ms(*firstBox - at(kLeadInSeconds)));
        shots.append(ms(*shot - at(firstGood)));
        bool settled = false;
        QObject::connect(&session, &DemoSession::videoSettled, [&] { settled = true; });
        bench::runUntil([&] { return settled; }, 60000);
        session.release();
    }
    result.insert("first_box_ms", firstBoxes);
    result.insert("shot_ms", shots);
    printResult(result);
    return 0;
}

// ----------------------------------------------------------------- parent

struct Clips {
    QString noFace;
    QString face = bench::kClip;
    QString faceAppears;
};

/// tests/data's clip without a face is 360x640 at 15 fps, a quarter of the
/// pixels a session decodes and judges; these are made at the camera's size.
bool makeClips(const QString& folder, Clips& clips, QString* problem)
{
    clips.noFace = folder + QStringLiteral("/no_face_720x1280.mp4");
    clips.faceAppears = folder + QStringLiteral("/face_appears_720x1280.mp4");
    // About clip A's bit rate, so that both clips cost the decoder alike.
    const QStringList encode{"-c:v", "libx264", "-preset", "medium", "-b:v", "760k", "-pix_fmt", "yuv420p"};
    const QString lavfi = QStringLiteral("testsrc2=size=720x1280:rate=30:duration=%1");
    if (!testing::ffmpeg(QStringList{"-f", "lavfi", "-i", lavfi.arg(4)} + encode + QStringList{clips.noFace}, problem))
        return false;
    // No face, then clip A: a face appears in a running session.
    return testing::ffmpeg(QStringList{"-f", "lavfi", "-i", lavfi.arg(kLeadInSeconds), "-i", clips.face,
                                       "-filter_complex",
                                       "[0:v]format=yuv420p,setsar=1[a];[1:v]format=yuv420p,setsar=1[b];"
                                       "[a][b]concat=n=2:v=1[v]",
                                       "-map", "[v]", "-c:v", "libx264", "-crf", "16", "-pix_fmt", "yuv420p",
                                       clips.faceAppears},
                           problem);
}

/// Runs this program on one task; its result, or an object with "error".
QJsonObject runChild(const QStringList& arguments, double seconds)
{
    // What a child says on its standard error (warnings) is passed on,
    // headed by what it was running.
    std::fprintf(stderr, "--- %s\n", qPrintable(arguments.join(' ')));
    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(QCoreApplication::applicationFilePath(), arguments);
    const int limitMs = int((seconds + 240) * 1000);
    if (!child.waitForFinished(limitMs)) {
        child.kill();
        child.waitForFinished();
        return {{"error", QStringLiteral("%1 did not finish").arg(arguments.join(' '))}};
    }
    QJsonObject result;
    for (const QByteArray& line : child.readAllStandardOutput().split('\n')) {
        if (line.startsWith(kResultTag))
            result = QJsonDocument::fromJson(line.mid(int(std::strlen(kResultTag)))).object();
    }
    if (result.isEmpty())
        result.insert("error", QStringLiteral("%1 gave no result").arg(arguments.join(' ')));
    if ((child.exitStatus() != QProcess::NormalExit || child.exitCode() != 0) && !result.contains("error"))
        result.insert("error", QStringLiteral("%1 failed").arg(arguments.join(' ')));
    return result;
}

double median(QJsonArray values)
{
    std::vector<double> v;
    for (const auto& value : values)
        v.push_back(value.toDouble());
    return bench::percentile(v, 0.5);
}

double maximum(const QJsonArray& values)
{
    double most = 0;
    for (const auto& value : values)
        most = std::max(most, value.toDouble());
    return most;
}

int runAll(double seconds, int latencyRuns)
{
    QTemporaryDir scratch;
    Clips clips;
    QString problem;
    if (!scratch.isValid() || !makeClips(scratch.path(), clips, &problem)) {
        std::fprintf(stderr, "cannot make the clips with ffmpeg: %s\n", qPrintable(problem));
        return 1;
    }
    const QString secondsText = QString::number(seconds);
    const char* platform = qEnvironmentVariableIsEmpty("DISPLAY") ? "offscreen" : "a window on $DISPLAY";
    std::printf("session cost, %g s a state after %g s of warm-up, %s; clips 720x1280 at 30 fps\n", seconds,
                kWarmUpSeconds, platform);
    std::fflush(stdout);
    bool broken = false;
    auto note = [&](const QJsonObject& result) {
        if (result.contains("error")) {
            broken = true;
            std::printf("  FAILED: %s\n", qPrintable(result.value("error").toString()));
            std::fflush(stdout);
        }
        return result;
    };

    const QJsonObject floorNoFace = note(runChild({"--floor", clips.noFace, "--seconds", secondsText}, seconds));
    const QJsonObject floorFace = note(runChild({"--floor", clips.face, "--seconds", secondsText}, seconds));
    QJsonArray states;
    for (const auto& state : kStates) {
        for (const bool record : {false, true}) {
            QJsonObject result = note(runChild({"--child", state.key, "--record", record ? "1" : "0", "--clip",
                                                state.faceClip ? clips.face : clips.noFace, "--seconds", secondsText},
                                               seconds));
            const double floor = (state.faceClip ? floorFace : floorNoFace).value("cpu").toDouble();
            result.insert("state", state.key);
            result.insert("recording", record);
            result.insert("floor", floor);
            if (floor > 0 && result.contains("total"))
                result.insert("ratio", result.value("total").toDouble() / floor);
            states.append(result);
        }
    }
    const QJsonObject latency =
        note(runChild({"--latency", clips.faceAppears, "--runs", QString::number(latencyRuns)}, 40.0 * latencyRuns));

    // The table.
    std::printf("\nCPU seconds per second of video (1.0 = one core of two)\n");
    std::printf("%-22s", "state");
    for (const char* key : kPhaseKeys)
        std::printf(" %9s", key);
    std::printf(" %9s | %7s %7s %7s | %8s %6s %9s\n", "ended", "total", "floor", "ratio", "w/ start", "fps",
                "peak RSS");
    for (const auto& value : states) {
        const QJsonObject state = value.toObject();
        const QString label = state.value("state").toString()
                            + (state.value("recording").toBool() ? QStringLiteral(", recording") : QStringLiteral(""));
        std::printf("%-22s", qPrintable(label));
        if (state.contains("error") && !state.contains("total")) {
            std::printf(" failed\n");
            continue;
        }
        const QJsonObject phases = state.value("phases").toObject();
        for (const char* key : kPhaseKeys)
            std::printf(" %9.3f", phases.value(key).toDouble());
        std::printf(" %9.3f | %7.3f %7.3f %6.2fx | %8.3f %6.1f %5.0f MiB\n", phases.value("ended").toDouble(),
                    state.value("total").toDouble(), state.value("floor").toDouble(), state.value("ratio").toDouble(),
                    state.value("total_with_start").toDouble(), state.value("fps").toDouble(),
                    state.value("peak_rss_mib").toDouble());
    }
    std::printf("floor: decode + BGRA conversion alone, %.3f (no-face clip) and %.3f (clip A) of a core; "
                "peak RSS %.0f MiB\n",
                floorNoFace.value("cpu").toDouble(), floorFace.value("cpu").toDouble(),
                floorFace.value("peak_rss_mib").toDouble());
    std::printf("preview includes the main thread's painting; \"w/ start\" is the whole process from the host's "
                "first call to the end of the measured time, start-up included; the sampler itself (not in the "
                "totals) cost %.4f\n",
                states.isEmpty() ? 0.0 : states.first().toObject().value("sampler").toDouble());

    // Every thread name seen, its phase, and its CPU in each state.
    std::map<QString, QString> phaseByName;
    for (const auto& value : states) {
        for (const auto& thread : value.toObject().value("threads").toArray())
            phaseByName[thread.toObject().value("name").toString()] = thread.toObject().value("phase").toString();
    }
    std::printf("\nthreads by name (CPU s per s; threads of that name in brackets)\n%-17s %-9s", "name", "phase");
    for (const auto& state : kStates)
        std::printf(" %7s %9s", state.key, "+rec");
    std::printf("\n");
    for (const auto& [name, phase] : phaseByName) {
        std::printf("%-17s %-9s", qPrintable(name), qPrintable(phase));
        for (const auto& value : states) {
            double cpu = 0;
            int count = 0;
            for (const auto& thread : value.toObject().value("threads").toArray()) {
                if (thread.toObject().value("name").toString() == name) {
                    cpu = thread.toObject().value("cpu").toDouble();
                    count = thread.toObject().value("threads").toInt();
                }
            }
            if (count)
                std::printf(" %6.3f(%d)", cpu, count);
            else
                std::printf(" %9s", "-");
        }
        std::printf("\n");
    }

    if (latency.contains("first_box_ms")) {
        const QJsonArray boxes = latency.value("first_box_ms").toArray();
        const QJsonArray shots = latency.value("shot_ms").toArray();
        std::printf("\nface appearing at %.1f s, normal configuration, recording on, %d sessions:\n", kLeadInSeconds,
                    int(boxes.size()));
        std::printf("  face's first frame to first face box: median %.0f ms, max %.0f (goal %.0f ms; ratio %.2f)\n",
                    median(boxes), maximum(boxes), kFirstBoxGoalMs, median(boxes) / kFirstBoxGoalMs);
        std::printf("  first good frame (%.3f s) to best shot: median %.0f ms, max %.0f (goal %.0f ms; the steady "
                    "spell alone %.0f ms)\n",
                    latency.value("first_good_at").toDouble(), median(shots), maximum(shots), kShotGoalMs,
                    core::ZCDetectorSettings().steadyDuration * 1000);
    }

    QJsonObject summary{{"bench", "session_cost"},
                        {"seconds", seconds},
                        {"platform", platform},
                        {"floor", QJsonObject{{"no_face", floorNoFace.value("cpu")}, {"face", floorFace.value("cpu")}}},
                        {"states", states},
                        {"latency", latency},
                        {"ok", !broken}};
    for (auto it = summary.begin(); it != summary.end(); ++it) {
        // The per-thread lists stay in the table; the line keeps the figures.
        if (it.key() != QLatin1String("states"))
            continue;
        QJsonArray slim;
        for (const auto& value : it.value().toArray()) {
            QJsonObject state = value.toObject();
            state.remove("threads");
            slim.append(state);
        }
        it.value() = slim;
    }
    std::printf("\n%s\n", QJsonDocument(summary).toJson(QJsonDocument::Compact).constData());
    return broken ? 1 : 0;
}

QString argumentAfter(const QStringList& arguments, const QString& name, const QString& otherwise = {})
{
    const qsizetype index = arguments.indexOf(name);
    return index >= 0 && index + 1 < arguments.size() ? arguments.at(index + 1) : otherwise;
}

}  // namespace

int main(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    const double seconds = std::max(1.0, argumentAfter(arguments, "--seconds", "10").toDouble());

    if (arguments.contains("--floor")) {
        QCoreApplication app(argc, argv);
        return runFloor(argumentAfter(arguments, "--floor"), seconds);
    }
    if (arguments.contains("--child") || arguments.contains("--latency")) {
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && !qEnvironmentVariableIsEmpty("DISPLAY"))
            qputenv("QT_QPA_PLATFORM", "xcb");
        bench::prepareEnvironment();
        PaintTimedApplication app(argc, argv);
        if (arguments.contains("--latency"))
            return runLatency(argumentAfter(arguments, "--latency"), argumentAfter(arguments, "--runs", "5").toInt());
        const StateChoice* state = stateNamed(argumentAfter(arguments, "--child"));
        if (!state) {
            std::fprintf(stderr, "unknown state\n");
            return 2;
        }
        return runState(app, *state, argumentAfter(arguments, "--record") == "1", argumentAfter(arguments, "--clip"),
                        seconds);
    }
    QCoreApplication app(argc, argv);
    const int latencyRuns = std::max(1, argumentAfter(arguments, "--latency-runs", "5").toInt());
    return runAll(seconds, latencyRuns);
}
