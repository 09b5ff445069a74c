// Arbitrary bytes as a recorded movie: opened through the asset reader, every
// frame of every video track decoded, and, for a share of the inputs, the
// whole recompression run on a copy (which replaces its input in place).
#include "FuzzSupport_p.h"

#include "media/Asset.h"
#include "recording/ZMVideoCompresion_p.h"

#include <QCryptographicHash>
#include <chrono>
#include <condition_variable>
#include <mutex>

using namespace zavo;
using namespace zavo::platform;

namespace {

// A real clip of the corpus has a few frames; more only costs time.
constexpr int kMaxFramesPerTrack = 48;
// Two video tracks are enough to exercise packets queued for the other one.
constexpr size_t kMaxOutputs = 2;
// Recompression encodes with x264, so only one input in this many runs it.
constexpr int kCompressionShare = 8;

void checkSample(const SampleBuffer& sample)
{
    const auto& image = sample.imageBuffer();
    if (!image || image->width() <= 0 || image->height() <= 0)
        fuzz::fail("a delivered sample has no picture");
    if (image->bytesPerRow() < size_t(image->width()) * 4)
        fuzz::fail("ARGB rows shorter than their pixels");
}

void readEveryFrame(const QString& path)
{
    auto asset = Asset::assetWithPath(path);
    ErrorPtr error;
    const auto tracks = asset->tracksWithMediaType(MediaType::Video, &error);
    if (tracks.empty() != bool(error))
        fuzz::fail("no video track yet no error, or an error beside tracks");
    auto reader = AssetReader::create(asset, &error);
    if (!reader)
        return;
    std::vector<AssetReaderTrackOutputPtr> outputs;
    for (const auto& track : tracks) {
        if (outputs.size() == kMaxOutputs)
            break;
        auto output = AssetReaderTrackOutput::create(track, {PixelFormat::ARGB32});
        // One output pooled, the other copying: both buffer paths get bytes.
        output->setAlwaysCopiesSampleData(outputs.empty());
        reader->addOutput(output);
        outputs.push_back(std::move(output));
    }
    if (!reader->startReading())
        return;
    std::vector<bool> ended(outputs.size(), false);
    for (int frame = 0; frame < kMaxFramesPerTrack; ++frame) {
        bool any = false;
        for (size_t i = 0; i < outputs.size(); ++i) {
            if (ended[i])
                continue;
            SampleBuffer sample = outputs[i]->copyNextSampleBuffer();
            if (!sample.isValid()) {
                ended[i] = true;
                continue;
            }
            checkSample(sample);
            any = true;
        }
        if (!any)
            break;
    }
    if (reader->status() == AssetReader::Status::Failed && !reader->error())
        fuzz::fail("a failed reader without an error");
    reader->cancelReading();
}

/// What one compression reported, up to its last report.
struct Outcome {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<CompressionResult> reports;
    bool done = false;
};

void compressCopy(const uint8_t* data, size_t size)
{
    const QString folder = fuzz::scratchPath() + QStringLiteral("/compress");
    QDir(folder).removeRecursively();
    QDir().mkpath(folder);
    const QString input = folder + QStringLiteral("/ZMRecordedVideo.mp4");
    const QString output = folder + QStringLiteral("/recompressed.mp4");
    fuzz::writeFileOrDie(input, data, size);

    auto compressor = ZMVideoCompresion::create();
    auto outcome = std::make_shared<Outcome>();
    compressor->compressFile(input, output, [outcome, input](CompressionResult result) {
        // A failure after the swap began (the input is gone by then) is
        // followed at once by a success; any other report is the last one.
        const bool last = result == CompressionResult::success || QFile::exists(input);
        std::lock_guard lock(outcome->mutex);
        outcome->reports.push_back(result);
        outcome->done = outcome->done || last;
        outcome->changed.notify_all();
    });
    std::unique_lock lock(outcome->mutex);
    // A compression that never reports leaves the camera screen waiting for
    // ever: that is a fault to find, not a slow input.
    if (!outcome->changed.wait_for(lock, std::chrono::seconds(20), [&] { return outcome->done; }))
        fuzz::fail("the compression never reported");
    // A lone success promises the re-encoded file in the input's place;
    // failure then success is a swap that failed half-way and promises nothing.
    if (outcome->reports == std::vector{CompressionResult::success} && !QFile::exists(input))
        fuzz::fail("success reported without a file at the input's path");
    lock.unlock();
    compressor.reset();
    fuzz::waitForQueuesToEnd();
    QDir(folder).removeRecursively();
}

bool takesCompressionPath(const uint8_t* data, size_t size)
{
    // Decided by a hash, not by a byte of the file, so that the container's
    // own bytes stay free for the fuzzer to shape.
    const QByteArray digest = QCryptographicHash::hash(
        QByteArrayView(reinterpret_cast<const char*>(data), qsizetype(size)), QCryptographicHash::Md5);
    return uint8_t(digest.at(0)) % kCompressionShare == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::setUpOnce();
    const QString path = fuzz::scratchPath() + QStringLiteral("/clip");
    fuzz::writeFileOrDie(path, data, size);
    readEveryFrame(path);
    if (takesCompressionPath(data, size))
        compressCopy(data, size);
    return 0;
}
