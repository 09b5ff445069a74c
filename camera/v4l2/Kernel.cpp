#include "camera/v4l2/Kernel_p.h"
#include "base/ThreadSafety.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zavo::platform::v4l2 {

int Kernel::xioctl(int fd, unsigned long request, void* argument)
{
    int result;
    do {
        result = ioctl(fd, request, argument);
    } while (result < 0 && errno == EINTR);
    return result;
}

MappedMemory::MappedMemory(Kernel& kernel, void* address, size_t length)
    : kernel_(address != MAP_FAILED ? &kernel : nullptr)
    , address_(address != MAP_FAILED ? address : nullptr)
    , length_(address != MAP_FAILED ? length : 0)
{
}

void MappedMemory::reset()
{
    if (address_)
        kernel_->munmap(address_, length_);
    kernel_ = nullptr;
    address_ = nullptr;
    length_ = 0;
}

namespace {

class SystemKernel final : public Kernel {
public:
    SystemKernel()
    {
        // Without a watch (no inotify, /dev unreadable) every listing
        // rescans: slower, never stale.
        const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (watch >= 0 && ::inotify_add_watch(watch, "/dev", IN_CREATE | IN_DELETE | IN_ATTRIB | IN_MOVED_TO | IN_MOVED_FROM) >= 0)
            watch_ = UniqueFd(*this, watch);
        else if (watch >= 0)
            ::close(watch);
    }

    int open(const QString& path, int flags) override { return ::open(path.toLocal8Bit().constData(), flags); }
    int close(int fd) override { return ::close(fd); }
    int ioctl(int fd, unsigned long request, void* argument) override { return ::ioctl(fd, request, argument); }
    void* mmap(size_t length, int protection, int flags, int fd, off_t offset) override
    {
        return ::mmap(nullptr, length, protection, flags, fd, offset);
    }
    int munmap(void* address, size_t length) override { return ::munmap(address, length); }
    int poll(pollfd* fds, nfds_t count, int timeoutMs) override { return ::poll(fds, count, timeoutMs); }
    ssize_t read(int fd, void* buffer, size_t size) override { return ::read(fd, buffer, size); }
    ssize_t write(int fd, const void* buffer, size_t size) override { return ::write(fd, buffer, size); }
    int eventfd() override { return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

    QStringList videoNodes() override
    {
        return QDir(QStringLiteral("/dev")).entryList({QStringLiteral("video*")}, QDir::System);
    }

    bool nodesChanged() override
    {
        MutexLocker lock(mutex_);
        if (!watch_)
            return true;
        // Any event under /dev may be a camera: udev creates the node, then
        // fixes its group and mode (IN_ATTRIB), so both count.
        bool changed = std::exchange(first_, false);
        alignas(inotify_event) char events[4096];
        for (;;) {
            const ssize_t size = ::read(watch_.get(), events, sizeof events);
            if (size <= 0)
                break;
            for (ssize_t offset = 0; offset < size;) {
                const auto* event = reinterpret_cast<const inotify_event*>(events + offset);
                if (event->len > 0 && QLatin1String(event->name).startsWith(QLatin1String("video")))
                    changed = true;
                if (event->mask & IN_Q_OVERFLOW)
                    changed = true;
                offset += ssize_t(sizeof(inotify_event) + event->len);
            }
        }
        return changed;
    }

    QString persistentName(const QString& node, Link kind) override
    {
        const QDir links(kind == Link::ById ? QStringLiteral("/dev/v4l/by-id") : QStringLiteral("/dev/v4l/by-path"));
        const QString target = QStringLiteral("/dev/") + node;
        for (const QFileInfo& link : links.entryInfoList(QDir::System | QDir::Files | QDir::NoDotAndDotDot)) {
            if (link.isSymLink() && QFileInfo(link.symLinkTarget()).absoluteFilePath() == target)
                return link.fileName();
        }
        return {};
    }

    int usbSpeedMbps(const QString& node) override
    {
        // The node's device is a USB interface; its parent, the USB device,
        // says the speed the port negotiated.
        const QString interface =
            QFileInfo(QStringLiteral("/sys/class/video4linux/%1/device").arg(node)).canonicalFilePath();
        if (interface.isEmpty())
            return 0;
        QFile speed(QFileInfo(interface).absolutePath() + QStringLiteral("/speed"));
        if (!speed.open(QIODevice::ReadOnly))
            return 0;
        return int(speed.readAll().trimmed().toDouble());
    }

private:
    Mutex mutex_;
    UniqueFd watch_;     // set once in the constructor
    bool first_ ZAVO_GUARDED_BY(mutex_) = true;
};

}  // namespace

std::shared_ptr<Kernel> systemKernel()
{
    static const std::shared_ptr<Kernel> kernel = std::make_shared<SystemKernel>();
    return kernel;
}

}  // namespace zavo::platform::v4l2
