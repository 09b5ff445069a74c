// The Qt-native session object: whole sessions on a file camera, as a Qt
// host drives them. What a host relies on: signals on its own thread, the
// camera let go when the window goes, the video where it asked, and a
// session it may delete at any moment.
#include "ScreenTestSupport.h"

#include "camera-screen/ZMCameraSession.h"
#include "capture/ZMCameraDevices.h"
#include "camera/file/FileCaptureDevice.h"
#include "shell/CaptureVideoPreviewView_p.h"
#include "ui/ZMVideoStreamNotificationView.h"
#include "zavocore/ZCDetectorClock_p.h"

#include <QApplication>
#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QVBoxLayout>
#include <QWindow>

using namespace zavo;
using namespace zavo::testing;
using platform::AuthorizationStatus;

namespace {

/// What reached the host, and on which thread.
struct Heard {
    QStringList events;  // "bestShot", "failed", "videoFinished", "state:<n>"
    QStringList threads;
    std::optional<ZMSessionError> error;
    QString outcomeVideo;
    QString finalVideo;
    QVariantMap metadata;
    QImage image;

    void listen(ZMCameraSession& session)
    {
        QObject::connect(&session, &ZMCameraSession::bestShot, &session,
                         [this](const QImage& shot, const QVariantMap& data, const QString& video) {
                             note(QStringLiteral("bestShot"));
                             image = shot;
                             metadata = data;
                             outcomeVideo = video;
                         });
        QObject::connect(&session, &ZMCameraSession::failed, &session,
                         [this](const ZMSessionError& failure, const QString& video) {
                             note(QStringLiteral("failed"));
                             error = failure;
                             outcomeVideo = video;
                         });
        QObject::connect(&session, &ZMCameraSession::videoFinished, &session,
                         [this](const QString& path, const QString&) {
                             note(QStringLiteral("videoFinished"));
                             finalVideo = path;
                         });
        QObject::connect(&session, &ZMCameraSession::stateChanged, &session,
                         [this](ZMCameraSession::State state) { note(QStringLiteral("state:%1").arg(int(state))); });
    }
    void note(const QString& event)
    {
        events << event;
        threads << currentThreadName();
    }
};

/// Frames the session's preview has received; 0 before it exists.
int64_t previewFrames(ZMCameraSession& session)
{
    QWidget* view = session.view();
    auto* preview = view ? view->findChild<platform::CaptureVideoPreviewView*>() : nullptr;
    return preview && preview->layer() ? preview->layer()->receivedFrameCount() : 0;
}

bool bannerShown(ZMCameraSession& session)
{
    QWidget* view = session.view();
    auto* banner = view ? view->findChild<ZMVideoStreamNotificationView*>() : nullptr;
    return banner && !banner->isHidden();
}

/// A permission prompt the user has not answered yet.
class UnansweredPrompt final : public platform::CaptureAuthorizationPolicy {
public:
    AuthorizationStatus authorizationStatus() override { return AuthorizationStatus::NotDetermined; }
    void requestAccess(std::function<void(bool granted)> completion) override
    {
        zavo::MutexLocker lock(mutex_);
        waiting_.push_back(std::move(completion));
    }
    int waiting() const
    {
        zavo::MutexLocker lock(mutex_);
        return int(waiting_.size());
    }
    void grantAll()
    {
        std::vector<std::function<void(bool)>> answers;
        {
            zavo::MutexLocker lock(mutex_);
            answers.swap(waiting_);
        }
        for (auto& answer : answers)
            answer(true);
    }

private:
    mutable zavo::Mutex mutex_;
    std::vector<std::function<void(bool)>> waiting_ ZAVO_GUARDED_BY(mutex_);
};

}  // namespace

class TstCameraSession : public QObject {
    Q_OBJECT

    std::optional<core::detail::HeldDetectorClock> clock;
    std::unique_ptr<PermissionScope> permission;
    std::shared_ptr<platform::FileCaptureDevice> camera;

    void useFrontCamera(const char* clip)
    {
        platform::ErrorPtr error;
        camera = platform::FileCaptureDevice::create(dataPath(clip), platform::CaptureDevicePosition::Front, &error);
        QVERIFY2(camera, qPrintable(error ? error->localizedDescription() : QString()));
        platform::CaptureDeviceRegistry::shared().registerDevice(camera);
    }

private slots:
    void initTestCase()
    {
        platform::CaptureDeviceRegistry::shared().setProviders({});
        platform::CaptureDeviceRegistry::shared().unregisterAll();
    }

    void init()
    {
        clock.emplace();
        permission = std::make_unique<PermissionScope>(AuthorizationStatus::Authorized);
    }

