#pragma once
// Re-encodes a recorded movie into a small H.264 MP4 and puts the result in
// the place of the input file. Only the first video track survives; audio and
// every other track are dropped. The output is 320x180 and keeps the source's
// orientation as its transform rather than in its pixels.
#include "base/ZavoExport.h"
#include "media/Asset.h"
#include "media/AssetWriter_p.h"

#include <QString>
#include <functional>
#include <memory>
#include <optional>

namespace zavo {

/// What a compression reports; the raw value is what reaches the recorders.
enum class CompressionResult : int {
    failure = 0,  // nothing usable was produced, or the final swap of files failed
    success = 1,  // the re-encoded file is at the input's path
};

/// The result for a raw value: only 0 and 1 are results.
ZAVO_EXPORT std::optional<CompressionResult> compressionResultFromRawValue(int rawValue);
constexpr int rawValue(CompressionResult result) { return static_cast<int>(result); }

/// One compression at a time per object: the reader and writer of the
/// compression under way live in its fields.
///
/// Threads: the call and its early failures run on the caller's thread; the
/// set-up after the track list has loaded runs on the loading queue; frames
/// are pumped on a serial queue "videoQueue" of the compression's own; the
/// final report comes from the writer's completion. Pump and finish hold the
/// object weakly, so releasing it stops the work and nothing more is reported.
class ZAVO_EXPORT ZMVideoCompresion : public std::enable_shared_from_this<ZMVideoCompresion> {
public:
    static std::shared_ptr<ZMVideoCompresion> create();

    using Completion = std::function<void(CompressionResult)>;
    /// Compresses the file at urlToCompress (a path) into outputURL (a path
    /// where nothing may exist yet), then moves the result over the input.
    /// Below platform version 16.0 it returns at once and never completes.
    /// completion may be called twice: failure then success when the
    /// re-encoded file was written but could not be swapped into place.
    void compressFile(const QString& urlToCompress, const QString& outputURL, Completion completion);
    /// False below platform version 16.0, where compressFile does nothing.
    static bool runsOnThisPlatform();
    /// The message-style form: the completion receives the result's raw value.
    void compressFileWithUrlToCompress(const QString& urlToCompress, const QString& outputURL,
                                       std::function<void(long)> completion);

    /// Progress of the compression under way, from 0 to 1, called on the
    /// pump's queue after each frame (by presentation time against the track's
    /// duration) and with 1 once all frames are in and finishing begins.
    /// Set before compressFile.
    void setProgressHandler(std::function<void(double)> handler) { progressHandler_ = std::move(handler); }

    platform::AssetWriterPtr assetWriter() const { return assetWriter_; }
    void setAssetWriter(platform::AssetWriterPtr writer) { assetWriter_ = std::move(writer); }
    platform::AssetReaderPtr assetReader() const { return assetReader_; }
    void setAssetReader(platform::AssetReaderPtr reader) { assetReader_ = std::move(reader); }

    struct ConstructionKey {};
    explicit ZMVideoCompresion(ConstructionKey) {}

private:
    struct Job;
    void startWithTracks(const std::vector<platform::AssetTrackPtr>& tracks, const platform::AssetReaderPtr& reader,
                         const QString& urlToCompress, const QString& outputURL, const Completion& completion);
    static void pump(const std::shared_ptr<Job>& job);
    static void finish(const std::shared_ptr<Job>& job);

    platform::AssetWriterPtr assetWriter_;
    platform::AssetReaderPtr assetReader_;
    std::function<void(double)> progressHandler_;
};

}  // namespace zavo
