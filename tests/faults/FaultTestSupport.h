#pragma once
// What the fault suites share: whole camera sessions driven through the
// builder, a record of every log line, the recorder's reports as the screen
// receives them, and the process's threads, descriptors and stray files
// before and after a fault.
#include "base/ThreadSafety.h"
#include "ScreenTestSupport.h"
#include "LogRecorder.h"
#include "ProcessCounters.h"

#include "capture/ZMCameraCaptureManager.h"
#include "capture/ZMCameraCaptureProtocol_p.h"
#include "media/Asset.h"
#include "camera/CaptureDevice.h"
#include "base/DispatchQueue.h"
#include "camera/file/FileCaptureDevice.h"
#include "base/ProcessInfo_p.h"
#include "zavocore/ZavoCore_p.h"

#include <opencv2/core/utility.hpp>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QSet>

#include <mutex>

namespace zavo::testing {


/// Stands between the capture manager and the screen: passes every recorder
/// report on and counts them, so that a test can wait for the last one
/// instead of guessing when the file is settled.
class RecorderWatch final : public ZMCameraCaptureManagerDelegate {
public:
    explicit RecorderWatch(std::weak_ptr<ZMCameraCaptureManagerDelegate> screen) : screen_(std::move(screen)) {}

    bool shouldDeleteResultingVideo() override
    {
        auto target = screen_.lock();
        return target && target->shouldDeleteResultingVideo();
    }
    void videoSaveProcessBegan() override
    {
        ++began_;
        if (auto target = screen_.lock())
            target->videoSaveProcessBegan();
    }
    void videoSavedWithError(platform::ErrorPtr error) override
    {
        {
            zavo::MutexLocker lock(mutex_);
            saved_.push_back(error);
        }
        if (auto target = screen_.lock())
            target->videoSavedWithError(std::move(error));
    }

    int began() const { return began_.load(); }
    std::vector<platform::ErrorPtr> saved() const
    {
        zavo::MutexLocker lock(mutex_);
        return saved_;
    }
    /// The reports in short: "ok", "media" for an error of the media layer
    /// (its code depends on what failed), else the error's code.
    QStringList savedCodes() const
    {
        QStringList codes;
        for (const auto& error : saved()) {
            if (!error)
                codes << QStringLiteral("ok");
            else if (error->domain() == QLatin1String("zavo.platform.media"))
                codes << QStringLiteral("media");
            else
                codes << QString::number(error->code());
        }
        return codes;
    }

private:
    std::weak_ptr<ZMCameraCaptureManagerDelegate> screen_;
    std::atomic<int> began_{0};
    mutable zavo::Mutex mutex_;
    std::vector<platform::ErrorPtr> saved_ ZAVO_GUARDED_BY(mutex_);
};

enum class Recorder { FrameDump, MovieOutput };

/// Chooses the recorder the way the capture manager does: by the platform's
/// version.
inline void useRecorder(Recorder recorder)
{
    if (recorder == Recorder::FrameDump)
        platform::ProcessInfo::setOperatingSystemVersion({15, 0, 0});
    else
        platform::ProcessInfo::resetOperatingSystemVersion();
}

/// Waits until every thread and descriptor that appeared since `before` is
/// gone; on failure says which are left.
#define ZAVO_COMPARE_COUNTERS(before)                                                                    \
    do {                                                                                                  \
        (void)QTest::qWaitFor([&] { return ProcessCounters::now().leftSince(before).isEmpty(); }, 10000); \
        const QStringList left = ProcessCounters::now().leftSince(before);                               \
        QVERIFY2(left.isEmpty(), qPrintable(left.join(u',')));                                            \
    } while (false)

/// One session from the builder to the host's delegate.
class Session {
public:
    std::shared_ptr<HostDelegate> host = std::make_shared<HostDelegate>();
    std::shared_ptr<ZMCameraViewController> screen;
    std::shared_ptr<RecorderWatch> watch;

