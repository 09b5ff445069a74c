#pragma once
// Reading media files: an asset (one file), its tracks, and a reader that
// decodes a track into sample buffers. Built on libavformat/libavcodec; any
// container and codec FFmpeg reads will do, MP4 with H.264 being the usual.
//
// Threads: Asset and AssetTrack are immutable once loaded and may be used
// from any thread. A reader decodes on the thread that calls
// copyNextSampleBuffer(); cancelReading() and status() may come from another.
#include "base/ZavoExport.h"
#include "base/Error.h"
#include "media/MediaTime.h"
#include "media/SampleBuffer.h"

#include <QSize>
#include <QString>
#include <QTransform>
#include <QUrl>
#include <functional>
#include <memory>
#include <vector>

namespace zavo::platform {

enum class MediaType { Video, Audio, Other };

/// Domain of the errors that reading and writing media files report.
inline const QString kMediaErrorDomain = QStringLiteral("zavo.platform.media");

/// Codes of kMediaErrorDomain errors. Their user info carries a readable
/// description and, when FFmpeg gave one, its error code under "FFmpegError".
enum class MediaErrorCode : long {
    Unknown = 1,
    FileNotFound = 2,
    FileFormatNotRecognized = 3,  // not a media file, or corrupt beyond reading
    NoSuchTrack = 4,              // no track of the media type asked for
    DecoderNotFound = 5,
    EncoderNotFound = 6,
    FileAlreadyExists = 7,
    CannotWrite = 8,              // folder missing or not writable, disk full, I/O error
    DecodeFailed = 9,
    EncodeFailed = 10,
    InvalidState = 11,            // an operation called in the wrong state
    Cancelled = 12,
};

/// A kMediaErrorDomain error with a description (and the FFmpeg code when
/// there is one, 0 otherwise).
ZAVO_EXPORT ErrorPtr makeMediaError(MediaErrorCode code, const QString& description, int ffmpegError = 0);

class Asset;

/// One stream of an asset.
class ZAVO_EXPORT AssetTrack {
public:
    struct Info {
        int trackID = 0;  // the stream's index in the file
        MediaType mediaType = MediaType::Other;
        QString codecName;
        QSize naturalSize;           // stored picture size, before the transform
        float nominalFrameRate = 0;  // frames per second, 0 when unknown
        QTransform preferredTransform;
        MediaTime duration = MediaTime::invalid();
    };

    AssetTrack(std::weak_ptr<const Asset> asset, Info info);

    int trackID() const { return info_.trackID; }
    MediaType mediaType() const { return info_.mediaType; }
    QString codecName() const { return info_.codecName; }
    QSize naturalSize() const { return info_.naturalSize; }
    float nominalFrameRate() const { return info_.nominalFrameRate; }
    /// How the stored picture is to be shown: the stream's display matrix as
    /// an affine transform (identity when the file has none). A portrait clip
    /// recorded sideways carries a quarter turn here.
    QTransform preferredTransform() const { return info_.preferredTransform; }
    MediaTime duration() const { return info_.duration; }
    /// The asset the track belongs to, while it exists.
    std::shared_ptr<const Asset> asset() const { return asset_.lock(); }

private:
    std::weak_ptr<const Asset> asset_;
    Info info_;
};

using AssetTrackPtr = std::shared_ptr<const AssetTrack>;

/// A media file. Creating one touches nothing; tracks are read on demand.
class ZAVO_EXPORT Asset : public std::enable_shared_from_this<Asset> {
public:
    /// url is a local-file URL; a URL without scheme is taken as a path.
    static std::shared_ptr<Asset> assetWithURL(const QUrl& url);
    static std::shared_ptr<Asset> assetWithPath(const QString& path);
    ~Asset();

    QString path() const { return path_; }

