#include "recording/ZMVideoCompresion_p.h"

#include "base/DispatchQueue.h"
#include "base/ProcessInfo_p.h"

#include <QFile>
#include <QThread>
#include <QUrl>

namespace zavo {

using namespace platform;

namespace {
constexpr int kCompressedWidth = 320;
constexpr int kCompressedHeight = 180;
}  // namespace

std::optional<CompressionResult> compressionResultFromRawValue(int rawValue)
{
    switch (rawValue) {
    case 0: return CompressionResult::failure;
    case 1: return CompressionResult::success;
    default: return std::nullopt;
    }
}

/// What the pump and the finish step of one compression share. It holds the
/// compressor weakly: a released compressor stops its compression.
struct ZMVideoCompresion::Job {
    std::weak_ptr<ZMVideoCompresion> owner;
    AssetWriterInputPtr input;
    AssetReaderTrackOutputPtr output;
    QString urlToCompress;
    QString outputURL;
    Completion completion;
    std::function<void(double)> progress;
    double durationSeconds = 0;
};

std::shared_ptr<ZMVideoCompresion> ZMVideoCompresion::create()
{
    return std::make_shared<ZMVideoCompresion>(ConstructionKey{});
}

void ZMVideoCompresion::compressFileWithUrlToCompress(const QString& urlToCompress, const QString& outputURL,
                                                      std::function<void(long)> completion)
{
    compressFile(urlToCompress, outputURL, [completion = std::move(completion)](CompressionResult result) {
        if (completion)
            completion(rawValue(result));
    });
}

bool ZMVideoCompresion::runsOnThisPlatform() { return ProcessInfo::isOperatingSystemAtLeast(16, 0, 0); }

void ZMVideoCompresion::compressFile(const QString& urlToCompress, const QString& outputURL, Completion completion)
{
    if (!runsOnThisPlatform())
        return;
    auto asset = Asset::assetWithURL(QUrl::fromLocalFile(urlToCompress));
    // A reader that cannot be made leaves the field as it was: a reader from
    // an earlier call may still be there and is then used.
    if (auto reader = AssetReader::create(asset))
        assetReader_ = std::move(reader);
    if (!assetReader_) {
        completion(CompressionResult::failure);
        return;
    }
    asset->loadTracksWithMediaType(MediaType::Video, [self = shared_from_this(), reader = assetReader_, urlToCompress,
                                                      outputURL, completion](std::vector<AssetTrackPtr> tracks, ErrorPtr) {
        self->startWithTracks(tracks, reader, urlToCompress, outputURL, completion);
    });
}

void ZMVideoCompresion::startWithTracks(const std::vector<AssetTrackPtr>& tracks, const AssetReaderPtr& reader,
                                        const QString& urlToCompress, const QString& outputURL,
                                        const Completion& completion)
{
    if (tracks.empty()) {
        completion(CompressionResult::failure);
        return;
    }
    const AssetTrackPtr& track = tracks.front();
    // Decoded frames are scaled once, straight from the decoder's planes to
    // the size the writer stores (turned when the source's shape is the
    // other way round, as the writer turns it), never to full-size RGB: that
    // round trip cost a third of the time and clipped colours.
    const QSize natural = track->naturalSize();
    const bool turned = natural.width() != natural.height()
        && (natural.width() > natural.height()) != (kCompressedWidth > kCompressedHeight);
    // At a sixteenth of the source's pixels the deblocking filter's work is
    // averaged away by the scaling: skipping it saves 7 % of the whole run
    // and costs no SSIM (bench/media/run.sh).
    AssetReaderOutputSettings decoding{PixelFormat::NV12VideoRange, turned ? kCompressedHeight : kCompressedWidth,
                                       turned ? kCompressedWidth : kCompressedHeight, /*skipsDeblocking=*/true};
    // libx264 keeps about as many cores busy on the small output as the
    // decoder on the large input: half the cores each. On two cores one
    // decoding thread takes a tenth less CPU than frame threads and ends
    // no later (bench/media/run.sh).
    decoding.decoderThreads = std::max(1, QThread::idealThreadCount() / 2);
    auto output = AssetReaderTrackOutput::create(track, decoding);
    // Samples are released right after their append, so pooled buffers serve.
    output->setAlwaysCopiesSampleData(false);
    // Reported, yet the output is added regardless (which then does nothing).
    if (!reader->canAddOutput(output))
        completion(CompressionResult::failure);
    reader->addOutput(output);

    VideoOutputSettings settings{VideoCodec::H264, kCompressedWidth, kCompressedHeight};
    // The encoder takes over half the run's CPU and the decoder a third, so
    // the preset decides the speed. "faster" at CRF 23.25 keeps the SSIM of
    // x264's defaults within 0.01 and the size within a tenth on both clips
    // of bench/media/run.sh, at a tenth less CPU than "fast"; subme 6 and
    // above buy SSIM only with bytes, lower CRFs overshoot the size.
    settings.preset = QStringLiteral("faster");
    settings.constantRateFactor = 23.25;
    auto input = AssetWriterInput::create(MediaType::Video, settings);
    input->setTransform(track->preferredTransform());
    auto videoQueue = DispatchQueue::create(QStringLiteral("videoQueue"));

    // The output path is not cleared first: a file already there makes the
    // writer fail, and the caller keeps that path free.
    assetWriter_ = AssetWriter::create(QUrl::fromLocalFile(outputURL), FileType::MPEG4);
    if (assetWriter_) {
        assetWriter_->setShouldOptimizeForNetworkUse(true);
        assetWriter_->addInput(input);
    }
    if (!assetWriter_) {
        completion(CompressionResult::failure);
        return;
    }
    assetWriter_->startWriting();
    reader->startReading();
    assetWriter_->startSessionAtSourceTime(MediaTime::zero());

    auto job = std::make_shared<Job>();
    job->owner = weak_from_this();
    job->input = input;
    job->output = output;
    job->urlToCompress = urlToCompress;
    job->outputURL = outputURL;
    job->completion = completion;
    job->progress = progressHandler_;
    job->durationSeconds = track->duration().isValid() ? track->duration().seconds() : 0;
    input->requestMediaDataWhenReady(videoQueue, [job] { pump(job); });
}

void ZMVideoCompresion::pump(const std::shared_ptr<Job>& job)
{
    if (!job->input->isReadyForMoreMediaData())
        return;
    for (;;) {
        SampleBuffer sample = job->output->copyNextSampleBuffer();
        if (!sample.isValid())
            break;
        job->input->appendSampleBuffer(sample);
        if (job->progress && job->durationSeconds > 0)
            job->progress(std::clamp(sample.presentationTimeStamp().seconds() / job->durationSeconds, 0.0, 1.0));
        sample = {};  // hand the decoded frame back to the reader's pool now
        if (!job->input->isReadyForMoreMediaData())
            return;
    }
    // The end of the track and a failed read look the same here.
    {
        auto self = job->owner.lock();
        if (!self || !self->assetWriter_)
            return;
    }
    job->input->markAsFinished();
    if (job->progress)
        job->progress(1.0);
    finish(job);
}

void ZMVideoCompresion::finish(const std::shared_ptr<Job>& job)
{
    AssetWriterPtr writer;
    if (auto self = job->owner.lock())
        writer = self->assetWriter_;
    if (!writer)
        return;
    // The writer's own outcome is not looked at: the swap below decides.
    writer->finishWriting([job] {
        if (auto self = job->owner.lock()) {
            if (self->assetReader_)
                self->assetReader_->cancelReading();
            self->assetReader_.reset();
            self->assetWriter_.reset();
        }
        const bool removed = QFile::remove(job->urlToCompress);
        const bool moved = removed && QFile::rename(job->outputURL, job->urlToCompress);
        // A failed swap reports failure and then success, in that order.
        if (!removed || !moved)
            job->completion(CompressionResult::failure);
        job->completion(CompressionResult::success);
    });
}

}  // namespace zavo
