#pragma once
// The platform layer's own API level. Live movie-file recording exists from
// 16.0 on; tests and hosts lower the version to take the older code paths.
#include "base/ZavoExport.h"
#include <QString>

namespace zavo::platform {

struct ZAVO_EXPORT OperatingSystemVersion {
    int majorVersion = 16;
    int minorVersion = 0;
    int patchVersion = 0;
};

class ZAVO_EXPORT ProcessInfo {
public:
    static OperatingSystemVersion operatingSystemVersion();
    static bool isOperatingSystemAtLeast(int major, int minor, int patch);
    /// Overrides the reported version for the whole process. Thread-safe.
    static void setOperatingSystemVersion(OperatingSystemVersion version);
    /// Back to the built-in version (16.0.0).
    static void resetOperatingSystemVersion();
};

}  // namespace zavo::platform
