#pragma once
// Which camera the demo's sessions see as their front camera.
#include "camera/CaptureDevice.h"

#include <QString>
#include <memory>
#include <optional>

class QTemporaryFile;

namespace zavo::demo {

struct CameraChoice {
    enum class Kind {
        Embedded,   // the sample face clip built into the demo
        Synthetic,  // the platform's test-pattern camera
        V4L2,       // a camera of the machine: a webcam node such as /dev/video0, a PipeWire
                    // camera (pipewire:<node name>), or (no path) the front webcam
        File,       // any video file, played in real time
    };
    Kind kind = Kind::Embedded;
    QString path;  // camera location or video file
};

/// Reads the --camera value: "default", "synthetic", "webcam", "/dev/videoN",
/// "pipewire:<node name>" or a path. nullopt, with problem set, for a node or file that does not exist.
std::optional<CameraChoice> parseCameraChoice(const QString& value, QString* problem);

/// The chosen camera made the process's only front camera for as long as
/// this object lives. Main thread.
class FrontCamera {
public:
    /// nullptr, with problem set, when the camera cannot be used. Webcams
    /// come from webcamProviders (the machine's by default) and only for a
    /// webcam choice: a laptop's own camera would otherwise compete with a
    /// clip for the front position.
    static std::unique_ptr<FrontCamera> install(
        const CameraChoice& choice, QString* problem,
        std::vector<platform::CaptureDeviceProviderPtr> webcamProviders = platform::defaultCaptureDeviceProviders());
    /// Takes the camera out of discovery and deletes the extracted clip.
    ~FrontCamera();
    FrontCamera(const FrontCamera&) = delete;
    FrontCamera& operator=(const FrontCamera&) = delete;

    /// For the summary and the window title: "embedded clip", a path, ...
    QString description() const { return description_; }
    /// The video file the camera plays, when it plays one.
    QString clipPath() const;

private:
    FrontCamera() = default;
    bool installEmbedded(QString* problem);
    bool installFile(const QString& path, QString* problem);
    bool installV4L2(const QString& node, QString* problem);
    void installSynthetic();

    QString description_;
    std::unique_ptr<QTemporaryFile> extractedClip_;
    platform::CaptureDevicePtr device_;
    QString v4l2Node_;
};

}  // namespace zavo::demo
