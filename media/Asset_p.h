#pragma once
// Conversions between FFmpeg's terms and the platform's media types, shared
// by the reader and the writer.
#include "media/FFmpeg_p.h"
#include "media/MediaTime.h"
#include "media/VideoFrameConverter_p.h"

extern "C" {
#include <libavutil/display.h>
}

#include <QRectF>
#include <QSize>
#include <QTransform>
#include <cmath>
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

/// How a source picture is put into an encoded picture of another fixed size
/// without distorting it: turned a quarter when the two are of opposite
/// shapes (portrait into landscape or the other way), so that the pixels are
/// spent along the long side, and scaled to fill; the aspect the scaling
/// loses is given back as the sample aspect ratio. Players undo both.
struct PictureFit {
    int rotation = 0;                // clockwise turn of the pixels: 0 or 90
    AVRational sampleAspect{1, 1};   // width of a stored pixel over its height
};

inline PictureFit fitPicture(QSize source, QSize encoded)
{
    PictureFit fit;
    if (source.isEmpty() || encoded.isEmpty())
        return fit;
    const bool opposite = source.width() != source.height() && encoded.width() != encoded.height()
        && (source.width() > source.height()) != (encoded.width() > encoded.height());
    if (opposite) {
        fit.rotation = 90;
        source.transpose();
    }
    // Stored w x h shown as (w * sar) x h must have the source's aspect.
    const int64_t num = int64_t(source.width()) * encoded.height();
    const int64_t den = int64_t(source.height()) * encoded.width();
    // Within a thousandth of square is square: a rounding in the capture
    // size is no reason to ask players to rescale.
    if (std::abs(double(num) / double(den) - 1.0) >= 0.001)
        av_reduce(&fit.sampleAspect.num, &fit.sampleAspect.den, num, den, 65535);
    return fit;
}

/// The display matrix of a picture fitted by fit into encoded, for a source
/// that was to be shown with sourceTransform: the fit's turn is undone first,
/// then the source's own turn or flip applies. The translation brings the
/// shown picture back to the origin, as cameras write it.
inline QTransform displayTransform(const PictureFit& fit, const QTransform& sourceTransform, QSize encoded)
{
    const QTransform undoTurn = fit.rotation == 90 ? QTransform(0, -1, 1, 0, 0, 0) : QTransform();
    const QTransform sourceTurn(sourceTransform.m11(), sourceTransform.m12(), sourceTransform.m21(),
                                sourceTransform.m22(), 0, 0);
    const QTransform linear = undoTurn * sourceTurn;
    if (linear.isIdentity())
        return QTransform();
    const double storedWidth = encoded.width() * av_q2d(fit.sampleAspect);
    const QRectF shown = linear.mapRect(QRectF(0, 0, storedWidth, encoded.height()));
    return QTransform(linear.m11(), linear.m12(), linear.m21(), linear.m22(), -shown.left(), -shown.top());
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
