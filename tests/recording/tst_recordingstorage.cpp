// The recording folder, its names, and the recorders' error values.
#include "resources/ZMBundleLink_p.h"
#include "base/FileSystem.h"
#include "recording/ZMRecordingStorage_p.h"
#include "zavocore/ZavoCore_p.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

using namespace zavo;

class TstRecordingStorage : public QObject {
    Q_OBJECT

    QTemporaryDir dir;

    static void touch(const QString& path)
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
    }

private slots:
    void cleanup() { platform::setDocumentsDirectory({}); }

    void documentsFolderIsAPathUrl()
    {
        // Characters that mean something in a URL stay part of the path.
        const QString odd = dir.filePath("My Documents #1 100%");
        platform::setDocumentsDirectory(odd);
        const QUrl url = zavocamera_documentsFolder();
        QVERIFY(url.isValid());
        QVERIFY(!url.isLocalFile());
        QCOMPARE(url.path(), odd);
        QCOMPARE(ZMRecordingStorage::folderPath(), odd + "/bright_fold");
        QCOMPARE(ZMRecordingStorage::recompressedVideoPath(), odd + "/bright_fold/recompressed.mp4");
        QCOMPARE(ZMRecordingStorage::frameFileName(-7), QStringLiteral("bf_sample_buffer_-7.dat"));
    }

    void frameDumpFolderCheckKeepsWhatIsThere()
    {
        platform::setDocumentsDirectory(dir.filePath("keep/Documents"));
        ZMRecordingStorage::createFolderIfMissing();
        QVERIFY(QFileInfo(ZMRecordingStorage::folderPath()).isDir());
        touch(ZMRecordingStorage::folderPath() + "/ZMRecordedVideo.mp4");
        ZMRecordingStorage::createFolderIfMissing();
        QVERIFY(QFile::exists(ZMRecordingStorage::folderPath() + "/ZMRecordedVideo.mp4"));
    }

    void movieOutputFolderResetEmptiesIt()
    {
        platform::setDocumentsDirectory(dir.filePath("reset"));
        ZMRecordingStorage::recreateEmptyFolder();
        const QString folder = ZMRecordingStorage::folderPath();
        touch(folder + "/ZMRecordedVideo.mp4");
        QVERIFY(QDir().mkpath(folder + "/nested/deeper"));
        touch(folder + "/nested/deeper/x.dat");
        ZMRecordingStorage::recreateEmptyFolder();
        QVERIFY(QFileInfo(folder).isDir());
        QCOMPARE(QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
        // A regular file in the folder's place goes too.
        QVERIFY(QDir(folder).removeRecursively());
        touch(folder);
        ZMRecordingStorage::recreateEmptyFolder();
        QVERIFY(QFileInfo(folder).isDir());
    }

    void errorValues()
    {
        const platform::ErrorPtr flush = ZMRecordingStorage::videoFlushFailedError();
        QCOMPARE(flush->domain(), kZavoCameraBundleIdentifier);
        QCOMPARE(flush->code(), 1018L);
        QCOMPARE(flush->localizedDescription(), QStringLiteral("errors.VIDEO_FLUSH_FAILED"));
        const platform::ErrorPtr quality = ZMRecordingStorage::badQualityError();
        QCOMPARE(quality->domain(), core::kZCErrorDomain);
        QCOMPARE(quality->code(), 1001L);
        // The host has no entry for the key, so the lookup gives the key.
        QCOMPARE(quality->localizedDescription(), QStringLiteral("errors.bad_quality"));
        QCOMPARE(describeError(*flush),
                 QStringLiteral("Error Domain=com.zavo.ZavoCamera Code=1018 \"errors.VIDEO_FLUSH_FAILED\""));
    }
};

QTEST_GUILESS_MAIN(TstRecordingStorage)
#include "tst_recordingstorage.moc"
