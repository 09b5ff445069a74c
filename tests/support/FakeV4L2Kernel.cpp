#include "base/ThreadSafety.h"
#include "FakeV4L2Kernel.h"

#include <QDebug>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zavo::testing {

namespace {

constexpr uint32_t kMmapStride = 1u << 24;  // offset of buffer i is i * this

/// Bytes a driver reserves for one frame; JPEG frames are at most this big.
size_t frameCapacity(uint32_t fourcc, uint32_t width, uint32_t height)
{
    if (fourcc == V4L2_PIX_FMT_NV12 || fourcc == V4L2_PIX_FMT_YUV420)
        return size_t(width) * height * 3 / 2;
    if (fourcc == V4L2_PIX_FMT_GREY)
        return size_t(width) * height;
    if (fourcc == V4L2_PIX_FMT_RGB24 || fourcc == V4L2_PIX_FMT_BGR24)
        return size_t(width) * height * 3;
    return size_t(width) * height * 2;
}

uint32_t bytesPerLine(uint32_t fourcc, uint32_t width)
{
    if (fourcc == V4L2_PIX_FMT_MJPEG || fourcc == V4L2_PIX_FMT_JPEG || fourcc == V4L2_PIX_FMT_H264)
        return 0;
    if (fourcc == V4L2_PIX_FMT_NV12 || fourcc == V4L2_PIX_FMT_YUV420 || fourcc == V4L2_PIX_FMT_GREY)
        return width;
    if (fourcc == V4L2_PIX_FMT_RGB24 || fourcc == V4L2_PIX_FMT_BGR24)
        return width * 3;
    return width * 2;
}

bool fits(const FrameSizeEntry& size, uint32_t width, uint32_t height)
{
    if (size.kind == FrameSizeEntry::Kind::Discrete)
        return size.width == width && size.height == height;
    const uint32_t stepW = std::max(size.stepWidth, 1u);
    const uint32_t stepH = std::max(size.stepHeight, 1u);
    return width >= size.minWidth && width <= size.maxWidth && height >= size.minHeight && height <= size.maxHeight
        && (width - size.minWidth) % stepW == 0 && (height - size.minHeight) % stepH == 0;
}

}  // namespace

struct FakeV4L2Kernel::Node {
    std::shared_ptr<const FakeCamera> camera;
    bool present = true;
    bool streaming = false;  // one streaming handle per node, as UVC allows
    std::map<uint32_t, int> controls;  // set values; they outlive a descriptor, as a camera's do
};

struct FakeV4L2Kernel::Handle {
    std::shared_ptr<Node> node;
    QString name;
    uint32_t fourcc = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    double fps = 30;
    std::vector<std::vector<uint8_t>> buffers;
    std::vector<bool> queued;
    std::vector<uint32_t> used;
    bool streaming = false;
    Clock::time_point streamStart;
    int64_t sequence = 0;
};

FakeV4L2Kernel::FakeV4L2Kernel() = default;

FakeV4L2Kernel::~FakeV4L2Kernel()
{
    zavo::MutexLocker lock(mutex_);
    if (!handles_.empty())
        qWarning() << "FakeV4L2Kernel: destroyed with" << handles_.size() << "descriptors open";
}

void FakeV4L2Kernel::plug(const QString& node, std::shared_ptr<const FakeCamera> camera)
{
    zavo::MutexLocker lock(mutex_);
    auto entry = std::make_shared<Node>();
    entry->camera = std::move(camera);
    nodes_[node] = entry;
    changed_ = true;
}

void FakeV4L2Kernel::unplug(const QString& node)
{
    zavo::MutexLocker lock(mutex_);
    auto found = nodes_.find(node);
    if (found == nodes_.end())
        return;
    found->second->present = false;  // open handles keep the node and see it gone
    nodes_.erase(found);
    changed_ = true;
}

std::optional<FakeV4L2Kernel::Negotiated> FakeV4L2Kernel::negotiated(const QString& node) const
{
    zavo::MutexLocker lock(mutex_);
    auto found = negotiated_.find(node);
    if (found == negotiated_.end())
        return std::nullopt;
    return found->second;
}

int64_t FakeV4L2Kernel::deliveredFrames() const
{
    zavo::MutexLocker lock(mutex_);
    return delivered_;
}

