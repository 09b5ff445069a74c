// The queue checks at the entry of methods that belong to one queue: a call
// from the wrong thread ends the process and names the method, the queue and
// the thread; the same call on its own queue runs. The wrong-thread calls run
// in a child process (this program again, with --break), because the check
// ends the process that breaks it.
#include "base/Affinity_p.h"
#include "capture/ZMCameraCaptureManager.h"
#include "zavocore/ZCBestShotDetectorProtocol.h"

#include <QApplication>
#include <QProcess>
#include <QtTest>

#include <thread>

using namespace zavo;
using namespace zavo::platform;

namespace {

void onlyOn(const DispatchQueuePtr& queue) { ZAVO_ASSERT_ON(queue); }

struct SilentDelegate final : core::ZCBestShotDelegate {
    bool bestShot(core::ZCBestShotPtr) override { return true; }
    void bestShotError(ErrorPtr) override {}
    void detectionRect(const QRectF&, const QSizeF&) override {}
    void livenessIsActive(bool) override {}
};

// Each breaks one promise; none returns when the check is compiled in.
int breakAffinity(const QByteArray& what)
{
    if (what == "queue") {
        onlyOn(DispatchQueue::create(QStringLiteral("test.owner")));
    } else if (what == "capture-session") {
        ZMCameraCaptureManager::create()->useSessionPreset(QStringLiteral("1280x720"));
    } else if (what == "detector") {
        auto delegate = std::make_shared<SilentDelegate>();
        auto detector = core::ZCBestShotBuilder::buildWithDelegate(delegate, nullptr, nullptr);
        std::thread([&] { detector->pushFrame(SampleBuffer()); }).join();
    }
    return 0;
}

}  // namespace

class TstAffinity : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
#if !defined(ZAVO_CHECK_AFFINITY)
        QSKIP("configured with ZAVO_CHECK_AFFINITY=OFF: the checks are compiled away");
#endif
    }

    void aCallOnItsOwnQueueRuns()
    {
        auto queue = DispatchQueue::create(QStringLiteral("test.owner"));
        queue->sync([&] { onlyOn(queue); });
        auto manager = ZMCameraCaptureManager::create();
        bool answered = true;
        manager->captureSessionQueue()->sync([&] {
            answered = manager->useSessionPreset(QStringLiteral("1280x720"));
        });
        QVERIFY(!answered);  // no camera configured: refused, not stopped
    }

    void aCallFromAnotherThreadEndsTheProcess_data()
    {
        QTest::addColumn<QByteArray>("what");
        QTest::addColumn<QString>("message");
        QTest::newRow("bare queue") << QByteArray("queue")
                                    << QStringLiteral("onlyOn(const zavo::platform::DispatchQueuePtr&) must run on test.owner");
        QTest::newRow("capture manager off its session queue")
            << QByteArray("capture-session")
            << QStringLiteral("ZMCameraCaptureManager::useSessionPreset(const QString&) must run on CaptureSessionQueue");
        QTest::newRow("detector fed off the main queue")
            << QByteArray("detector") << QStringLiteral("pushFrame(const zavo::platform::SampleBuffer&) must run on the main queue");
    }

    void aCallFromAnotherThreadEndsTheProcess()
    {
        QFETCH(QByteArray, what);
        QFETCH(QString, message);
        QProcess child;
        child.setProcessChannelMode(QProcess::SeparateChannels);
        child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--break"), QString::fromLatin1(what)});
        QVERIFY(child.waitForFinished(60000));
        const QString errors = QString::fromLocal8Bit(child.readAllStandardError());
        QCOMPARE(child.exitStatus(), QProcess::CrashExit);
        QVERIFY2(errors.contains(message), qPrintable(errors));
        QVERIFY2(errors.contains(QStringLiteral("but ran on thread")), qPrintable(errors));
    }
};

int main(int argc, char** argv)
{
    if (argc == 3 && qstrcmp(argv[1], "--break") == 0) {
        QApplication app(argc, argv);
        return breakAffinity(argv[2]);
    }
    QApplication app(argc, argv);
    TstAffinity test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_affinity.moc"
