// The QML module from the build tree, in a real X server (Xvfb with the xcb
// plug-in): whole sessions on a file camera drawn by the scene graph, the
// ways a session is ended from the window, and the camera list following
// cameras registered at run time.
#include "MissingPrerequisite.h"
#include "PictureMarkers.h"
#include "ScreenTestSupport.h"

#include "base/DispatchQueue.h"
#include "camera/file/FileCaptureDevice.h"
#include "quick/CameraListModel.h"
#include "quick/CameraPreviewItem.h"
#include "quick/CameraScreen.h"
#include "zavocore/ZCDetectorClock_p.h"

#include <QApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using namespace zavo;
using namespace zavo::testing;
using platform::AuthorizationStatus;
using quick::CameraScreen;

namespace {

/// Set when this process runs in an X server it started for itself.
constexpr char kInXvfb[] = "ZAVO_QUICK_IN_XVFB";
bool haveXServer = false;

constexpr QSize kClipSize{720, 1280};
constexpr QSize kWindowSize{360, 640};  // the clip at half its size, nothing cut off

/// The marked face moved to the left of the picture: a face off the middle
/// shows on the other side when mirrored, so the face frame's side says
/// whether it followed the picture.
QImage faceOnTheLeft()
{
    QImage picture(kClipSize, QImage::Format_RGB32);
    picture.fill(QColor(128, 128, 128));
    QPainter painter(&picture);
    painter.drawImage(-kClipSize.width() / 6, 0, markedFace(kClipSize));
    return picture;
}

double intersectionOverUnion(const QRectF& a, const QRectF& b)
{
    const QRectF common = a.intersected(b);
    const double shared = common.width() * common.height();
    const double all = a.width() * a.height() + b.width() * b.height() - shared;
    return all > 0 ? shared / all : 0;
}

bool onGuiThread() { return QThread::currentThread() == QCoreApplication::instance()->thread(); }

}  // namespace

class TstQuick : public QObject {
    Q_OBJECT

    QTemporaryDir scratch;
    std::unique_ptr<PermissionScope> permission;
    std::optional<core::detail::HeldDetectorClock> clock;
    std::unique_ptr<QQmlApplicationEngine> engine;
    QQuickWindow* window = nullptr;  // the engine's
    CameraScreen* screen = nullptr;  // the window's

    std::shared_ptr<platform::FileCaptureDevice> useFrontCamera(const QString& clip)
    {
        platform::ErrorPtr error;
        auto camera = platform::FileCaptureDevice::create(clip, platform::CaptureDevicePosition::Front, &error);
        if (!camera)
            qWarning("%s: %s", qPrintable(clip), qPrintable(error ? error->localizedDescription() : QString()));
        else
            platform::CaptureDeviceRegistry::shared().registerDevice(camera);
        return camera;
    }

    /// A window holding a camera screen, from the module in the build tree.
    void load(const QByteArray& screenProperties = {})
    {
        engine = std::make_unique<QQmlApplicationEngine>();
        engine->addImportPath(QStringLiteral(ZAVO_QML_IMPORT_DIR));
        engine->loadData("import QtQuick\nimport ZavoCamera\n"
                         "Window { width: " + QByteArray::number(kWindowSize.width())
                         + "; height: " + QByteArray::number(kWindowSize.height())
                         + "; visible: true\n"
                           "  CameraScreen { objectName: \"screen\"; anchors.fill: parent; "
                         + screenProperties + " }\n}\n");
        QCOMPARE(engine->rootObjects().size(), 1);
        window = qobject_cast<QQuickWindow*>(engine->rootObjects().first());
        QVERIFY(window);
        screen = window->findChild<CameraScreen*>(QStringLiteral("screen"));
        QVERIFY(screen);
        QVERIFY(QTest::qWaitForWindowExposed(window));
    }

    QQuickItem* overlayItem(const char* name) const
    {
        return screen->findChild<QQuickItem*>(QLatin1String(name));
    }

private slots:
    void initTestCase()
    {
        platform::CaptureDeviceRegistry::shared().setProviders({});
        platform::CaptureDeviceRegistry::shared().unregisterAll();
    }