    void cleanup()
    {
        permission.reset();
        camera.reset();
        platform::CaptureDeviceRegistry::shared().unregisterAll();
        ZMCameraDevices::setPreferredCamera({});
        // Every session here is deleted by its test: its threads must be
        // gone when the destructor returns, not some time later.
        QCOMPARE(platform::DispatchQueue::liveThreadCount(), 0);
        clock.reset();
    }

    // A whole session into a host's folder: outcome, then the final video,
    // every signal on the GUI thread; a second session keeps the first
    // one's video, and nothing else in the folder is touched.
    void sessionsKeepTheirVideosInTheHostFolder()
    {
        useFrontCamera("A_zoom_blur_dark.mp4");
        QTemporaryDir folder;
        QFile hostFile(folder.filePath(QStringLiteral("notes.txt")));
        QVERIFY(hostFile.open(QIODevice::WriteOnly) && hostFile.write("the host's") > 0);
        hostFile.close();

        QStringList videos;
        for (int round = 0; round < 2; ++round) {
            ZMCameraSession session;
            Heard heard;
            heard.listen(session);
            session.setVideoFolder(folder.path() + QStringLiteral("/sessions"));  // made on demand
            session.setVideoPolicy(ZMCameraSession::VideoPolicy::KeepEach);
            QVERIFY(session.start());
            QVERIFY(!session.start());  // a second start does nothing
            QTRY_VERIFY_WITH_TIMEOUT(session.state() == ZMCameraSession::State::Finished, 60000);

            QCOMPARE(heard.events, (QStringList{QStringLiteral("state:1"), QStringLiteral("bestShot"),
                                                QStringLiteral("state:2"), QStringLiteral("videoFinished"),
                                                QStringLiteral("state:3")}));
            QCOMPARE(heard.threads, QStringList(heard.events.size(), QStringLiteral("main")));
            QVERIFY(!heard.image.isNull());
            const QRectF face = heard.metadata.value(QStringLiteral("faceRect")).toRectF();
            QVERIFY(QRectF(heard.image.rect()).contains(face) && !face.isEmpty());
            QVERIFY(heard.metadata.value(QStringLiteral("quality")).toDouble() > 0);
            QVERIFY(session.lastBestShot());
            QCOMPARE(heard.finalVideo, heard.outcomeVideo);
            QCOMPARE(session.videoPath(), heard.finalVideo);
            QCOMPARE(QFileInfo(heard.finalVideo).absolutePath(), QDir(folder.path() + "/sessions").absolutePath());
            QVERIFY(QFileInfo(heard.finalVideo).fileName().startsWith(QLatin1String("zavocamera-")));
            QVERIFY(decodableFrames(heard.finalVideo) > 0);
            videos << heard.finalVideo;
        }
        QCOMPARE(videos.size(), 2);
        QVERIFY(videos[0] != videos[1]);
        QVERIFY(decodableFrames(videos[0]) > 0);  // the first session's video was kept
        QVERIFY(QFile::exists(hostFile.fileName()));
        // No compressor leftovers beside the videos.
        QCOMPARE(QDir(folder.path() + "/sessions").entryList(QDir::Files).size(), 2);
    }

    // Every way a user makes the screen go away ends the session as the
    // close button does, and lets go of the camera.
    void closingTheWindowCancelsAndReleasesTheCamera_data()
    {
        QTest::addColumn<QString>("how");
        QTest::newRow("QWindow::close") << "windowClose";
        QTest::newRow("QWidget::close") << "widgetClose";
        QTest::newRow("Escape") << "escape";
        QTest::newRow("host hides it") << "hide";
        QTest::newRow("host's window closed") << "hostWindow";
    }
    void closingTheWindowCancelsAndReleasesTheCamera()
    {
        QFETCH(QString, how);
        useFrontCamera("E_no_face.mp4");
        QWidget hostWindow;
        ZMCameraSession session;
        Heard heard;
        heard.listen(session);
        session.setRecordVideo(false);
        if (how == QLatin1String("hostWindow")) {
            auto* layout = new QVBoxLayout(&hostWindow);
            layout->addWidget(session.view());
            hostWindow.resize(360, 640);
            hostWindow.show();
        }
        QVERIFY(session.start());
        QTRY_VERIFY_WITH_TIMEOUT(camera->isOpen() && previewFrames(session) > 0, 20000);

        QWidget* window = session.view()->window();
        if (how == QLatin1String("windowClose")) {
            QVERIFY(window->windowHandle());
            window->windowHandle()->close();
        } else if (how == QLatin1String("widgetClose")) {
            window->close();
        } else if (how == QLatin1String("escape")) {
            auto* closeButton = session.view()->findChild<QPushButton*>();
            QVERIFY(closeButton);
            QTest::keyClick(closeButton, Qt::Key_Escape);
        } else if (how == QLatin1String("hide")) {
            session.view()->hide();
        } else {
            hostWindow.close();
        }
        QTRY_VERIFY(!heard.events.filter(QStringLiteral("failed")).isEmpty());
        QVERIFY(heard.error && heard.error->isCanceled());
        QCOMPARE(session.state(), ZMCameraSession::State::Finished);
        QTRY_VERIFY(!camera->isOpen());
        QCOMPARE(heard.events.count(QStringLiteral("failed")), 1);
    }

