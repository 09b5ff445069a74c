#pragma once
// What the camera screen's suites share: a host delegate that records each
// outcome with the thread it arrived on, and a detector the test scripts.
#include "base/ThreadSafety.h"
#include "camera-screen/ZMCameraBuilder.h"
#include "camera-screen/ZMCameraViewController_p.h"
#include "media/Asset.h"
#include "camera/CaptureAuthorization_p.h"
#include "base/DispatchQueue.h"

#include <QCoreApplication>
#include <QPointer>
#include <QWidget>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <mutex>
#include <pthread.h>

namespace zavo::testing {

inline QString dataPath(const char* name) { return QStringLiteral(ZAVO_TEST_DATA_DIR "/") + QLatin1String(name); }

/// Frames a decoder reads from the file's video track (at most limit).
inline int decodableFrames(const QString& path, int limit = 10)
{
    auto asset = platform::Asset::assetWithPath(path);
    const auto tracks = asset->tracksWithMediaType(platform::MediaType::Video);
    auto reader = platform::AssetReader::create(asset);
    if (tracks.empty() || !reader)
        return 0;
    auto output = platform::AssetReaderTrackOutput::create(tracks.front());
    reader->addOutput(output);
    if (!reader->startReading())
        return 0;
    int frames = 0;
    while (frames < limit && output->copyNextSampleBuffer().isValid())
        ++frames;
    return frames;
}

/// The calling thread's name as the system knows it ("main" for the GUI
/// thread, the queue label for a dispatch queue).
inline QString currentThreadName()
{
    if (QThread::currentThread() == QCoreApplication::instance()->thread())
        return QStringLiteral("main");
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return QString::fromLatin1(name);
}

struct Outcome {
    core::ZCBestShotPtr bestShot;          // set for a best shot
    std::optional<ZMCameraError> error;    // set for an error
    std::optional<QString> videoFile;
    QString thread;
};

class HostDelegate final : public ZMCameraDelegate {
public:
    void bestShot(core::ZCBestShotPtr bestShot, std::optional<QString> videoFile) override
    {
        record({std::move(bestShot), std::nullopt, std::move(videoFile), currentThreadName()});
    }
    void error(const ZMCameraError& error, std::optional<QString> videoFile) override
    {
        record({nullptr, error, std::move(videoFile), currentThreadName()});
    }
    void videoFinished(std::optional<QString> videoFile, platform::ErrorPtr error) override
    {
        zavo::MutexLocker lock(mutex_);
        finals_.push_back({std::move(videoFile), std::move(error), int(outcomes_.size())});
    }

    /// One videoFinished call, and how many outcomes had arrived before it.
    struct VideoFinal {
        std::optional<QString> videoFile;
        platform::ErrorPtr error;
        int outcomesBefore = 0;
    };
    std::vector<VideoFinal> finals() const
    {
        zavo::MutexLocker lock(mutex_);
        return finals_;
    }

    std::vector<Outcome> outcomes() const
    {
        zavo::MutexLocker lock(mutex_);
        return outcomes_;
    }
    int count() const { return int(outcomes().size()); }
    Outcome last() const { return outcomes().back(); }

    /// Counts every outcome here too; outlives the delegate, so a test can
    /// see what reached a host after it let go.
    std::shared_ptr<std::atomic<int>> tally = std::make_shared<std::atomic<int>>(0);

private:
    void record(Outcome outcome)
    {
        ++*tally;
        zavo::MutexLocker lock(mutex_);
        outcomes_.push_back(std::move(outcome));
    }
    mutable zavo::Mutex mutex_;
    std::vector<Outcome> outcomes_ ZAVO_GUARDED_BY(mutex_);
    std::vector<VideoFinal> finals_ ZAVO_GUARDED_BY(mutex_);
};

/// Installs the default permission policy's replacement for one test.
struct PermissionScope {
    explicit PermissionScope(platform::AuthorizationStatus status)
        : policy(std::make_shared<platform::FixedCaptureAuthorizationPolicy>(status))
    {
        platform::CaptureAuthorization::setPolicy(policy);
    }
    ~PermissionScope() { platform::CaptureAuthorization::setPolicy(nullptr); }
    std::shared_ptr<platform::FixedCaptureAuthorizationPolicy> policy;
};

inline std::shared_ptr<ZMCameraViewController> asScreen(const ZMCameraViewControllerPtr& screen)
{
    return std::dynamic_pointer_cast<ZMCameraViewController>(screen);
}

/// Lets go of the screen and waits until it is really gone (it is destroyed
/// on the main queue, and pending closures may still hold it).
inline bool releaseScreen(std::shared_ptr<ZMCameraViewController>& screen, int timeoutMs = 10000)
{
    std::weak_ptr<ZMCameraViewController> watch = screen;
    QPointer<QWidget> view = screen->isViewLoaded() ? screen->view() : nullptr;
    screen.reset();
    // The last holder may be a capture thread: the screen is then deleted a
    // moment later on the main queue, taking its root view with it.
    return QTest::qWaitFor([&] { return watch.expired() && view.isNull(); }, timeoutMs);
}

}  // namespace zavo::testing
