#include "camera/pipewire/Portal_p.h"

#include "base/Log_p.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusObjectPath>
#include <QDBusReply>
#include <QDBusUnixFileDescriptor>
#include <QEventLoop>
#include <QFile>
#include <QRandomGenerator>
#include <QTimer>
#include <QUuid>

#include <unistd.h>

namespace zavo::platform::pipewire {

namespace {

const QString kService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kCameraInterface = QStringLiteral("org.freedesktop.portal.Camera");
const QString kRequestInterface = QStringLiteral("org.freedesktop.portal.Request");

// Waits for the one Response of a portal request.
class ResponseWaiter : public QObject {
    Q_OBJECT
public:
    uint response = 2;
    bool answered = false;
    QEventLoop loop;

public slots:
    void onResponse(uint code, const QVariantMap&)
    {
        response = code;
        answered = true;
        loop.quit();
    }
};

// A connection of this call's own: the bus's shared one delivers signals to
// the thread that made it, and this call may run on any thread.
class PrivateBus {
public:
    PrivateBus()
        : name_(QStringLiteral("zavo-portal-%1").arg(QUuid::createUuid().toString(QUuid::Id128)))
        , bus_(QDBusConnection::connectToBus(QDBusConnection::SessionBus, name_))
    {
    }
    ~PrivateBus() { QDBusConnection::disconnectFromBus(name_); }
    QDBusConnection& get() { return bus_; }

private:
    QString name_;
    QDBusConnection bus_;
};

}  // namespace

bool CameraPortal::runsSandboxed()
{
    return QFile::exists(QStringLiteral("/.flatpak-info")) || qEnvironmentVariableIsSet("SNAP");
}

bool CameraPortal::isAvailable()
{
    // Without a session bus there is no portal, and asking Qt to look would
    // start its bus thread for the rest of the process.
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    const bool hasBus = qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS")
        || (!runtime.isEmpty() && QFile::exists(runtime + QStringLiteral("/bus")));
    if (!QCoreApplication::instance() || !hasBus)
        return false;
    PrivateBus bus;
    if (!bus.get().isConnected() || !bus.get().interface()
        || !bus.get().interface()->isServiceRegistered(kService).value())
        return false;
    QDBusInterface camera(kService, kPath, kCameraInterface, bus.get());
    return camera.isValid();
}

CameraPortal::Answer CameraPortal::requestCameras(std::shared_ptr<Connection>* connection, QString* why,
                                                   int timeoutMs)
{
    auto unavailable = [&](const QString& reason) {
        if (why)
            *why = reason;
        qCInfo(lcCameraPortal, "the camera portal cannot be used: %s", qUtf8Printable(reason));
        return Answer::Unavailable;
    };
    if (!QCoreApplication::instance())
        return unavailable(QStringLiteral("no Qt application"));
    PrivateBus bus;
    if (!bus.get().isConnected())
        return unavailable(QStringLiteral("no session bus"));

    // The request's object path is known before the call, so the answer
    // cannot arrive before anyone listens for it.
    const QString token = QStringLiteral("zavo%1").arg(QRandomGenerator::global()->generate());
    QString sender = bus.get().baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    const QString requestPath = QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(sender, token);
    ResponseWaiter waiter;
    bus.get().connect(kService, requestPath, kRequestInterface, QStringLiteral("Response"), &waiter,
                      SLOT(onResponse(uint, QVariantMap)));

    QDBusInterface camera(kService, kPath, kCameraInterface, bus.get());
    if (!camera.isValid())
        return unavailable(QStringLiteral("no camera portal on the session bus"));
    qCInfo(lcCameraPortal, "asking the desktop's camera portal for the cameras");
    const QDBusReply<QDBusObjectPath> request
        = camera.call(QStringLiteral("AccessCamera"), QVariantMap{{QStringLiteral("handle_token"), token}});
    if (!request.isValid())
        return unavailable(QStringLiteral("AccessCamera failed: %1").arg(request.error().message()));
    if (request.value().path() != requestPath) {
        // An older portal picks its own path: listen there too.
        bus.get().connect(kService, request.value().path(), kRequestInterface, QStringLiteral("Response"), &waiter,
                          SLOT(onResponse(uint, QVariantMap)));
    }
    if (!waiter.answered) {
        QTimer::singleShot(timeoutMs, &waiter.loop, &QEventLoop::quit);
        waiter.loop.exec();
    }
    if (!waiter.answered)
        return unavailable(QStringLiteral("the portal did not answer within %1 s").arg(timeoutMs / 1000));
    if (waiter.response != 0) {
        if (why)
            *why = QStringLiteral("camera access was refused in the desktop's privacy settings");
        qCInfo(lcCameraPortal, "the camera portal refused access (response %u)", waiter.response);
        return Answer::Refused;
    }

    const QDBusReply<QDBusUnixFileDescriptor> remote = camera.call(QStringLiteral("OpenPipeWireRemote"), QVariantMap{});
    if (!remote.isValid() || !remote.value().isValid())
        return unavailable(QStringLiteral("OpenPipeWireRemote failed: %1").arg(remote.error().message()));
    // The reply's descriptor closes with it; PipeWire takes a copy of its own.
    const int fd = ::dup(remote.value().fileDescriptor());
    QString failure;
    auto opened = fd >= 0 ? Connection::open(fd, &failure) : nullptr;
    if (!opened)
        return unavailable(QStringLiteral("the portal's PipeWire remote did not answer: %1").arg(failure));
    qCInfo(lcCameraPortal, "the camera portal granted access");
    if (connection)
        *connection = std::move(opened);
    return Answer::Granted;
}

}  // namespace zavo::platform::pipewire

#include "Portal.moc"
