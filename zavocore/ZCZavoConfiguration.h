#pragma once
// The core framework's configuration record. Hosts make one, change what they
// need and hand it to the builder; the component only reads it.
#include <QString>
#include <memory>

namespace zavo::core {

class ZCZavoConfiguration {
public:
    ZCZavoConfiguration();

    /// Shows the button that switches between front and back camera.
    bool isShowSwitchCamera = true;
    /// Keeps the session video only when a face was seen during the session.
    bool saveOnlyFaceVideo = false;
    /// Versions shown by the about screen.
    QString zavoIDSDKVersion;
    QString zavoSDKVersion;
};

using ZCZavoConfigurationPtr = std::shared_ptr<ZCZavoConfiguration>;

}  // namespace zavo::core
