#include "media/VideoFrameConverter_p.h"

#include "media/FFmpeg_p.h"
#include "base/Log_p.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <libyuv/convert_argb.h>
#include <libyuv/convert_from.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <utility>
#include <vector>

namespace zavo::platform {

ImagePlanes ImagePlanes::of(PixelBuffer& buffer)
{
    ImagePlanes planes;
    planes.avPixelFormat = avPixelFormatOf(buffer.pixelFormat());
    planes.width = buffer.width();
    planes.height = buffer.height();
    for (int plane = 0; plane < buffer.planeCount(); ++plane) {
        planes.data[plane] = buffer.baseAddress(plane);
        planes.bytesPerRow[plane] = static_cast<int>(buffer.bytesPerRow(plane));
    }
    planes.fullRange = buffer.pixelFormat() == PixelFormat::NV12FullRange;
    return planes;
}

int avPixelFormatOf(PixelFormat format)
{
    switch (format) {
    case PixelFormat::BGRA32: return AV_PIX_FMT_BGRA;
    case PixelFormat::ARGB32: return AV_PIX_FMT_ARGB;
    case PixelFormat::NV12VideoRange:
    case PixelFormat::NV12FullRange: return AV_PIX_FMT_NV12;
    }
    return AV_PIX_FMT_NONE;
}

namespace {

bool isYuv(const AVPixFmtDescriptor* desc) { return !(desc->flags & AV_PIX_FMT_FLAG_RGB) && desc->nb_components >= 3; }

int swsFlags(VideoFrameConverter::Scaling scaling)
{
    switch (scaling) {
    case VideoFrameConverter::Scaling::FastBilinear: return SWS_FAST_BILINEAR;
    case VideoFrameConverter::Scaling::Bilinear: return SWS_BILINEAR;
    case VideoFrameConverter::Scaling::Bicubic: return SWS_BICUBIC;
    case VideoFrameConverter::Scaling::Area: return SWS_AREA;
    }
    return SWS_BILINEAR;
}

/// One plane of an image, in the terms the turning pass needs.
struct PlaneGeometry {
    int width = 0;
    int height = 0;
    int bytesPerElement = 0;
};

/// The planes of format at width x height, or false when a plane does not
/// hold whole pixels (packed 4:2:2, bit-packed formats), which cannot be
/// turned element by element.
bool planeGeometry(AVPixelFormat format, int width, int height, PlaneGeometry out[4], int& planeCount)
{
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    if (!desc || (desc->flags & (AV_PIX_FMT_FLAG_BITSTREAM | AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_PAL)))
        return false;
    planeCount = av_pix_fmt_count_planes(format);
    if (planeCount <= 0 || planeCount > 4)
        return false;
    for (int plane = 0; plane < planeCount; ++plane) {
        int step = 0;
        for (int c = 0; c < desc->nb_components; ++c) {
            if (desc->comp[c].plane == plane)
                step = std::max(step, desc->comp[c].step);
        }
        if (step <= 0 || step > 8)
            return false;
        const bool chromaPlane = (plane == 1 || plane == 2) && isYuv(desc);
        if (planeCount == 1 && (desc->log2_chroma_w || desc->log2_chroma_h))
            return false;  // packed and subsampled: two pixels share one chroma pair
        out[plane].width = chromaPlane ? AV_CEIL_RSHIFT(width, desc->log2_chroma_w) : width;
        out[plane].height = chromaPlane ? AV_CEIL_RSHIFT(height, desc->log2_chroma_h) : height;
        out[plane].bytesPerElement = step;
    }
    return true;
}

template <size_t N>
struct Element {
    uint8_t bytes[N];
};

/// Copies src into dst turned by rotation (clockwise) and then mirrored. Each
/// destination row is a straight walk through the source with a constant
/// byte step, done in square tiles so that turned reads stay in cache.
template <typename T>
void remapPlane(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, ptrdiff_t dstStride, int dw, int dh,
                int rotation, bool mirrored)
{
    constexpr int kTile = 64;
    const ptrdiff_t elem = sizeof(T);
    const int mx = mirrored ? -1 : 1;
    const int cx = mirrored ? dw - 1 : 0;
    for (int ty = 0; ty < dh; ty += kTile) {
        const int yEnd = std::min(ty + kTile, dh);
        for (int tx = 0; tx < dw; tx += kTile) {
            const int xEnd = std::min(tx + kTile, dw);
            for (int y = ty; y < yEnd; ++y) {
                // Source coordinates are linear in x on one destination row:
                // sx = ax * x + bx, sy = ay * x + by.
                int ax = 0, bx = 0, ay = 0, by = 0;
                switch (rotation) {
                case 90: bx = y; ay = -mx; by = dw - 1 - cx; break;
                case 180: ax = -mx; bx = dw - 1 - cx; by = dh - 1 - y; break;
                case 270: bx = dh - 1 - y; ay = mx; by = cx; break;
                default: ax = mx; bx = cx; by = y; break;
                }
                const ptrdiff_t step = ay * srcStride + ax * elem;
                const uint8_t* in = src + (ay * tx + by) * srcStride + (ax * tx + bx) * elem;
                T* out = reinterpret_cast<T*>(dst + y * dstStride) + tx;
                for (int x = tx; x < xEnd; ++x, in += step)
                    std::memcpy(out++, in, sizeof(T));
            }
        }
    }
}

void remap(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, ptrdiff_t dstStride, const PlaneGeometry& plane,
           int rotation, bool mirrored)
{
    switch (plane.bytesPerElement) {
    case 1: remapPlane<uint8_t>(src, srcStride, dst, dstStride, plane.width, plane.height, rotation, mirrored); break;
    case 2: remapPlane<uint16_t>(src, srcStride, dst, dstStride, plane.width, plane.height, rotation, mirrored); break;
    case 3: remapPlane<Element<3>>(src, srcStride, dst, dstStride, plane.width, plane.height, rotation, mirrored); break;
    case 4: remapPlane<uint32_t>(src, srcStride, dst, dstStride, plane.width, plane.height, rotation, mirrored); break;
    case 6: remapPlane<Element<6>>(src, srcStride, dst, dstStride, plane.width, plane.height, rotation, mirrored); break;
    case 8: remapPlane<uint64_t>(src, srcStride, dst, dstStride, plane.width, plane.height, rotation, mirrored); break;
    default: break;
    }
}

struct AlignedFree {
    void operator()(uint8_t* p) const { std::free(p); }
};

/// Rows of the converter's own scratch planes start on 64-byte boundaries,
/// where the vector row functions of swscale and libyuv run fastest.
int scratchStride(int rowBytes) { return (rowBytes + 63) / 64 * 64; }

/// Formats of one plane with four bytes per pixel (BGRA, ARGB, RGB0, ...),
/// which the block averaging below handles channel by channel.
bool isPacked32(AVPixelFormat format)
{
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    return desc && av_pix_fmt_count_planes(format) == 1 && !desc->log2_chroma_w && !desc->log2_chroma_h
        && !(desc->flags & (AV_PIX_FMT_FLAG_BITSTREAM | AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_HWACCEL))
        && av_get_padded_bits_per_pixel(desc) == 32;
}

/// The largest whole block size, up to 8, by which from can be averaged down
/// while staying at least at size to, and which divides from exactly (so the
/// blocks cover the picture evenly and keep its geometry). 1 when none.
int blockFactor(int from, int to)
{
    for (int factor = std::min(8, from / std::max(to, 1)); factor >= 2; --factor) {
        if (from % factor == 0)
            return factor;
    }
    return 1;
}

// The loops below touch every byte of a camera frame. They are plain enough
// for the compiler to vectorise once asked to (-O2 does not try loops of
// unknown length), and on x86-64 they are built for AVX2 and SSSE3 besides
// the baseline, picked on first use: byte reversal needs SSSE3's byte
// shuffle to vectorise at all. (Not target_clones: its resolvers run before
// the sanitizer runtimes are ready.)
#if defined(__clang__)
#define ZAVO_VECTORIZE  // clang's loop vectorizer already runs at -O2
#else
#define ZAVO_VECTORIZE optimize("tree-vectorize", "vect-cost-model=dynamic")
#endif

__attribute__((always_inline)) inline void reversePixelBytesLoop(uint8_t* pixels, int count)
{
    for (int x = 0; x < count; ++x) {
        uint32_t pixel;
        std::memcpy(&pixel, pixels + size_t(x) * 4, 4);
        pixel = __builtin_bswap32(pixel);
        std::memcpy(pixels + size_t(x) * 4, &pixel, 4);
    }
}

__attribute__((always_inline)) inline void addRowLoop(uint16_t* sums, const uint8_t* row, size_t bytes, bool first)
{
    if (first) {
        for (size_t i = 0; i < bytes; ++i)
            sums[i] = row[i];
    } else {
        for (size_t i = 0; i < bytes; ++i)
            sums[i] = uint16_t(sums[i] + row[i]);
    }
}

/// Reverses the order of count 4-byte pixels in place (a left-right mirror of
/// one row), optionally reversing each pixel's bytes too (BGRA into ARGB).
/// The two halves are walked from both ends; they never overlap, which is
/// what lets the compiler vectorise the swap.
template <bool SwapBytes>
__attribute__((always_inline)) inline void mirrorRowLoop(uint32_t* __restrict left, uint32_t* __restrict right,
                                                         int half)
{
    for (int i = 0; i < half; ++i) {
        const uint32_t a = left[i];
        const uint32_t b = right[-i];
        left[i] = SwapBytes ? __builtin_bswap32(b) : b;
        right[-i] = SwapBytes ? __builtin_bswap32(a) : a;
    }
}

__attribute__((always_inline)) inline void mirrorRowOf(uint8_t* row, int count, bool swapBytes,
                                                       void (*plain)(uint32_t*, uint32_t*, int),
                                                       void (*swapped)(uint32_t*, uint32_t*, int))
{
    auto* pixels = reinterpret_cast<uint32_t*>(row);
    const int half = count / 2;
    (swapBytes ? swapped : plain)(pixels, pixels + count - 1, half);
    if (swapBytes && (count & 1))
        pixels[half] = __builtin_bswap32(pixels[half]);
}

/// Copies count elements of one row into out in reverse order.
template <typename T>
__attribute__((always_inline)) inline void reverseCopyLoop(const T* __restrict in, T* __restrict out, int count)
{
    for (int i = 0; i < count; ++i)
        out[i] = in[count - 1 - i];
}

__attribute__((ZAVO_VECTORIZE)) void reverseCopy8Baseline(const uint8_t* in, uint8_t* out, int count)
{
    reverseCopyLoop(in, out, count);
}

__attribute__((ZAVO_VECTORIZE)) void reverseCopy16Baseline(const uint16_t* in, uint16_t* out, int count)
{
    reverseCopyLoop(in, out, count);
}

__attribute__((ZAVO_VECTORIZE)) void mirrorRowBaseline(uint32_t* left, uint32_t* right, int half)
{
    mirrorRowLoop<false>(left, right, half);
}

__attribute__((ZAVO_VECTORIZE)) void mirrorRowSwappedBaseline(uint32_t* left, uint32_t* right, int half)
{
    mirrorRowLoop<true>(left, right, half);
}

__attribute__((ZAVO_VECTORIZE)) void reversePixelBytesBaseline(uint8_t* pixels, int count)
{
    reversePixelBytesLoop(pixels, count);
}

__attribute__((ZAVO_VECTORIZE)) void addRowBaseline(uint16_t* sums, const uint8_t* row, size_t bytes, bool first)
{
    addRowLoop(sums, row, bytes, first);
}

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
__attribute__((target("avx2"), ZAVO_VECTORIZE)) void reversePixelBytesAvx2(uint8_t* pixels, int count)
{
    reversePixelBytesLoop(pixels, count);
}

__attribute__((target("ssse3"), ZAVO_VECTORIZE)) void reversePixelBytesSsse3(uint8_t* pixels, int count)
{
    reversePixelBytesLoop(pixels, count);
}

__attribute__((target("avx2"), ZAVO_VECTORIZE)) void reverseCopy8Avx2(const uint8_t* in, uint8_t* out, int count)
{
    reverseCopyLoop(in, out, count);
}

__attribute__((target("avx2"), ZAVO_VECTORIZE)) void reverseCopy16Avx2(const uint16_t* in, uint16_t* out, int count)
{
    reverseCopyLoop(in, out, count);
}

__attribute__((target("avx2"), ZAVO_VECTORIZE)) void mirrorRowAvx2(uint32_t* left, uint32_t* right, int half)
{
    mirrorRowLoop<false>(left, right, half);
}

__attribute__((target("avx2"), ZAVO_VECTORIZE)) void mirrorRowSwappedAvx2(uint32_t* left, uint32_t* right, int half)
{
    mirrorRowLoop<true>(left, right, half);
}

__attribute__((target("avx2"), ZAVO_VECTORIZE)) void addRowAvx2(uint16_t* sums, const uint8_t* row, size_t bytes,
                                                                 bool first)
{
    addRowLoop(sums, row, bytes, first);
}
#endif

void reversePixelBytes(uint8_t* pixels, int count)
{
    using Function = void (*)(uint8_t*, int);
    static const Function best = [] {
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
        if (__builtin_cpu_supports("avx2"))
            return Function(reversePixelBytesAvx2);
        if (__builtin_cpu_supports("ssse3"))
            return Function(reversePixelBytesSsse3);
#endif
        return Function(reversePixelBytesBaseline);
    }();
    best(pixels, count);
}

/// Copies one row of count elements of 1 or 2 bytes into out, mirrored.
void reverseCopy(const uint8_t* in, uint8_t* out, int count, int bytesPerElement)
{
    using Function8 = void (*)(const uint8_t*, uint8_t*, int);
    using Function16 = void (*)(const uint16_t*, uint16_t*, int);
    static const std::pair<Function8, Function16> best = [] {
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
        if (__builtin_cpu_supports("avx2"))
            return std::pair<Function8, Function16>(reverseCopy8Avx2, reverseCopy16Avx2);
#endif
        return std::pair<Function8, Function16>(reverseCopy8Baseline, reverseCopy16Baseline);
    }();
    if (bytesPerElement == 1)
        best.first(in, out, count);
    else
        best.second(reinterpret_cast<const uint16_t*>(in), reinterpret_cast<uint16_t*>(out), count);
}

/// Mirrors one row of count 4-byte pixels in place; swapBytes also turns
/// BGRA into ARGB on the way.
void mirrorRow(uint8_t* row, int count, bool swapBytes)
{
    using Function = void (*)(uint32_t*, uint32_t*, int);
    static const std::pair<Function, Function> best = [] {
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
        if (__builtin_cpu_supports("avx2"))
            return std::pair<Function, Function>(mirrorRowAvx2, mirrorRowSwappedAvx2);
#endif
        return std::pair<Function, Function>(mirrorRowBaseline, mirrorRowSwappedBaseline);
    }();
    mirrorRowOf(row, count, swapBytes, best.first, best.second);
}

void addRow(uint16_t* sums, const uint8_t* row, size_t bytes, bool first)
{
    using Function = void (*)(uint16_t*, const uint8_t*, size_t, bool);
    static const Function best = [] {
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
        if (__builtin_cpu_supports("avx2"))
            return Function(addRowAvx2);
#endif
        return Function(addRowBaseline);
    }();
    best(sums, row, bytes, first);
}

/// Averages each run of FX pixels of the column sums (fy rows each) into one.
/// Pixels are handled as four 16-bit lanes of one 64-bit word: the sums of
/// at most 8x8 bytes fit a lane, so adding pixels is one addition per pixel.
template <int FX>
void averageBlocks(const uint16_t* sums, uint8_t* out, int outWidth, uint32_t reciprocal)
{
    for (int x = 0; x < outWidth; ++x) {
        uint64_t total = 0;
        for (int k = 0; k < FX; ++k) {
            uint64_t pixel;
            std::memcpy(&pixel, sums + (size_t(x) * FX + size_t(k)) * 4, 8);
            total += pixel;
        }
        for (int c = 0; c < 4; ++c) {
            const int lane = std::endian::native == std::endian::little ? c : 3 - c;
            out[x * 4 + c] = uint8_t(((uint32_t(total >> (16 * lane)) & 0xffffu) * reciprocal + (1u << 15)) >> 16);
        }
    }
}

void averageBlocks(const uint16_t* sums, uint8_t* out, int outWidth, int fx, uint32_t reciprocal)
{
    switch (fx) {
    case 1: averageBlocks<1>(sums, out, outWidth, reciprocal); break;
    case 2: averageBlocks<2>(sums, out, outWidth, reciprocal); break;
    case 3: averageBlocks<3>(sums, out, outWidth, reciprocal); break;
    case 4: averageBlocks<4>(sums, out, outWidth, reciprocal); break;
    case 5: averageBlocks<5>(sums, out, outWidth, reciprocal); break;
    case 6: averageBlocks<6>(sums, out, outWidth, reciprocal); break;
    case 7: averageBlocks<7>(sums, out, outWidth, reciprocal); break;
    default: averageBlocks<8>(sums, out, outWidth, reciprocal); break;
    }
}

}  // namespace

void VideoFrameConverter::reverseBytesOfPixels(uint8_t* pixels, int count) { reversePixelBytes(pixels, count); }

struct VideoFrameConverter::Private {
    bool mirrored = false;
    int rotation = 0;
    Scaling scaling = Scaling::Bilinear;

