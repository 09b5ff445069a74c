#include "media/Asset.h"

#include "base/DispatchQueue.h"
#include "media/FFmpeg_p.h"
#include "media/Asset_p.h"
#include "media/VideoFrameConverter_p.h"
#include "base/ThreadSafety.h"

#include <QFileInfo>
#include <deque>

namespace zavo::platform {

ErrorPtr makeMediaError(MediaErrorCode code, const QString& description, int ffmpegError)
{
    QVariantMap userInfo{{kLocalizedDescriptionKey, description}};
    if (ffmpegError != 0)
        userInfo.insert(QStringLiteral("FFmpegError"), ffmpegError);
    return std::make_shared<ErrorObject>(kMediaErrorDomain, long(code), std::move(userInfo));
}

AssetTrack::AssetTrack(std::weak_ptr<const Asset> asset, Info info) : asset_(std::move(asset)), info_(std::move(info))
{
}

// -------------------------------------------------------------------- asset

namespace {

/// Opens path and reads enough of it to know its streams.
ffmpeg::InputFormatContextUPtr openMediaFile(const QString& path, ErrorPtr* error)
{
    if (!QFileInfo(path).isFile()) {
        *error = makeMediaError(MediaErrorCode::FileNotFound, QStringLiteral("No media file at %1").arg(path));
        return nullptr;
    }
    int result = 0;
    auto format = ffmpeg::openInput(QFile::encodeName(path).constData(), &result);
    if (!format) {
        *error = makeMediaError(MediaErrorCode::FileFormatNotRecognized,
                                QStringLiteral("Cannot open %1: %2").arg(path, ffmpeg::errorString(result)), result);
        return nullptr;
    }
    result = avformat_find_stream_info(format.get(), nullptr);
    if (result < 0) {
        *error = makeMediaError(MediaErrorCode::FileFormatNotRecognized,
                                QStringLiteral("Cannot read the streams of %1: %2").arg(path, ffmpeg::errorString(result)),
                                result);
        return nullptr;
    }
    return format;
}

/// Whether the file was opened as a still picture (a JPEG, a PNG, ...):
/// FFmpeg reads those through its image demuxers as a one-frame video
/// stream, but a photo is not a movie. Taken for one, it would play as a
/// camera and be "recompressed" into an MP4 over the photo itself.
bool isStillImage(const AVFormatContext* format)
{
    const QLatin1String name(format->iformat->name);
    return name == QLatin1String("image2") || name.endsWith(QLatin1String("_pipe"));
}

MediaType mediaTypeOf(const AVFormatContext* format, const AVStream* stream)
{
    switch (stream->codecpar->codec_type) {
    case AVMEDIA_TYPE_VIDEO:
        // Cover art in an audio file is a picture, not a video track.
        if (isStillImage(format) || (stream->disposition & AV_DISPOSITION_ATTACHED_PIC))
            return MediaType::Other;
        return MediaType::Video;
    case AVMEDIA_TYPE_AUDIO: return MediaType::Audio;
    default: return MediaType::Other;
    }
}

AssetTrack::Info trackInfoOf(const AVFormatContext* format, const AVStream* stream)
{
    AssetTrack::Info info;
    info.trackID = stream->index;
    info.mediaType = mediaTypeOf(format, stream);
    info.codecName = QString::fromUtf8(avcodec_get_name(stream->codecpar->codec_id));
    info.naturalSize = QSize(stream->codecpar->width, stream->codecpar->height);
    AVRational rate = stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate : stream->r_frame_rate;
    info.nominalFrameRate = rate.num > 0 && rate.den > 0 ? float(av_q2d(rate)) : 0.0f;
    info.preferredTransform = media::transformOfStream(stream);
    if (stream->duration != AV_NOPTS_VALUE)
        info.duration = media::timeOf(stream->duration, stream->time_base);
    else if (format->duration != AV_NOPTS_VALUE)
        info.duration = media::timeOf(format->duration, AV_TIME_BASE_Q);
    return info;
}

}  // namespace

struct Asset::Private {
    Mutex mutex;
    bool loaded ZAVO_GUARDED_BY(mutex) = false;
    std::vector<AssetTrackPtr> tracks ZAVO_GUARDED_BY(mutex);
    ErrorPtr error ZAVO_GUARDED_BY(mutex);