    void init()
    {
        // The camera list draws nothing; everything else is checked on screen.
        if (!haveXServer && QByteArray(QTest::currentTestFunction()) != "cameraListFollowsCamerasAtRunTime")
            ZAVO_SKIP_MISSING("no X server to start: install the xvfb package (scripts/setup.sh does)");
        clock.emplace();
        permission = std::make_unique<PermissionScope>(AuthorizationStatus::Authorized);
    }

    void cleanup()
    {
        screen = nullptr;
        window = nullptr;
        engine.reset();
        permission.reset();
        platform::CaptureDeviceRegistry::shared().unregisterAll();
        platform::CaptureDeviceRegistry::shared().setPreferredDevice({});
        // Nothing of a session may be left running.
        QTRY_COMPARE_WITH_TIMEOUT(platform::DispatchQueue::liveThreadCount(), 0, 30000);
        clock.reset();
    }

    void sessionDrawsTheCameraThroughTheSceneGraph_data()
    {
        QTest::addColumn<bool>("mirrored");
        QTest::addColumn<bool>("recordVideo");
        QTest::newRow("mirrored, recording") << true << true;
        QTest::newRow("unmirrored") << false << false;
    }

    // A face clip to a best shot: the picture the window shows is the
    // camera's (mirrored or not as asked), the face frame lies on the face,
    // and every signal arrives on the GUI thread.
    void sessionDrawsTheCameraThroughTheSceneGraph()
    {
        QFETCH(bool, mirrored);
        QFETCH(bool, recordVideo);
        if (!haveFfmpegTools())
            ZAVO_SKIP_MISSING("ffmpeg makes the marked clip");
        const QImage reference = faceOnTheLeft();
        const QString clip = scratch.filePath(QStringLiteral("face-on-the-left.mp4"));
        if (!QFile::exists(clip))
            QVERIFY(makeStillClip(clip, reference));
        QVERIFY(useFrontCamera(clip));
        load(QByteArrayLiteral("recordVideo: ") + (recordVideo ? "true" : "false")
             + "; mirroredPreview: " + (mirrored ? "true" : "false"));

        struct Shot {
            QImage image;
            QVariantMap metadata;
            QString video;
            bool onGuiThread = false;
            QRectF faceFrame;  // the QML face frame's place when the shot came
            bool faceFrameShown = false;
        };
        std::optional<Shot> shot;
        QStringList videosFinished;
        bool videoOnGuiThread = false;
        QQuickItem* faceFrame = overlayItem("faceFrame");
        QVERIFY(faceFrame);
        connect(screen, &CameraScreen::bestShot, this, [&](const QImage& image, const QVariantMap& metadata, const QString& video) {
            shot = Shot{image, metadata, video, onGuiThread(),
                        QRectF(faceFrame->x(), faceFrame->y(), faceFrame->width(), faceFrame->height()),
                        faceFrame->isVisible()};
        });
        connect(screen, &CameraScreen::videoFinished, this, [&](const QString& path, const QString&) {
            videosFinished << path;
            videoOnGuiThread = onGuiThread();
        });
        QSignalSpy failed(screen, &CameraScreen::failed);
        QSignalSpy states(screen, &CameraScreen::stateChanged);

        QVERIFY(screen->start());
        QTRY_VERIFY_WITH_TIMEOUT(shot || failed.size(), 30000);
        QVERIFY2(shot, failed.isEmpty() ? "" : qPrintable(failed.first().first().value<ZMSessionError>().text()));
        QVERIFY(shot->onGuiThread);
        QCOMPARE(shot->video.isEmpty(), !recordVideo);

        // Frames went through textures, and the window shows the camera's
        // picture where the preview is, the right way round.
        QVERIFY(screen->preview()->uploadedFrames() > 0);
        QCOMPARE(screen->preview()->mirrorUndone(), !mirrored);
        const QImage shown = window->grabWindow();
        QCOMPARE(shown.size(), kWindowSize * window->devicePixelRatio());
        QString why;
        QVERIFY2(looksShownAs(shown, reference, 0, mirrored, true, &why), qPrintable("window: " + why));

        // The face frame: the detector's face (in the shot, a mirrored frame)
        // where the preview shows it.
        QVERIFY(shot->faceFrameShown);
        const QRectF face = shot->metadata.value(QStringLiteral("faceRect")).toRectF();
        QVERIFY(!face.isEmpty());
        const double scale = double(kWindowSize.width()) / kClipSize.width();
        QRectF expected(face.x() * scale, face.y() * scale, face.width() * scale, face.height() * scale);
        if (!mirrored)
            expected.moveLeft(kWindowSize.width() - expected.right());
        const double overlap = intersectionOverUnion(shot->faceFrame, expected);
        QVERIFY2(overlap > 0.6, qPrintable(QStringLiteral("face frame %1,%2 %3x%4 against %5,%6 %7x%8")
                                               .arg(shot->faceFrame.x()).arg(shot->faceFrame.y())
                                               .arg(shot->faceFrame.width()).arg(shot->faceFrame.height())
                                               .arg(expected.x()).arg(expected.y())
                                               .arg(expected.width()).arg(expected.height())));
        // The face sits left of the middle in the camera's picture.
        QCOMPARE(shot->faceFrame.center().x() < kWindowSize.width() / 2.0, !mirrored);

        if (recordVideo) {
            QTRY_COMPARE_WITH_TIMEOUT(videosFinished.size(), 1, 30000);
            QVERIFY(videoOnGuiThread);
            QCOMPARE(videosFinished.first(), shot->video);
        }
        QTRY_COMPARE_WITH_TIMEOUT(screen->sessionState(), CameraScreen::State::Finished, 30000);
        // QML reads the session's state as `state`.
        QCOMPARE(screen->property("state").value<CameraScreen::State>(), CameraScreen::State::Finished);
        QCOMPARE(states.first().first().value<CameraScreen::State>(), CameraScreen::State::Running);
        QCOMPARE(failed.size(), 0);
    }

