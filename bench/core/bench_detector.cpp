// Costs of the reference detector, each against a baseline measured in the
// same run:
//  1. pushFrame on the calling thread, against handing the same frame
//     through a mutex-guarded slot (the least any hand-over can cost);
//  2. analysis of one 720x1280 frame on one core by the face network and by
//     the cascades it falls back to, against each other and against the
//     frontal cascade run on the whole full-resolution frame (120 px faces,
//     6 neighbours: the parameters that are exact on these clips);
//     It is also set against the face network's bare forward pass: one
//     128x128 input per frame, without preparing the input or reading the
//     output (the least any analysis with the network can cost);
//     Both again as averages over a stretch with no face (the empty-scene
//     clip, scaled to 720x1280 at 30 frames a second) and over the face
//     followed through clip A, each against the bare forward pass and
//     against every frame searched whole (what a frame cost while nothing
//     was followed before the search got a cadence of its own);
//  3. time from the first good frame of clip A, fed in real time, to the
//     best shot, against the steady spell the detector waits for;
//  4. a face appearing after a no-face stretch (with a sensor's noise), fed
//     in real time: time from the face's first frame to the first face box,
//     against its goal, and the detector's CPU per frame during the stretch.
// Usage: bench_detector [clip [parts]]   (default: the test clip A, parts 1234)
#include "media/Asset.h"
#include "zavocore/ZCBestShotDetectorProtocol.h"
#include "zavocore/ZCFaceAnalyzer_p.h"

#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include <QCoreApplication>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>
#include <time.h>
#include <vector>

using namespace zavo;
using Clock = std::chrono::steady_clock;