    // The cached scaler and what it was built for.
    ffmpeg::SwsContextUPtr sws;
    using Key = std::tuple<int, int, int, bool, int, int, int, bool, int>;
    Key swsKey{};
    int setupCount = 0;

    // Scratch image that holds the scaled, not yet turned picture.
    std::unique_ptr<uint8_t, AlignedFree> scratch;
    size_t scratchCapacity = 0;
    // Block-averaged source and the column sums that make it.
    std::unique_ptr<uint8_t, AlignedFree> shrunk;
    size_t shrunkCapacity = 0;
    std::vector<uint16_t> columnSums;
    // One band of source rows, mirrored before it is scaled; for libyuv's
    // same-size conversion, the whole mirrored YUV planes.
    std::unique_ptr<uint8_t, AlignedFree> mirroredBand;
    size_t mirroredBandCapacity = 0;

    SwsContext* scaler(const ImagePlanes& src, int dstFormat, int dstWidth, int dstHeight, bool dstFullRange);
    static uint8_t* grow(std::unique_ptr<uint8_t, AlignedFree>& memory, size_t& capacity, size_t size);
    ImagePlanes averagedDown(const ImagePlanes& src, int targetWidth, int targetHeight);
    bool scale(const ImagePlanes& src, int dstFormat, uint8_t* const planes[4], const int strides[4], int width,
               int height, bool dstFullRange);
    bool scaleFlipped(const ImagePlanes& src, const ImagePlanes& dst, bool mirrorRows, bool upsideDown);
    bool mirrorsInTheSource(const ImagePlanes& src, const ImagePlanes& dst, PlaneGeometry planes[4], int& planeCount);
    bool convertYuvToBgra(const ImagePlanes& src, const ImagePlanes& dst);
    bool shrinkYuv420(const ImagePlanes& src, const ImagePlanes& dst);
    bool convert(const ImagePlanes& src, const ImagePlanes& dst);
};

SwsContext* VideoFrameConverter::Private::scaler(const ImagePlanes& src, int dstFormat, int dstWidth, int dstHeight,
                                                 bool dstFullRange)
{
    const int flags = swsFlags(scaling);
    const Key key{src.avPixelFormat, src.width, src.height, src.fullRange, dstFormat, dstWidth, dstHeight,
                  dstFullRange, flags};
    if (sws && key == swsKey)
        return sws.get();
    sws.reset(sws_getContext(src.width, src.height, AVPixelFormat(src.avPixelFormat), dstWidth, dstHeight,
                             AVPixelFormat(dstFormat), flags, nullptr, nullptr, nullptr));
    if (!sws)
        return nullptr;
    swsKey = key;
    ++setupCount;
    const AVPixFmtDescriptor* srcDesc = av_pix_fmt_desc_get(AVPixelFormat(src.avPixelFormat));
    const AVPixFmtDescriptor* dstDesc = av_pix_fmt_desc_get(AVPixelFormat(dstFormat));
    if ((src.fullRange && isYuv(srcDesc)) || (dstFullRange && isYuv(dstDesc))) {
        // Only the range differs from swscale's defaults; the matrix stays
        // BT.601, as the ffmpeg command line and the camera formats use it.
        const int* table = sws_getCoefficients(SWS_CS_ITU601);
        sws_setColorspaceDetails(sws.get(), table, src.fullRange ? 1 : 0, table, dstFullRange ? 1 : 0, 0, 1 << 16,
                                 1 << 16);
    }
    return sws.get();
}

uint8_t* VideoFrameConverter::Private::grow(std::unique_ptr<uint8_t, AlignedFree>& memory, size_t& capacity,
                                            size_t size)
{
    if (size > capacity) {
        constexpr size_t kAlignment = 64;
        const size_t rounded = (size + kAlignment - 1) / kAlignment * kAlignment;
        memory.reset(static_cast<uint8_t*>(std::aligned_alloc(kAlignment, rounded)));
        capacity = memory ? rounded : 0;
    }
    return memory.get();
}

ImagePlanes VideoFrameConverter::Private::averagedDown(const ImagePlanes& src, int targetWidth, int targetHeight)
{
    // Shrinking by 2x or more: average whole blocks first, which is the
    // proper low-pass for such a step and costs one pass over the source,
    // then let the scaler do the rest from a picture a few times smaller.
    if ((scaling != Scaling::Bilinear && scaling != Scaling::Bicubic) || !isPacked32(AVPixelFormat(src.avPixelFormat)))
        return src;
    const int fx = blockFactor(src.width, targetWidth);
    const int fy = blockFactor(src.height, targetHeight);
    if (fx * fy == 1)
        return src;
    ImagePlanes out;
    out.avPixelFormat = src.avPixelFormat;
    out.width = src.width / fx;
    out.height = src.height / fy;
    out.fullRange = src.fullRange;
    out.bytesPerRow[0] = scratchStride(out.width * 4);
    out.data[0] = grow(shrunk, shrunkCapacity, size_t(out.bytesPerRow[0]) * size_t(out.height));
    if (!out.data[0])
        return src;
    const size_t rowBytes = size_t(src.width) * 4;
    columnSums.resize(rowBytes);
    const auto reciprocal = uint32_t((65536u + uint32_t(fx * fy) / 2) / uint32_t(fx * fy));
    for (int y = 0; y < out.height; ++y) {
        for (int k = 0; k < fy; ++k)
            addRow(columnSums.data(), src.data[0] + ptrdiff_t(y * fy + k) * src.bytesPerRow[0], rowBytes, k == 0);
        averageBlocks(columnSums.data(), out.data[0] + ptrdiff_t(y) * out.bytesPerRow[0], out.width, fx, reciprocal);
    }
    return out;
}

bool VideoFrameConverter::Private::scale(const ImagePlanes& src, int dstFormat, uint8_t* const planes[4],
                                         const int strides[4], int width, int height, bool dstFullRange)
{
    // swscale has SIMD code for YUV into BGRA but none into ARGB; BGRA plus a
    // byte reversal is about twice as fast as its plain C path.
    const bool viaBgra
        = dstFormat == AV_PIX_FMT_ARGB && isYuv(av_pix_fmt_desc_get(AVPixelFormat(src.avPixelFormat)));
    SwsContext* context = scaler(src, viaBgra ? AV_PIX_FMT_BGRA : dstFormat, width, height, dstFullRange);
    if (!context || sws_scale(context, src.data, src.bytesPerRow, 0, src.height, planes, strides) <= 0)
        return false;
    if (viaBgra) {
        for (int y = 0; y < height; ++y)
            reverseBytesOfPixels(planes[0] + ptrdiff_t(y) * strides[0], width);
    }
    return true;
}

bool VideoFrameConverter::Private::mirrorsInTheSource(const ImagePlanes& src, const ImagePlanes& dst,
                                                      PlaneGeometry planes[4], int& planeCount)
{
    // The scaler gives each pair of pixels of a 4:2:x source the same chroma
    // sample, and with no change of width it filters nothing horizontally;
    // an even-width source mirrored before scaling then comes out exactly as
    // the scaled picture mirrored afterwards. Mirroring the source is the
    // cheaper side: fewer bytes, and the scaler's output goes out with
    // non-temporal stores, so it is no longer in the cache to be mirrored.
    const auto format = AVPixelFormat(src.avPixelFormat);
    if (src.width != dst.width || (src.width & 1) || !isYuv(av_pix_fmt_desc_get(format))
        || av_pix_fmt_count_planes(format) < 2 || !planeGeometry(format, src.width, src.height, planes, planeCount))
        return false;
    for (int plane = 0; plane < planeCount; ++plane) {
        if (planes[plane].bytesPerElement > 2)
            return false;
    }
    return true;
}

bool VideoFrameConverter::Private::scaleFlipped(const ImagePlanes& original, const ImagePlanes& dst, bool mirrorRows,
                                                bool upsideDown)
{
    // The scaler is fed a band of source rows at a time. A mirror is done on
    // the band before it goes in when that gives the same picture, otherwise
    // on the destination rows the band completes; either way in one pass
    // instead of scaling the whole picture into scratch planes and copying it
    // across again. Upside down is a destination walked from its last row up,
    // which swscale takes as a negative stride.
    const ImagePlanes src = averagedDown(original, dst.width, dst.height);
    const AVPixFmtDescriptor* srcDesc = av_pix_fmt_desc_get(AVPixelFormat(src.avPixelFormat));
    const bool viaBgra = dst.avPixelFormat == AV_PIX_FMT_ARGB && isYuv(srcDesc);
    SwsContext* context
        = scaler(src, viaBgra ? AV_PIX_FMT_BGRA : dst.avPixelFormat, dst.width, dst.height, dst.fullRange);
    if (!context)
        return false;

    // A multiple of every chroma subsampling, small enough to stay in cache.
    constexpr int kBandRows = 16;
    PlaneGeometry srcPlanes[4];
    int srcPlaneCount = 0;
    const bool mirrorSource = mirrorRows && mirrorsInTheSource(src, dst, srcPlanes, srcPlaneCount);
    uint8_t* band[4] = {};
    int bandStride[4] = {};
    if (mirrorSource) {
        size_t size = 0;
        for (int plane = 0; plane < srcPlaneCount; ++plane) {
            bandStride[plane] = scratchStride(srcPlanes[plane].width * srcPlanes[plane].bytesPerElement);
            size += size_t(bandStride[plane]) * kBandRows;
        }
        uint8_t* memory = grow(mirroredBand, mirroredBandCapacity, size);
        if (!memory)
            return false;
        for (int plane = 0; plane < srcPlaneCount; ++plane) {
            band[plane] = memory;
            memory += size_t(bandStride[plane]) * kBandRows;
        }
    }

    const ptrdiff_t stride = upsideDown ? -ptrdiff_t(dst.bytesPerRow[0]) : dst.bytesPerRow[0];
    uint8_t* const planes[4] = {dst.data[0] + (upsideDown ? ptrdiff_t(dst.height - 1) * dst.bytesPerRow[0] : 0)};
    const int strides[4] = {int(stride)};
    int produced = 0;
    for (int y = 0; y < src.height; y += kBandRows) {
        const int bandRows = std::min(kBandRows, src.height - y);
        const uint8_t* slice[4] = {};
        for (int plane = 0; plane < 4 && src.data[plane]; ++plane) {
            const int shift = (plane == 1 || plane == 2) && isYuv(srcDesc) ? srcDesc->log2_chroma_h : 0;
            slice[plane] = src.data[plane] + ptrdiff_t(y >> shift) * src.bytesPerRow[plane];
            if (!mirrorSource)
                continue;
            const int rows = AV_CEIL_RSHIFT(bandRows, shift);
            for (int row = 0; row < rows; ++row)
                reverseCopy(slice[plane] + ptrdiff_t(row) * src.bytesPerRow[plane],
                            band[plane] + ptrdiff_t(row) * bandStride[plane], srcPlanes[plane].width,
                            srcPlanes[plane].bytesPerElement);
            slice[plane] = band[plane];
        }
        const int rows = sws_scale(context, slice, mirrorSource ? bandStride : src.bytesPerRow, y, bandRows, planes,
                                   strides);
        if (rows < 0 || produced + rows > dst.height)
            return false;
        for (int row = produced; row < produced + rows; ++row) {
            uint8_t* pixels = planes[0] + ptrdiff_t(row) * stride;
            if (mirrorRows && !mirrorSource)
                mirrorRow(pixels, dst.width, viaBgra);
            else if (viaBgra)
                reverseBytesOfPixels(pixels, dst.width);
        }
        produced += rows;
    }
    return produced == dst.height;
}

bool VideoFrameConverter::Private::convertYuvToBgra(const ImagePlanes& src, const ImagePlanes& dst)
{
    // Every camera frame becomes a BGRA frame of its own size for the frame
    // handler: libyuv does that in a tenth of swscale's time (its row
    // functions are written for exactly this case). A mirror is done on the
    // YUV planes first, which have under half the bytes of the result; upside
    // down is libyuv's negative height. Both need even sides, so that the
    // chroma samples stay with the pixels they cover.
    const auto srcFormat = AVPixelFormat(src.avPixelFormat);
    const bool upsideDown = rotation == 180;
    const bool leftRight = mirrored != upsideDown;
    if (dst.avPixelFormat != AV_PIX_FMT_BGRA || (srcFormat != AV_PIX_FMT_NV12 && srcFormat != AV_PIX_FMT_YUV420P)
        || (rotation != 0 && rotation != 180) || src.width != dst.width || src.height != dst.height
        || (leftRight && src.width % 2 != 0) || (upsideDown && src.height % 2 != 0))
        return false;
    const bool nv12 = srcFormat == AV_PIX_FMT_NV12;
    // The same BT.601 matrix as the scaler's, in the source's range.
    const libyuv::YuvConstants* matrix = src.fullRange ? &libyuv::kYuvJPEGConstants : &libyuv::kYuvI601Constants;
    const uint8_t* planes[3] = {src.data[0], src.data[1], src.data[2]};
    int strides[3] = {src.bytesPerRow[0], src.bytesPerRow[1], src.bytesPerRow[2]};
    if (leftRight) {
        const int chromaHeight = (src.height + 1) / 2;
        const int lumaStride = scratchStride(src.width);
        const int chromaStride = nv12 ? lumaStride : lumaStride / 2;
        const size_t lumaBytes = size_t(lumaStride) * size_t(src.height);
        const size_t chromaBytes = size_t(chromaStride) * size_t(chromaHeight);
        uint8_t* memory = grow(mirroredBand, mirroredBandCapacity, lumaBytes + (nv12 ? 1 : 2) * chromaBytes);
        if (!memory)
            return false;
        uint8_t* out[3] = {memory, memory + lumaBytes, memory + lumaBytes + chromaBytes};
        const int outStrides[3] = {lumaStride, chromaStride, chromaStride};
        const int failed = nv12 ? libyuv::NV12Mirror(planes[0], strides[0], planes[1], strides[1], out[0], outStrides[0],
                                                     out[1], outStrides[1], src.width, src.height)
                                : libyuv::I420Mirror(planes[0], strides[0], planes[1], strides[1], planes[2], strides[2],
                                                     out[0], outStrides[0], out[1], outStrides[1], out[2],
                                                     outStrides[2], src.width, src.height);
        if (failed)
            return false;
        std::copy(std::begin(out), std::end(out), planes);
        std::copy(std::begin(outStrides), std::end(outStrides), strides);
    }
    const int height = upsideDown ? -dst.height : dst.height;
    const int failed = nv12 ? libyuv::NV12ToARGBMatrix(planes[0], strides[0], planes[1], strides[1], dst.data[0],
                                                       dst.bytesPerRow[0], matrix, dst.width, height)
                            : libyuv::I420ToARGBMatrix(planes[0], strides[0], planes[1], strides[1], planes[2],
                                                       strides[2], dst.data[0], dst.bytesPerRow[0], matrix, dst.width,
                                                       height);
    return failed == 0;
}

bool VideoFrameConverter::Private::shrinkYuv420(const ImagePlanes& src, const ImagePlanes& dst)
{
    // A decoded movie shrunk for the compressor: libyuv's box filter averages
    // each target pixel's area as swscale's area scaling does (a 4x step
    // comes out byte for byte the same), with vector code for whole-number
    // steps. Only the size changes here; anything that also changes colour,
    // range or orientation goes to swscale.
    const auto srcFormat = AVPixelFormat(src.avPixelFormat);
    const auto dstFormat = AVPixelFormat(dst.avPixelFormat);
    const bool i420Source = srcFormat == AV_PIX_FMT_YUV420P || srcFormat == AV_PIX_FMT_YUVJ420P;
    if (scaling != Scaling::Area || rotation != 0 || mirrored || !i420Source
        || (dstFormat != AV_PIX_FMT_NV12 && dstFormat != AV_PIX_FMT_YUV420P) || src.fullRange != dst.fullRange
        || dst.width > src.width || dst.height > src.height)
        return false;
    const int chromaWidth = (dst.width + 1) / 2;
    const int chromaHeight = (dst.height + 1) / 2;
    uint8_t* planes[3] = {dst.data[0], dst.data[1], dst.data[2]};
    int strides[3] = {dst.bytesPerRow[0], dst.bytesPerRow[1], dst.bytesPerRow[2]};
    const bool nv12 = dstFormat == AV_PIX_FMT_NV12;
    if (nv12) {
        // Shrunk into I420 scratch planes; interleaving the chroma of the
        // small picture afterwards costs next to nothing.
        const int chromaStride = scratchStride(chromaWidth);
        const size_t chromaBytes = size_t(chromaStride) * size_t(chromaHeight);
        uint8_t* memory = grow(scratch, scratchCapacity, 2 * chromaBytes);
        if (!memory)
            return false;
        planes[1] = memory;
        planes[2] = memory + chromaBytes;
        strides[1] = strides[2] = chromaStride;
    }
    if (libyuv::I420Scale(src.data[0], src.bytesPerRow[0], src.data[1], src.bytesPerRow[1], src.data[2],
                          src.bytesPerRow[2], src.width, src.height, planes[0], strides[0], planes[1], strides[1],
                          planes[2], strides[2], dst.width, dst.height, libyuv::kFilterBox)
        != 0)
        return false;
    if (nv12)
        libyuv::MergeUVPlane(planes[1], strides[1], planes[2], strides[2], dst.data[1], dst.bytesPerRow[1],
                             chromaWidth, chromaHeight);
    return true;
}

bool VideoFrameConverter::Private::convert(const ImagePlanes& src, const ImagePlanes& dst)
{
    const auto srcFormat = AVPixelFormat(src.avPixelFormat);
    const auto dstFormat = AVPixelFormat(dst.avPixelFormat);
    if (!av_pix_fmt_desc_get(srcFormat) || !av_pix_fmt_desc_get(dstFormat) || src.width <= 0 || src.height <= 0
        || dst.width <= 0 || dst.height <= 0 || !src.data[0] || !dst.data[0])
        return false;

    if (convertYuvToBgra(src, dst) || shrinkYuv420(src, dst))
        return true;

    const bool turned = rotation == 90 || rotation == 270;
    const int scaledWidth = turned ? dst.height : dst.width;
    const int scaledHeight = turned ? dst.width : dst.height;

    if (rotation == 0 && !mirrored)
        return scale(averagedDown(src, dst.width, dst.height), dstFormat, dst.data, dst.bytesPerRow, dst.width,
                     dst.height, dst.fullRange);

    PlaneGeometry planes[4];
    int planeCount = 0;
    if (!planeGeometry(dstFormat, dst.width, dst.height, planes, planeCount))
        return false;
    const bool sameShape = srcFormat == dstFormat && src.width == scaledWidth && src.height == scaledHeight
        && src.fullRange == dst.fullRange;
    // Mirrored or upside down (180 degrees is both mirrors; mirrored after it,
    // only the vertical one is left) into one plane of whole 4-byte pixels:
    // folded into the scaling pass. A source already in shape is remapped
    // straight from its own planes below, which is a single pass as well.
    if (!turned && !sameShape && planeCount == 1 && planes[0].bytesPerElement == 4)
        return scaleFlipped(src, dst, mirrored != (rotation == 180), rotation == 180);
    if (turned) {
        const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(dstFormat);
        if (desc->log2_chroma_w != desc->log2_chroma_h)
            return false;  // a turned 4:2:2 picture would need 4:4:0 chroma
    }

    // A source already in the destination's shape is turned straight from its
    // own planes; otherwise it is scaled into scratch planes first, at the
    // smaller of the two sizes, so the turning pass touches fewer pixels.
    const uint8_t* turnFrom[4] = {};
    int turnStride[4] = {};
    if (sameShape) {
        std::copy(std::begin(src.data), std::end(src.data), turnFrom);
        std::copy(std::begin(src.bytesPerRow), std::end(src.bytesPerRow), turnStride);
    } else {
        uint8_t* scratchPlanes[4] = {};
        const int size = av_image_fill_linesizes(turnStride, dstFormat, scaledWidth) < 0
            ? -1
            : av_image_get_buffer_size(dstFormat, scaledWidth, scaledHeight, 64);
        if (size < 0)
            return false;
        uint8_t* memory = grow(scratch, scratchCapacity, size_t(size));
        if (!memory
            || av_image_fill_arrays(scratchPlanes, turnStride, memory, dstFormat, scaledWidth, scaledHeight, 64) < 0)
            return false;
        if (!scale(averagedDown(src, scaledWidth, scaledHeight), dstFormat, scratchPlanes, turnStride, scaledWidth,
                   scaledHeight, dst.fullRange))
            return false;
        std::copy(std::begin(scratchPlanes), std::end(scratchPlanes), turnFrom);
    }
    for (int plane = 0; plane < planeCount; ++plane)
        remap(turnFrom[plane], turnStride[plane], dst.data[plane], dst.bytesPerRow[plane], planes[plane], rotation,
              mirrored);
    return true;
}

VideoFrameConverter::VideoFrameConverter() : d(std::make_unique<Private>()) { ffmpeg::quietenLogging(); }
VideoFrameConverter::~VideoFrameConverter() = default;
VideoFrameConverter::VideoFrameConverter(VideoFrameConverter&&) noexcept = default;
VideoFrameConverter& VideoFrameConverter::operator=(VideoFrameConverter&&) noexcept = default;

void VideoFrameConverter::setMirrored(bool mirrored) { d->mirrored = mirrored; }
bool VideoFrameConverter::isMirrored() const { return d->mirrored; }

void VideoFrameConverter::setRotation(int degreesClockwise)
{
    const int normalized = ((degreesClockwise % 360) + 360) % 360;
    d->rotation = normalized / 90 * 90;
}

int VideoFrameConverter::rotation() const { return d->rotation; }
void VideoFrameConverter::setScaling(Scaling scaling) { d->scaling = scaling; }
VideoFrameConverter::Scaling VideoFrameConverter::scaling() const { return d->scaling; }
int VideoFrameConverter::scalerSetupCount() const { return d->setupCount; }

bool VideoFrameConverter::convert(PixelBuffer& source, PixelBuffer& destination)
{
    source.lockBaseAddress(PixelBuffer::ReadOnly);
    destination.lockBaseAddress();
    const bool converted = d->convert(ImagePlanes::of(source), ImagePlanes::of(destination));
    destination.unlockBaseAddress();
    source.unlockBaseAddress(PixelBuffer::ReadOnly);
    return converted;
}

bool VideoFrameConverter::convert(const ImagePlanes& source, PixelBuffer& destination)
{
    destination.lockBaseAddress();
    const bool converted = d->convert(source, ImagePlanes::of(destination));
    destination.unlockBaseAddress();
    return converted;
}

bool VideoFrameConverter::convert(const ImagePlanes& source, const ImagePlanes& destination)
{
    return d->convert(source, destination);
}

}  // namespace zavo::platform
