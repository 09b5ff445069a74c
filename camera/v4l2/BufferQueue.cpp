#include "camera/v4l2/BufferQueue_p.h"

#include <cerrno>

#include <sys/mman.h>

namespace zavo::platform::v4l2 {

bool BufferQueue::allocate(Kernel& kernel, int fd, uint32_t count, QString* step)
{
    kernel_ = &kernel;
    fd_ = fd;
    v4l2_requestbuffers request{};
    request.count = count;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (kernel.xioctl(fd, VIDIOC_REQBUFS, &request) != 0 || request.count == 0) {
        if (request.count == 0 && errno == 0)
            errno = ENOMEM;
        *step = QStringLiteral("VIDIOC_REQBUFS");
        return false;
    }
    buffers_.resize(request.count);
    for (uint32_t index = 0; index < request.count; ++index) {
        v4l2_buffer buffer{};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.index = index;
        if (kernel.xioctl(fd, VIDIOC_QUERYBUF, &buffer) != 0) {
            *step = QStringLiteral("VIDIOC_QUERYBUF");
            return false;
        }
        buffers_[index] = MappedMemory(
            kernel, kernel.mmap(buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, buffer.m.offset), buffer.length);
        if (!buffers_[index]) {
            *step = QStringLiteral("mmap");
            return false;
        }
        if (kernel.xioctl(fd, VIDIOC_QBUF, &buffer) != 0) {
            *step = QStringLiteral("VIDIOC_QBUF");
            return false;
        }
    }
    return true;
}

bool BufferQueue::dequeue(v4l2_buffer& buffer)
{
    buffer = {};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    return kernel_->xioctl(fd_, VIDIOC_DQBUF, &buffer) == 0;
}

bool BufferQueue::enqueue(v4l2_buffer& buffer) { return kernel_->xioctl(fd_, VIDIOC_QBUF, &buffer) == 0; }

std::pair<const uint8_t*, size_t> BufferQueue::bytesOf(const v4l2_buffer& buffer) const
{
    if (buffer.index >= buffers_.size())
        return {nullptr, 0};
    const MappedMemory& mapped = buffers_[buffer.index];
    // A driver that reports more bytes than the buffer holds is not believed;
    // one that reports none filled nothing, and the bytes there are an older
    // frame's.
    const size_t used = buffer.bytesused;
    if (used == 0 || used > mapped.size())
        return {nullptr, 0};
    return {mapped.data(), used};
}

void BufferQueue::release()
{
    if (!kernel_)
        return;
    buffers_.clear();  // unmaps
    // Freeing the buffers lets the next open of the node choose another
    // format; a gone device refuses, which changes nothing.
    v4l2_requestbuffers request{};
    request.count = 0;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    kernel_->xioctl(fd_, VIDIOC_REQBUFS, &request);
    kernel_ = nullptr;
}

}  // namespace zavo::platform::v4l2
