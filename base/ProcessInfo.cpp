#include "base/ProcessInfo_p.h"

#include <atomic>
#include <tuple>

namespace zavo::platform {

namespace {
constexpr OperatingSystemVersion kBuiltIn{16, 0, 0};
// One word, so the version can be read from any queue without a lock.
std::atomic<unsigned long long> gVersion{(16ull << 32)};

unsigned long long pack(OperatingSystemVersion v)
{
    return (static_cast<unsigned long long>(v.majorVersion & 0xffff) << 32)
        | (static_cast<unsigned long long>(v.minorVersion & 0xffff) << 16)
        | static_cast<unsigned long long>(v.patchVersion & 0xffff);
}
}  // namespace

OperatingSystemVersion ProcessInfo::operatingSystemVersion()
{
    const auto v = gVersion.load(std::memory_order_relaxed);
    return {int((v >> 32) & 0xffff), int((v >> 16) & 0xffff), int(v & 0xffff)};
}

bool ProcessInfo::isOperatingSystemAtLeast(int major, int minor, int patch)
{
    const auto v = operatingSystemVersion();
    return std::tie(v.majorVersion, v.minorVersion, v.patchVersion) >= std::tie(major, minor, patch);
}

void ProcessInfo::setOperatingSystemVersion(OperatingSystemVersion version)
{
    gVersion.store(pack(version), std::memory_order_relaxed);
}

void ProcessInfo::resetOperatingSystemVersion() { setOperatingSystemVersion(kBuiltIn); }

}  // namespace zavo::platform
