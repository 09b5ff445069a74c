#include "media/PixelBuffer.h"

#include "base/Log_p.h"
#include "base/ThreadSafety.h"

#include <cstdlib>
#include <new>
#include <vector>

namespace zavo::platform {

namespace {
constexpr size_t kRowAlignment = 64;

size_t alignUp(size_t value, size_t alignment) { return (value + alignment - 1) / alignment * alignment; }

struct Layout {
    size_t bytesPerRow[2] = {0, 0};
    size_t planeOffset = 0;  // of plane 1
    size_t size = 0;
};

bool layoutFor(int width, int height, PixelFormat format, Layout& layout)
{
    if (width <= 0 || height <= 0 || width > 16384 || height > 16384)
        return false;
    layout.bytesPerRow[0] = alignUp(size_t(width) * size_t(bytesPerPixel(format)), kRowAlignment);
    layout.size = layout.bytesPerRow[0] * size_t(height);
    if (planeCountOf(format) == 2) {
        layout.planeOffset = layout.size;
        layout.bytesPerRow[1] = alignUp(size_t((width + 1) / 2) * 2, kRowAlignment);
        layout.size += layout.bytesPerRow[1] * size_t((height + 1) / 2);
    }
    return true;
}
}  // namespace

int bytesPerPixel(PixelFormat format)
{
    switch (format) {
    case PixelFormat::BGRA32:
    case PixelFormat::ARGB32: return 4;
    case PixelFormat::NV12VideoRange:
    case PixelFormat::NV12FullRange: return 1;
    }
    return 4;
}

int planeCountOf(PixelFormat format)
{
    return (format == PixelFormat::NV12VideoRange || format == PixelFormat::NV12FullRange) ? 2 : 1;
}

void PixelBuffer::AlignedFree::operator()(uint8_t* p) const { std::free(p); }

// Pooled buffers recycle both their pixel storage and the memory of their
// shared_ptr control block (the buffer object itself lives in it), so that a
// steady stream of frames makes no heap allocation at all.
struct PixelBufferPool::Recycler {
    Mutex mutex;
    std::vector<std::unique_ptr<uint8_t, PixelBuffer::AlignedFree>> freeStorage ZAVO_GUARDED_BY(mutex);
    std::vector<void*> freeBlocks ZAVO_GUARDED_BY(mutex);
    size_t blockSize ZAVO_GUARDED_BY(mutex) = 0;
    int allocatedCount ZAVO_GUARDED_BY(mutex) = 0;

    ~Recycler()
    {
        for (void* block : freeBlocks)
            ::operator delete(block);
    }
};

namespace {
template <typename T>
struct RecyclingAllocator {
    using value_type = T;
    std::shared_ptr<PixelBufferPool::Recycler> recycler;

    explicit RecyclingAllocator(std::shared_ptr<PixelBufferPool::Recycler> r) : recycler(std::move(r)) {}
    template <typename U>
    RecyclingAllocator(const RecyclingAllocator<U>& other) : recycler(other.recycler) {}

