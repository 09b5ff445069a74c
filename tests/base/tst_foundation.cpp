// Notification centre, platform version, bundles and string tables, files,
// and pixel-buffer pools.
#include "resources/ZMBundleLink_p.h"
#include "base/Bundle_p.h"
#include "base/FileSystem.h"
#include "base/NotificationCenter.h"
#include "media/PixelBuffer.h"
#include "base/ProcessInfo_p.h"
#include "media/SampleBuffer.h"

#include <QApplication>
#include <QTemporaryDir>
#include <QtTest>

using namespace zavo;
using namespace zavo::platform;

class TstFoundation : public QObject {
    Q_OBJECT

private slots:
    void notificationsReachMatchingObserversOnly()
    {
        NotificationCenter center;
        int a = 0, b = 0, any = 0;
        const int senderX = 0, senderY = 0;
        center.addObserver(&a, QStringLiteral("rotate"), nullptr, [&](const Notification&) { ++a; });
        center.addObserver(&b, QStringLiteral("rotate"), &senderX, [&](const Notification&) { ++b; });
        center.addObserver(&any, QString(), nullptr, [&](const Notification& n) {
            any += n.userInfo.value(QStringLiteral("step"), 1).toInt();
        });
        center.post(QStringLiteral("rotate"), &senderY);
        center.post(QStringLiteral("rotate"), &senderX);
        center.post(QStringLiteral("other"), nullptr, {{QStringLiteral("step"), 10}});
        QCOMPARE(a, 2);
        QCOMPARE(b, 1);
        QCOMPARE(any, 12);
        center.removeObserver(&a);
        center.post(QStringLiteral("rotate"), &senderX);
        QCOMPARE(a, 2);
        QCOMPARE(b, 2);
    }

    void observerMayRemoveItselfWhileBeingNotified()
    {
        NotificationCenter center;
        int calls = 0;
        center.addObserver(&calls, QStringLiteral("n"), nullptr, [&](const Notification&) {
            ++calls;
            center.removeObserver(&calls);
        });
        center.post(QStringLiteral("n"));
        center.post(QStringLiteral("n"));
        QCOMPARE(calls, 1);
    }

    void platformVersionGate()
    {
        QVERIFY(ProcessInfo::isOperatingSystemAtLeast(16, 0, 0));
        QVERIFY(!ProcessInfo::isOperatingSystemAtLeast(16, 0, 1));
        ProcessInfo::setOperatingSystemVersion({15, 7, 3});
        QVERIFY(!ProcessInfo::isOperatingSystemAtLeast(16, 0, 0));
        QVERIFY(ProcessInfo::isOperatingSystemAtLeast(15, 7, 3));
        QVERIFY(!ProcessInfo::isOperatingSystemAtLeast(15, 8, 0));
        ProcessInfo::resetOperatingSystemVersion();
        QVERIFY(ProcessInfo::isOperatingSystemAtLeast(16, 0, 0));
    }

    void frameworkStringTableAndMissingKeys()
    {
        const Bundle& bundle = ZMBundleLink::bundle();
        QCOMPARE(bundle.bundleIdentifier(), QStringLiteral("com.zavo.ZavoCamera"));
        const QString canceled = bundle.localizedString(QStringLiteral("errors.canceled"));
        QVERIFY(!canceled.isEmpty());
        QVERIFY(canceled != QStringLiteral("errors.canceled"));
        QCOMPARE(bundle.localizedString(QStringLiteral("errors.no_such_key")), QStringLiteral("errors.no_such_key"));
        QCOMPARE(bundle.localizedString(QStringLiteral("errors.no_such_key"), QStringLiteral("fallback")),
                 QStringLiteral("fallback"));
        // The host's table is its own: the framework's keys are not in it.
        QCOMPARE(Bundle::main().localizedString(QStringLiteral("errors.canceled")), QStringLiteral("errors.canceled"));
        QVERIFY(bundle.pathForResource(QStringLiteral("images/no_such_image"), QStringLiteral("png")).isEmpty());
        QVERIFY(bundle.image(QStringLiteral("no_such_image")).isNull());
    }