    /// Takes the track list from a file probed for asset, the first time only.
    void load(const std::shared_ptr<const Asset>& asset, const AVFormatContext* format, ErrorPtr openError)
        ZAVO_REQUIRES(mutex)
    {
        if (loaded)
            return;
        loaded = true;
        if (!format) {
            error = std::move(openError);
            return;
        }
        for (unsigned i = 0; i < format->nb_streams; ++i)
            tracks.push_back(std::make_shared<AssetTrack>(asset, trackInfoOf(format, format->streams[i])));
    }
};

Asset::Asset(QString path) : path_(std::move(path)), d(std::make_shared<Private>()) {}
Asset::~Asset() = default;

std::shared_ptr<Asset> Asset::assetWithURL(const QUrl& url)
{
    return assetWithPath(url.isLocalFile() ? url.toLocalFile() : url.path());
}

std::shared_ptr<Asset> Asset::assetWithPath(const QString& path)
{
    ffmpeg::quietenLogging();
    return std::shared_ptr<Asset>(new Asset(path));
}

std::vector<AssetTrackPtr> Asset::tracksWithMediaType(MediaType mediaType, ErrorPtr* error) const
{
    MutexLocker lock(d->mutex);
    if (!d->loaded) {
        ErrorPtr openError;
        const auto format = openMediaFile(path_, &openError);
        d->load(shared_from_this(), format.get(), std::move(openError));
    }
    std::vector<AssetTrackPtr> matching;
    for (const auto& track : d->tracks) {
        if (track->mediaType() == mediaType)
            matching.push_back(track);
    }
    if (error) {
        *error = d->error;
        if (!*error && matching.empty())
            *error = makeMediaError(MediaErrorCode::NoSuchTrack, QStringLiteral("%1 has no track of that type").arg(path_));
    }
    return matching;
}

void Asset::loadTracksWithMediaType(MediaType mediaType, TracksCompletion completion) const
{
    // One short-lived queue per load: loading is rare (once per file), and a
    // queue of its own never makes one slow file hold up another's load.
    auto queue = DispatchQueue::create(QStringLiteral("zavo.platform.Asset.loadTracks"), QualityOfService::Utility);
    queue->async([self = shared_from_this(), mediaType, completion = std::move(completion)] {
        ErrorPtr error;
        auto tracks = self->tracksWithMediaType(mediaType, &error);
        if (completion)
            completion(std::move(tracks), tracks.empty() ? error : nullptr);
    });
}

// ------------------------------------------------------------------- reader

struct AssetReaderTrackOutput::Private {
    AssetTrackPtr track;
    AssetReaderOutputSettings settings;
    bool alwaysCopiesSampleData = true;
    std::weak_ptr<AssetReader::Private> reader;  // set when added to a reader

    // Decoding state, touched only under the reader's mutex.
    ffmpeg::AVCodecContextUPtr decoder;
    ffmpeg::AVFrameUPtr frame;
    std::deque<ffmpeg::AVPacketUPtr> pending;  // packets read while another output was decoding
    bool flushSent = false;
    bool finished = false;
    VideoFrameConverter converter;
    std::shared_ptr<PixelBufferPool> pool;
    std::shared_ptr<const FormatDescription> formatDescription;