    void endingFromTheWindowCancelsAndLetsGoOfTheCamera_data()
    {
        QTest::addColumn<QString>("how");
        QTest::newRow("window closed") << "close";
        QTest::newRow("window hidden") << "hide";
        QTest::newRow("close button") << "button";
        QTest::newRow("Escape") << "escape";
    }

    // Each way a user or host ends the screen from its window: the canceled
    // error on the GUI thread, and the camera closed soon after.
    void endingFromTheWindowCancelsAndLetsGoOfTheCamera()
    {
        QFETCH(QString, how);
        const auto camera = useFrontCamera(dataPath("E_no_face.mp4"));
        QVERIFY(camera);
        // What a QML host reads: the error's fields, the session's state and
        // the enums through the type's name.
        load("recordVideo: false; videoPolicy: CameraScreen.KeepEach\n"
             "  property bool canceledInQml: false\n"
             "  property var statesInQml: []\n"
             "  onFailed: (error, videoPath) => canceledInQml = error.canceled\n"
             "  onStateChanged: (newState) => statesInQml.push(newState)\n");
        QCOMPARE(screen->videoPolicy(), CameraScreen::VideoPolicy::KeepEach);
        QSignalSpy failed(screen, &CameraScreen::failed);
        bool failedOnGuiThread = false;
        connect(screen, &CameraScreen::failed, this, [&] { failedOnGuiThread = onGuiThread(); });
        QVERIFY(screen->start());
        QTRY_VERIFY_WITH_TIMEOUT(screen->preview()->uploadedFrames() >= 3, 30000);
        QVERIFY(camera->isOpen());

        if (how == "close") {
            window->close();
        } else if (how == "hide") {
            window->hide();
        } else if (how == "button") {
            QQuickItem* button = overlayItem("closeButton");
            QVERIFY(button);
            const QPointF centre = button->mapToScene(QPointF(button->width() / 2, button->height() / 2));
            QCOMPARE(centre, QPointF(kWindowSize.width() - 10 - 22, 10 + 22));
            QTest::mouseClick(window, Qt::LeftButton, {}, centre.toPoint());
        } else {
            window->requestActivate();
            QVERIFY(QTest::qWaitForWindowActive(window));
            QTRY_VERIFY(screen->hasActiveFocus());
            QTest::keyClick(window, Qt::Key_Escape);
        }
        QTRY_COMPARE_WITH_TIMEOUT(failed.size(), 1, 10000);
        const auto error = failed.first().first().value<ZMSessionError>();
        QVERIFY2(error.isCanceled(), qPrintable(error.text()));
        QVERIFY(failedOnGuiThread);
        QVERIFY(screen->property("canceledInQml").toBool());
        QTRY_VERIFY_WITH_TIMEOUT(!camera->isOpen(), 5000);
        QTRY_COMPARE(screen->property("statesInQml").toList(),
                     QVariantList({int(CameraScreen::State::Running), int(CameraScreen::State::Finished)}));
    }

