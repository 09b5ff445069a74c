#pragma once
// Writing an MPEG-4 file with one H.264 video track (libx264 through
// libavcodec, muxed by libavformat).
//
// Frames go in through an AssetWriterInput (sample buffers) or its
// AssetWriterInputPixelBufferAdaptor (pixel buffers plus a time). Each append
// converts the frame straight into the encoder's YUV 4:2:0 picture at the
// output size on the caller's thread and hands it to the writer's own encode
// queue, so decoding or reading the next frame overlaps with encoding.
//
// The file is written beside its final path under a hidden name and moved
// into place only when finishing succeeds, so a failed or abandoned writer
// never leaves a half-written file where the result belongs.
//
// Threads: all members may be called from any thread; appends to one input
// must come from one thread at a time. finishWriting's completion runs on the
// writer's encode queue.
#include "base/ZavoExport.h"
#include "media/Asset.h"
#include "base/DispatchQueue.h"
#include "base/Error.h"
#include "media/MediaTime.h"
#include "media/PixelBuffer.h"
#include "media/SampleBuffer.h"

#include <QTransform>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace zavo::platform {

enum class FileType { MPEG4 };
enum class VideoCodec { H264 };

/// The encoded picture: codec and size. Frames of any size go into it
/// undistorted: the first frame decides whether the pixels are turned a
/// quarter (a portrait frame into a landscape picture, or the other way) and
/// which sample aspect ratio gives the shown picture that frame's aspect. The
/// turn is undone in the track's display matrix, before the input's own
/// transform, so players show the frames as they came, at their aspect.
struct ZAVO_EXPORT VideoOutputSettings {
    VideoCodec codec = VideoCodec::H264;
    int width = 0;
    int height = 0;
    /// x264's preset and constant rate factor; empty and 0: the writer's
    /// own (veryfast at CRF 20, or superfast for real-time input), made for
    /// recording while the camera runs.
    QString preset;
    double constantRateFactor = 0;
};

class AssetWriter;

class ZAVO_EXPORT AssetWriterInput {
public:
    /// Null unless mediaType is Video and the size is positive and even
    /// (4:2:0 pictures need even sizes).
    static std::shared_ptr<AssetWriterInput> create(MediaType mediaType, VideoOutputSettings settings);
    ~AssetWriterInput();
    AssetWriterInput(const AssetWriterInput&) = delete;
    AssetWriterInput& operator=(const AssetWriterInput&) = delete;

    MediaType mediaType() const;
    const VideoOutputSettings& outputSettings() const;

    /// How the track is to be shown, stored as its display matrix (identity
    /// by default). Set before startWriting.
    QTransform transform() const;
    void setTransform(const QTransform& transform);
    /// Live sources (a camera) set this before startWriting: the encoder then
    /// keeps no look-ahead and holds back no frames.
    bool expectsMediaDataInRealTime() const;
    void setExpectsMediaDataInRealTime(bool realTime);

    /// True while the writer is writing and the input is not finished. When
    /// the encoder is behind, an append waits for it rather than turning this
    /// off, so a block that appends while ready never loses a frame.
    bool isReadyForMoreMediaData() const;
    /// Runs block on queue once the writer is writing (at once if it already
    /// is). The block appends while the input is ready and calls
    /// markAsFinished() when it has no more data. A writer that fails,
    /// finishes or is cancelled first never runs it, and releases it.
    void requestMediaDataWhenReady(DispatchQueuePtr queue, std::function<void()> block);
    /// Appends the sample's pixel buffer at its presentation time.
    bool appendSampleBuffer(const SampleBuffer& sample);
    /// No more appends; the writer may finish.
    void markAsFinished();

    struct Private;

private:
    AssetWriterInput() = default;
    friend class AssetWriter;
    friend class AssetWriterInputPixelBufferAdaptor;
    std::shared_ptr<Private> d;
};

using AssetWriterInputPtr = std::shared_ptr<AssetWriterInput>;

/// Appends pixel buffers to an input, and offers a pool of buffers of the
/// source size and format to fill.
class ZAVO_EXPORT AssetWriterInputPixelBufferAdaptor {
public:
    /// sourcePixelBufferAttributes describes the frames the caller will
    /// append; with a positive size it also makes the pool.
    static std::shared_ptr<AssetWriterInputPixelBufferAdaptor> create(
        AssetWriterInputPtr input, std::optional<PixelBufferAttributes> sourcePixelBufferAttributes = std::nullopt);

    AssetWriterInputPtr assetWriterInput() const { return input_; }
    std::optional<PixelBufferAttributes> sourcePixelBufferAttributes() const { return attributes_; }
    /// Buffers of the source attributes. Null until the writer has started
    /// writing, and without attributes of a positive size.
    std::shared_ptr<PixelBufferPool> pixelBufferPool() const;
    /// Converts and queues buffer for encoding at presentationTime. False
    /// when the input is not ready, the time is invalid or not after the
    /// previous frame's, or the buffer cannot be converted.
    ///
    /// A frame that is to be shown turned clockwise by rotation degrees and
    /// then mirrored is turned and mirrored in the same pass that converts it
    /// for the encoder; the track's shape is decided by the first frame as it
    /// is shown.
    bool appendPixelBuffer(const std::shared_ptr<PixelBuffer>& buffer, MediaTime presentationTime, int rotation = 0,
                           bool mirrored = false);

private:
    AssetWriterInputPixelBufferAdaptor() = default;
    AssetWriterInputPtr input_;
    std::optional<PixelBufferAttributes> attributes_;
};

using AssetWriterInputPixelBufferAdaptorPtr = std::shared_ptr<AssetWriterInputPixelBufferAdaptor>;

class ZAVO_EXPORT AssetWriter {
public:
    enum class Status { Unknown, Writing, Completed, Failed, Cancelled };

    /// A writer for the local file at outputURL. Null, with *error set, when
    /// the URL is not a local file, its folder does not exist, or a file
    /// already exists there (remove it first: a writer never overwrites by
    /// accident).
    static std::shared_ptr<AssetWriter> create(const QUrl& outputURL, FileType fileType, ErrorPtr* error = nullptr);
    ~AssetWriter();
    AssetWriter(const AssetWriter&) = delete;
    AssetWriter& operator=(const AssetWriter&) = delete;

    QUrl outputURL() const;
    FileType outputFileType() const;
    /// Puts the index at the front of the file so that it plays while it
    /// downloads ("faststart"); costs one extra pass over the file at the end.
    bool shouldOptimizeForNetworkUse() const;
    void setShouldOptimizeForNetworkUse(bool optimize);

    /// One video input per file; only before startWriting.
    bool canAddInput(const AssetWriterInputPtr& input) const;
    void addInput(AssetWriterInputPtr input);

    /// Opens the file. False, with status Failed and an error, when it
    /// cannot be created (folder not writable, gone) or when called twice.
    bool startWriting();
    /// Frames are placed on the file's timeline relative to this time; frames
    /// before it are dropped.
    void startSessionAtSourceTime(MediaTime startTime);
    /// Encodes what is still queued, writes the index and closes the file on
    /// the encode queue, then calls completion there. The status is then
    /// Completed, or Failed with an error (nothing is left at the final path).
    void finishWriting(std::function<void()> completion);
    /// Drops queued frames and removes the partial file.
    void cancelWriting();

    Status status() const;
    ErrorPtr error() const;

    struct Private;

private:
    AssetWriter() = default;
    std::shared_ptr<Private> d;
};

using AssetWriterPtr = std::shared_ptr<AssetWriter>;

}  // namespace zavo::platform