    T* allocate(size_t n)
    {
        if (n == 1) {
            MutexLocker lock(recycler->mutex);
            if (recycler->blockSize == sizeof(T) && !recycler->freeBlocks.empty()) {
                void* block = recycler->freeBlocks.back();
                recycler->freeBlocks.pop_back();
                return static_cast<T*>(block);
            }
        }
        return static_cast<T*>(::operator new(n * sizeof(T)));
    }
    void deallocate(T* p, size_t n)
    {
        if (n == 1) {
            MutexLocker lock(recycler->mutex);
            if (recycler->blockSize == 0)
                recycler->blockSize = sizeof(T);
            if (recycler->blockSize == sizeof(T)) {
                recycler->freeBlocks.push_back(p);
                return;
            }
        }
        ::operator delete(p);
    }
    template <typename U>
    bool operator==(const RecyclingAllocator<U>& other) const { return recycler == other.recycler; }
};
}  // namespace

// ------------------------------------------------------------ pixel buffer

std::shared_ptr<PixelBuffer> PixelBuffer::create(int width, int height, PixelFormat format)
{
    Layout layout;
    if (!layoutFor(width, height, format, layout))
        return nullptr;
    auto* memory = static_cast<uint8_t*>(std::aligned_alloc(kRowAlignment, alignUp(layout.size, kRowAlignment)));
    if (!memory)
        return nullptr;
    auto buffer = std::make_shared<PixelBuffer>(ConstructionKey{});
    buffer->width_ = width;
    buffer->height_ = height;
    buffer->format_ = format;
    buffer->storage_.reset(memory);
    buffer->planes_[0] = memory;
    buffer->planes_[1] = layout.planeOffset ? memory + layout.planeOffset : nullptr;
    buffer->bytesPerRow_[0] = layout.bytesPerRow[0];
    buffer->bytesPerRow_[1] = layout.bytesPerRow[1];
    return buffer;
}

std::shared_ptr<PixelBuffer> PixelBuffer::wrap(int width, int height, PixelFormat format, uint8_t* const planes[],
                                               const size_t bytesPerRow[], std::shared_ptr<void> owner)
{
    if (width <= 0 || height <= 0 || !planes || !planes[0])
        return nullptr;
    auto buffer = std::make_shared<PixelBuffer>(ConstructionKey{});
    buffer->width_ = width;
    buffer->height_ = height;
    buffer->format_ = format;
    for (int plane = 0; plane < planeCountOf(format); ++plane) {
        buffer->planes_[plane] = planes[plane];
        buffer->bytesPerRow_[plane] = bytesPerRow[plane];
    }
    buffer->externalOwner_ = std::move(owner);
    return buffer;
}

PixelBuffer::~PixelBuffer()
{
    if (lockCount_.load() != 0)
        qCWarning(lcMediaPixels) << "pixel buffer released while its base address is locked";
    if (storage_) {
        if (auto pool = pool_.lock())
            pool->recycle(std::move(storage_));
    }
}

size_t PixelBuffer::dataSize() const
{
    size_t size = 0;
    for (int plane = 0; plane < planeCount(); ++plane)
        size += bytesPerRow_[plane] * size_t(heightOfPlane(plane));
    return size;
}

void PixelBuffer::lockBaseAddress(LockFlags) { lockCount_.fetch_add(1, std::memory_order_relaxed); }

void PixelBuffer::unlockBaseAddress(LockFlags)
{
    if (lockCount_.fetch_sub(1, std::memory_order_relaxed) <= 0) {
        lockCount_.fetch_add(1, std::memory_order_relaxed);
        qCWarning(lcMediaPixels) << "pixel buffer unlocked more often than locked";
    }
}

// -------------------------------------------------------------------- pool

std::shared_ptr<PixelBufferPool> PixelBufferPool::create(const PixelBufferAttributes& attributes)
{
    Layout layout;
    if (!layoutFor(attributes.width, attributes.height, attributes.pixelFormat, layout))
        return nullptr;
    std::shared_ptr<PixelBufferPool> pool(new PixelBufferPool());
    pool->attributes_ = attributes;
    pool->bytesPerRow_[0] = layout.bytesPerRow[0];
    pool->bytesPerRow_[1] = layout.bytesPerRow[1];
    pool->planeOffset_ = layout.planeOffset;
    pool->storageSize_ = alignUp(layout.size, kRowAlignment);
    pool->recycler_ = std::make_shared<Recycler>();
    return pool;
}

PixelBufferPool::~PixelBufferPool() = default;

std::shared_ptr<PixelBuffer> PixelBufferPool::createPixelBuffer()
{
    std::unique_ptr<uint8_t, PixelBuffer::AlignedFree> storage;
    {
        MutexLocker lock(recycler_->mutex);
        if (!recycler_->freeStorage.empty()) {
            storage = std::move(recycler_->freeStorage.back());
            recycler_->freeStorage.pop_back();
        } else {
            storage.reset(static_cast<uint8_t*>(std::aligned_alloc(kRowAlignment, storageSize_)));
            if (!storage)
                return nullptr;
            ++recycler_->allocatedCount;
            // Room for every buffer ever made, so recycling never grows the list.
            recycler_->freeStorage.reserve(size_t(recycler_->allocatedCount));
            recycler_->freeBlocks.reserve(size_t(recycler_->allocatedCount));
        }
    }
    auto buffer = std::allocate_shared<PixelBuffer>(RecyclingAllocator<PixelBuffer>(recycler_),
                                                    PixelBuffer::ConstructionKey{});
    buffer->width_ = attributes_.width;
    buffer->height_ = attributes_.height;
    buffer->format_ = attributes_.pixelFormat;
    buffer->planes_[0] = storage.get();
    buffer->planes_[1] = planeOffset_ ? storage.get() + planeOffset_ : nullptr;
    buffer->bytesPerRow_[0] = bytesPerRow_[0];
    buffer->bytesPerRow_[1] = bytesPerRow_[1];
    buffer->storage_ = std::move(storage);
    buffer->pool_ = weak_from_this();
    return buffer;
}

int PixelBufferPool::allocatedBufferCount() const
{
    MutexLocker lock(recycler_->mutex);
    return recycler_->allocatedCount;
}

void PixelBufferPool::recycle(std::unique_ptr<uint8_t, PixelBuffer::AlignedFree> storage)
{
    MutexLocker lock(recycler_->mutex);
    recycler_->freeStorage.push_back(std::move(storage));
}

}  // namespace zavo::platform
