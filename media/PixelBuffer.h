#pragma once
// Pixel buffers and their pools. A buffer is shared (std::shared_ptr) by
// whoever holds the frame; a pooled buffer goes back to its pool when the
// last holder lets go, so a steady stream of frames allocates nothing.
#include "base/ZavoExport.h"
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace zavo::platform {

/// Four-character pixel format codes, with the values the component uses.
enum class PixelFormat : uint32_t {
    BGRA32 = 0x42475241,          // 'BGRA': B, G, R, A bytes
    ARGB32 = 0x00000020,          // 32: A, R, G, B bytes
    NV12VideoRange = 0x34323076,  // '420v': Y plane + interleaved CbCr, video range
    NV12FullRange = 0x34323066,   // '420f'
};

/// Bytes per pixel of the first plane.
ZAVO_EXPORT int bytesPerPixel(PixelFormat format);
ZAVO_EXPORT int planeCountOf(PixelFormat format);

class PixelBufferPool;

class ZAVO_EXPORT PixelBuffer {
public:
    enum LockFlags : uint32_t { ReadWrite = 0, ReadOnly = 1 };

    /// A buffer of its own (not pooled), rows aligned to 64 bytes. Null when
    /// the size is not positive or memory runs out.
    static std::shared_ptr<PixelBuffer> create(int width, int height, PixelFormat format);
    /// Wraps memory that someone else owns (a decoded frame, a mapped camera
    /// buffer). owner is kept alive as long as the pixel buffer.
    static std::shared_ptr<PixelBuffer> wrap(int width, int height, PixelFormat format, uint8_t* const planes[],
                                             const size_t bytesPerRow[], std::shared_ptr<void> owner);

    ~PixelBuffer();
    PixelBuffer(const PixelBuffer&) = delete;
    PixelBuffer& operator=(const PixelBuffer&) = delete;

    int width() const { return width_; }
    int height() const { return height_; }
    PixelFormat pixelFormat() const { return format_; }
    int planeCount() const { return planeCountOf(format_); }
    size_t bytesPerRow(int plane = 0) const { return bytesPerRow_[plane]; }
    int heightOfPlane(int plane) const { return plane == 0 ? height_ : (height_ + 1) / 2; }
    /// Bytes of all planes, padding included.
    size_t dataSize() const;

    /// Bracket CPU access to the pixels. Locks nest; they exist so that code
    /// reads like its phone counterpart and so that misuse shows in debug runs.
    void lockBaseAddress(LockFlags flags = ReadWrite);
    void unlockBaseAddress(LockFlags flags = ReadWrite);
    uint8_t* baseAddress(int plane = 0) { return planes_[plane]; }
    const uint8_t* baseAddress(int plane = 0) const { return planes_[plane]; }

    /// The pool this buffer came from, if it still exists.
    std::shared_ptr<PixelBufferPool> pool() const { return pool_.lock(); }

private:
    friend class PixelBufferPool;
    PixelBuffer() = default;

    int width_ = 0;
    int height_ = 0;
    PixelFormat format_ = PixelFormat::BGRA32;
    uint8_t* planes_[2] = {nullptr, nullptr};
    size_t bytesPerRow_[2] = {0, 0};
    std::atomic<int> lockCount_{0};
    // Exactly one of these owns the pixels.
    struct AlignedFree {
        void operator()(uint8_t* p) const;
    };
    std::unique_ptr<uint8_t, AlignedFree> storage_;
    std::shared_ptr<void> externalOwner_;
    std::weak_ptr<PixelBufferPool> pool_;

public:
    // For std::allocate_shared only.
    struct ConstructionKey {};
    explicit PixelBuffer(ConstructionKey) {}
};

struct ZAVO_EXPORT PixelBufferAttributes {
    PixelFormat pixelFormat = PixelFormat::BGRA32;
    int width = 0;
    int height = 0;
};

/// Hands out buffers of one size and format and takes them back. Thread-safe:
/// buffers may be created on one thread and released on another.
class ZAVO_EXPORT PixelBufferPool : public std::enable_shared_from_this<PixelBufferPool> {
public:
    /// Null when the attributes do not describe a buffer.
    static std::shared_ptr<PixelBufferPool> create(const PixelBufferAttributes& attributes);
    ~PixelBufferPool();

    const PixelBufferAttributes& attributes() const { return attributes_; }
    size_t bytesPerRow(int plane = 0) const { return bytesPerRow_[plane]; }
    /// A buffer, recycled when one is free. Its pixels hold whatever the last
    /// user left in them. Null only when memory runs out.
    std::shared_ptr<PixelBuffer> createPixelBuffer();
    /// Buffers made so far (in use or free).
    int allocatedBufferCount() const;

    struct Recycler;

private:
    PixelBufferPool() = default;
    void recycle(std::unique_ptr<uint8_t, PixelBuffer::AlignedFree> storage);
    friend class PixelBuffer;

    PixelBufferAttributes attributes_;
    size_t bytesPerRow_[2] = {0, 0};
    size_t planeOffset_ = 0;
    size_t storageSize_ = 0;
    std::shared_ptr<Recycler> recycler_;
};

}  // namespace zavo::platform
