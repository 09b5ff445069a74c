// A sandboxed process's way to the cameras: no camera it can open, the
// desktop's camera portal on the session bus, and a PipeWire daemon behind
// it. The portal here is a stand-in on the test's private bus that grants or
// refuses and hands over a connection to the test's own daemon; the daemon,
// its session manager and the camera producer are real.
#include "camera/CaptureAuthorization_p.h"
#include "camera/CaptureDevice_p.h"
#include "camera/pipewire/Provider_p.h"
#include "camera-screen/ZMCameraError.h"

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QtTest>

#include <atomic>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "MissingPrerequisite.h"
#include "PipeWireRig.h"

using namespace zavo::platform;
using namespace zavo::testing;

class FakeCameraPortal : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Camera")
    Q_PROPERTY(bool IsCameraPresent READ isCameraPresent)

public:
    FakeCameraPortal(QDBusConnection bus, QString pipewireSocket) : bus_(std::move(bus)), socket_(std::move(pipewireSocket)) {}

    std::atomic<bool> grants{true};
    std::atomic<int> accessRequests{0};
    std::atomic<int> remotesOpened{0};

    bool isCameraPresent() const { return true; }

public slots:
    QDBusObjectPath AccessCamera(const QVariantMap& options, const QDBusMessage& message)
    {
        ++accessRequests;
        QString sender = message.service().mid(1);
        sender.replace(QLatin1Char('.'), QLatin1Char('_'));
        const QString path = QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2")
                                 .arg(sender, options.value(QStringLiteral("handle_token")).toString());
        // The answer comes after the reply, as the user's would.
        QMetaObject::invokeMethod(this, [this, path] {
            QDBusMessage response = QDBusMessage::createSignal(path, QStringLiteral("org.freedesktop.portal.Request"),
                                                               QStringLiteral("Response"));
            response << uint(grants ? 0 : 1) << QVariantMap{};
            bus_.send(response);
        }, Qt::QueuedConnection);
        return QDBusObjectPath(path);
    }

    QDBusUnixFileDescriptor OpenPipeWireRemote(const QVariantMap&)
    {
        ++remotesOpened;
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const QByteArray path = socket_.toLocal8Bit();
        std::memcpy(address.sun_path, path.constData(), std::min(size_t(path.size()), sizeof address.sun_path - 1));
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(fd);
            return {};
        }
        QDBusUnixFileDescriptor descriptor(fd);  // takes a copy
        ::close(fd);
        return descriptor;
    }

private:
    QDBusConnection bus_;
    QString socket_;
};

class TstPortal : public QObject {
    Q_OBJECT

    std::unique_ptr<PipeWireRig> rig;
    std::unique_ptr<FakeCameraPortal> portal;
    // The stand-in answers on a thread of its own, as the real portal does
    // in a process of its own: the component's calls block their caller.
    QThread portalThread;
    QTemporaryDir noDaemon;  // where the process looks for a PipeWire daemon of its own

    /// Asks for camera access as the camera screen does and waits for the answer.
    bool requestAccess()
    {
        auto answer = std::make_shared<std::atomic<int>>(-1);
        CaptureAuthorization::requestAccessForMediaType(MediaType::Video,
                                                        [answer](bool granted) { answer->store(granted ? 1 : 0); });
        if (!QTest::qWaitFor([&] { return answer->load() >= 0; }, 30000))
            return false;
        return answer->load() == 1;
    }

