#pragma once
// The desktop's camera portal (org.freedesktop.portal.Camera): how a
// sandboxed process, which cannot open /dev/video*, reaches the cameras. The
// portal asks the user (or the desktop's privacy settings answer), then
// hands over a PipeWire connection that shows the cameras and nothing else.
#include "base/ZavoExport.h"
#include "camera/pipewire/Connection_p.h"

#include <QString>

#include <memory>

namespace zavo::platform::pipewire {

class ZAVO_EXPORT CameraPortal {
public:
    enum class Answer { Granted, Refused, Unavailable };

    /// Whether the process runs in a sandbox (Flatpak, Snap) whose cameras
    /// are reached through the portal only.
    static bool runsSandboxed();
    /// Whether the session bus has a desktop portal with the camera
    /// interface. Blocks for at most a bus round trip.
    static bool isAvailable();

    /// Asks the portal for the cameras and waits for its answer (the user
    /// may take a while: up to timeoutMs). Granted: *connection is the
    /// PipeWire remote the portal opened. Refused: the user or the
    /// desktop's settings said no. Unavailable: no portal, no answer, or no
    /// remote; *why says which. Any thread with no Qt event loop of its own
    /// running; it blocks.
    static Answer requestCameras(std::shared_ptr<Connection>* connection, QString* why, int timeoutMs = 120000);
};

}  // namespace zavo::platform::pipewire