    void hostInformationComesFromTheApplicationObject()
    {
        QCoreApplication::setApplicationName(QStringLiteral("Host"));
        QCoreApplication::setApplicationVersion(QStringLiteral("2.1.0"));
        qApp->setProperty("CFBundleVersion", QStringLiteral("57"));
        auto info = Bundle::main().infoDictionary();
        QVERIFY(info.has_value());
        QCOMPARE(info->value(QStringLiteral("CFBundleName")).toString(), QStringLiteral("Host"));
        QCOMPARE(info->value(QStringLiteral("CFBundleShortVersionString")).toString(), QStringLiteral("2.1.0"));
        QCOMPARE(info->value(QStringLiteral("CFBundleVersion")).toString(), QStringLiteral("57"));
        // An explicit property wins over the application name, whatever its type.
        qApp->setProperty("CFBundleName", 42);
        info = Bundle::main().infoDictionary();
        QCOMPARE(info->value(QStringLiteral("CFBundleName")).typeId(), QMetaType::Int);
        qApp->setProperty("CFBundleName", QVariant());
        qApp->setProperty("CFBundleVersion", QVariant());
        QVERIFY(!Bundle::main().infoDictionary()->contains(QStringLiteral("CFBundleVersion")));
    }

    void documentsFolderOverride()
    {
        const QString standard = documentsDirectory();
        QVERIFY(!standard.isEmpty());
        setDocumentsDirectory(QStringLiteral("/tmp/zavo-elsewhere"));
        QCOMPARE(documentsDirectory(), QStringLiteral("/tmp/zavo-elsewhere"));
        setDocumentsDirectory({});
        QCOMPARE(documentsDirectory(), standard);
    }

    void atomicWriteNeverLeavesAHalfFile()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("frame.dat"));
        QVERIFY(writeFileAtomically(path, QByteArray("first")));
        QVERIFY(writeFileAtomically(path, QByteArray("second")));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("second"));
        // A parent that is a regular file cannot hold files, even for root.
        QVERIFY(!writeFileAtomically(path + QStringLiteral("/child.dat"), QByteArray("x")));
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files), QStringList{QStringLiteral("frame.dat")});
    }

    void poolRecyclesBuffersInsteadOfGrowing()
    {
        auto pool = PixelBufferPool::create({PixelFormat::BGRA32, 720, 1280});
        QVERIFY(pool);
        QCOMPARE(pool->bytesPerRow() % 64, size_t(0));
        QVERIFY(pool->bytesPerRow() >= 720 * 4);
        uint8_t* firstPixels = nullptr;
        {
            auto a = pool->createPixelBuffer();
            auto b = pool->createPixelBuffer();
            QVERIFY(a && b);
            QVERIFY(a->baseAddress() != b->baseAddress());
            QCOMPARE(a->bytesPerRow(), pool->bytesPerRow());
            QCOMPARE(a->pool(), pool);
            firstPixels = b->baseAddress();
        }
        for (int frame = 0; frame < 100; ++frame) {
            auto buffer = pool->createPixelBuffer();
            SampleBuffer sample(buffer, MediaTime::make(frame, 30), FormatDescription::forImageBuffer(*buffer));
            QVERIFY(sample.isValid());
        }
        QCOMPARE(pool->allocatedBufferCount(), 2);
        auto again = pool->createPixelBuffer();
        QVERIFY(again->baseAddress() == firstPixels || pool->allocatedBufferCount() == 2);
    }

    void buffersOutliveTheirPool()
    {
        auto pool = PixelBufferPool::create({PixelFormat::NV12VideoRange, 641, 481});
        auto buffer = pool->createPixelBuffer();
        QCOMPARE(buffer->planeCount(), 2);
        QCOMPARE(buffer->heightOfPlane(1), 241);
        QVERIFY(buffer->baseAddress(1) > buffer->baseAddress(0));
        pool.reset();
        buffer->lockBaseAddress();
        std::memset(buffer->baseAddress(1), 0x80, buffer->bytesPerRow(1) * 241);
        buffer->unlockBaseAddress();
        QVERIFY(!buffer->pool());
        QVERIFY(!PixelBufferPool::create({PixelFormat::BGRA32, 0, 10}));
        QVERIFY(!PixelBuffer::create(-1, 10, PixelFormat::BGRA32));
    }

    void mediaTimeComparesInstants()
    {
        QCOMPARE(MediaTime::make(1, 2), MediaTime::make(15, 30));
        QVERIFY(MediaTime::make(1, 30) < MediaTime::make(1, 29));
        QVERIFY(!MediaTime::make(3, 0).isValid());
        QCOMPARE(MediaTime::make(90, 30).convertScale(600), MediaTime::make(1800, 600));
        QCOMPARE(MediaTime::make(90, 30).convertScale(600).value, int64_t(1800));
    }
};

QTEST_MAIN(TstFoundation)
#include "tst_foundation.moc"
