#include "media/AssetWriter_p.h"

#include "media/Asset_p.h"
#include "media/FFmpeg_p.h"
#include "base/Log_p.h"
#include "media/VideoFrameConverter_p.h"
#include "base/ThreadSafety.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>

#include <unistd.h>

namespace zavo::platform {

namespace {

/// Pictures between the appending thread and the encoder: enough for the
/// converter to run ahead of libx264 by a frame or two, little enough that a
/// stalled encoder holds back the source soon.
constexpr int kPictureSlots = 3;

/// The encoder set-up. veryfast at CRF 20 matches the SSIM of x264's default
/// (medium, CRF 23) on camera clips at under half its encoding time, for
/// about a quarter more bytes; at 320x180 that is a few kB per second. See
/// bench/media for the figures.
constexpr const char* kPreset = "veryfast";
/// A live recording is recompressed to 320x180 when it ends, so its own
/// quality barely reaches the result: ultrafast costs 0.65-0.73x superfast's
/// CPU at 720x1280, and the recompressed video's SSIM moves by 0.0004
/// (bench/session, and the demo's video against its clip).
constexpr const char* kRealTimePreset = "ultrafast";
constexpr const char* kConstantRateFactor = "20";

std::atomic<int> gPartFileCounter{0};

/// The hidden name a file is written under until it is complete.
QString partPathFor(const QString& finalPath)
{
    const QFileInfo info(finalPath);
    return info.dir().filePath(QStringLiteral(".%1.%2-%3.part")
                                   .arg(info.fileName())
                                   .arg(::getpid())
                                   .arg(gPartFileCounter.fetch_add(1)));
}

}  // namespace

// ------------------------------------------------------------------- state

struct AssetWriterInput::Private {
    VideoOutputSettings settings;
    std::weak_ptr<AssetWriter::Private> writer;  // set by addInput

    mutable Mutex mutex;
    QTransform transform ZAVO_GUARDED_BY(mutex);
    bool realTime ZAVO_GUARDED_BY(mutex) = false;
    std::optional<PixelBufferAttributes> sourceAttributes ZAVO_GUARDED_BY(mutex);
    std::shared_ptr<PixelBufferPool> pool ZAVO_GUARDED_BY(mutex);
    DispatchQueuePtr requestQueue ZAVO_GUARDED_BY(mutex);
    std::function<void()> requestBlock ZAVO_GUARDED_BY(mutex);

    // Appends may come from any thread, one at a time: this lock serialises
    // them and guards what one append leaves for the next.
    Mutex appendMutex;
    VideoFrameConverter converter ZAVO_GUARDED_BY(appendMutex);
    int64_t lastTicks ZAVO_GUARDED_BY(appendMutex) = std::numeric_limits<int64_t>::min();
    bool fitChosen ZAVO_GUARDED_BY(appendMutex) = false;
    int fitRotation ZAVO_GUARDED_BY(appendMutex) = 0;  // the quarter turn that fits the shown picture into the encoded one

    bool append(const std::shared_ptr<PixelBuffer>& buffer, MediaTime time, int rotation = 0, bool mirrored = false);
    void dispatchRequest();
    void dropRequest();
};

struct AssetWriter::Private : std::enable_shared_from_this<AssetWriter::Private> {
    QString finalPath;
    QString partPath;
    DispatchQueuePtr encodeQueue;

    // The writer's life, one phase at a time. Every move goes through
    // moveTo(), which refuses the moves not listed there, so that a late
    // cancel, a second start or a failure after the end cannot undo an
    // outcome the caller has already been told.
    //
    //   Idle --start--> Starting --file open--> Writing --finishWriting--> Finishing --> Completed
    //   Idle, Starting, Writing, Finishing --cancel--> Cancelled
    //   Starting, Writing, Finishing --error--> Failed
    //   Idle --finishWriting--> Cancelled (nothing was ever written)
    enum class Phase { Idle, Starting, Writing, Finishing, Completed, Failed, Cancelled };

