// What a webcam tells the V4L2 backend, from the format list to the frame
// bytes: the input is a format list as v4l2-ctl prints it, then frames. The
// list goes through the recorded-list parser into a fake camera, the real
// backend enumerates it, ranks its formats and streams the chosen one; the
// frames are served as the camera's buffers (cut, padded or garbage JPEG and
// raw frames included) until they run out, when the camera is unplugged.
// Nothing may crash, hang, leak a descriptor or a mapping, or deliver a
// frame of another size than negotiated.
#include "FuzzSupport_p.h"

#include "FakeWebcams.h"
#include "camera/CaptureDevice_p.h"

#include <fuzzer/FuzzedDataProvider.h>

using namespace zavo;
using namespace zavo::platform;
using namespace zavo::testing;

namespace {
constexpr size_t kMaxFrames = 6;
constexpr size_t kMaxFrameBytes = 1 << 16;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::setUpOnce();
    FuzzedDataProvider input(data, size);
    const std::string listText = input.ConsumeRandomLengthString(32768);
    auto list = parseFormatList(QString::fromUtf8(listText.data(), int(listText.size())));
    if (!list)
        return 0;
    for (const auto& format : list->formats) {
        for (const auto& frameSize : format.sizes) {
            if (frameSize.intervals.size() > size_t(kMaxIntervalsPerSize))
                fuzz::fail("the parser kept more intervals than its bound");
        }
    }
    if (list->formats.size() > size_t(kMaxFormats))
        fuzz::fail("the parser kept more formats than its bound");

    auto frames = std::make_shared<std::vector<QByteArray>>();
    while (frames->size() < kMaxFrames && input.remaining_bytes() > 0) {
        const std::string bytes = input.ConsumeRandomLengthString(kMaxFrameBytes);
        frames->emplace_back(bytes.data(), qsizetype(bytes.size()));
    }

    FakeWebcams webcams;
    auto camera = std::make_shared<FakeCamera>();
    camera->formats = *list;
    camera->unpaced = true;
    std::weak_ptr<FakeV4L2Kernel> kernel = webcams.kernel;
    camera->feed = [frames, kernel](uint32_t, int, int, int64_t index) {
        if (index >= int64_t(frames->size())) {
            if (auto k = kernel.lock())
                k->unplug(QStringLiteral("video0"));
            return QByteArray();
        }
        return frames->at(size_t(index));
    };
    webcams.kernel->plug(QStringLiteral("video0"), camera);
    auto devices = CaptureDeviceRegistry::shared().allDevices();
    if (devices.size() != 1)
        return 0;  // nothing this backend can decode
    auto device = devices.front();
    const auto candidates = device->formatsForSessionPreset(CaptureSessionPreset::Preset1280x720);
    if (candidates.size() != device->formats().size())
        fuzz::fail("ranking lost or invented a format");
    ErrorPtr error;
    auto stream = device->openStream(candidates.front(), &error);
    if (stream) {
        SampleBuffer frame;
        const auto negotiated = webcams.kernel->negotiated(QStringLiteral("video0"));
        for (size_t read = 0; read <= kMaxFrames; ++read) {
            if (stream->read(frame) != CaptureDeviceStream::ReadResult::Frame)
                break;
            const auto pixels = frame.imageBuffer();
            if (!negotiated || QSize(pixels->width(), pixels->height()) != negotiated->size)
                fuzz::fail("a frame of another size than negotiated");
        }
        stream.reset();
    }
    if (webcams.kernel->openDescriptors() != 0 || webcams.kernel->liveMappings() != 0)
        fuzz::fail("a descriptor or a mapping was left open");
    return 0;
}