    // Destroying the session is the whole clean-up: when the destructor
    // returns the camera is closed and the component's threads are gone,
    // whatever the session was doing.
    void destroyingTheSessionStopsEverything_data()
    {
        QTest::addColumn<QString>("when");
        QTest::newRow("while frames flow") << "running";
        QTest::newRow("while a banner is up") << "banner";
        QTest::newRow("while the video is finished") << "finishing";
        QTest::newRow("in its own bestShot slot") << "ownSlot";
        QTest::newRow("before the permission answer") << "beforePermission";
    }
    void destroyingTheSessionStopsEverything()
    {
        QFETCH(QString, when);
        useFrontCamera(when == QLatin1String("running")  ? "E_no_face.mp4"
                           : when == QLatin1String("banner") ? "C_two_faces.mp4"
                                                              : "A_zoom_blur_dark.mp4");
        QTemporaryDir folder;
        auto session = std::make_unique<ZMCameraSession>();
        session->setVideoFolder(folder.path());
        bool deletedInSlot = false;
        if (when == QLatin1String("ownSlot")) {
            connect(session.get(), &ZMCameraSession::bestShot, this, [&] {
                session.reset();
                deletedInSlot = true;
            });
        }
        auto prompt = std::make_shared<UnansweredPrompt>();
        if (when == QLatin1String("beforePermission"))
            platform::CaptureAuthorization::setPolicy(prompt);
        QVERIFY(session->start());
        if (when == QLatin1String("running")) {
            QTRY_VERIFY_WITH_TIMEOUT(camera->isOpen() && previewFrames(*session) > 0, 20000);
        } else if (when == QLatin1String("banner")) {
            // Two faces: the long banner, whose hiding is a timer on Qt's
            // event loop, which the destructor's wait does not run.
            QTRY_VERIFY_WITH_TIMEOUT(bannerShown(*session), 20000);
        } else if (when == QLatin1String("finishing")) {
            QTRY_VERIFY_WITH_TIMEOUT(session->state() == ZMCameraSession::State::Finishing, 60000);
        } else if (when == QLatin1String("ownSlot")) {
            QTRY_VERIFY_WITH_TIMEOUT(deletedInSlot, 60000);
        } else {
            QTRY_VERIFY(prompt->waiting() > 0);
        }
        session.reset();
        QVERIFY(!camera->isOpen());
        QCOMPARE(platform::DispatchQueue::liveThreadCount(), 0);
        // The user answers after the session is gone: nothing starts.
        prompt->grantAll();
        QVERIFY(!camera->isOpen());
        // A video left mid-finish is the recording or its recompressed form,
        // never a half-written temporary beside it.
        for (const QString& name : QDir(folder.path()).entryList(QDir::Files))
            QVERIFY2(!name.contains(QLatin1String("recompressing")), qPrintable(name));
    }

    // A setting the session cannot honour ends it with an error that says
    // which, and misuse does nothing.
    void badSettingsFailClearly_data()
    {
        QTest::addColumn<QString>("camera");
        QTest::addColumn<QString>("folder");
        QTest::addColumn<QString>("named");
        QTest::newRow("unknown camera") << "/dev/video99" << "" << "/dev/video99";
        QTest::newRow("folder under a file") << "" << "FILE/videos" << "FILE/videos";
    }
    void badSettingsFailClearly()
    {
        QFETCH(QString, camera);
        QFETCH(QString, folder);
        QFETCH(QString, named);
        useFrontCamera("E_no_face.mp4");
        QTemporaryDir scratch;
        const QString file = scratch.filePath(QStringLiteral("a-file"));
        QFile blocker(file);
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        folder.replace(QLatin1String("FILE"), file);
        named.replace(QLatin1String("FILE"), file);

        ZMCameraSession session;
        Heard heard;
        heard.listen(session);
        session.cancel();  // idle: nothing happens
        QCOMPARE(session.state(), ZMCameraSession::State::Idle);
        session.setCameraLocation(camera);
        session.setVideoFolder(folder);
        QVERIFY(session.start());
        QTRY_COMPARE(session.state(), ZMCameraSession::State::Finished);
        QVERIFY(heard.error && heard.error->isError() && !heard.error->isCanceled());
        QVERIFY2(heard.error->text().contains(named), qPrintable(heard.error->text()));
        QVERIFY(!this->camera->isOpen());
        session.cancel();  // finished: nothing happens
        QCOMPARE(heard.events.count(QStringLiteral("failed")), 1);
    }
};

QTEST_MAIN(TstCameraSession)
#include "tst_camera_session.moc"
