#pragma once
// Every call the V4L2 backend makes to the kernel goes through Kernel, so
// that tests can put a fake device behind the real backend code: the fake
// answers the same ioctls a driver answers, with the same errno values.
//
// The calls keep the kernel's own signatures and conventions (-1 and errno,
// MAP_FAILED) so that the backend reads like any V4L2 program.
#include "base/ZavoExport.h"
#include <QString>
#include <QStringList>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include <poll.h>
#include <sys/types.h>

namespace zavo::platform::v4l2 {

class ZAVO_EXPORT Kernel {
public:
    virtual ~Kernel() = default;

    virtual int open(const QString& path, int flags) = 0;
    virtual int close(int fd) = 0;
    virtual int ioctl(int fd, unsigned long request, void* argument) = 0;
    virtual void* mmap(size_t length, int protection, int flags, int fd, off_t offset) = 0;
    virtual int munmap(void* address, size_t length) = 0;
    virtual int poll(pollfd* fds, nfds_t count, int timeoutMs) = 0;
    virtual ssize_t read(int fd, void* buffer, size_t size) = 0;
    virtual ssize_t write(int fd, const void* buffer, size_t size) = 0;
    /// A non-blocking counter the stream's poll also waits on, so another
    /// thread can wake a capture thread blocked in poll.
    virtual int eventfd() = 0;

    /// The capture node names present now ("video0", ...), in any order.
    virtual QStringList videoNodes() = 0;
    /// Whether /dev changed since the last call (a node appeared or went).
    /// The first call answers true.
    virtual bool nodesChanged() = 0;

    enum class Link { ById, ByPath };
    /// The name udev linked to the node ("video0") under /dev/v4l/by-id or
    /// /dev/v4l/by-path ("usb-046d_HD_Pro_Webcam_C920_A1B2C3D4-video-index0",
    /// "pci-0000:00:14.0-usb-0:1:1.0-video-index0"); empty where there is none.
    virtual QString persistentName(const QString& node, Link kind) = 0;
    /// The speed of the USB port the node's camera is on, in Mbit/s (12 full
    /// speed, 480 high speed, 5000 and more super speed); 0 when the camera
    /// is not on USB or the kernel does not say.
    virtual int usbSpeedMbps(const QString& node) = 0;

    /// ioctl retried while a signal interrupts it.
    int xioctl(int fd, unsigned long request, void* argument);
};

/// The machine's kernel and /dev.
ZAVO_EXPORT std::shared_ptr<Kernel> systemKernel();

/// An open descriptor, closed through the kernel it came from.
class ZAVO_EXPORT UniqueFd {
public:
    UniqueFd() = default;
    UniqueFd(Kernel& kernel, int fd) : kernel_(fd >= 0 ? &kernel : nullptr), fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept
        : kernel_(std::exchange(other.kernel_, nullptr)), fd_(std::exchange(other.fd_, -1))
    {
    }
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            reset();
            kernel_ = std::exchange(other.kernel_, nullptr);
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset()
    {
        if (fd_ >= 0)
            kernel_->close(fd_);
        kernel_ = nullptr;
        fd_ = -1;
    }

private:
    Kernel* kernel_ = nullptr;
    int fd_ = -1;
};

/// One mapping of a device buffer, unmapped through the kernel it came from.
class ZAVO_EXPORT MappedMemory {
public:
    MappedMemory() = default;
    MappedMemory(Kernel& kernel, void* address, size_t length);
    ~MappedMemory() { reset(); }
    MappedMemory(MappedMemory&& other) noexcept
        : kernel_(std::exchange(other.kernel_, nullptr))
        , address_(std::exchange(other.address_, nullptr))
        , length_(std::exchange(other.length_, 0))
    {
    }
    MappedMemory& operator=(MappedMemory&& other) noexcept
    {
        if (this != &other) {
            reset();
            kernel_ = std::exchange(other.kernel_, nullptr);
            address_ = std::exchange(other.address_, nullptr);
            length_ = std::exchange(other.length_, 0);
        }
        return *this;
    }
    MappedMemory(const MappedMemory&) = delete;
    MappedMemory& operator=(const MappedMemory&) = delete;

    const uint8_t* data() const { return static_cast<const uint8_t*>(address_); }
    size_t size() const { return length_; }
    explicit operator bool() const { return address_ != nullptr; }
    void reset();

private:
    Kernel* kernel_ = nullptr;
    void* address_ = nullptr;
    size_t length_ = 0;
};

}  // namespace zavo::platform::v4l2
