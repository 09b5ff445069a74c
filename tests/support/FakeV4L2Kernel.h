#pragma once
// A kernel with fake V4L2 cameras behind the real V4L2 backend: it answers
// the ioctls a UVC driver answers, from a recorded format list, streams
// frames from a FrameFeed at the negotiated rate, and misbehaves on request
// the way real drivers do (busy, forbidden, unplugged, a format listed and
// then refused, damaged frames, buffers flagged as erroneous or empty, no
// USB bandwidth at stream-on, a stall, a slower rate than asked). It also
// stands in for what udev and sysfs say about a node (by-id and by-path
// names, USB speed) and plays media-controller nodes such as an IPU6 laptop's.
// Real descriptors (the stream's wake-up eventfd) pass through to the
// machine's kernel.
#include "base/ThreadSafety.h"
#include "V4L2FormatList.h"
#include "camera/v4l2/Kernel_p.h"

#include <QByteArray>
#include <QImage>
#include <QSize>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace zavo::testing {

/// Frame bytes in a V4L2 format: the index-th frame of a feed, encoded for
/// fourcc at width x height.
using FrameFeed = std::function<QByteArray(uint32_t fourcc, int width, int height, int64_t index)>;

struct FakeCamera {
    CameraFormatList formats;
    QString card = QStringLiteral("Fake Webcam");
    QString busInfo = QStringLiteral("usb-fake-1");
    bool focusAuto = false;
    FrameFeed feed;
    /// Frames come as fast as the capture thread takes them instead of at
    /// the negotiated rate (benchmarks).
    bool unpaced = false;

    // Faults.
    int openErrno = 0;      // open() fails with it
    int setFormatErrno = 0; // VIDIOC_S_FMT fails with it (EBUSY: streaming elsewhere)
    int streamOnErrno = 0;  // VIDIOC_STREAMON fails with it
    /// VIDIOC_S_FMT for this fourcc and size answers with another one.
    struct Substitution {
        uint32_t askedFourcc;
        QSize askedSize;
        uint32_t givenFourcc;
        QSize givenSize;
    };
    std::optional<Substitution> substitution;
    /// Every n-th frame (1-based) is cut to half its bytes; 0: never.
    int truncateEvery = 0;
    /// Every n-th frame has its bytes scrambled (JPEG header kept); 0: never.
    int corruptEvery = 0;
    enum class BufferFault { None, ErrorFlag, Empty };
    /// What the driver does with frame n (1-based): hands it back flagged
    /// V4L2_BUF_FLAG_ERROR, or with bytesused 0. Null: nothing.
    std::function<BufferFault(int64_t number)> bufferFault;
    /// Frames sent before the camera goes silent (still streaming, no more
    /// buffers); -1: never.
    int64_t stallAfter = -1;
    /// VIDIOC_STREAMON fails with ENOSPC in these formats (fourccs), as
    /// uvcvideo does when the bus has no room for them.
    std::vector<uint32_t> noBandwidthFor;
    /// VIDIOC_S_PARM sets this rate whatever was asked; 0: the asked one,
    /// capped at the format's fastest.
    double parmAnswer = 0;

    // What udev and sysfs say.
    /// A raw node of a media-controller pipeline (V4L2_CAP_IO_MC).
    bool mediaController = false;
    QString byId;    // its name under /dev/v4l/by-id; empty: none
    QString byPath;  // under /dev/v4l/by-path
    int usbSpeedMbps = 0;

    // Controls beside focus; what the backend sets is read back through
    // FakeV4L2Kernel::control.
    bool exposurePriority = false;    // V4L2_CID_EXPOSURE_AUTO_PRIORITY
    bool powerLineFrequency = false;  // V4L2_CID_POWER_LINE_FREQUENCY (disabled, 50, 60 Hz)
};

class FakeV4L2Kernel final : public platform::v4l2::Kernel {
public:
    FakeV4L2Kernel();
    ~FakeV4L2Kernel() override;

    /// Makes /dev/<node> ("video0") a camera, or takes it away: an open
    /// stream then fails the way an unplugged USB camera fails (POLLERR,
    /// ENODEV).
    void plug(const QString& node, std::shared_ptr<const FakeCamera> camera);
    void unplug(const QString& node);

    struct Negotiated {
        uint32_t fourcc = 0;
        QSize size;
        double fps = 0;
    };
    /// The format the last stream of node was started in.
    std::optional<Negotiated> negotiated(const QString& node) const;
    /// Frames handed to the backend so far, over all streams.
    int64_t deliveredFrames() const;
    /// Fake descriptors open now (0 once every stream and probe closed).
    int openDescriptors() const;
    /// Mappings not unmapped yet.
    int liveMappings() const;
    /// The value last set on a control of node; nullopt when never set.
    std::optional<int> control(const QString& node, uint32_t id) const;

    int open(const QString& path, int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void* argument) override;
    void* mmap(size_t length, int protection, int flags, int fd, off_t offset) override;
    int munmap(void* address, size_t length) override;
    int poll(pollfd* fds, nfds_t count, int timeoutMs) override;
    ssize_t read(int fd, void* buffer, size_t size) override;
    ssize_t write(int fd, const void* buffer, size_t size) override;
    int eventfd() override;
    QStringList videoNodes() override;
    bool nodesChanged() override;
    QString persistentName(const QString& node, Link kind) override;
    int usbSpeedMbps(const QString& node) override;

private:
    struct Node;
    struct Handle;
    using Clock = std::chrono::steady_clock;

    int ioctlLocked(Handle& handle, unsigned long request, void* argument) ZAVO_REQUIRES(mutex_);
    Handle* handleOf(int fd) ZAVO_REQUIRES(mutex_);
    bool frameDue(const Handle& handle, Clock::time_point now, Clock::time_point* due) const;

    mutable zavo::Mutex mutex_;
    std::map<QString, std::shared_ptr<Node>> nodes_ ZAVO_GUARDED_BY(mutex_);
    std::map<int, std::unique_ptr<Handle>> handles_ ZAVO_GUARDED_BY(mutex_);
    std::map<QString, Negotiated> negotiated_ ZAVO_GUARDED_BY(mutex_);
    int nextFd_ ZAVO_GUARDED_BY(mutex_) = 100000;
    bool changed_ ZAVO_GUARDED_BY(mutex_) = true;
    int64_t delivered_ ZAVO_GUARDED_BY(mutex_) = 0;
    int mappings_ ZAVO_GUARDED_BY(mutex_) = 0;
};

/// A feed that plays a video file: each frame is fitted into the asked size
/// (its whole picture, centred, black around it) and encoded as MJPEG, YUYV
/// or NV12. Frames are made once per format and size and then reused.
FrameFeed clipFeed(const QString& path, int maxFrames = 90);
/// A feed of one still picture, drawn by draw at each size asked for (so
/// nothing is scaled or letterboxed), then sent as clipFeed's are.
FrameFeed pictureFeed(std::function<QImage(QSize)> draw);
/// A feed of the JPEG frames stored in an AVI or other file as they are
/// (a real webcam recording); other formats or sizes get empty frames.
FrameFeed storedJpegFeed(const QString& path, QSize* size);

}  // namespace zavo::testing