int FakeV4L2Kernel::openDescriptors() const
{
    zavo::MutexLocker lock(mutex_);
    return int(handles_.size());
}

int FakeV4L2Kernel::liveMappings() const
{
    zavo::MutexLocker lock(mutex_);
    return mappings_;
}

std::optional<int> FakeV4L2Kernel::control(const QString& node, uint32_t id) const
{
    zavo::MutexLocker lock(mutex_);
    auto found = nodes_.find(node);
    if (found == nodes_.end())
        return std::nullopt;
    auto value = found->second->controls.find(id);
    return value == found->second->controls.end() ? std::nullopt : std::optional<int>(value->second);
}

QString FakeV4L2Kernel::persistentName(const QString& node, Link kind)
{
    zavo::MutexLocker lock(mutex_);
    auto found = nodes_.find(node);
    if (found == nodes_.end())
        return {};
    return kind == Link::ById ? found->second->camera->byId : found->second->camera->byPath;
}

int FakeV4L2Kernel::usbSpeedMbps(const QString& node)
{
    zavo::MutexLocker lock(mutex_);
    auto found = nodes_.find(node);
    return found == nodes_.end() ? 0 : found->second->camera->usbSpeedMbps;
}

QStringList FakeV4L2Kernel::videoNodes()
{
    zavo::MutexLocker lock(mutex_);
    QStringList names;
    for (const auto& [name, node] : nodes_)
        names << name;
    return names;
}

bool FakeV4L2Kernel::nodesChanged()
{
    zavo::MutexLocker lock(mutex_);
    return std::exchange(changed_, false);
}

FakeV4L2Kernel::Handle* FakeV4L2Kernel::handleOf(int fd)
{
    auto found = handles_.find(fd);
    return found == handles_.end() ? nullptr : found->second.get();
}

int FakeV4L2Kernel::open(const QString& path, int)
{
    zavo::MutexLocker lock(mutex_);
    const QString name = path.section(QLatin1Char('/'), -1);
    auto found = nodes_.find(name);
    if (!path.startsWith(QLatin1String("/dev/")) || found == nodes_.end()) {
        errno = ENOENT;
        return -1;
    }
    if (found->second->camera->openErrno) {
        errno = found->second->camera->openErrno;
        return -1;
    }
    auto handle = std::make_unique<Handle>();
    handle->node = found->second;
    handle->name = name;
    const int fd = nextFd_++;
    handles_[fd] = std::move(handle);
    return fd;
}

int FakeV4L2Kernel::close(int fd)
{
    zavo::MutexLocker lock(mutex_);
    auto found = handles_.find(fd);
    if (found == handles_.end())
        return ::close(fd);  // a real descriptor (eventfd)
    if (found->second->streaming)
        found->second->node->streaming = false;
    handles_.erase(found);
    return 0;
}

