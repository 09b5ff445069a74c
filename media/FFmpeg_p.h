#pragma once
// Owning handles for FFmpeg objects. Every FFmpeg object the platform layer
// creates lives in one of these from the moment it exists, so that an early
// return on any error path frees it; nothing is released into a C API by hand.
//
// Private to the platform layer (and its tests and benchmarks): it pulls in
// FFmpeg's headers, which the public headers never do.
extern "C" {
#include "base/ZavoExport.h"
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/buffer.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <QString>
#include <memory>
#include <mutex>

namespace zavo::platform::ffmpeg {

// ------------------------------------------------------------------ deleters

/// A demuxer context from avformat_open_input(). "avformat_close_input: Close
/// an opened input AVFormatContext. Free it and all its contents."
struct ZAVO_EXPORT InputFormatContextDeleter {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};

/// A muxer context from avformat_alloc_output_context2(). The muxer does not
/// own its AVIOContext ("the user must close it after avformat_free_context"
/// unless AVFMT_NOFILE), so the deleter closes the file first, then frees the
/// context and its streams.
struct ZAVO_EXPORT OutputFormatContextDeleter {
    void operator()(AVFormatContext* context) const
    {
        if (context->oformat && !(context->oformat->flags & AVFMT_NOFILE))
            avio_closep(&context->pb);
        avformat_free_context(context);
    }
};

struct ZAVO_EXPORT CodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};

/// Frees the frame and drops its references to the underlying buffers.
struct ZAVO_EXPORT FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};

struct ZAVO_EXPORT PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

struct ZAVO_EXPORT SwsContextDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};

struct ZAVO_EXPORT BufferRefDeleter {
    void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};

struct ZAVO_EXPORT DictionaryDeleter {
    void operator()(AVDictionary* dictionary) const { av_dict_free(&dictionary); }
};

// ------------------------------------------------------------------- handles

using InputFormatContextUPtr = std::unique_ptr<AVFormatContext, InputFormatContextDeleter>;
using OutputFormatContextUPtr = std::unique_ptr<AVFormatContext, OutputFormatContextDeleter>;
using AVCodecContextUPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using AVFrameUPtr = std::unique_ptr<AVFrame, FrameDeleter>;
using AVPacketUPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using SwsContextUPtr = std::unique_ptr<SwsContext, SwsContextDeleter>;
using AVBufferRefUPtr = std::unique_ptr<AVBufferRef, BufferRefDeleter>;
/// Only for dictionaries that stay ours: a dictionary passed by address to an
/// FFmpeg open call is consumed and replaced (see openCodec/openInput below).
using AVDictionaryUPtr = std::unique_ptr<AVDictionary, DictionaryDeleter>;

inline AVFrameUPtr makeAVFrame() { return AVFrameUPtr(av_frame_alloc()); }
inline AVPacketUPtr makeAVPacket() { return AVPacketUPtr(av_packet_alloc()); }

inline AVCodecContextUPtr makeCodecContext(const AVCodec* codec)
{
    return AVCodecContextUPtr(avcodec_alloc_context3(codec));
}

/// Opens a demuxer for path. On failure returns null and the error code in
/// *error. "avformat_open_input: a user-supplied AVFormatContext will be freed
/// on failure", so the context only becomes ours once the call succeeds.
inline InputFormatContextUPtr openInput(const char* path, int* error)
{
    // Media files come from outside: a playlist inside one must not make the
    // demuxer reach the network or anything but local files.
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    AVFormatContext* raw = nullptr;
    // "options: On return this parameter will be destroyed and replaced with
    // a dict containing options that were not found", so it is ours to free.
    *error = avformat_open_input(&raw, path, nullptr, &options);
    av_dict_free(&options);
    if (*error < 0)
        return nullptr;
    return InputFormatContextUPtr(raw);
}

/// A muxer context for format (a short name like "mp4") writing to path; the
/// file itself is not opened here.
inline OutputFormatContextUPtr allocOutput(const char* formatName, const char* path, int* error)
{
    AVFormatContext* raw = nullptr;
    *error = avformat_alloc_output_context2(&raw, nullptr, formatName, path);
    if (*error < 0)
        return nullptr;
    return OutputFormatContextUPtr(raw);
}

/// av_dict_set on an owned dictionary: the call may reallocate it (and creates
/// it on the first entry), so the handle is re-seated with whatever it returns.
inline int setOption(AVDictionaryUPtr& dictionary, const char* key, const char* value)
{
    AVDictionary* raw = dictionary.release();
    const int result = av_dict_set(&raw, key, value, 0);
    dictionary.reset(raw);
    return result;
}

/// avcodec_open2 with options. "On return this object will be filled with
/// options that were not found": the dictionary is consumed and replaced by
/// the leftovers, which are freed here.
inline int openCodec(AVCodecContext* context, const AVCodec* codec, AVDictionaryUPtr options)
{
    AVDictionary* raw = options.release();
    const int result = avcodec_open2(context, codec, &raw);
    av_dict_free(&raw);
    return result;
}

/// FFmpeg prints probing chatter and libx264's statistics at its default level
/// straight to stderr. Unless the host chose a level of its own, only errors
/// are printed; the platform layer reports failures through its own errors.
inline void quietenLogging()
{
    static std::once_flag once;
    std::call_once(once, [] {
        if (av_log_get_level() == AV_LOG_INFO)
            av_log_set_level(AV_LOG_ERROR);
    });
}

/// A readable text for an AVERROR code.
inline QString errorString(int errnum)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    if (av_strerror(errnum, text, sizeof text) < 0)
        return QStringLiteral("unknown FFmpeg error %1").arg(errnum);
    return QString::fromUtf8(text);
}

}  // namespace zavo::platform::ffmpeg
