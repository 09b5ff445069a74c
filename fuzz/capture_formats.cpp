// Format lists as a camera driver may report them, in any order and number:
// four-character codes, sizes (zero, negative, huge) and frame-rate ranges
// (none, inverted, NaN, infinite), on a synthetic camera. The capture
// manager chooses a format for them and configures a session with it.
#include "FuzzSupport_p.h"

#include "capture/ZMCameraCaptureManager.h"
#include "shell/DeviceScreen.h"
#include "shell/DeviceScreen_p.h"
#include "base/ProcessInfo_p.h"
#include "camera/synthetic/SyntheticCaptureDevice.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <limits>

using namespace zavo;
using namespace zavo::platform;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr size_t kMaxFormats = 24;
constexpr size_t kMaxRanges = 3;

uint32_t consumeCode(FuzzedDataProvider& input)
{
    // Real codes make a match possible; any 32 bits test the conversion.
    static constexpr uint32_t kCodes[] = {fourCharCode("420v"), fourCharCode("420f"), fourCharCode("BGRA"),
                                          fourCharCode("YUYV"), fourCharCode("MJPG"), 0x00000020u};
    return input.ConsumeBool() ? input.PickValueInArray(kCodes) : input.ConsumeIntegral<uint32_t>();
}

int consumeDimension(FuzzedDataProvider& input)
{
    static constexpr int kSizes[] = {720, 1280, 480, 640, 1920, 1080, 0, -720};
    return input.ConsumeBool() ? input.PickValueInArray(kSizes) : input.ConsumeIntegral<int>();
}

double consumeRate(FuzzedDataProvider& input)
{
    static constexpr double kRates[] = {30.0, 29.97, 60.0, 15.0, 0.0, -1.0, kNaN, kInfinity, 30.000001};
    return input.ConsumeBool() ? input.PickValueInArray(kRates) : input.ConsumeFloatingPoint<double>();
}

double consumeWanted(FuzzedDataProvider& input, double usual)
{
    static constexpr double kSpecial[] = {720.0, 1280.0, 0.0, -1.0, kNaN, 1e300};
    switch (input.ConsumeIntegralInRange(0, 3)) {
    case 0: return usual;
    case 1: return input.PickValueInArray(kSpecial);
    case 2: return input.ConsumeIntegralInRange(-2, 4000);
    default: return input.ConsumeFloatingPoint<double>();
    }
}

std::vector<CaptureDeviceFormatPtr> consumeFormats(FuzzedDataProvider& input)
{
    std::vector<CaptureDeviceFormatPtr> formats(input.ConsumeIntegralInRange<size_t>(0, kMaxFormats));
    for (auto& format : formats) {
        const uint32_t code = consumeCode(input);
        const int width = consumeDimension(input);
        const int height = consumeDimension(input);
        std::vector<FrameRateRange> ranges(input.ConsumeIntegralInRange<size_t>(0, kMaxRanges));
        for (auto& range : ranges)
            range = {consumeRate(input), consumeRate(input)};
        format = std::make_shared<const CaptureDeviceFormat>(code, width, height, std::move(ranges));
    }
    return formats;
}

void checkFourCharCodes(const std::vector<CaptureDeviceFormatPtr>& formats)
{
    for (const auto& format : formats) {
        const uint32_t code = format->mediaSubType();
        const QString text = FourCharCodetoString(code);
        if (text.size() != 4)
            fuzz::fail("a four-character code that is not four characters");
        for (int i = 0; i < 4; ++i) {
            if (text.at(i).unicode() != ((code >> (24 - 8 * i)) & 0xff))
                fuzz::fail("a four-character code character that is not its byte");
        }
    }
}

/// The choice made the slow, obvious way: the last format in the list with
/// the exact size, "420v", and a first range no faster than maximumFPS.
CaptureDeviceFormatPtr expectedFormat(const std::vector<CaptureDeviceFormatPtr>& formats, double width,
                                      double height, double maximumFPS)
{
    CaptureDeviceFormatPtr chosen;
    for (const auto& format : formats) {
        const auto& ranges = format->videoSupportedFrameRateRanges();
        const double maxRate = ranges.empty() ? 0.0 : ranges.front().maxFrameRate;
        if (format->mediaSubType() == fourCharCode("420v") && double(format->width()) == width
            && double(format->height()) == height && maxRate <= maximumFPS)
            chosen = format;
    }
    return chosen;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::setUpOnce();
    static const bool registryReady = [] {
        CaptureDeviceRegistry::shared().setProviders({});
        return true;
    }();
    (void)registryReady;

    FuzzedDataProvider input(data, size);
    SyntheticCaptureDevice::Configuration configuration;
    configuration.uniqueID = QStringLiteral("fuzz:0");
    configuration.position = input.ConsumeBool() ? CaptureDevicePosition::Front : CaptureDevicePosition::Back;
    configuration.lockFails = input.ConsumeIntegralInRange(0, 7) == 0;
    configuration.frameSource = SyntheticCaptureDevice::FrameSource::Manual;
    configuration.formats = consumeFormats(input);
    configuration.activeFormatIndex = input.ConsumeIntegral<int>();
    const double width = consumeWanted(input, 720.0);
    const double height = consumeWanted(input, 1280.0);
    const double fps = consumeWanted(input, 30.0);
    screens::setMainScreenBoundsOverride(QRectF(0, 0, 320, input.ConsumeBool() ? 480 : 568));
    // Both recorders: the movie-output one (16.0) and the frame-dump one.
    ProcessInfo::setOperatingSystemVersion({input.ConsumeBool() ? 16 : 15, 0, 0});

    auto device = SyntheticCaptureDevice::create(configuration);
    const auto formats = device->formats();
    checkFourCharCodes(formats);

    // One manager for the run: each configuration replaces the session,
    // camera and recorder of the one before, as a camera switch does.
    static const auto manager = ZMCameraCaptureManager::create();
    manager->setFrameWidth(width);
    manager->setFrameHeight(height);
    manager->setFps(fps);
    const auto expected = expectedFormat(formats, width, height, fps);
    if (manager->findRequiredFormatWithDevice(device, width, height, fps) != expected)
        fuzz::fail("the chosen format is not the last qualifying one");

    CaptureDeviceRegistry::shared().unregisterAll();
    CaptureDeviceRegistry::shared().registerDevice(device);
    manager->configureWithCameraPosition(configuration.position, {});
    manager->captureSessionQueue()->sync([] {});
    if (manager->camera() != device)
        fuzz::fail("configuration did not take the only camera");
    if (expected && !configuration.lockFails && device->activeFormat() != expected)
        fuzz::fail("the chosen format did not become the active one");
    if (auto session = manager->session())
        (void)device->formatForSessionPreset(session->sessionPreset());
    CaptureDeviceRegistry::shared().unregisterAll();
    return 0;
}
