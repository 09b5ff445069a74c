#pragma once
// Memory transfer: the driver's capture buffers mapped into the process,
// queued to the driver, dequeued when filled. Capture thread only (set-up on
// the thread that opens the stream, before the capture thread starts).
#include "camera/v4l2/Kernel_p.h"

#include <linux/videodev2.h>

#include <vector>

namespace zavo::platform::v4l2 {

class BufferQueue {
public:
    /// Requests count mmap buffers, maps and queues all of them. False with
    /// errno and the failing step in *step.
    bool allocate(Kernel& kernel, int fd, uint32_t count, QString* step);

    /// The next filled buffer; false with errno (EAGAIN: none yet).
    bool dequeue(v4l2_buffer& buffer);
    /// Gives a dequeued buffer back to the driver.
    bool enqueue(v4l2_buffer& buffer);
    /// The bytes of a dequeued buffer; empty when the driver filled none or
    /// its index or size is outside what was mapped.
    std::pair<const uint8_t*, size_t> bytesOf(const v4l2_buffer& buffer) const;

    /// Unmaps everything and gives the buffers back to the driver (the
    /// stream must be off).
    void release();
    ~BufferQueue() { release(); }

private:
    Kernel* kernel_ = nullptr;
    int fd_ = -1;
    std::vector<MappedMemory> buffers_;
};

}  // namespace zavo::platform::v4l2