    mutable Mutex mutex;
    std::condition_variable slotFreed;
    Phase phase ZAVO_GUARDED_BY(mutex) = Phase::Idle;
    ErrorPtr error ZAVO_GUARDED_BY(mutex);
    bool faststart ZAVO_GUARDED_BY(mutex) = false;
    // Set under the lock by addInput, which only succeeds before writing
    // starts; from then on it never changes, and the encode queue and the
    // appenders read it without the lock.
    std::shared_ptr<AssetWriterInput::Private> input;
    bool inputFinished ZAVO_GUARDED_BY(mutex) = false;
    MediaTime sessionStart ZAVO_GUARDED_BY(mutex) = MediaTime::invalid();
    AVRational timeBase ZAVO_GUARDED_BY(mutex){0, 1};  // from the first frame
    std::vector<int> freeSlots ZAVO_GUARDED_BY(mutex);
    // Not a phase: whether this writer still owns a file under the hidden
    // name. A later writer for the same path makes a new one, which this
    // writer's destruction must not remove.
    bool ownsPartFile ZAVO_GUARDED_BY(mutex) = false;
    // How the first frame went into the encoded picture; the stream's aspect
    // and display matrix are made from it when the encoder opens.
    media::PictureFit fit ZAVO_GUARDED_BY(mutex);

    // Pictures: a slot belongs to the appender while it is off freeSlots and
    // before its encode block is queued, to the encode queue afterwards.
    std::vector<ffmpeg::AVFrameUPtr> pictures;
    // The writer held for each slot whose encode block is queued, so that the
    // block itself needs only a plain pointer (see appendPixelBuffer).
    std::vector<std::shared_ptr<Private>> queuedSlotOwners;

    // Muxing and encoding, only on encodeQueue once writing started.
    ffmpeg::OutputFormatContextUPtr output;
    ffmpeg::AVCodecContextUPtr encoder;
    AVStream* stream = nullptr;  // owned by output
    ffmpeg::AVPacketUPtr packet;
    // Times of the pictures recently sent, oldest first, to give each packet
    // its duration: libx264 leaves it unset, and without it the MP4's edit
    // list ends at the last picture's start, hiding that picture.
    static constexpr int kRecentTimes = 128;
    int64_t recentTimes[kRecentTimes] = {};
    int recentCount = 0;

    ~Private() { discardPartFile(); }

