#include "capture/ZMCameraDevices.h"

#include "camera/CaptureDevice.h"
#include "camera/CaptureDevice_p.h"

namespace zavo {

using platform::CaptureDeviceRegistry;

std::vector<ZMCameraDeviceInfo> ZMCameraDevices::availableCameras()
{
    const auto devices = CaptureDeviceRegistry::shared().allDevices();
    const QString preferred = CaptureDeviceRegistry::shared().preferredDevice();
    std::vector<ZMCameraDeviceInfo> cameras;
    for (const auto& device : devices) {
        if (!device->isConnected())
            continue;
        const bool isPreferred =
            !preferred.isEmpty() && (device->uniqueID() == preferred || device->location() == preferred);
        cameras.push_back({device->uniqueID(), device->localizedName(), device->position(), device->location(),
                           isPreferred});
    }
    return cameras;
}

bool ZMCameraDevices::setPreferredCamera(const QString& uniqueIDOrLocation)
{
    if (uniqueIDOrLocation.isEmpty()) {
        CaptureDeviceRegistry::shared().setPreferredDevice({});
        return true;
    }
    for (const auto& device : CaptureDeviceRegistry::shared().allDevices()) {
        if (device->isConnected()
            && (device->uniqueID() == uniqueIDOrLocation || device->location() == uniqueIDOrLocation)) {
            CaptureDeviceRegistry::shared().setPreferredDevice(uniqueIDOrLocation);
            return true;
        }
    }
    return false;
}

QString ZMCameraDevices::preferredCamera() { return CaptureDeviceRegistry::shared().preferredDevice(); }

bool ZMCameraDevices::setPowerLineFrequency(int hertz)
{
    if (hertz != 0 && hertz != 50 && hertz != 60)
        return false;
    platform::setPowerLineFrequencyChoice(hertz);
    return true;
}

int ZMCameraDevices::powerLineFrequency() { return platform::powerLineFrequencyChoice(); }

}  // namespace zavo
