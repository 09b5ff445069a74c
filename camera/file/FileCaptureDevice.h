#pragma once
// A camera that plays a video file in real time, over and over: a stand-in
// for a webcam in demos, kiosks without a camera, tests and benchmarks.
//
// It offers one format, "420v" at the file's stored picture size and frame
// rate, and delivers the decoded frames (NV12, from a pool) at the pace of
// their timestamps. At the end of the file it starts again from the first
// frame, with time still running forward. A file that cannot be read at all
// is refused when the camera is made; one that breaks off mid-way plays the
// frames it can and loops over them.
//
// To make a file camera the host's front camera:
//
//     ErrorPtr error;
//     auto camera = FileCaptureDevice::create(path, CaptureDevicePosition::Front, &error);
//     if (camera)
//         CaptureDeviceRegistry::shared().registerDevice(camera);
#include "base/ZavoExport.h"
#include "camera/CaptureDevice.h"

#include <atomic>

namespace zavo::platform {

class ZAVO_EXPORT FileCaptureDevice final : public CaptureDevice {
public:
    /// Null, with an error, when path is not a readable video file.
    static std::shared_ptr<FileCaptureDevice> create(const QString& path, CaptureDevicePosition position,
                                                     ErrorPtr* error = nullptr, const QString& uniqueID = {});
    ~FileCaptureDevice() override;

    QString path() const { return path_; }
    QString location() const override { return path_; }
    /// Whether a session has the camera open right now.
    bool isOpen() const { return openStreams_.load() > 0; }
    /// Times playback went back to the first frame, over all streams.
    int loopCount() const { return loops_.load(); }

    std::unique_ptr<CaptureDeviceStream> openStream(const CaptureDeviceFormatPtr& format, ErrorPtr* error) override;

    struct ConstructionKey {};
    FileCaptureDevice(ConstructionKey, const QString& path, const QString& uniqueID, CaptureDevicePosition position,
                      CaptureDeviceFormatPtr format);

private:
    friend class FileStream;
    const QString path_;
    std::atomic<int> openStreams_{0};
    std::atomic<int> loops_{0};
};

}  // namespace zavo::platform