    static bool allowed(Phase from, Phase to)
    {
        switch (to) {
        case Phase::Starting: return from == Phase::Idle;
        case Phase::Writing: return from == Phase::Starting;
        case Phase::Finishing: return from == Phase::Writing;
        case Phase::Completed: return from == Phase::Finishing;
        case Phase::Failed: return from == Phase::Starting || from == Phase::Writing || from == Phase::Finishing;
        case Phase::Cancelled:
            return from == Phase::Idle || from == Phase::Starting || from == Phase::Writing || from == Phase::Finishing;
        case Phase::Idle: return false;
        }
        return false;
    }
    /// Moves to `to` when the machine allows it from the present phase.
    bool moveTo(Phase to) ZAVO_REQUIRES(mutex)
    {
        if (!allowed(phase, to))
            return false;
        qCDebug(lcMediaWriter) << finalPath << "phase" << int(phase) << "->" << int(to);
        phase = to;
        return true;
    }
    /// Frames may be encoded and the file written: before the end was reached.
    static bool isActive(Phase phase) { return phase == Phase::Writing || phase == Phase::Finishing; }
    bool isActive() const
    {
        MutexLocker lock(mutex);
        return isActive(phase);
    }
    void fail(MediaErrorCode code, const QString& what, int ffmpegError = 0);
    void releaseSlot(int slot);
    bool openEncoder();
    bool drainPackets();
    void rememberTime(int64_t ticks);
    int64_t durationOf(int64_t pts) const;
    void encode(int slot, int64_t ticks);
    void finish(const std::function<void()>& completion);
    void discardPartFile();
};

void AssetWriter::Private::fail(MediaErrorCode code, const QString& what, int ffmpegError)
{
    {
        MutexLocker lock(mutex);
        if (!moveTo(Phase::Failed))
            return;
        const QString reason = ffmpegError ? QStringLiteral("%1: %2").arg(what, ffmpeg::errorString(ffmpegError)) : what;
        error = makeMediaError(code, reason, ffmpegError);
        qCWarning(lcMediaWriter) << "writing" << finalPath << "failed:" << reason;
    }
    slotFreed.notify_all();
    if (input)
        input->dropRequest();
}

void AssetWriter::Private::releaseSlot(int slot)
{
    {
        MutexLocker lock(mutex);
        freeSlots.push_back(slot);
    }
    slotFreed.notify_all();
}

void AssetWriter::Private::discardPartFile()
{
    output.reset();  // closes the file first
    bool exists = false;
    {
        MutexLocker lock(mutex);
        std::swap(exists, ownsPartFile);
    }
    if (exists)
        QFile::remove(partPath);
}

// --------------------------------------------------------------- encoding

bool AssetWriter::Private::openEncoder()
{
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (!codec)
        codec = avcodec_find_encoder(AV_CODEC_ID_H264);
    if (!codec) {
        fail(MediaErrorCode::EncoderNotFound, QStringLiteral("No H.264 encoder"), AVERROR_ENCODER_NOT_FOUND);
        return false;
    }
    AVRational base;
    QTransform transform;
    bool realTime;
    bool optimizeForNetwork;
    media::PictureFit pictureFit;
    {
        MutexLocker lock(mutex);
        base = timeBase.num > 0 ? timeBase : AVRational{1, 600};
        optimizeForNetwork = faststart;
        pictureFit = fit;
    }
    {
        MutexLocker lock(input->mutex);
        transform = input->transform;
        realTime = input->realTime;
    }
    const QSize encodedSize(input->settings.width, input->settings.height);
    transform = media::displayTransform(pictureFit, transform, encodedSize);
    encoder = ffmpeg::makeCodecContext(codec);
    packet = ffmpeg::makeAVPacket();
    if (!encoder || !packet) {
        fail(MediaErrorCode::EncodeFailed, QStringLiteral("Out of memory"), AVERROR(ENOMEM));
        return false;
    }
    encoder->width = input->settings.width;
    encoder->height = input->settings.height;
    encoder->pix_fmt = AV_PIX_FMT_YUV420P;
    encoder->sample_aspect_ratio = pictureFit.sampleAspect;
    encoder->time_base = base;
    // A coarse time base is the frame rate itself (one tick per frame); a fine
    // one tells nothing, and x264 then rates by the time stamps alone.
    if (base.num == 1 && base.den <= 240)
        encoder->framerate = AVRational{base.den, 1};
    // The converter writes BT.601 video range; say so in the stream.
    encoder->color_range = AVCOL_RANGE_MPEG;
    encoder->colorspace = AVCOL_SPC_SMPTE170M;
    encoder->color_primaries = AVCOL_PRI_SMPTE170M;
    encoder->color_trc = AVCOL_TRC_SMPTE170M;
    encoder->thread_count = 0;
    if (output->oformat->flags & AVFMT_GLOBALHEADER)
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    ffmpeg::AVDictionaryUPtr options;
    if (std::strcmp(codec->name, "libx264") == 0) {
        const QByteArray preset = input->settings.preset.toLatin1();
        const QByteArray crf = QByteArray::number(input->settings.constantRateFactor, 'g', 4);
        ffmpeg::setOption(options, "preset",
                          !preset.isEmpty() ? preset.constData() : realTime ? kRealTimePreset : kPreset);
        ffmpeg::setOption(options, "crf", input->settings.constantRateFactor > 0 ? crf.constData() : kConstantRateFactor);
        if (realTime)
            ffmpeg::setOption(options, "tune", "zerolatency");
    }
    int result = ffmpeg::openCodec(encoder.get(), codec, std::move(options));
    if (result < 0) {
        fail(MediaErrorCode::EncodeFailed, QStringLiteral("Cannot open the H.264 encoder"), result);
        return false;
    }
    // "avformat_new_stream: the stream is owned by the context and freed with it".
    stream = avformat_new_stream(output.get(), nullptr);
    if (!stream || avcodec_parameters_from_context(stream->codecpar, encoder.get()) < 0
        || !media::setStreamTransform(stream, transform)) {
        fail(MediaErrorCode::EncodeFailed, QStringLiteral("Cannot add the video track"), AVERROR(ENOMEM));
        return false;
    }
    stream->time_base = encoder->time_base;
    stream->sample_aspect_ratio = encoder->sample_aspect_ratio;
    ffmpeg::AVDictionaryUPtr muxerOptions;
    if (optimizeForNetwork)
        ffmpeg::setOption(muxerOptions, "movflags", "+faststart");
    // "avformat_write_header: on return this parameter will be destroyed and
    // replaced with a dict containing options that were not found."
    AVDictionary* raw = muxerOptions.release();
    result = avformat_write_header(output.get(), &raw);
    av_dict_free(&raw);
    if (result < 0) {
        fail(MediaErrorCode::CannotWrite, QStringLiteral("Cannot write the file header"), result);
        return false;
    }
    return true;
}

void AssetWriter::Private::rememberTime(int64_t ticks)
{
    if (recentCount == kRecentTimes) {
        std::move(recentTimes + 1, recentTimes + kRecentTimes, recentTimes);
        --recentCount;
    }
    recentTimes[recentCount++] = ticks;
}

int64_t AssetWriter::Private::durationOf(int64_t pts) const
{
    for (int i = 0; i + 1 < recentCount; ++i) {
        if (recentTimes[i] == pts)
            return recentTimes[i + 1] - pts;
    }
    // The newest picture lasts as long as the one before it; a lone picture
    // one frame at the rate hint, or one tick.
    if (recentCount >= 2)
        return recentTimes[recentCount - 1] - recentTimes[recentCount - 2];
    if (encoder->framerate.num > 0)
        return std::max<int64_t>(1, av_rescale_q(1, av_inv_q(encoder->framerate), encoder->time_base));
    return 1;
}

bool AssetWriter::Private::drainPackets()
{
    for (;;) {
        int result = avcodec_receive_packet(encoder.get(), packet.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            return true;
        if (result < 0) {
            fail(MediaErrorCode::EncodeFailed, QStringLiteral("Encoding failed"), result);
            return false;
        }
        packet->stream_index = stream->index;
        packet->duration = durationOf(packet->pts);
        av_packet_rescale_ts(packet.get(), encoder->time_base, stream->time_base);
        // "av_interleaved_write_frame: this function takes ownership of the
        // packet reference; on return the packet is blank."
        result = av_interleaved_write_frame(output.get(), packet.get());
        if (result < 0) {
            fail(MediaErrorCode::CannotWrite, QStringLiteral("Cannot write %1").arg(finalPath), result);
            return false;
        }
    }
}

void AssetWriter::Private::encode(int slot, int64_t ticks)
{
    if (isActive() && (encoder || openEncoder())) {
        AVFrame* picture = pictures[slot].get();
        picture->pts = ticks;
        rememberTime(ticks);
        // libx264 copies the picture into its own frame while encoding it, so
        // the slot is free again as soon as the call returns.
        const int result = avcodec_send_frame(encoder.get(), picture);
        if (result < 0)
            fail(MediaErrorCode::EncodeFailed, QStringLiteral("Encoding failed"), result);
        else
            drainPackets();
    }
    releaseSlot(slot);
}

void AssetWriter::Private::finish(const std::function<void()>& completion)
{
    if (isActive() && (encoder || openEncoder())) {
        int result = avcodec_send_frame(encoder.get(), nullptr);
        if (result < 0)
            fail(MediaErrorCode::EncodeFailed, QStringLiteral("Encoding failed"), result);
        else if (drainPackets()) {
            result = av_write_trailer(output.get());
            if (result < 0)
                fail(MediaErrorCode::CannotWrite, QStringLiteral("Cannot finish %1").arg(finalPath), result);
        }
        if (isActive()) {
            // avio_closep flushes the last buffered bytes; a full disk shows here.
            result = avio_closep(&output->pb);
            if (result < 0)
                fail(MediaErrorCode::CannotWrite, QStringLiteral("Cannot close %1").arg(finalPath), result);
        }
        // rename() replaces an earlier file at the final path in one step.
        if (isActive() && std::rename(QFile::encodeName(partPath).constData(), QFile::encodeName(finalPath).constData()) != 0)
            fail(MediaErrorCode::CannotWrite, QStringLiteral("Cannot move the file into place"), AVERROR(errno));
    }
    encoder.reset();
    {
        MutexLocker lock(mutex);
        if (moveTo(Phase::Completed))
            ownsPartFile = false;
    }
    discardPartFile();
    slotFreed.notify_all();
    if (input)
        input->dropRequest();
    if (completion)
        completion();
}

// ------------------------------------------------------------------- input

std::shared_ptr<AssetWriterInput> AssetWriterInput::create(MediaType mediaType, VideoOutputSettings settings)
{
    if (mediaType != MediaType::Video || settings.width <= 0 || settings.height <= 0 || settings.width % 2
        || settings.height % 2)
        return nullptr;
    std::shared_ptr<AssetWriterInput> input(new AssetWriterInput());
    input->d = std::make_shared<Private>();
    input->d->settings = settings;
    // Block averaging plus bicubic: close to a full bicubic shrink (the
    // command line's) at a quarter of its cost on camera-size frames.
    MutexLocker appending(input->d->appendMutex);
    input->d->converter.setScaling(VideoFrameConverter::Scaling::Bicubic);
    return input;
}

AssetWriterInput::~AssetWriterInput() = default;

MediaType AssetWriterInput::mediaType() const { return MediaType::Video; }
const VideoOutputSettings& AssetWriterInput::outputSettings() const { return d->settings; }

QTransform AssetWriterInput::transform() const
{
    MutexLocker lock(d->mutex);
    return d->transform;
}

void AssetWriterInput::setTransform(const QTransform& transform)
{
    MutexLocker lock(d->mutex);
    d->transform = transform;
}

bool AssetWriterInput::expectsMediaDataInRealTime() const
{
    MutexLocker lock(d->mutex);
    return d->realTime;
}

void AssetWriterInput::setExpectsMediaDataInRealTime(bool realTime)
{
    MutexLocker lock(d->mutex);
    d->realTime = realTime;
}

bool AssetWriterInput::isReadyForMoreMediaData() const
{
    auto writer = d->writer.lock();
    if (!writer)
        return false;
    MutexLocker lock(writer->mutex);
    return writer->phase == AssetWriter::Private::Phase::Writing && !writer->inputFinished;
}

void AssetWriterInput::requestMediaDataWhenReady(DispatchQueuePtr queue, std::function<void()> block)
{
    if (!queue || !block)
        return;
    {
        MutexLocker lock(d->mutex);
        d->requestQueue = std::move(queue);
        d->requestBlock = std::move(block);
    }
    bool over = false;
    if (auto writer = d->writer.lock()) {
        MutexLocker lock(writer->mutex);
        using Phase = AssetWriter::Private::Phase;
        over = writer->inputFinished || (writer->phase != Phase::Idle && writer->phase != Phase::Starting
                                         && writer->phase != Phase::Writing);
    }
    // A writer that failed or ended never asks for data: keeping the block
    // would only keep alive whatever it holds (often this very input).
    if (over)
        d->dropRequest();
    else if (isReadyForMoreMediaData())
        d->dispatchRequest();
}

void AssetWriterInput::Private::dispatchRequest()
{
    // Handed over once: the block loops while the input is ready (appends
    // wait for the encoder instead of turning readiness off), so there is no
    // later wake-up to keep it for, and not keeping it breaks the cycle of a
    // block that holds its own input.
    DispatchQueuePtr queue;
    std::function<void()> block;
    {
        MutexLocker lock(mutex);
        queue = std::move(requestQueue);
        block = std::move(requestBlock);
    }
    if (queue && block)
        queue->async(std::move(block));
}

void AssetWriterInput::Private::dropRequest()
{
    DispatchQueuePtr queue;
    std::function<void()> block;
    {
        MutexLocker lock(mutex);
        queue = std::move(requestQueue);
        block = std::move(requestBlock);
    }
    // Released here, outside the lock: the block may hold the last reference
    // to objects whose destruction comes back to this input.
}

bool AssetWriterInput::appendSampleBuffer(const SampleBuffer& sample)
{
    return d->append(sample.imageBuffer(), sample.presentationTimeStamp());
}

void AssetWriterInput::markAsFinished()
{
    if (auto writer = d->writer.lock()) {
        MutexLocker lock(writer->mutex);
        writer->inputFinished = true;
    }
    d->dropRequest();
}

bool AssetWriterInput::Private::append(const std::shared_ptr<PixelBuffer>& buffer, MediaTime time, int rotation,
                                       bool mirrored)
{
    auto core = writer.lock();
    if (!buffer || !time.isValid() || !core)
        return false;
    MutexLocker appending(appendMutex);
    using Phase = AssetWriter::Private::Phase;
    int slot = -1;
    int64_t ticks = 0;
    {
        MutexLocker lock(core->mutex);
        if (core->phase != Phase::Writing || core->inputFinished || !core->sessionStart.isValid())
            return false;
        if (core->timeBase.num == 0)
            core->timeBase = AVRational{1, time.timescale};
        ticks = media::ticksOf(time, core->timeBase) - media::ticksOf(core->sessionStart, core->timeBase);
        if (ticks < 0)
            return true;  // before the session: trimmed, as asked
        if (ticks <= lastTicks)
            return false;  // the file's timeline only goes forward
        // A finish asked meanwhile still takes this frame: it was accepted
        // before the end, and its encode block queues ahead of the finish.
        while (core->freeSlots.empty() && AssetWriter::Private::isActive(core->phase))
            core->mutex.wait(core->slotFreed);
        if (!AssetWriter::Private::isActive(core->phase))
            return false;
        slot = core->freeSlots.back();
        core->freeSlots.pop_back();
    }
    if (!fitChosen) {
        // The first frame decides for the whole track, as it is shown: a
        // track has one aspect and one display matrix.
        fitChosen = true;
        const bool sideways = rotation % 180 != 0;
        const QSize shown = sideways ? QSize(buffer->height(), buffer->width()) : QSize(buffer->width(), buffer->height());
        const auto fit = media::fitPicture(shown, QSize(settings.width, settings.height));
        fitRotation = fit.rotation;
        MutexLocker lock(core->mutex);
        core->fit = fit;
    }
    // The frame's own turn, its mirror, then the fit's turn. The converter
    // mirrors after it turns, and a turn after a mirror is the mirror after
    // the opposite turn.
    converter.setRotation(mirrored ? rotation - fitRotation : rotation + fitRotation);
    converter.setMirrored(mirrored);
    AVFrame* picture = core->pictures[slot].get();
    buffer->lockBaseAddress(PixelBuffer::ReadOnly);
    const bool converted
        = av_frame_make_writable(picture) >= 0 && converter.convert(ImagePlanes::of(*buffer), media::planesOf(*picture));
    buffer->unlockBaseAddress(PixelBuffer::ReadOnly);
    if (!converted) {
        core->releaseSlot(slot);
        return false;
    }
    lastTicks = ticks;
    // A block capturing the shared writer, the slot and the time would not
    // fit std::function's inline storage and cost an allocation per frame.
    // The slot holds the writer instead and the picture carries its time.
    picture->pts = ticks;
    core->queuedSlotOwners[size_t(slot)] = core;
    core->encodeQueue->async([writer = core.get(), slot] {
        const auto keepAlive = std::move(writer->queuedSlotOwners[size_t(slot)]);
        writer->encode(slot, writer->pictures[size_t(slot)]->pts);
    });
    return true;
}

// ----------------------------------------------------------------- adaptor

std::shared_ptr<AssetWriterInputPixelBufferAdaptor> AssetWriterInputPixelBufferAdaptor::create(
    AssetWriterInputPtr input, std::optional<PixelBufferAttributes> sourcePixelBufferAttributes)
{
    if (!input)
        return nullptr;
    std::shared_ptr<AssetWriterInputPixelBufferAdaptor> adaptor(new AssetWriterInputPixelBufferAdaptor());
    adaptor->input_ = std::move(input);
    adaptor->attributes_ = sourcePixelBufferAttributes;
    MutexLocker lock(adaptor->input_->d->mutex);
    adaptor->input_->d->sourceAttributes = sourcePixelBufferAttributes;
    return adaptor;
}

std::shared_ptr<PixelBufferPool> AssetWriterInputPixelBufferAdaptor::pixelBufferPool() const
{
    MutexLocker lock(input_->d->mutex);
    return input_->d->pool;
}

bool AssetWriterInputPixelBufferAdaptor::appendPixelBuffer(const std::shared_ptr<PixelBuffer>& buffer,
                                                           MediaTime presentationTime, int rotation, bool mirrored)
{
    return input_->d->append(buffer, presentationTime, rotation, mirrored);
}

// ------------------------------------------------------------------ writer

std::shared_ptr<AssetWriter> AssetWriter::create(const QUrl& outputURL, FileType, ErrorPtr* error)
{
    ffmpeg::quietenLogging();
    auto refuse = [&](MediaErrorCode code, const QString& text) -> std::shared_ptr<AssetWriter> {
        if (error)
            *error = makeMediaError(code, text);
        return nullptr;
    };
    if (!outputURL.isLocalFile())
        return refuse(MediaErrorCode::CannotWrite, QStringLiteral("%1 is not a local file").arg(outputURL.toString()));
    const QString path = outputURL.toLocalFile();
    if (QFileInfo::exists(path))
        return refuse(MediaErrorCode::FileAlreadyExists, QStringLiteral("A file already exists at %1").arg(path));
    if (!QFileInfo(path).dir().exists())
        return refuse(MediaErrorCode::CannotWrite, QStringLiteral("No folder for %1").arg(path));
    std::shared_ptr<AssetWriter> writer(new AssetWriter());
    writer->d = std::make_shared<Private>();
    writer->d->finalPath = path;
    writer->d->partPath = partPathFor(path);
    return writer;
}

AssetWriter::~AssetWriter()
{
    // A writer dropped while writing stops; queued blocks still hold the
    // state and let it go (removing the partial file) when they are done.
    MutexLocker lock(d->mutex);
    if (d->phase == Private::Phase::Writing && d->moveTo(Private::Phase::Cancelled))
        d->slotFreed.notify_all();
}

QUrl AssetWriter::outputURL() const { return QUrl::fromLocalFile(d->finalPath); }
FileType AssetWriter::outputFileType() const { return FileType::MPEG4; }

bool AssetWriter::shouldOptimizeForNetworkUse() const
{
    MutexLocker lock(d->mutex);
    return d->faststart;
}

void AssetWriter::setShouldOptimizeForNetworkUse(bool optimize)
{
    MutexLocker lock(d->mutex);
    d->faststart = optimize;
}

bool AssetWriter::canAddInput(const AssetWriterInputPtr& input) const
{
    MutexLocker lock(d->mutex);
    return input && d->phase == Private::Phase::Idle && !d->input && input->d->writer.expired();
}

void AssetWriter::addInput(AssetWriterInputPtr input)
{
    if (!canAddInput(input))
        return;
    MutexLocker lock(d->mutex);
    input->d->writer = d;
    d->input = input->d;
}

bool AssetWriter::startWriting()
{
    std::shared_ptr<AssetWriterInput::Private> input;
    {
        MutexLocker lock(d->mutex);
        // Writing only once everything an append touches exists.
        if (!d->moveTo(Private::Phase::Starting))
            return false;
        input = d->input;
    }
    if (!input) {
        d->fail(MediaErrorCode::InvalidState, QStringLiteral("No input to write"));
        return false;
    }
    int result = 0;
    const QByteArray partPath = QFile::encodeName(d->partPath);
    d->output = ffmpeg::allocOutput("mp4", partPath.constData(), &result);
    if (!d->output) {
        d->fail(MediaErrorCode::CannotWrite, QStringLiteral("Cannot set up the MP4 muxer"), result);
        return false;
    }
    // "avio_open: the context must be closed with avio_closep"; the output
    // handle's deleter does that, or finish() does it to see the last error.
    result = avio_open(&d->output->pb, partPath.constData(), AVIO_FLAG_WRITE);
    if (result < 0) {
        d->fail(MediaErrorCode::CannotWrite, QStringLiteral("Cannot create %1").arg(d->finalPath), result);
        return false;
    }
    {
        MutexLocker lock(d->mutex);
        d->ownsPartFile = true;
    }
    const VideoOutputSettings& settings = input->settings;
    for (int i = 0; i < kPictureSlots; ++i) {
        ffmpeg::AVFrameUPtr picture = ffmpeg::makeAVFrame();
        if (!picture) {
            d->fail(MediaErrorCode::EncodeFailed, QStringLiteral("Out of memory"), AVERROR(ENOMEM));
            return false;
        }
        picture->format = AV_PIX_FMT_YUV420P;
        picture->width = settings.width;
        picture->height = settings.height;
        if ((result = av_frame_get_buffer(picture.get(), 0)) < 0) {
            d->fail(MediaErrorCode::EncodeFailed, QStringLiteral("Out of memory"), result);
            return false;
        }
        d->pictures.push_back(std::move(picture));
    }
    d->queuedSlotOwners.resize(d->pictures.size());
    d->encodeQueue = DispatchQueue::create(QStringLiteral("zavo.platform.AssetWriter.encode"));
    {
        MutexLocker lock(d->mutex);
        if (!d->moveTo(Private::Phase::Writing))
            return false;  // cancelled meanwhile
        for (int i = 0; i < kPictureSlots; ++i)
            d->freeSlots.push_back(i);
    }
    {
        MutexLocker lock(input->mutex);
        if (input->sourceAttributes && input->sourceAttributes->width > 0 && input->sourceAttributes->height > 0)
            input->pool = PixelBufferPool::create(*input->sourceAttributes);
    }
    input->dispatchRequest();
    return true;
}

void AssetWriter::startSessionAtSourceTime(MediaTime startTime)
{
    MutexLocker lock(d->mutex);
    if (!d->sessionStart.isValid())
        d->sessionStart = startTime;
}

void AssetWriter::finishWriting(std::function<void()> completion)
{
    {
        MutexLocker lock(d->mutex);
        d->inputFinished = true;
        if (d->phase == Private::Phase::Idle)
            d->moveTo(Private::Phase::Cancelled);
        else
            d->moveTo(Private::Phase::Finishing);
    }
    if (!d->encodeQueue) {
        // Never started: nothing to write, but the caller still hears back,
        // off its own thread as always.
        auto queue = DispatchQueue::create(QStringLiteral("zavo.platform.AssetWriter.finish"));
        queue->async([completion = std::move(completion)] {
            if (completion)
                completion();
        });
        return;
    }
    d->encodeQueue->async([d = d, completion = std::move(completion)] { d->finish(completion); });
}

void AssetWriter::cancelWriting()
{
    {
        MutexLocker lock(d->mutex);
        if (!d->moveTo(Private::Phase::Cancelled))
            return;
    }
    d->slotFreed.notify_all();
    if (d->input)
        d->input->dropRequest();
    if (d->encodeQueue)
        d->encodeQueue->async([d = d] { d->discardPartFile(); });
}

AssetWriter::Status AssetWriter::status() const
{
    MutexLocker lock(d->mutex);
    switch (d->phase) {
    case Private::Phase::Idle:
    case Private::Phase::Starting: return Status::Unknown;
    case Private::Phase::Writing:
    case Private::Phase::Finishing: return Status::Writing;
    case Private::Phase::Completed: return Status::Completed;
    case Private::Phase::Failed: return Status::Failed;
    case Private::Phase::Cancelled: return Status::Cancelled;
    }
    return Status::Unknown;
}

ErrorPtr AssetWriter::error() const
{
    MutexLocker lock(d->mutex);
    return d->error;
}

}  // namespace zavo::platform