    void present(const core::ZCZavoConfigurationPtr& configuration,
                 std::shared_ptr<core::ZCOnlineLivenessProtocol> liveness, bool recordVideo)
    {
        screen = asScreen(ZMCameraBuilder::viewController(host, configuration, std::move(liveness), nullptr, recordVideo));
        QVERIFY(screen);
        // Building the view makes the screen the manager's delegate; the
        // permission answer, and so recording, comes later on the main queue.
        QWidget* view = screen->view();
        watch = std::make_shared<RecorderWatch>(std::weak_ptr<ZMCameraCaptureManagerDelegate>(screen));
        screen->captureManager()->setDelegate(std::weak_ptr<ZMCameraCaptureManagerDelegate>(watch));
        view->resize(360, 640);
        view->show();
    }
    bool waitForOutcome(int timeoutMs = 30000) { return QTest::qWaitFor([&] { return host->count() > 0; }, timeoutMs); }
    bool waitForReports(int reports, int timeoutMs = 30000)
    {
        return QTest::qWaitFor([&] { return int(watch->saved().size()) >= reports; }, timeoutMs);
    }
    /// Lets go of the screen; true when it and every queue of the session are gone.
    bool release(int timeoutMs = 30000)
    {
        if (screen && !releaseScreen(screen, timeoutMs))
            return false;
        return QTest::qWaitFor([] { return platform::DispatchQueue::liveThreadCount() == 0; }, timeoutMs);
    }
};

/// One whole session on the face clip, unrecorded, so that what lives for
/// the rest of the process once a session has run (the detector's shared
/// state, the media libraries' threads) is there before a test counts.
inline bool warmUp()
{
    auto camera = platform::FileCaptureDevice::create(dataPath("A_zoom_blur_dark.mp4"), platform::CaptureDevicePosition::Front);
    if (!camera)
        return false;
    platform::CaptureDeviceRegistry::shared().registerDevice(camera);
    PermissionScope permission(platform::AuthorizationStatus::Authorized);
    Session session;
    session.present(std::make_shared<core::ZCZavoConfiguration>(), nullptr, false);
    const bool ended = session.waitForOutcome() && session.release();
    platform::CaptureDeviceRegistry::shared().unregisterAll();
    return ended && !camera->isOpen();
}

/// Once per suite: only the cameras a test registers, the reference
/// detector, every log line recorded, and a first session run.
inline bool prepareSuite()
{
    // OpenCV's parallel backend (TBB) starts and ends its worker threads on
    // its own schedule, by load: a count of threads taken around a test would
    // see them come and go. The suites count only the component's threads, so
    // as the host they keep OpenCV on the calling thread.
    cv::setNumThreads(1);
    platform::CaptureDeviceRegistry::shared().setProviders({});
    platform::CaptureDeviceRegistry::shared().unregisterAll();
    core::ZCBestShotBuilder::setFactory({});
    LogRecorder::instance();
    return warmUp();
}

/// After each test: no camera registered, the real platform version, and
/// every dispatch queue's thread gone before the next test counts threads.
inline void forgetCamerasAndSettle()
{
    platform::CaptureDeviceRegistry::shared().unregisterAll();
    platform::ProcessInfo::resetOperatingSystemVersion();
    QTRY_COMPARE_WITH_TIMEOUT(platform::DispatchQueue::liveThreadCount(), 0, 30000);
}

/// Every file under the folders, with its path; a folder that cannot be
/// listed gives nothing.
inline QSet<QString> filesUnder(const QStringList& folders)
{
    QSet<QString> files;
    for (const QString& folder : folders) {
        QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                        QDirIterator::Subdirectories);
        while (it.hasNext())
            files.insert(it.next());
    }
    return files;
}

/// The names in a folder, hidden ones included, sorted.
inline QStringList entriesOf(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

}  // namespace zavo::testing