namespace {

double threadCpuMs()
{
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

struct Stats {
    double median = 0, p90 = 0, max = 0, mean = 0;
};

Stats stats(std::vector<double> v)
{
    if (v.empty())
        return {};
    std::sort(v.begin(), v.end());
    double sum = 0;
    for (double x : v)
        sum += x;
    return {v[v.size() / 2], v[v.size() * 9 / 10], v.back(), sum / double(v.size())};
}

std::vector<platform::SampleBuffer> decode(const QString& path)
{
    std::vector<platform::SampleBuffer> frames;
    auto asset = platform::Asset::assetWithPath(path);
    auto tracks = asset->tracksWithMediaType(platform::MediaType::Video);
    auto reader = platform::AssetReader::create(asset);
    if (tracks.empty() || !reader)
        return frames;
    auto output = platform::AssetReaderTrackOutput::create(tracks.front(), {platform::PixelFormat::BGRA32});
    reader->addOutput(output);
    reader->startReading();
    for (auto frame = output->copyNextSampleBuffer(); frame.isValid(); frame = output->copyNextSampleBuffer())
        frames.push_back(frame);
    return frames;
}

core::detail::FrameView viewOf(const platform::SampleBuffer& frame)
{
    const auto& b = *frame.imageBuffer();
    return {b.baseAddress(), b.width(), b.height(), b.bytesPerRow(), b.pixelFormat()};
}

// The empty-scene clip as a 720x1280 camera at 30 frames a second: count
// frames from startTime on, its frames scaled up and each shown as often as
// the rate asks; with noise, each frame of the clip gets a sensor's noise
// of that many grey levels (standard deviation) of its own.
std::vector<platform::SampleBuffer> noFaceStretch(const std::vector<platform::SampleBuffer>& clip, int count,
                                                   double startTime, double noise = 0)
{
    std::vector<std::shared_ptr<platform::PixelBuffer>> scaled;
    for (const auto& frame : clip) {
        const auto view = viewOf(frame);
        auto buffer = platform::PixelBuffer::create(720, 1280, platform::PixelFormat::BGRA32);
        buffer->lockBaseAddress();
        const cv::Mat from(view.height, view.width, CV_8UC4, const_cast<uint8_t*>(view.data), view.bytesPerRow);
        cv::Mat to(1280, 720, CV_8UC4, buffer->baseAddress(), buffer->bytesPerRow());
        cv::resize(from, to, to.size(), 0, 0, cv::INTER_LINEAR);
        if (noise > 0) {
            cv::Mat grain(to.size(), CV_16SC4), noisy;
            cv::randn(grain, cv::Scalar::all(0), cv::Scalar(noise, noise, noise, 0));
            to.convertTo(noisy, CV_16SC4);
            cv::add(noisy, grain, noisy);
            noisy.convertTo(to, CV_8UC4);
        }
        buffer->unlockBaseAddress();
        scaled.push_back(buffer);
    }
    const double clipRate = clip.size() > 1
        ? (clip.size() - 1) / (clip.back().presentationTimeStamp().seconds() - clip.front().presentationTimeStamp().seconds())
        : 30.0;
    std::vector<platform::SampleBuffer> frames;
    for (int i = 0; i < count; ++i) {
        const auto& buffer = scaled[size_t(i * clipRate / 30.0) % scaled.size()];
        frames.emplace_back(buffer, platform::MediaTime::fromSeconds(startTime + i / 30.0, 600),
                            platform::FormatDescription::forImageBuffer(*buffer));
    }
    return frames;
}

// Clip frames with their times moved to start at startTime.
std::vector<platform::SampleBuffer> shifted(const std::vector<platform::SampleBuffer>& clip, double startTime)
{
    std::vector<platform::SampleBuffer> frames;
    const double first = clip.front().presentationTimeStamp().seconds();
    for (const auto& frame : clip)
        frames.emplace_back(frame.imageBuffer(),
                            platform::MediaTime::fromSeconds(startTime + frame.presentationTimeStamp().seconds() - first, 600),
                            frame.formatDescription());
    return frames;
}

// CPU time of the whole process, in ms.
double processCpuMs()
{
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

struct ShotClock final : core::ZCBestShotDelegate {
    std::atomic<bool> shot{false};
    std::atomic<Clock::rep> at{0};
    std::atomic<bool> boxed{false};
    std::atomic<Clock::rep> boxedAt{0};
    void detectionRect(const QRectF& rect, const QSizeF&) override
    {
        if (!rect.isNull() && !boxed) {
            boxedAt = Clock::now().time_since_epoch().count();
            boxed = true;
        }
    }
    bool bestShot(core::ZCBestShotPtr) override
    {
        at = Clock::now().time_since_epoch().count();
        shot = true;
        return true;
    }
    void bestShotError(platform::ErrorPtr) override {}
};

core::ZCBestShotDetectorPtr makeDetector(const std::shared_ptr<ShotClock>& delegate)
{
    auto configuration = std::make_shared<core::ZCZavoConfiguration>();
    return core::ZCBestShotBuilder::buildWithDelegate(delegate, nullptr, configuration);
}

void benchPushFrame(const std::vector<platform::SampleBuffer>& frames)
{
    auto delegate = std::make_shared<ShotClock>();
    auto detector = makeDetector(delegate);
    detector->launchWizard();
    std::mutex mutex;
    platform::SampleBuffer slot;
    std::vector<double> push, baseline;
    for (int round = 0; round < 20; ++round) {
        for (const auto& frame : frames) {
            auto t0 = Clock::now();
            {
                std::lock_guard lock(mutex);
                slot = frame;
            }
            auto t1 = Clock::now();
            detector->pushFrame(frame);
            auto t2 = Clock::now();
            baseline.push_back(ms(t1 - t0));
            push.push_back(ms(t2 - t1));
        }
    }
    const Stats p = stats(push), b = stats(baseline);
    std::printf("pushFrame on the caller: median %.4f ms, p90 %.4f, max %.3f (%zu calls; goal < 0.1 ms)\n",
                p.median, p.p90, p.max, push.size());
    std::printf("  baseline slot hand-over: median %.4f ms; ratio %.1fx\n", b.median, p.median / b.median);
}

struct AnalysisCost {
    Stats steady, whole;
    // Per frame as in a session: whole-frame searches and network runs.
    double searches = 0, runs = 0;
};

// Faces followed from frame to frame as in a session, then every frame
// searched whole, by one analyzer.
AnalysisCost analysisCost(const std::vector<platform::SampleBuffer>& frames, const core::ZCDetectorSettings& settings)
{
    core::detail::FaceAnalyzer analyzer{settings};
    std::vector<double> steady, whole;
    core::detail::FaceAnalyzer::Work work;
    for (int round = 0; round < 3; ++round) {
        analyzer.reset();
        const auto before = analyzer.work();
        for (const auto& frame : frames) {
            const auto view = viewOf(frame);
            const QPointF centre(view.width / 2.0, view.height / 2.0);
            double c0 = threadCpuMs();
            analyzer.analyze(view, centre, frame.presentationTimeStamp().seconds());
            steady.push_back(threadCpuMs() - c0);
        }
        const auto after = analyzer.work();
        work.frames += after.frames - before.frames;
        work.wholeSearches += after.wholeSearches - before.wholeSearches;
        work.networkRuns += after.networkRuns - before.networkRuns;
        for (const auto& frame : frames) {
            analyzer.reset();  // every frame searched whole
            const auto view = viewOf(frame);
            double c0 = threadCpuMs();
            analyzer.analyze(view, QPointF(view.width / 2.0, view.height / 2.0));
            whole.push_back(threadCpuMs() - c0);
        }
    }
    return {stats(steady), stats(whole), double(work.wholeSearches) / double(work.frames),
            double(work.networkRuns) / double(work.frames)};
}

void printStretch(const char* name, const AnalysisCost& cost, double forwardMean)
{
    std::printf("  %s: mean %.2f ms a frame (%.2fx the bare pass's mean; goal <= 1.3x), median %.2f, p90 %.2f; "
                "%.2f whole searches and %.2f network runs a frame\n",
                name, cost.steady.mean, cost.steady.mean / forwardMean, cost.steady.median, cost.steady.p90,
                cost.searches, cost.runs);
    std::printf("    every frame searched whole: mean %.2f ms (%.2fx the bare pass); as in a session / searched whole: %.2f\n",
                cost.whole.mean, cost.whole.mean / forwardMean, cost.steady.mean / cost.whole.mean);
}

void benchAnalysis(const std::vector<platform::SampleBuffer>& frames, const std::vector<platform::SampleBuffer>& noFace,
                   const std::vector<platform::SampleBuffer>& noisyNoFace)
{
    const int threads = cv::getNumThreads();
    cv::setNumThreads(1);
    core::ZCDetectorSettings withCascades;
    withCascades.faceNetworkPath = QStringLiteral("/nonexistent/face.onnx");  // the fall-back
    const bool haveNetwork = core::detail::FaceAnalyzer{core::ZCDetectorSettings()}.usesNetwork();
    const AnalysisCost network = analysisCost(frames, core::ZCDetectorSettings());
    const AnalysisCost cascades = analysisCost(frames, withCascades);
    const AnalysisCost empty = analysisCost(noFace, core::ZCDetectorSettings());
    const AnalysisCost noisy = analysisCost(noisyNoFace, core::ZCDetectorSettings());

    cv::CascadeClassifier cascade(ZAVO_FACE_CASCADE);
    std::vector<double> baseline;
    for (size_t i = 0; i < frames.size(); i += 4) {
        const auto view = viewOf(frames[i]);
        const cv::Mat bgra(view.height, view.width, CV_8UC4, const_cast<uint8_t*>(view.data), view.bytesPerRow);
        double c0 = threadCpuMs();
        cv::Mat grey;
        cv::cvtColor(bgra, grey, cv::COLOR_BGRA2GRAY);
        std::vector<cv::Rect> faces;
        cascade.detectMultiScale(grey, faces, 1.1, 6, 0, cv::Size(120, 120));
        baseline.push_back(threadCpuMs() - c0);
    }
    const Stats b = stats(baseline);
    const auto size = viewOf(frames.front());

    std::vector<double> forward;
    if (haveNetwork) {
        cv::dnn::Net net = cv::dnn::readNetFromONNX(core::detail::FaceAnalyzer::defaultNetworkPath().toStdString());
        const std::vector<cv::String> names = net.getUnconnectedOutLayersNames();
        std::vector<cv::Mat> outputs;
        for (const auto& frame : frames) {
            const auto view = viewOf(frame);
            const cv::Mat bgra(view.height, view.width, CV_8UC4, const_cast<uint8_t*>(view.data), view.bytesPerRow);
            const int side = std::min(view.width, view.height);
            cv::Mat square, rgb, input;
            cv::resize(bgra(cv::Rect(0, 0, side, side)), square, cv::Size(128, 128), 0, 0, cv::INTER_AREA);
            cv::cvtColor(square, rgb, cv::COLOR_BGRA2RGB);
            rgb.convertTo(input, CV_32F, 1 / 127.5, -1.0);
            const int shape[] = {1, 128, 128, 3};
            net.setInput(cv::Mat(4, shape, CV_32F, input.data));
            const double c0 = threadCpuMs();
            net.forward(outputs, names);
            forward.push_back(threadCpuMs() - c0);
        }
    }
    std::printf("analysis per %dx%d frame, one core, CPU time (goal: network median <= 3 ms, p90 <= 5 ms)\n", size.width,
                size.height);
    if (haveNetwork) {
        std::printf("  face network: median %.2f ms, p90 %.2f, max %.2f; every frame searched whole: median %.2f, p90 %.2f\n",
                    network.steady.median, network.steady.p90, network.steady.max, network.whole.median, network.whole.p90);
    } else {
        std::printf("  face network: not in this build (scripts/fetch-model.sh)\n");
    }
    std::printf("  cascades:     median %.2f ms, p90 %.2f, max %.2f; every frame searched whole: median %.2f, p90 %.2f\n",
                cascades.steady.median, cascades.steady.p90, cascades.steady.max, cascades.whole.median, cascades.whole.p90);
    if (haveNetwork) {
        std::printf("  network / cascades: median %.2fx, p90 %.2fx (whole search %.2fx, %.2fx)\n",
                    network.steady.median / cascades.steady.median, network.steady.p90 / cascades.steady.p90,
                    network.whole.median / cascades.whole.median, network.whole.p90 / cascades.whole.p90);
    }
    if (!forward.empty()) {
        const Stats f = stats(forward);
        std::printf("  network's bare forward pass (one 128x128 input): median %.2f ms, mean %.2f; analysis / forward "
                    "pass: median %.2fx, mean %.2fx, p90 %.2fx (goal <= 1.3x)\n",
                    f.median, f.mean, network.steady.median / f.median, network.steady.mean / f.mean,
                    network.steady.p90 / f.median);
        std::printf("  averaged over stretches, against the bare pass's mean %.2f ms:\n", f.mean);
        printStretch("no face (empty scene, 720x1280, still)", empty, f.mean);
        printStretch("no face (the same with a sensor's noise, 3 grey levels)", noisy, f.mean);
        printStretch("face followed (clip)", network, f.mean);
    }
    std::printf("  baseline full-resolution cascade: median %.2f ms; cascades' ratio %.3f (whole search %.3f)\n", b.median,
                cascades.steady.median / b.median, cascades.whole.median / b.median);
    cv::setNumThreads(threads);  // the sessions below run as a host's would
}

void benchTimeToShot(const std::vector<platform::SampleBuffer>& frames)
{
    std::vector<double> delays;
    for (int run = 0; run < 3; ++run) {
        auto delegate = std::make_shared<ShotClock>();
        auto detector = makeDetector(delegate);
        detector->launchWizard();
        const auto start = Clock::now();
        const double firstPts = frames.front().presentationTimeStamp().seconds();
        for (const auto& frame : frames) {
            const double offset = frame.presentationTimeStamp().seconds() - firstPts;
            std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(offset)));
            if (delegate->shot)
                break;
            detector->pushFrame(frame);
        }
        while (!delegate->shot && Clock::now() - start < std::chrono::seconds(5))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (delegate->shot)
            delays.push_back(ms(Clock::time_point(Clock::duration(delegate->at.load())) - start));
    }
    const Stats d = stats(delays);
    const double spell = core::ZCDetectorSettings().steadyDuration * 1000;
    std::printf("first good frame to best shot, real-time feed: median %.0f ms, max %.0f (%zu runs; goal <= 700 ms)\n",
                d.median, d.max, delays.size());
    std::printf("  baseline steady spell: %.0f ms; overhead %.0f ms\n", spell, d.median - spell);
}

// A face appears after a no-face stretch: from the push of its first frame
// to the first face box, with the stretch's length varied over the runs so
// that the face lands at every point of the search's cadence.
void benchFirstBox(const std::vector<platform::SampleBuffer>& noFaceClip, const std::vector<platform::SampleBuffer>& faceClip)
{
    std::vector<double> delays, stretchCpu;
    constexpr int kRuns = 8, kStretch = 60, kWarmUp = 30;  // frames; the network loads during the warm-up
    for (int run = 0; run < kRuns; ++run) {
        const int count = kStretch + run;
        const auto empty = noFaceStretch(noFaceClip, count, 0, 3);  // a camera's noise: no frame like the last
        const auto face = shifted(faceClip, count / 30.0);
        auto delegate = std::make_shared<ShotClock>();
        auto detector = makeDetector(delegate);
        detector->launchWizard();
        const auto start = Clock::now();
        double cpu0 = 0;
        Clock::time_point faceShown;
        for (int i = 0; i < count + int(face.size()) && !delegate->boxed; ++i) {
            const auto& frame = i < count ? empty[size_t(i)] : face[size_t(i - count)];
            std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(
                                                      std::chrono::duration<double>(frame.presentationTimeStamp().seconds())));
            // The process less this thread, which only feeds: the detector's
            // thread and the OpenCV workers it wakes.
            if (i == kWarmUp)
                cpu0 = processCpuMs() - threadCpuMs();
            if (i == count) {
                // Let the last no-face frame's analysis end before reading.
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                stretchCpu.push_back((processCpuMs() - threadCpuMs() - cpu0) / (count - kWarmUp));
                faceShown = Clock::now();
            }
            detector->pushFrame(frame);
        }
        while (!delegate->boxed && Clock::now() - start < std::chrono::seconds(10))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (delegate->boxed)
            delays.push_back(ms(Clock::time_point(Clock::duration(delegate->boxedAt.load())) - faceShown));
    }
    const Stats d = stats(delays), c = stats(stretchCpu);
    std::printf("face appearing after a no-face stretch, real-time feed: first box after median %.0f ms, max %.0f "
                "(%zu of %d runs; goal <= 150 ms)\n",
                d.median, d.max, delays.size(), kRuns);
    std::printf("  process less the feeding thread during the stretch (OpenCV on %d threads): %.2f ms CPU a frame (mean of runs; %.2f worst), "
                "%.3f of a core at 30 fps\n",
                cv::getNumThreads(), c.mean, c.max, c.mean * 30 / 1000);
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QString clip = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral(ZAVO_TEST_DATA_DIR "/A_zoom_blur_dark.mp4");
    const auto frames = decode(clip);
    if (frames.empty()) {
        std::fprintf(stderr, "cannot decode %s\n", qPrintable(clip));
        return 1;
    }
    const auto emptyScene = decode(QStringLiteral(ZAVO_TEST_DATA_DIR "/E_no_face.mp4"));
    if (emptyScene.empty()) {
        std::fprintf(stderr, "cannot decode the empty-scene clip\n");
        return 1;
    }
    const QString parts = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QStringLiteral("1234");
    if (parts.contains(QLatin1Char('1')))
        benchPushFrame(frames);
    if (parts.contains(QLatin1Char('2')))
        benchAnalysis(frames, noFaceStretch(emptyScene, 180, 0), noFaceStretch(emptyScene, 180, 0, 3));
    if (parts.contains(QLatin1Char('3')))
        benchTimeToShot(frames);
    if (parts.contains(QLatin1Char('4')))
        benchFirstBox(emptyScene, frames);
    return 0;
}