int FakeV4L2Kernel::eventfd() { return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

ssize_t FakeV4L2Kernel::read(int fd, void* buffer, size_t size) { return ::read(fd, buffer, size); }

ssize_t FakeV4L2Kernel::write(int fd, const void* buffer, size_t size) { return ::write(fd, buffer, size); }

void* FakeV4L2Kernel::mmap(size_t length, int, int, int fd, off_t offset)
{
    zavo::MutexLocker lock(mutex_);
    Handle* handle = handleOf(fd);
    const size_t index = size_t(offset) / kMmapStride;
    if (!handle || !handle->node->present || index >= handle->buffers.size() || length > handle->buffers[index].size()) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    ++mappings_;
    return handle->buffers[index].data();
}

int FakeV4L2Kernel::munmap(void*, size_t)
{
    zavo::MutexLocker lock(mutex_);
    --mappings_;
    return 0;
}

bool FakeV4L2Kernel::frameDue(const Handle& handle, Clock::time_point now, Clock::time_point* due) const
{
    const int64_t stallAfter = handle.node->camera->stallAfter;
    if (stallAfter >= 0 && handle.sequence >= stallAfter) {
        *due = Clock::time_point::max();
        return false;
    }
    if (handle.node->camera->unpaced) {
        *due = now;
        return true;
    }
    const auto interval = std::chrono::duration<double>(1.0 / std::max(handle.fps, 1.0));
    *due = handle.streamStart + std::chrono::duration_cast<Clock::duration>(interval * double(handle.sequence));
    return *due <= now;
}

int FakeV4L2Kernel::poll(pollfd* fds, nfds_t count, int timeoutMs)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
    for (;;) {
        std::vector<pollfd> real;
        std::vector<nfds_t> realIndex;
        int ready = 0;
        auto wait = timeoutMs < 0 ? std::chrono::milliseconds(1000)
                                  : std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        wait = std::max(wait, std::chrono::milliseconds(0));
        {
            zavo::MutexLocker lock(mutex_);
            const auto now = Clock::now();
            for (nfds_t i = 0; i < count; ++i) {
                fds[i].revents = 0;
                Handle* handle = handleOf(fds[i].fd);
                if (!handle) {
                    real.push_back(fds[i]);
                    realIndex.push_back(i);
                    continue;
                }
                if (!handle->node->present) {
                    fds[i].revents = POLLERR;
                    ++ready;
                    continue;
                }
                const bool anyQueued = std::find(handle->queued.begin(), handle->queued.end(), true) != handle->queued.end();
                if (!handle->streaming || !anyQueued)
                    continue;
                Clock::time_point due;
                if (frameDue(*handle, now, &due)) {
                    fds[i].revents = POLLIN;
                    ++ready;
                } else if (due != Clock::time_point::max()) {
                    wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(due - now));
                }
            }
        }
        const int realReady = ::poll(real.data(), real.size(), ready > 0 ? 0 : int(wait.count()));
        if (realReady < 0)
            return -1;
        for (size_t r = 0; r < real.size(); ++r) {
            fds[realIndex[r]].revents = real[r].revents;
            if (real[r].revents)
                ++ready;
        }
        if (ready > 0 || timeoutMs == 0)
            return ready;
        // Woken by the frame clock: look again, until the caller's time-out.
        if (timeoutMs > 0 && Clock::now() >= deadline)
            return 0;
    }
}

int FakeV4L2Kernel::ioctl(int fd, unsigned long request, void* argument)
{
    FrameFeed feed;
    zavo::MutexLocker lock(mutex_);
    Handle* handle = handleOf(fd);
    if (!handle) {
        errno = EBADF;
        return -1;
    }
    if (!handle->node->present) {
        errno = ENODEV;
        return -1;
    }
    if (request != VIDIOC_DQBUF)
        return ioctlLocked(*handle, request, argument);

    // Dequeue: the frame is made outside the lock (encoding takes a while).
    auto& buffer = *static_cast<v4l2_buffer*>(argument);
    Clock::time_point due;
    auto slot = std::find(handle->queued.begin(), handle->queued.end(), true);
    if (!handle->streaming || slot == handle->queued.end() || !frameDue(*handle, Clock::now(), &due)) {
        errno = EAGAIN;
        return -1;
    }
    const auto index = uint32_t(slot - handle->queued.begin());
    handle->queued[index] = false;
    const int64_t sequence = handle->sequence++;
    const auto camera = handle->node->camera;
    const uint32_t fourcc = handle->fourcc;
    const int width = int(handle->width);
    const int height = int(handle->height);
    uint8_t* target = handle->buffers[index].data();
    const size_t capacity = handle->buffers[index].size();
    lock.unlock();

    const int64_t number = sequence + 1;
    const auto fault = camera->bufferFault ? camera->bufferFault(number) : FakeCamera::BufferFault::None;
    QByteArray bytes = camera->feed && fault != FakeCamera::BufferFault::Empty
        ? camera->feed(fourcc, width, height, sequence)
        : QByteArray();
    if (camera->truncateEvery > 0 && number % camera->truncateEvery == 0)
        bytes.truncate(bytes.size() / 2);
    if (camera->corruptEvery > 0 && number % camera->corruptEvery == 0) {
        for (qsizetype i = 4; i < bytes.size() - 2; i += 7)
            bytes[i] = char(bytes[i] ^ 0x5a);
    }
    const size_t size = std::min(size_t(bytes.size()), capacity);
    std::memcpy(target, bytes.constData(), size);

    lock.lock();
    handle = handleOf(fd);
    if (!handle || !handle->node->present) {
        errno = ENODEV;
        return -1;
    }
    ++delivered_;
    handle->used[index] = uint32_t(size);
    buffer.index = index;
    buffer.bytesused = uint32_t(size);
    buffer.sequence = uint32_t(sequence);
    buffer.flags = V4L2_BUF_FLAG_MAPPED | V4L2_BUF_FLAG_DONE
        | (fault == FakeCamera::BufferFault::ErrorFlag ? V4L2_BUF_FLAG_ERROR : 0);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    buffer.timestamp.tv_sec = now.tv_sec;
    buffer.timestamp.tv_usec = now.tv_nsec / 1000;
    buffer.length = uint32_t(capacity);
    buffer.m.offset = index * kMmapStride;
    return 0;
}