    bool listed(const QString& location)
    {
        for (const auto& device : CaptureDeviceRegistry::shared().allDevices()) {
            if (device->location() == location)
                return true;
        }
        return false;
    }

private slots:
    void initTestCase()
    {
        if (const QString tool = PipeWireRig::missingTool(); !tool.isEmpty())
            ZAVO_SKIP_MISSING(qPrintable(tool + QStringLiteral(" is not installed")));
        rig = std::make_unique<PipeWireRig>();
        rig->start();
        if (QTest::currentTestFailed())
            return;
        QVERIFY(rig->startCamera("sandboxcam", "videotestsrc is-live=true ! video/x-raw,format=YUY2,width=640,height=480,framerate=30/1"));
        // The process itself reaches no daemon and no webcam: only the portal
        // leads to the camera.
        qputenv("PIPEWIRE_RUNTIME_DIR", noDaemon.path().toLocal8Bit());
        qputenv("DBUS_SESSION_BUS_ADDRESS", rig->busAddress().toLocal8Bit());
        for (const auto& device : CaptureDeviceRegistry::shared().allDevices()) {
            if (device->canOpen())
                QSKIP("this machine has a webcam the process can open: it never needs the portal");
        }

        QDBusConnection bus = QDBusConnection::connectToBus(rig->busAddress(), QStringLiteral("fake-portal"));
        QVERIFY(bus.isConnected());
        portal = std::make_unique<FakeCameraPortal>(bus, QDir(rig->runtimeDir()).filePath(QStringLiteral("pipewire-0")));
        portalThread.start();
        portal->moveToThread(&portalThread);
        QVERIFY(bus.registerObject(QStringLiteral("/org/freedesktop/portal/desktop"), portal.get(),
                                   QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties));
        QVERIFY(bus.registerService(QStringLiteral("org.freedesktop.portal.Desktop")));
    }

    // Refused: the request answers no, nothing is listed, and the status
    // says denied by the portal, which is the text the user then reads.
    void aRefusalGivesNoCamera()
    {
        portal->grants = false;
        QCOMPARE(CaptureAuthorization::authorizationStatusForMediaType(MediaType::Video), AuthorizationStatus::NotDetermined);
        QVERIFY(!requestAccess());
        QCOMPARE(portal->accessRequests.load(), 1);
        QCOMPARE(portal->remotesOpened.load(), 0);
        QVERIFY(!listed("pipewire:sandboxcam"));
        QCOMPARE(CaptureAuthorization::authorizationStatusForMediaType(MediaType::Video), AuthorizationStatus::Denied);
        QCOMPARE(CaptureAuthorization::denialReasonForMediaType(MediaType::Video), CameraFailureReason::PortalRefused);
        const zavo::ZMCameraError error = zavo::ZMCameraError::accessStatus(AuthorizationStatus::Denied, CameraFailureReason::PortalRefused);
        QVERIFY2(error.errorDescription()->contains(QLatin1String("privacy settings")), qPrintable(*error.errorDescription()));
    }

    // Granted: the cameras behind the portal's remote are listed and can be
    // opened, and the status says so without asking again.
    void aGrantListsTheCamerasBehindThePortal()
    {
        // A process whose user said no keeps that answer; this one starts
        // with the question open again.
        CaptureAuthorization::setPolicy(nullptr);
        portal->grants = true;
        const int before = portal->accessRequests.load();
        QVERIFY(requestAccess());
        QCOMPARE(portal->accessRequests.load(), before + 1);
        QCOMPARE(portal->remotesOpened.load(), 1);
        QTRY_VERIFY_WITH_TIMEOUT(listed("pipewire:sandboxcam"), 10000);
        QCOMPARE(CaptureAuthorization::authorizationStatusForMediaType(MediaType::Video), AuthorizationStatus::Authorized);

        CaptureDevicePtr camera;
        for (const auto& device : CaptureDeviceRegistry::shared().allDevices()) {
            if (device->location() == QLatin1String("pipewire:sandboxcam"))
                camera = device;
        }
        ErrorPtr error;
        auto stream = camera->openStream(camera->formats().front(), &error);
        QVERIFY(stream);
        SampleBuffer frame;
        QCOMPARE(stream->read(frame), CaptureDeviceStream::ReadResult::Frame);
        QCOMPARE(frame.imageBuffer()->width(), 640);
    }

    void cleanupTestCase()
    {
        // The portal's provider holds a connection to the daemon about to end.
        CaptureDeviceRegistry::shared().setProviders({});
        if (portal) {
            // Destroyed on its own thread, which then ends.
            QMetaObject::invokeMethod(portal.release(), &QObject::deleteLater);
            portalThread.quit();
            portalThread.wait();
        }
        rig.reset();
    }
};

QTEST_GUILESS_MAIN(TstPortal)
#include "tst_portal.moc"
