#pragma once
// A private desktop media stack for one test program: its own session bus,
// a real PipeWire daemon with WirePlumber as its session manager, and camera
// nodes made by GStreamer producers, all under a runtime folder of the
// test's own. The test process reaches this daemon, and no other, through
// PIPEWIRE_RUNTIME_DIR.
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <map>
#include <memory>

namespace zavo::testing {

class PipeWireRig {
public:
    /// The programs the rig starts; the first one missing, or empty.
    static QString missingTool()
    {
        for (const char* tool : {"dbus-daemon", "pipewire", "wireplumber", "gst-launch-1.0"}) {
            if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
                return QString::fromLatin1(tool);
        }
        return {};
    }

    ~PipeWireRig()
    {
        for (auto& [name, producer] : producers_)
            stop(*producer);
        for (QProcess* process : {&wireplumber_, &pipewire_, &bus_})
            stop(*process);
    }

    /// Starts the bus, the daemon and the session manager. Fails the
    /// running test when one does not come up.
    void start()
    {
        QVERIFY(runtime_.isValid());
        QFile::setPermissions(runtime_.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime_.path());
        environment.remove(QStringLiteral("PIPEWIRE_REMOTE"));
        environment.remove(QStringLiteral("PIPEWIRE_RUNTIME_DIR"));
        bus_.setProcessEnvironment(environment);
        bus_.start(QStringLiteral("dbus-daemon"), {"--session", "--nofork", "--nopidfile", "--print-address=1"});
        QVERIFY2(bus_.waitForReadyRead(10000), bus_.readAllStandardError().constData());
        busAddress_ = QString::fromLatin1(bus_.readLine().trimmed());
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress_);
        environment_ = environment;
        pipewire_.setProcessEnvironment(environment);
        pipewire_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        pipewire_.start(QStringLiteral("pipewire"), {});
        // The daemon is up once its socket is there.
        const QString socket = QDir(runtime_.path()).filePath(QStringLiteral("pipewire-0"));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(socket), 10000);
        wireplumber_.setProcessEnvironment(environment);
        wireplumber_.setStandardErrorFile(QDir(runtime_.path()).filePath(QStringLiteral("wireplumber.log")));
        wireplumber_.start(QStringLiteral("wireplumber"), {});
        QVERIFY(wireplumber_.waitForStarted(10000));
        qputenv("PIPEWIRE_RUNTIME_DIR", runtime_.path().toLocal8Bit());
        qunsetenv("PIPEWIRE_REMOTE");
    }

    QString runtimeDir() const { return runtime_.path(); }
    QString busAddress() const { return busAddress_; }
    QProcessEnvironment environment() const { return environment_; }

    /// Starts a camera node named name, fed by a GStreamer pipeline that ends
    /// in raw or JPEG video (e.g. "videotestsrc is-live=true !
    /// video/x-raw,format=YUY2,width=640,height=480,framerate=30/1").
    bool startCamera(const QString& name, const QString& source)
    {
        auto producer = std::make_unique<QProcess>();
        producer->setProcessEnvironment(environment_);
        producer->setStandardOutputFile(QProcess::nullDevice());
        producer->setStandardErrorFile(QDir(runtime_.path()).filePath(name + QStringLiteral(".log")));
        // gst-launch joins its arguments and parses them again: no spaces in
        // the properties.
        const QString sink = QStringLiteral(
                                 "pipewiresink mode=provide stream-properties=props,media.class=Video/Source,"
                                 "media.role=Camera,node.name=%1,node.description=Test-%1")
                                 .arg(name);
        producer->start(QStringLiteral("gst-launch-1.0"),
                        QProcess::splitCommand(QStringLiteral("-q ") + source + QStringLiteral(" ! ") + sink));
        if (!producer->waitForStarted(10000))
            return false;
        producers_[name] = std::move(producer);
        return true;
    }

    /// Ends a camera's producer the way a crash or an unplug does: killed.
    void killCamera(const QString& name)
    {
        auto it = producers_.find(name);
        if (it == producers_.end())
            return;
        it->second->kill();
        it->second->waitForFinished(10000);
        producers_.erase(it);
    }

    void killAllCameras()
    {
        while (!producers_.empty())
            killCamera(producers_.begin()->first);
    }

    QString producerLog(const QString& name) const
    {
        QFile log(QDir(runtime_.path()).filePath(name + QStringLiteral(".log")));
        return log.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(log.readAll()) : QString();
    }

private:
    static void stop(QProcess& process)
    {
        if (process.state() == QProcess::NotRunning)
            return;
        process.terminate();
        if (!process.waitForFinished(5000)) {
            process.kill();
            process.waitForFinished(5000);
        }
    }

    QTemporaryDir runtime_;
    QString busAddress_;
    QProcessEnvironment environment_;
    QProcess bus_;
    QProcess pipewire_;
    QProcess wireplumber_;
    std::map<QString, std::unique_ptr<QProcess>> producers_;
};

}  // namespace zavo::testing
