#include "recording/ZMSaveVideoExService.h"

#include "resources/ZMBundleLink_p.h"
#include "recording/ZMRecordingStorage_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <atomic>

namespace zavo {

using namespace platform;

std::shared_ptr<ZMSaveVideoExService> ZMSaveVideoExService::videoServiceWithDelegate(
    std::weak_ptr<ZMSaveVideoServiceDelegate> delegate, double frameWidth, double frameHeight, double fps)
{
    auto service = create(frameWidth, frameHeight, fps);
    service->setDelegate(std::move(delegate));
    return service;
}

std::shared_ptr<ZMSaveVideoExService> ZMSaveVideoExService::create(double frameWidth, double frameHeight, double fps)
{
    auto service = std::make_shared<ZMSaveVideoExService>(ConstructionKey{});
    service->compressionService_ = ZMVideoCompresion::create();
    service->processingQueue_ = DispatchQueue::create(kZavoCameraBundleIdentifier + QStringLiteral(".ZMSaveVideoExService"),
                                                      QualityOfService::Background, -1);
    service->framesCounter_ = 0;
    service->frameWidth_ = frameWidth;
    service->frameHeight_ = frameHeight;
    service->fps_ = fps;
    return service;
}

std::shared_ptr<ZMSaveVideoServiceDelegate> ZMSaveVideoExService::delegate() const
{
    MutexLocker lock(mutex_);
    return delegate_.lock();
}

void ZMSaveVideoExService::setDelegate(std::weak_ptr<ZMSaveVideoServiceDelegate> delegate)
{
    MutexLocker lock(mutex_);
    delegate_ = std::move(delegate);
}

void ZMSaveVideoExService::attachWithSession(const CaptureSessionPtr& session,
                                             const std::shared_ptr<CaptureConnection>& connection)
{
    videoFileOutput_ = CaptureMovieFileOutput::create();
    if (!session || !session->canAddOutput(videoFileOutput_))
        return;  // no recording will be possible; nobody is told
    session->addOutput(videoFileOutput_);
    if (videoFileOutput_->availableVideoCodecTypes().contains(kVideoCodecTypeH264))
        videoFileOutput_->setOutputSettings({{kVideoCodecKey, kVideoCodecTypeH264}}, connection);
}

void ZMSaveVideoExService::recreateBrightfoldFolder() { ZMRecordingStorage::recreateEmptyFolder(); }

void ZMSaveVideoExService::beginRecordWithFileURL(const QUrl& fileURL)
{
    {
        MutexLocker lock(mutex_);
        stopAnnounced_ = false;
        heldFinish_.reset();
    }
    // A host's folder holds the host's files: it is made if missing, never
    // emptied.
    const QString path = fileURL.toLocalFile();
    if (ZMRecordingStorage::isInOwnFolder(path))
        recreateBrightfoldFolder();
    else
        QDir().mkpath(QFileInfo(path).absolutePath());
    if (videoFileOutput_)
        videoFileOutput_->startRecordingToOutputFileURL(fileURL, shared_from_this());
}

void ZMSaveVideoExService::appendStorageWithSampleBuffer(const SampleBuffer&) {}

void ZMSaveVideoExService::endRecordWithCompletion(std::function<void()> completion)
{
    {
        MutexLocker lock(mutex_);
        announcingStop_ = true;
    }
    if (videoFileOutput_)
        videoFileOutput_->stopRecording();
    // Without a delegate the caller's completion is deliberately never called.
    if (auto target = delegate()) {
        target->videoFlushingWillBegin();
        if (completion)
            completion();
    }
    std::optional<FinishedRecording> finished;
    {
        MutexLocker lock(mutex_);
        announcingStop_ = false;
        stopAnnounced_ = true;
        finished.swap(heldFinish_);
    }
    if (finished)
        reportFinishedRecording(finished->fileURL, std::move(finished->error));
}

void ZMSaveVideoExService::captureOutputDidStartRecording(CaptureMovieFileOutput&, const QUrl&,
                                                          const std::vector<std::shared_ptr<CaptureConnection>>&)
{
}

void ZMSaveVideoExService::captureOutputDidFinishRecording(CaptureMovieFileOutput&, const QUrl& fileURL,
                                                           const std::vector<std::shared_ptr<CaptureConnection>>&,
                                                           ErrorPtr error)
{
    {
        MutexLocker lock(mutex_);
        if (announcingStop_ || (!error && !stopAnnounced_)) {
            heldFinish_ = FinishedRecording{fileURL, std::move(error)};
            return;
        }
    }
    reportFinishedRecording(fileURL, std::move(error));
}

void ZMSaveVideoExService::reportFinishedRecording(const QUrl& fileURL, ErrorPtr error)
{
    auto target = delegate();
    if (!target)
        return;  // no report, no recompression: the recorded file stays as it is
    const QString recorded = fileURL.toLocalFile();
    target->videoFlushingDidEndWithError(error);
    // A delegate that wants no video deletes it as it hears of it. A
    // recording that succeeded and is gone now was removed on purpose: there
    // is nothing to recompress, and a compressor run on the missing file
    // would only report a bad-quality failure that never happened.
    // Where the compressor does not run, nothing more comes.
    const bool exists = QFile::exists(recorded);
    if ((!error && !exists) || !ZMVideoCompresion::runsOnThisPlatform()) {
        target->videoRecordingDidFinish(error);
        return;
    }
    // A failed recording is final as it stands; what it left is still
    // recompressed and reported, but decides nothing. Otherwise the
    // compressor's first report decides: it reports failure and then success
    // when the new file could not be swapped in, and the file is then the
    // original recording, which the failure describes.
    auto decided = std::make_shared<std::atomic<bool>>(error != nullptr);
    if (error)
        target->videoRecordingDidFinish(error);
    target.reset();
    // The compressor's report goes to whoever is the delegate by then.
    compressionService_->compressFileWithUrlToCompress(
        recorded, ZMRecordingStorage::recompressedPathFor(recorded), [self = shared_from_this(), decided](long result) {
            ErrorPtr compressionError;
            if (result == rawValue(CompressionResult::failure))
                compressionError = ZMRecordingStorage::badQualityError();
            if (auto current = self->delegate()) {
                current->videoFlushingDidEndWithError(compressionError);
                if (!decided->exchange(true))
                    current->videoRecordingDidFinish(compressionError);
            }
        });
}

}  // namespace zavo
