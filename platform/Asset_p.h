#pragma once
// Conversions between FFmpeg's terms and the platform's media types, shared
// by the reader and the writer.
#include "platform/FFmpeg_p.h"
#include "platform/MediaTime.h"
#include "platform/VideoFrameConverter.h"

extern "C" {
#include <libavutil/display.h>
}

#include <QTransform>
#include <cstring>
#include <limits>

namespace zavo::platform::media {

/// value ticks of time base as a media time, exact whenever the time base's
/// denominator fits a timescale (it always does for real files).
inline MediaTime timeOf(int64_t value, AVRational timeBase)
{
    if (timeBase.den <= 0 || timeBase.num <= 0)
        return MediaTime::invalid();
    return MediaTime::make(value * timeBase.num, timeBase.den);
}

/// time in ticks of timeBase, rounded to the nearest tick.
inline int64_t ticksOf(MediaTime time, AVRational timeBase)
{
    return av_rescale_q_rnd(time.value, AVRational{1, time.timescale}, timeBase,
                            AVRounding(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
}

/// A display matrix holds a, b, c, d, tx, ty in 16.16 fixed point at
/// indexes 0, 1, 3, 4, 6, 7, in the same order and sense as an affine
/// transform applied to row vectors, which is QTransform's convention too.
inline QTransform transformOfMatrix(const int32_t matrix[9])
{
    constexpr double kOne = 65536.0;
    return QTransform(matrix[0] / kOne, matrix[1] / kOne, matrix[3] / kOne, matrix[4] / kOne, matrix[6] / kOne,
                      matrix[7] / kOne);
}

inline void matrixOfTransform(const QTransform& transform, int32_t matrix[9])
{
    // For a pure turn this is what av_display_rotation_set() writes; the
    // translation is kept as well, since MP4 stores it and players use it.
    auto fixed = [](double value) {
        return int32_t(std::clamp(std::lround(value * 65536.0), long(std::numeric_limits<int32_t>::min()),
                                  long(std::numeric_limits<int32_t>::max())));
    };
    matrix[0] = fixed(transform.m11());
    matrix[1] = fixed(transform.m12());
    matrix[2] = 0;
    matrix[3] = fixed(transform.m21());
    matrix[4] = fixed(transform.m22());
    matrix[5] = 0;
    matrix[6] = fixed(transform.dx());
    matrix[7] = fixed(transform.dy());
    matrix[8] = 1 << 30;
}

/// The stream's display matrix as a transform; identity when there is none.
inline QTransform transformOfStream(const AVStream* stream)
{
    size_t size = 0;
    const uint8_t* data = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (!data || size < 9 * sizeof(int32_t))
        return QTransform();
    int32_t matrix[9];
    std::memcpy(matrix, data, sizeof matrix);
    return transformOfMatrix(matrix);
}

/// Stores transform as the stream's display matrix, which the MP4 muxer
/// writes into the track header. Identity stores nothing.
inline bool setStreamTransform(AVStream* stream, const QTransform& transform)
{
    if (transform.isIdentity())
        return true;
    // "av_stream_new_side_data: the stream takes ownership of the returned
    // buffer"; it lives and dies with the stream.
    auto* data = av_stream_new_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t));
    if (!data)
        return false;
    int32_t matrix[9];
    matrixOfTransform(transform, matrix);
    std::memcpy(data, matrix, sizeof matrix);
    return true;
}

inline ImagePlanes planesOf(const AVFrame& frame)
{
    ImagePlanes planes;
    planes.avPixelFormat = frame.format;
    planes.width = frame.width;
    planes.height = frame.height;
    for (int i = 0; i < 4; ++i) {
        planes.data[i] = frame.data[i];
        planes.bytesPerRow[i] = frame.linesize[i];
    }
    planes.fullRange = frame.color_range == AVCOL_RANGE_JPEG;
    return planes;
}

}  // namespace zavo::platform::media