    using TracksCompletion = std::function<void(std::vector<AssetTrackPtr> tracks, ErrorPtr error)>;
    /// Reads the file's track list on a background queue and calls completion
    /// there with the tracks of mediaType. A missing, empty or unreadable file
    /// gives no tracks and an error, and so does a file without such a track.
    void loadTracksWithMediaType(MediaType mediaType, TracksCompletion completion) const;
    /// The same, reading the file on the calling thread when it was not read yet.
    std::vector<AssetTrackPtr> tracksWithMediaType(MediaType mediaType, ErrorPtr* error = nullptr) const;

    struct Private;

private:
    friend class AssetReader;  // its probe of the file fills the track list too
    explicit Asset(QString path);
    QString path_;
    std::shared_ptr<Private> d;
};

using AssetPtr = std::shared_ptr<const Asset>;

class AssetReaderTrackOutput;

/// Decodes tracks of one asset. Each output added before startReading()
/// delivers its track's samples in decoding order.
class ZAVO_EXPORT AssetReader {
public:
    enum class Status { Unknown, Reading, Completed, Failed, Cancelled };

    /// Opens the asset's file. Null, with *error set, when the file is
    /// missing, empty or not a media file FFmpeg can read.
    static std::shared_ptr<AssetReader> create(AssetPtr asset, ErrorPtr* error = nullptr);
    ~AssetReader();
    AssetReader(const AssetReader&) = delete;
    AssetReader& operator=(const AssetReader&) = delete;

    AssetPtr asset() const;
    /// False once reading started, for an output already added to a reader,
    /// or for a track of another file.
    bool canAddOutput(const std::shared_ptr<AssetReaderTrackOutput>& output) const;
    /// Adds the output when canAddOutput() allows it; otherwise does nothing.
    void addOutput(std::shared_ptr<AssetReaderTrackOutput> output);
    /// Opens a decoder for every output. False (status Failed, error set)
    /// when one cannot be opened or reading was already started.
    bool startReading();
    /// Stops decoding; later copies give invalid buffers. Safe from any thread.
    void cancelReading();
    Status status() const;
    ErrorPtr error() const;

    struct Private;

private:
    AssetReader() = default;
    std::shared_ptr<Private> d;
};

using AssetReaderPtr = std::shared_ptr<AssetReader>;

/// What a video track output delivers: 32-bit ARGB at the track's natural
/// size unless told otherwise. Any PixelFormat works (BGRA32, NV12).
struct ZAVO_EXPORT AssetReaderOutputSettings {
    PixelFormat pixelFormat = PixelFormat::ARGB32;
    int width = 0;   // 0: the track's natural size
    int height = 0;
    /// Skip the decoder's deblocking filter. For output a good deal smaller
    /// than the source only: the scaling averages the block edges away, and
    /// H.264 decodes about a sixth faster.
    bool skipsDeblocking = false;
    /// Threads the decoder may use; 0 lets it take one per core. A reader
    /// sharing the machine with an encoder does better with fewer: frame
    /// threads then mostly wait on each other.
    int decoderThreads = 0;
};

class ZAVO_EXPORT AssetReaderTrackOutput {
public:
    /// Null when the track is not a video track.
    static std::shared_ptr<AssetReaderTrackOutput> create(AssetTrackPtr track,
                                                          AssetReaderOutputSettings settings = {});
    ~AssetReaderTrackOutput();

    AssetTrackPtr track() const;
    const AssetReaderOutputSettings& outputSettings() const;
    /// On (the default): every buffer handed out is the caller's own. Off:
    /// buffers come from a pool and are reused once the caller lets go, so a
    /// caller that releases each buffer promptly reads without allocating.
    bool alwaysCopiesSampleData() const;
    void setAlwaysCopiesSampleData(bool copies);

    /// Decodes the next frame on the calling thread. An invalid SampleBuffer
    /// means the end of the track, a failure, or no reading under way: the
    /// reader's status() tells which.
    SampleBuffer copyNextSampleBuffer();

    struct Private;

private:
    AssetReaderTrackOutput() = default;
    friend class AssetReader;
    std::shared_ptr<Private> d;
};

using AssetReaderTrackOutputPtr = std::shared_ptr<AssetReaderTrackOutput>;

}  // namespace zavo::platform