int FakeV4L2Kernel::ioctlLocked(Handle& handle, unsigned long request, void* argument)
{
    const FakeCamera& camera = *handle.node->camera;
    const auto& formats = camera.formats.formats;
    auto findFormat = [&](uint32_t fourcc) -> const PixelFormatEntry* {
        auto found = std::find_if(formats.begin(), formats.end(), [&](const PixelFormatEntry& f) { return f.fourcc == fourcc; });
        return found == formats.end() ? nullptr : &*found;
    };
    auto fail = [](int error) {
        errno = error;
        return -1;
    };
    switch (request) {
    case VIDIOC_QUERYCAP: {
        auto& caps = *static_cast<v4l2_capability*>(argument);
        caps = {};
        std::strncpy(reinterpret_cast<char*>(caps.driver), camera.mediaController ? "isys" : "uvcvideo",
                     sizeof caps.driver - 1);
        std::strncpy(reinterpret_cast<char*>(caps.card), camera.card.toUtf8().constData(), sizeof caps.card - 1);
        std::strncpy(reinterpret_cast<char*>(caps.bus_info), camera.busInfo.toUtf8().constData(), sizeof caps.bus_info - 1);
        caps.device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING | (camera.mediaController ? V4L2_CAP_IO_MC : 0);
        caps.capabilities = caps.device_caps | V4L2_CAP_DEVICE_CAPS;
        return 0;
    }
    case VIDIOC_ENUM_FMT: {
        auto& description = *static_cast<v4l2_fmtdesc*>(argument);
        if (description.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || description.index >= formats.size())
            return fail(EINVAL);
        const auto& format = formats[description.index];
        description.pixelformat = format.fourcc;
        description.flags = format.compressed ? V4L2_FMT_FLAG_COMPRESSED : 0;
        std::strncpy(reinterpret_cast<char*>(description.description), format.description.toUtf8().constData(),
                     sizeof description.description - 1);
        return 0;
    }
    case VIDIOC_ENUM_FRAMESIZES: {
        auto& size = *static_cast<v4l2_frmsizeenum*>(argument);
        const PixelFormatEntry* format = findFormat(size.pixel_format);
        if (!format || size.index >= format->sizes.size())
            return fail(EINVAL);
        const auto& entry = format->sizes[size.index];
        if (entry.kind == FrameSizeEntry::Kind::Discrete) {
            size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
            size.discrete = {entry.width, entry.height};
        } else {
            size.type = entry.kind == FrameSizeEntry::Kind::Stepwise ? V4L2_FRMSIZE_TYPE_STEPWISE
                                                                      : V4L2_FRMSIZE_TYPE_CONTINUOUS;
            size.stepwise = {entry.minWidth, entry.maxWidth, entry.stepWidth,
                             entry.minHeight, entry.maxHeight, entry.stepHeight};
        }
        return 0;
    }
    case VIDIOC_ENUM_FRAMEINTERVALS: {
        auto& interval = *static_cast<v4l2_frmivalenum*>(argument);
        const PixelFormatEntry* format = findFormat(interval.pixel_format);
        if (!format)
            return fail(EINVAL);
        auto size = std::find_if(format->sizes.begin(), format->sizes.end(),
                                 [&](const FrameSizeEntry& s) { return fits(s, interval.width, interval.height); });
        if (size == format->sizes.end() || interval.index >= size->intervals.size())
            return fail(EINVAL);
        const auto& entry = size->intervals[interval.index];
        if (entry.kind == FrameIntervalEntry::Kind::Discrete) {
            interval.type = V4L2_FRMIVAL_TYPE_DISCRETE;
            interval.discrete = {entry.minNumerator, entry.minDenominator};
        } else {
            interval.type = entry.kind == FrameIntervalEntry::Kind::Stepwise ? V4L2_FRMIVAL_TYPE_STEPWISE
                                                                              : V4L2_FRMIVAL_TYPE_CONTINUOUS;
            interval.stepwise.min = {entry.minNumerator, entry.minDenominator};
            interval.stepwise.max = {entry.maxNumerator, entry.maxDenominator};
            interval.stepwise.step = {entry.stepNumerator, entry.stepDenominator};
        }
        return 0;
    }
    case VIDIOC_TRY_FMT:
    case VIDIOC_S_FMT: {
        auto& format = *static_cast<v4l2_format*>(argument);
        if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
            return fail(EINVAL);
        if (request == VIDIOC_S_FMT && camera.setFormatErrno)
            return fail(camera.setFormatErrno);
        if (request == VIDIOC_S_FMT && handle.node->streaming && !handle.streaming)
            return fail(EBUSY);
        auto& pix = format.fmt.pix;
        const PixelFormatEntry* entry = findFormat(pix.pixelformat);
        if (!entry)
            entry = &formats.front();
        // Like a driver: the asked size if listed, else the format's first.
        auto size = std::find_if(entry->sizes.begin(), entry->sizes.end(),
                                 [&](const FrameSizeEntry& s) { return fits(s, pix.width, pix.height); });
        uint32_t width = pix.width;
        uint32_t height = pix.height;
        if (size == entry->sizes.end() && !entry->sizes.empty()) {
            const auto& first = entry->sizes.front();
            width = first.kind == FrameSizeEntry::Kind::Discrete ? first.width : first.maxWidth;
            height = first.kind == FrameSizeEntry::Kind::Discrete ? first.height : first.maxHeight;
        }
        uint32_t fourcc = entry->fourcc;
        if (camera.substitution && camera.substitution->askedFourcc == fourcc
            && camera.substitution->askedSize == QSize(int(width), int(height))) {
            fourcc = camera.substitution->givenFourcc;
            width = uint32_t(camera.substitution->givenSize.width());
            height = uint32_t(camera.substitution->givenSize.height());
        }
        pix.pixelformat = fourcc;
        pix.width = width;
        pix.height = height;
        pix.field = V4L2_FIELD_NONE;
        pix.bytesperline = bytesPerLine(fourcc, width);
        pix.sizeimage = uint32_t(frameCapacity(fourcc, width, height));
        pix.quantization = V4L2_QUANTIZATION_DEFAULT;
        if (request == VIDIOC_S_FMT) {
            handle.fourcc = fourcc;
            handle.width = width;
            handle.height = height;
            handle.fps = 30;
            if (size != entry->sizes.end() && !size->intervals.empty() && size->intervals.front().minNumerator > 0)
                handle.fps = double(size->intervals.front().minDenominator) / size->intervals.front().minNumerator;
        }
        return 0;
    }
    case VIDIOC_G_FMT: {
        auto& format = *static_cast<v4l2_format*>(argument);
        if (formats.empty() || formats.front().sizes.empty())
            return fail(EINVAL);
        const auto& first = formats.front().sizes.front();
        format.fmt.pix.pixelformat = handle.fourcc ? handle.fourcc : formats.front().fourcc;
        format.fmt.pix.width = handle.width ? handle.width : first.width;
        format.fmt.pix.height = handle.height ? handle.height : first.height;
        return 0;
    }
    case VIDIOC_S_PARM:
    case VIDIOC_G_PARM: {
        auto& parameters = *static_cast<v4l2_streamparm*>(argument);
        if (parameters.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
            return fail(EINVAL);
        auto& perFrame = parameters.parm.capture.timeperframe;
        if (request == VIDIOC_S_PARM && camera.parmAnswer > 0) {
            handle.fps = camera.parmAnswer;
        } else if (request == VIDIOC_S_PARM && perFrame.numerator > 0 && perFrame.denominator > 0) {
            // The driver keeps the fastest rate it has that is not faster
            // than asked; this one simply caps at what the format lists.
            handle.fps = std::min(handle.fps, double(perFrame.denominator) / perFrame.numerator);
        }
        // Like uvcvideo, the answer is the interval really set.
        parameters.parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
        perFrame = {1000, uint32_t(handle.fps * 1000.0 + 0.5)};
        return 0;
    }
    case VIDIOC_QUERYCTRL: {
        auto& control = *static_cast<v4l2_queryctrl*>(argument);
        const uint32_t id = control.id;
        control = {};
        control.id = id;
        if (id == V4L2_CID_FOCUS_AUTO && camera.focusAuto) {
            control.type = V4L2_CTRL_TYPE_BOOLEAN;
            control.maximum = 1;
            return 0;
        }
        if (id == V4L2_CID_EXPOSURE_AUTO_PRIORITY && camera.exposurePriority) {
            control.type = V4L2_CTRL_TYPE_BOOLEAN;
            control.maximum = 1;
            control.default_value = 1;
            return 0;
        }
        if (id == V4L2_CID_POWER_LINE_FREQUENCY && camera.powerLineFrequency) {
            control.type = V4L2_CTRL_TYPE_MENU;
            control.maximum = V4L2_CID_POWER_LINE_FREQUENCY_60HZ;
            control.default_value = V4L2_CID_POWER_LINE_FREQUENCY_50HZ;
            return 0;
        }
        return fail(EINVAL);
    }
    case VIDIOC_S_CTRL: {
        const auto& control = *static_cast<v4l2_control*>(argument);
        const bool present = (control.id == V4L2_CID_FOCUS_AUTO && camera.focusAuto)
            || (control.id == V4L2_CID_EXPOSURE_AUTO_PRIORITY && camera.exposurePriority)
            || (control.id == V4L2_CID_POWER_LINE_FREQUENCY && camera.powerLineFrequency);
        if (!present)
            return fail(EINVAL);
        handle.node->controls[control.id] = control.value;
        return 0;
    }
    case VIDIOC_REQBUFS: {
        auto& request = *static_cast<v4l2_requestbuffers*>(argument);
        if (request.memory != V4L2_MEMORY_MMAP)
            return fail(EINVAL);
        if (handle.streaming)
            return fail(EBUSY);
        if (request.count > 0 && handle.node->streaming)
            return fail(EBUSY);
        const size_t capacity = frameCapacity(handle.fourcc, handle.width, handle.height);
        handle.buffers.assign(std::min(request.count, 8u), std::vector<uint8_t>(capacity));
        handle.queued.assign(handle.buffers.size(), false);
        handle.used.assign(handle.buffers.size(), 0);
        request.count = uint32_t(handle.buffers.size());
        return 0;
    }
    case VIDIOC_QUERYBUF: {
        auto& buffer = *static_cast<v4l2_buffer*>(argument);
        if (buffer.index >= handle.buffers.size())
            return fail(EINVAL);
        buffer.length = uint32_t(handle.buffers[buffer.index].size());
        buffer.m.offset = buffer.index * kMmapStride;
        return 0;
    }
    case VIDIOC_QBUF: {
        auto& buffer = *static_cast<v4l2_buffer*>(argument);
        if (buffer.index >= handle.buffers.size() || handle.queued[buffer.index])
            return fail(EINVAL);
        handle.queued[buffer.index] = true;
        return 0;
    }
    case VIDIOC_STREAMON:
        if (camera.streamOnErrno)
            return fail(camera.streamOnErrno);
        if (std::find(camera.noBandwidthFor.begin(), camera.noBandwidthFor.end(), handle.fourcc)
            != camera.noBandwidthFor.end())
            return fail(ENOSPC);
        if (handle.node->streaming && !handle.streaming)
            return fail(EBUSY);
        handle.streaming = true;
        handle.node->streaming = true;
        handle.streamStart = Clock::now();
        handle.sequence = 0;
        negotiated_[handle.name] = {handle.fourcc, QSize(int(handle.width), int(handle.height)), handle.fps};
        return 0;
    case VIDIOC_STREAMOFF:
        handle.streaming = false;
        handle.node->streaming = false;
        std::fill(handle.queued.begin(), handle.queued.end(), false);
        return 0;
    default:
        return fail(ENOTTY);
    }
}

}  // namespace zavo::testing
