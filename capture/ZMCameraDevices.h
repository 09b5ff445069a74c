#pragma once
// The cameras a host can offer its user, and the one a camera screen uses.
//
// A session asks for the front camera. On a desktop a webcam faces its user:
// a camera built into the screen faces front; when no camera does, the first
// webcam serves as front and the others as back cameras, so the screen's
// switch button reaches them. A host that lets its user pick sets the picked
// camera as preferred: it then serves as the front camera of every session
// that starts after the call, and the other cameras as back cameras.
//
// The list is read fresh on every call: a webcam plugged in while a screen is
// open is listed (and reachable by switching) from then on, an unplugged one
// is not. Thread-safe.
#include "base/ZavoExport.h"
#include "camera/CaptureTypes.h"

#include <QString>
#include <vector>

namespace zavo {

struct ZAVO_EXPORT ZMCameraDeviceInfo {
    /// Stable across runs: for a webcam udev's name for it, which follows
    /// the camera where it has a serial number
    /// ("v4l2:usb-046d_HD_Pro_Webcam_C920_A1B2C3D4-video-index0") and else
    /// its port ("v4l2:pci-0000:00:14.0-usb-0:1:1.0-video-index0").
    QString uniqueID;
    /// The name the camera gives itself; a second camera of the same name
    /// gets a number ("HD Webcam (2)").
    QString name;
    /// Front or back as sessions see it now.
    platform::CaptureDevicePosition position = platform::CaptureDevicePosition::Unspecified;
    /// Where it lives: "/dev/video0", a video file's path, or empty.
    QString location;
    /// Whether it is the camera sessions start with.
    bool preferred = false;
};

class ZAVO_EXPORT ZMCameraDevices {
public:
    /// The cameras present now, the one sessions start with first.
    static std::vector<ZMCameraDeviceInfo> availableCameras();
    /// Makes the camera with this unique ID or location the one sessions
    /// start with; false (and nothing changes) when no such camera is
    /// present now. An empty value returns to the automatic choice.
    static bool setPreferredCamera(const QString& uniqueIDOrLocation);
    /// The value set last; empty for the automatic choice.
    static QString preferredCamera();

    /// The mains frequency (50 or 60 Hz) webcams that have the control are
    /// set to, so that lamps do not flicker in the picture; 0 returns to the
    /// automatic choice from the system's time zone (60 Hz in most of the
    /// Americas, Taiwan, South Korea, the Philippines and Saudi Arabia, 50 Hz
    /// elsewhere). False (and nothing changes) for any other value. Takes
    /// effect when a camera next starts.
    static bool setPowerLineFrequency(int hertz);
    /// The value set last; 0 for the automatic choice.
    static int powerLineFrequency();
};

}  // namespace zavo