    // The item owns its session: destroying it ends the session and waits,
    // so the camera is closed when the destruction returns.
    void destroyingTheScreenClosesTheCamera()
    {
        const auto camera = useFrontCamera(dataPath("E_no_face.mp4"));
        QVERIFY(camera);
        load("recordVideo: true");
        QVERIFY(screen->start());
        QTRY_VERIFY_WITH_TIMEOUT(camera->isOpen() && screen->preview()->uploadedFrames() >= 1, 30000);
        QPointer<CameraScreen> watch(screen);
        screen->deleteLater();  // as a Loader does when it unloads the screen
        screen = nullptr;
        QTRY_VERIFY(!watch);
        QVERIFY(!camera->isOpen());
    }

    // Cameras registered and unregistered while the model lives come and go
    // as row insertions and removals, never as a reset.
    void cameraListFollowsCamerasAtRunTime()
    {
        quick::CameraListModel model;
        model.setRefreshInterval(50);
        QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);
        QSignalSpy removed(&model, &QAbstractItemModel::rowsRemoved);
        QSignalSpy reset(&model, &QAbstractItemModel::modelReset);
        QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
        QTRY_COMPARE(model.count(), 0);

        const auto front = useFrontCamera(dataPath("E_no_face.mp4"));
        QVERIFY(front);
        QTRY_COMPARE(model.count(), 1);
        QCOMPARE(inserted.size(), 1);
        const QVariantMap row = model.get(0);
        QCOMPARE(row.value("location").toString(), dataPath("E_no_face.mp4"));
        QCOMPARE(row.value("position").toString(), QStringLiteral("front"));
        QVERIFY(!row.value("name").toString().isEmpty());

        platform::ErrorPtr error;
        auto back = platform::FileCaptureDevice::create(dataPath("C_two_faces.mp4"),
                                                        platform::CaptureDevicePosition::Back, &error);
        QVERIFY(back);
        platform::CaptureDeviceRegistry::shared().registerDevice(back);
        QTRY_COMPARE(model.count(), 2);
        QCOMPARE(inserted.size(), 2);
        QCOMPARE(model.get(1).value("position").toString(), QStringLiteral("back"));

        // The host's pick is listed first: a move and a change, not a reset.
        QVERIFY(ZMCameraDevices::setPreferredCamera(back->uniqueID()));
        QTRY_VERIFY(model.get(0).value("preferred").toBool());
        QCOMPARE(model.get(0).value("location").toString(), dataPath("C_two_faces.mp4"));
        QVERIFY(!changed.isEmpty());

        platform::CaptureDeviceRegistry::shared().unregisterDevice(front->uniqueID());
        QTRY_COMPARE(model.count(), 1);
        QCOMPARE(removed.size(), 1);
        QCOMPARE(model.get(0).value("location").toString(), dataPath("C_two_faces.mp4"));
        QCOMPARE(reset.size(), 0);
        QCOMPARE(inserted.size(), 2);
    }
};

int main(int argc, char** argv)
{
    // The scene graph is checked in a real X server: the suite starts one of
    // its own through xvfb-run and runs itself in it.
    if (!qEnvironmentVariableIsSet(kInXvfb)) {
        const QString xvfbRun = QStandardPaths::findExecutable(QStringLiteral("xvfb-run"));
        if (!xvfbRun.isEmpty() && !QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty()) {
            qputenv(kInXvfb, "1");
            qputenv("QT_QPA_PLATFORM", "xcb");
            std::vector<QByteArray> arguments{xvfbRun.toLocal8Bit(), "-a", "-s", "-screen 0 1920x1080x24", argv[0]};
            for (int i = 1; i < argc; ++i)
                arguments.emplace_back(argv[i]);
            std::vector<char*> pointers;
            for (QByteArray& argument : arguments)
                pointers.push_back(argument.data());
            pointers.push_back(nullptr);
            execv(pointers.front(), pointers.data());
            qWarning("cannot run %s: %s", qPrintable(xvfbRun), strerror(errno));
        }
    } else {
        haveXServer = true;
    }
    QApplication app(argc, argv);  // the session's screen runs widgets out of sight
    TstQuick test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_quick.moc"