    SampleBuffer sampleOf(const AVFrame& frame, const AVStream& stream);
};

struct AssetReader::Private {
    AssetPtr asset;
    mutable Mutex mutex;
    ffmpeg::InputFormatContextUPtr format ZAVO_GUARDED_BY(mutex);
    std::vector<std::shared_ptr<AssetReaderTrackOutput::Private>> outputs ZAVO_GUARDED_BY(mutex);
    std::vector<AssetReaderTrackOutputPtr> outputHandles ZAVO_GUARDED_BY(mutex);
    ffmpeg::AVPacketUPtr packet ZAVO_GUARDED_BY(mutex);
    bool demuxEnded ZAVO_GUARDED_BY(mutex) = false;
    Status status ZAVO_GUARDED_BY(mutex) = Status::Unknown;
    ErrorPtr error ZAVO_GUARDED_BY(mutex);

    // Filled before the reader is shared, so without the lock.
    Private(AssetPtr openedAsset, ffmpeg::InputFormatContextUPtr openedFormat)
        : asset(std::move(openedAsset)), format(std::move(openedFormat)), packet(ffmpeg::makeAVPacket())
    {
    }

    void fail(MediaErrorCode code, const QString& what, int ffmpegError = 0) ZAVO_REQUIRES(mutex)
    {
        status = Status::Failed;
        error = makeMediaError(code, QStringLiteral("%1: %2").arg(what, ffmpeg::errorString(ffmpegError)), ffmpegError);
    }
    AVPacket* nextPacketFor(AssetReaderTrackOutput::Private& output) ZAVO_REQUIRES(mutex);
    SampleBuffer nextSample(AssetReaderTrackOutput::Private& output) ZAVO_REQUIRES(mutex);
    void releaseDecoding() ZAVO_REQUIRES(mutex);
};

std::shared_ptr<AssetReader> AssetReader::create(AssetPtr asset, ErrorPtr* error)
{
    ffmpeg::quietenLogging();
    ErrorPtr openError;
    auto format = asset ? openMediaFile(asset->path(), &openError) : nullptr;
    if (!format) {
        if (error)
            *error = asset ? openError : makeMediaError(MediaErrorCode::InvalidState, QStringLiteral("No asset"));
        return nullptr;
    }
    // Probing a file decodes its first pictures; the asset asked for its
    // tracks next (as the compressor does) is spared a second probe.
    {
        MutexLocker lock(asset->d->mutex);
        asset->d->load(asset, format.get(), nullptr);
    }
    std::shared_ptr<AssetReader> reader(new AssetReader());
    reader->d = std::make_shared<Private>(std::move(asset), std::move(format));
    return reader;
}

AssetReader::~AssetReader() = default;

AssetPtr AssetReader::asset() const { return d->asset; }

bool AssetReader::canAddOutput(const std::shared_ptr<AssetReaderTrackOutput>& output) const
{
    if (!output)
        return false;
    MutexLocker lock(d->mutex);
    const auto trackAsset = output->d->track->asset();
    return d->status == Status::Unknown && output->d->reader.expired() && trackAsset
        && trackAsset->path() == d->asset->path() && output->d->track->trackID() < int(d->format->nb_streams);
}

void AssetReader::addOutput(std::shared_ptr<AssetReaderTrackOutput> output)
{
    if (!canAddOutput(output))
        return;
    MutexLocker lock(d->mutex);
    output->d->reader = d;
    d->outputs.push_back(output->d);
    d->outputHandles.push_back(std::move(output));
}

bool AssetReader::startReading()
{
    MutexLocker lock(d->mutex);
    if (d->status != Status::Unknown)
        return false;
    std::vector<bool> used(d->format->nb_streams, false);
    for (auto& output : d->outputs) {
        const AVStream* stream = d->format->streams[output->track->trackID()];
        used[stream->index] = true;
        const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
        if (!codec) {
            d->fail(MediaErrorCode::DecoderNotFound, QStringLiteral("No decoder for %1").arg(output->track->codecName()),
                    AVERROR_DECODER_NOT_FOUND);
            return false;
        }
        output->decoder = ffmpeg::makeCodecContext(codec);
        output->frame = ffmpeg::makeAVFrame();
        if (!output->decoder || !output->frame) {
            d->fail(MediaErrorCode::DecodeFailed, QStringLiteral("Out of memory"), AVERROR(ENOMEM));
            return false;
        }
        int result = avcodec_parameters_to_context(output->decoder.get(), stream->codecpar);
        output->decoder->pkt_timebase = stream->time_base;
        output->decoder->thread_count = std::max(0, output->settings.decoderThreads);  // 0: one per core
        output->decoder->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
        if (output->settings.skipsDeblocking)
            output->decoder->skip_loop_filter = AVDISCARD_ALL;
        if (result >= 0)
            result = ffmpeg::openCodec(output->decoder.get(), codec, nullptr);
        if (result < 0) {
            d->fail(MediaErrorCode::DecodeFailed, QStringLiteral("Cannot open the %1 decoder").arg(codec->name), result);
            return false;
        }
    }
    // Streams nobody reads are skipped by the demuxer instead of read and dropped.
    for (unsigned i = 0; i < d->format->nb_streams; ++i) {
        if (!used[i])
            d->format->streams[i]->discard = AVDISCARD_ALL;
    }
    d->status = Status::Reading;
    if (d->outputs.empty())
        d->status = Status::Completed;
    return true;
}

void AssetReader::Private::releaseDecoding()
{
    for (auto& output : outputs) {
        output->decoder.reset();
        output->pending.clear();
    }
    format.reset();
}

void AssetReader::cancelReading()
{
    MutexLocker lock(d->mutex);
    if (d->status == Status::Unknown || d->status == Status::Reading)
        d->status = Status::Cancelled;
    d->releaseDecoding();
}

AssetReader::Status AssetReader::status() const
{
    MutexLocker lock(d->mutex);
    return d->status;
}

ErrorPtr AssetReader::error() const
{
    MutexLocker lock(d->mutex);
    return d->error;
}

AVPacket* AssetReader::Private::nextPacketFor(AssetReaderTrackOutput::Private& output)
{
    av_packet_unref(packet.get());
    if (!output.pending.empty()) {
        av_packet_move_ref(packet.get(), output.pending.front().get());
        output.pending.pop_front();
        return packet.get();
    }
    const int wanted = output.track->trackID();
    while (!demuxEnded) {
        const int result = av_read_frame(format.get(), packet.get());
        if (result == AVERROR_EOF) {
            demuxEnded = true;
            break;
        }
        if (result < 0) {
            fail(MediaErrorCode::DecodeFailed, QStringLiteral("Cannot read %1").arg(asset->path()), result);
            return nullptr;
        }
        if (packet->stream_index == wanted)
            return packet.get();
        for (auto& other : outputs) {
            if (other->track->trackID() == packet->stream_index && !other->finished) {
                auto copy = ffmpeg::makeAVPacket();
                av_packet_move_ref(copy.get(), packet.get());
                other->pending.push_back(std::move(copy));
                break;
            }
        }
        av_packet_unref(packet.get());
    }
    return nullptr;
}

SampleBuffer AssetReader::Private::nextSample(AssetReaderTrackOutput::Private& output)
{
    while (!output.finished) {
        int result = avcodec_receive_frame(output.decoder.get(), output.frame.get());
        if (result == 0) {
            SampleBuffer sample = output.sampleOf(*output.frame, *format->streams[output.track->trackID()]);
            av_frame_unref(output.frame.get());
            if (!sample.isValid())
                fail(MediaErrorCode::DecodeFailed, QStringLiteral("Cannot convert a decoded frame"), AVERROR(EINVAL));
            return sample;
        }
        if (result == AVERROR_EOF) {
            output.finished = true;
            break;
        }
        if (result != AVERROR(EAGAIN)) {
            fail(MediaErrorCode::DecodeFailed, QStringLiteral("Cannot decode %1").arg(asset->path()), result);
            return {};
        }
        AVPacket* packet = nextPacketFor(output);
        if (status != Status::Reading)
            return {};
        if (!packet) {
            if (output.flushSent)
                break;  // a decoder that never reports its end after a flush
            avcodec_send_packet(output.decoder.get(), nullptr);
            output.flushSent = true;
            continue;
        }
        result = avcodec_send_packet(output.decoder.get(), packet);
        // A damaged packet costs that picture, not the rest of the track:
        // decoders conceal what follows, as players do.
        if (result < 0 && result != AVERROR_INVALIDDATA) {
            fail(MediaErrorCode::DecodeFailed, QStringLiteral("Cannot decode %1").arg(asset->path()), result);
            return {};
        }
    }
    output.finished = true;
    if (std::all_of(outputs.begin(), outputs.end(), [](const auto& o) { return o->finished; }))
        status = Status::Completed;
    return {};
}

// ------------------------------------------------------------ track output

std::shared_ptr<AssetReaderTrackOutput> AssetReaderTrackOutput::create(AssetTrackPtr track,
                                                                       AssetReaderOutputSettings settings)
{
    if (!track || track->mediaType() != MediaType::Video)
        return nullptr;
    std::shared_ptr<AssetReaderTrackOutput> output(new AssetReaderTrackOutput());
    output->d = std::make_shared<Private>();
    output->d->track = std::move(track);
    output->d->settings = settings;
    return output;
}

AssetReaderTrackOutput::~AssetReaderTrackOutput() = default;

AssetTrackPtr AssetReaderTrackOutput::track() const { return d->track; }
const AssetReaderOutputSettings& AssetReaderTrackOutput::outputSettings() const { return d->settings; }
bool AssetReaderTrackOutput::alwaysCopiesSampleData() const { return d->alwaysCopiesSampleData; }
void AssetReaderTrackOutput::setAlwaysCopiesSampleData(bool copies) { d->alwaysCopiesSampleData = copies; }

SampleBuffer AssetReaderTrackOutput::copyNextSampleBuffer()
{
    auto reader = d->reader.lock();
    if (!reader)
        return {};
    MutexLocker lock(reader->mutex);
    if (reader->status != AssetReader::Status::Reading || !d->decoder)
        return {};
    return reader->nextSample(*d);
}

SampleBuffer AssetReaderTrackOutput::Private::sampleOf(const AVFrame& decoded, const AVStream& stream)
{
    const int width = settings.width > 0 ? settings.width : decoded.width;
    const int height = settings.height > 0 ? settings.height : decoded.height;
    std::shared_ptr<PixelBuffer> buffer;
    if (alwaysCopiesSampleData) {
        buffer = PixelBuffer::create(width, height, settings.pixelFormat);
    } else {
        const auto& wanted = pool ? pool->attributes() : PixelBufferAttributes{};
        if (!pool || wanted.width != width || wanted.height != height)
            pool = PixelBufferPool::create({settings.pixelFormat, width, height});
        buffer = pool ? pool->createPixelBuffer() : nullptr;
    }
    // A frame read at a fraction of its size is averaged over each target
    // pixel's area: bilinear taps of a 4x reduction alias fine detail.
    converter.setScaling(width * 2 <= decoded.width || height * 2 <= decoded.height ? VideoFrameConverter::Scaling::Area
                                                                                  : VideoFrameConverter::Scaling::Bilinear);
    if (!buffer || !converter.convert(media::planesOf(decoded), *buffer))
        return {};
    if (!formatDescription || formatDescription->width() != width || formatDescription->height() != height)
        formatDescription = FormatDescription::forImageBuffer(*buffer);
    int64_t pts = decoded.best_effort_timestamp;
    if (pts == AV_NOPTS_VALUE)
        pts = decoded.pts;
    const MediaTime time = pts == AV_NOPTS_VALUE ? MediaTime::invalid() : media::timeOf(pts, stream.time_base);
    const MediaTime duration
        = decoded.pkt_duration > 0 ? media::timeOf(decoded.pkt_duration, stream.time_base) : MediaTime::invalid();
    return SampleBuffer(std::move(buffer), time, formatDescription, duration);
}

}  // namespace zavo::platform
