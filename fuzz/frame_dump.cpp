// Frame-dump files of any size and content read back by the frame-dump
// recorder: each input is one bf_sample_buffer file appended through the
// recorder's pool at one of several capture sizes. The files are raw rows
// without a header, so a file cut short, padded or from another capture size
// is what a crash, a full disk or a mixed-up folder leaves behind.
#include "FuzzSupport_p.h"

#include "recording/ZMSaveVideoService.h"

#include <array>
#include <future>
#include <map>

using namespace zavo;
using namespace zavo::platform;

namespace {

struct Size {
    int width;
    int height;
};

// Odd sizes give pool rows with padding; 180x320 is the encoded size itself.
constexpr std::array<Size, 7> kCaptureSizes{{{1, 1}, {2, 3}, {5, 7}, {16, 16}, {33, 9}, {64, 48}, {180, 320}}};
// A writer is finished and replaced after this many frames, so that the
// file under construction stays small however long the run.
constexpr int kFramesPerWriter = 200;

/// One recorder with an open writer for one capture size.
class Assembly {
public:
    explicit Assembly(Size size)
        : service_(ZMSaveVideoService::create(size.width, size.height, 30.0))
        , path_(fuzz::scratchPath() + QStringLiteral("/assembled-%1x%2.mp4").arg(size.width).arg(size.height))
    {
        open();
    }

    /// The open writer is finished, not dropped: at exit its encoder would
    /// otherwise still be winding down on its queue when the leak check runs.
    ~Assembly() { close(); }

    void append(const QString& framePath)
    {
        if (frames_ == kFramesPerWriter) {
            close();
            open();
        }
        service_->appendPixelBufferWithImageFullFilePath(framePath, adaptor_, MediaTime::make(frames_++, 30));
    }

private:
    void open()
    {
        AssetWriterInputPtr input;
        writer_ = service_->createWriterWithVideoOutputURL(path_, &input, &adaptor_);
        if (!writer_ || !writer_->startWriting())
            fuzz::fail("no writer for the assembled video");
        writer_->startSessionAtSourceTime(MediaTime::zero());
        if (!adaptor_->pixelBufferPool())
            fuzz::fail("a started writer without a pool");
        input_ = input;
        frames_ = 0;
    }

    void close()
    {
        input_->markAsFinished();
        std::promise<void> finished;
        writer_->finishWriting([&finished] { finished.set_value(); });
        finished.get_future().wait();
        writer_.reset();
        input_.reset();
        adaptor_.reset();
    }

    std::shared_ptr<ZMSaveVideoService> service_;
    QString path_;
    AssetWriterPtr writer_;
    AssetWriterInputPtr input_;
    AssetWriterInputPixelBufferAdaptorPtr adaptor_;
    int frames_ = 0;
};

/// The recorders of the whole run, one for each capture size met so far.
/// Ended at exit with every queue's thread, before the final leak check.
struct Assemblies {
    std::map<size_t, std::unique_ptr<Assembly>> bySize;

    ~Assemblies()
    {
        bySize.clear();
        fuzz::waitForQueuesToEnd();
    }
};

Assembly& assemblyFor(size_t sizeIndex)
{
    static Assemblies assemblies;
    auto& assembly = assemblies.bySize[sizeIndex];
    if (!assembly)
        assembly = std::make_unique<Assembly>(kCaptureSizes[sizeIndex]);
    return *assembly;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::setUpOnce();
    if (size == 0)
        return 0;
    // The first byte picks the capture size; the rest is the file.
    Assembly& assembly = assemblyFor(data[0] % kCaptureSizes.size());
    const QString framePath = fuzz::scratchPath() + QStringLiteral("/bf_sample_buffer_0.dat");
    fuzz::writeFileOrDie(framePath, data + 1, size - 1);
    assembly.append(framePath);
    if (QFile::exists(framePath))
        fuzz::fail("a frame file outlived its append");
    return 0;
}
