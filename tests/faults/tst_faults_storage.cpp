// Storage faults under a whole recorded session: the Documents folder
// missing, read-only, or filling up while the session records, with each of
// the two recorders. A recording fault never reaches the host: the session
// still ends with its best shot and the video's path, the recorder's failure
// is logged, and nothing is left half-written or running.
//
// Faults are real wherever the machine allows: a Documents path that cannot
// be created even by root, a read-only bind mount, a small tmpfs. Without
// mount(2) a read-only folder is a chmod (skipped as root, which ignores
// modes) and a full disk is a file size limit.
#include "FaultTestSupport.h"

#include "resources/ZMBundleLink_p.h"
#include "camera/file/FileCaptureDevice.h"
#include "base/FileSystem.h"
#include "recording/ZMRecordingStorage_p.h"
#include "recording/ZMVideoCompresion_p.h"

#include <QApplication>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>

#include <csignal>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace zavo;
using namespace zavo::testing;

namespace {

/// What a damaged input to the compressor is made of.
enum class Damage {
    CutToAThird,  // a clip whose last two thirds are gone (its index is at the front)
    ZeroLength,   // an empty file
    Photo,        // a JPEG photo: an image, not a video
};

enum class Fault {
    DocumentsMissing,   // Documents does not exist and cannot be made
    DocumentsReadOnly,  // Documents (with an older video in it) cannot be written
    DiskFills,          // room for the first frames only
};

const QString kOlderVideo = QStringLiteral("older session video, must survive");

/// A mount made for one test, undone when the test ends, failed or not.
class ScopedMount {
public:
    ScopedMount() = default;
    ScopedMount(const ScopedMount&) = delete;
    ScopedMount& operator=(const ScopedMount&) = delete;
    ~ScopedMount() { undo(); }

    /// A tmpfs of size bytes over folder.
    bool tmpfs(const QString& folder, qint64 bytes)
    {
        const QByteArray options = "size=" + QByteArray::number(bytes);
        return attach(folder, ::mount("tmpfs", QFile::encodeName(folder).constData(), "tmpfs", 0, options.constData()) == 0);
    }
    /// folder over itself, read-only.
    bool readOnlyBind(const QString& folder)
    {
        const QByteArray path = QFile::encodeName(folder);
        if (!attach(folder, ::mount(path.constData(), path.constData(), nullptr, MS_BIND, nullptr) == 0))
            return false;
        return ::mount(nullptr, path.constData(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
    }
    void undo()
    {
        if (target_.isEmpty())
            return;
        // Lazily, should a descriptor still be open: the test then fails on
        // the descriptor count, not on a mount left behind.
        ::umount2(QFile::encodeName(target_).constData(), MNT_DETACH);
        target_.clear();
    }

private:
    bool attach(const QString& folder, bool mounted)
    {
        if (mounted)
            target_ = folder;
        return mounted;
    }
    QString target_;
};

/// A file size limit for the whole process, lifted when the test ends. Writes
/// past it fail with EFBIG as on a full disk (SIGXFSZ is ignored meanwhile).
class ScopedFileSizeLimit {
public:
    explicit ScopedFileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &saved_);
        previousHandler_ = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = saved_;
        limit.rlim_cur = bytes;
        active_ = setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }
    ~ScopedFileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &saved_);
        std::signal(SIGXFSZ, previousHandler_);
    }
    bool active() const { return active_; }

private:
    rlimit saved_{};
    void (*previousHandler_)(int) = nullptr;
    bool active_ = false;
};

}  // namespace

Q_DECLARE_METATYPE(Recorder)
Q_DECLARE_METATYPE(Fault)
Q_DECLARE_METATYPE(Damage)

class TstFaultsStorage : public QObject {
    Q_OBJECT

    QTemporaryDir scratch{QDir::currentPath() + QStringLiteral("/faults-storage-XXXXXX")};
    QString documents;  // what the session takes for Documents
    QString videoPath;  // <documents>/bright_fold/ZMRecordedVideo.mp4
    std::shared_ptr<core::ZCZavoConfiguration> configuration;
    std::shared_ptr<platform::FileCaptureDevice> camera;
    std::unique_ptr<PermissionScope> permission;
    ScopedMount mount;
    std::unique_ptr<ScopedFileSizeLimit> sizeLimit;
    QString faultNote;  // the cause as produced, for the log
    const char* skipReason = nullptr;  // set when the machine cannot produce the fault

    /// Puts a session video of an earlier session in the recording folder.
    void placeOlderVideo()
    {
        QVERIFY(QDir().mkpath(documents + QStringLiteral("/bright_fold")));
        QVERIFY(platform::writeFileAtomically(videoPath, kOlderVideo.toUtf8()));
        QVERIFY(platform::writeFileAtomically(documents + QStringLiteral("/host-notes.txt"), "the host's own notes"));
    }

    void produce(Fault fault, Recorder recorder)
    {
        switch (fault) {
        case Fault::DocumentsMissing: {
            // A dangling link: nothing exists at the path, and nothing can be
            // made there, root or not, because its target lies under a file.
            const QString blocker = scratch.filePath(QStringLiteral("not-a-folder"));
            QVERIFY(platform::writeFileAtomically(blocker, "a file, not a folder"));
            QVERIFY(QFile::link(blocker + QStringLiteral("/Documents"), documents));
            faultNote = QStringLiteral("dangling Documents link");
            return;
        }
        case Fault::DocumentsReadOnly:
            placeOlderVideo();
            if (mount.readOnlyBind(documents)) {
                faultNote = QStringLiteral("read-only bind mount");
                return;
            }
            mount.undo();
            if (::geteuid() == 0) {
                skipReason = "running as root, which ignores file modes, and mount(2) is not allowed here";
                return;
            }
            QVERIFY(QFile::setPermissions(documents + QStringLiteral("/bright_fold"),
                                          QFile::ReadOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup
                                              | QFile::ReadOther | QFile::ExeOther));
            faultNote = QStringLiteral("chmod 0555");
            return;
        case Fault::DiskFills: {
            // Room for about four raw frames of the frame-dump recorder, or
            // the first second or so of the movie output's H.264.
            const qint64 room = recorder == Recorder::FrameDump ? 16 << 20 : 64 << 10;
            QVERIFY(QDir().mkpath(documents));
            if (mount.tmpfs(documents, room)) {
                faultNote = QStringLiteral("tmpfs size=%1").arg(room);
                return;
            }
            // A per-file limit cannot let the first raw frames in and keep
            // later ones out (each is a file of its own): below one frame,
            // every frame write fails instead.
            sizeLimit = std::make_unique<ScopedFileSizeLimit>(recorder == Recorder::FrameDump ? 1 << 20 : room);
            QVERIFY(sizeLimit->active());
            faultNote = QStringLiteral("RLIMIT_FSIZE");
            return;
        }
        }
    }

private slots:
    void initTestCase()
    {
        QVERIFY(scratch.isValid());
        QVERIFY(prepareSuite());
    }

    void init()
    {
        LogRecorder::instance().clear();
        skipReason = nullptr;
        // A fresh home per test; Documents is found through it.
        const QString home = scratch.filePath(QString::fromLatin1(QTest::currentTestFunction()) + QLatin1Char('-')
                                              + QString::fromLatin1(QTest::currentDataTag()).replace(' ', '-'));
        QVERIFY(QDir().mkpath(home));
        qputenv("HOME", QFile::encodeName(home));
        documents = home + QStringLiteral("/Documents");
        QCOMPARE(platform::documentsDirectory(), documents);
        videoPath = documents + QStringLiteral("/bright_fold/ZMRecordedVideo.mp4");
        // The default step limit (30 s) only bounds a hang, like the waits.
        configuration = std::make_shared<core::ZCZavoConfiguration>();
        permission = std::make_unique<PermissionScope>(platform::AuthorizationStatus::Authorized);
        camera = platform::FileCaptureDevice::create(dataPath("A_zoom_blur_dark.mp4"), platform::CaptureDevicePosition::Front);
        QVERIFY(camera);
        platform::CaptureDeviceRegistry::shared().registerDevice(camera);
    }

    void cleanup()
    {
        sizeLimit.reset();
        mount.undo();
        permission.reset();
        camera.reset();
        forgetCamerasAndSettle();
    }

    void recordingFaultKeepsTheOutcome_data()
    {
        QTest::addColumn<Recorder>("recorder");
        QTest::addColumn<Fault>("fault");
        // The recorder's reports as the screen gets them (0: success).
        QTest::addColumn<QStringList>("reports");
        // Log lines that must appear; %1 is the session video's path.
        QTest::addColumn<QStringList>("logged");
        // What the recording folder holds once the recorder is done.
        QTest::addColumn<QStringList>("folderLeft");

        // Patterns; %1 is the session video's path. The recording's own
        // error and the compressor's text come from the platform and the
        // host's string table, so only their domain and code are fixed.
        const QString flushed = QStringLiteral("^>>> Error while flushing video file <%1>: <Error Domain=");
        const QString flushFailed = flushed + QRegularExpression::escape(kZavoCameraBundleIdentifier)
            + QStringLiteral(" Code=1018 \"errors\\.VIDEO_FLUSH_FAILED\">$");
        const QString recordingFailed = flushed + QStringLiteral("zavo\\.platform\\.media Code=\\d+ ");
        const QString recompressionFailed =
            flushed + QRegularExpression::escape(core::kZCErrorDomain) + QStringLiteral(" Code=1001 ");
        const QString oldVideo = QStringLiteral("ZMRecordedVideo.mp4");

        QTest::newRow("frame dump, Documents missing")
            << Recorder::FrameDump << Fault::DocumentsMissing << QStringList{"1018"} << QStringList{flushFailed}
            << QStringList{};
        QTest::newRow("movie output, Documents missing")
            << Recorder::MovieOutput << Fault::DocumentsMissing << QStringList{"media", "1001"}
            << QStringList{recordingFailed, recompressionFailed} << QStringList{};
        QTest::newRow("frame dump, Documents read-only")
            << Recorder::FrameDump << Fault::DocumentsReadOnly << QStringList{"1018"} << QStringList{flushFailed}
            << QStringList{oldVideo};
        QTest::newRow("movie output, Documents read-only")
            << Recorder::MovieOutput << Fault::DocumentsReadOnly << QStringList{"media", "1001"}
            << QStringList{recordingFailed, recompressionFailed} << QStringList{oldVideo};
        QTest::newRow("frame dump, disk fills") << Recorder::FrameDump << Fault::DiskFills << QStringList{"ok"}
                                                << QStringList{} << QStringList{oldVideo};
        // The movie could not be finished, so no unreadable half of it stays.
        QTest::newRow("movie output, disk fills")
            << Recorder::MovieOutput << Fault::DiskFills << QStringList{"media", "1001"}
            << QStringList{recordingFailed, recompressionFailed} << QStringList{};
    }

    void recordingFaultKeepsTheOutcome()
    {
        QFETCH(Recorder, recorder);
        QFETCH(Fault, fault);
        QFETCH(QStringList, reports);
        QFETCH(QStringList, logged);
        QFETCH(QStringList, folderLeft);
        useRecorder(recorder);
        const QString temp = QDir::tempPath();
        const QSet<QString> tempBefore = filesUnder({temp});
        const ProcessCounters before = ProcessCounters::now();
        produce(fault, recorder);
        if (skipReason)
            QSKIP(skipReason);
        if (QTest::currentTestFailed())
            return;
        qInfo("fault produced by: %s", qPrintable(faultNote));
        const bool hadOlderVideo = QFile::exists(videoPath);
        // A file of the host's own beside the recording folder.
        const QString hostFile = documents + QStringLiteral("/host-notes.txt");
        const bool hasHostFile = fault != Fault::DocumentsMissing;
        if (fault == Fault::DiskFills)
            QVERIFY(platform::writeFileAtomically(hostFile, "the host's own notes"));

        Session session;
        session.present(configuration, nullptr, true);
        QVERIFY(session.waitForOutcome());
        // The recording's trouble is not the host's: the shot and the path arrive.
        const Outcome outcome = session.host->last();
        QVERIFY2(outcome.bestShot, qPrintable(outcome.error ? outcome.error->localizedDescription() : QString()));
        QCOMPARE(outcome.videoFile, std::optional<QString>(videoPath));
        QVERIFY(session.waitForReports(reports.size()));
        QCOMPARE(session.watch->savedCodes(), reports);
        QCOMPARE(session.host->count(), 1);
        QVERIFY(session.release());
        QVERIFY(!camera->isOpen());

        for (const QString& line : logged) {
            const QRegularExpression pattern(line.arg(QRegularExpression::escape(videoPath)));
            QVERIFY2(LogRecorder::instance().count(pattern) > 0, qPrintable(line.arg(videoPath)));
        }
        const QString folder = documents + QStringLiteral("/bright_fold");
        QCOMPARE(entriesOf(folder), folderLeft);
        if (hadOlderVideo && fault != Fault::DiskFills) {
            // Refused writes destroyed nothing that was there before.
            QFile older(videoPath);
            QVERIFY(older.open(QIODevice::ReadOnly));
            QCOMPARE(older.readAll(), kOlderVideo.toUtf8());
        } else if (fault == Fault::DiskFills && recorder == Recorder::FrameDump) {
            // The frames that fitted became a video.
            QVERIFY(decodableFrames(videoPath) > 0);
        }
        if (hasHostFile) {
            QFile notes(hostFile);
            QVERIFY(notes.open(QIODevice::ReadOnly));
        }
        QCOMPARE(filesUnder({temp}) - tempBefore, QSet<QString>{});
        ZAVO_COMPARE_COUNTERS(before);
    }

    /// A host that keeps only videos with a face gets none from an empty
    /// scene: the video is deleted once recorded, and that deletion is not
    /// followed by a recompression failure or a failed second deletion.
    void unwantedVideoIsDeletedQuietly()
    {
        platform::CaptureDeviceRegistry::shared().unregisterAll();
        auto empty = platform::FileCaptureDevice::create(dataPath("E_no_face.mp4"), platform::CaptureDevicePosition::Front);
        QVERIFY(empty);
        platform::CaptureDeviceRegistry::shared().registerDevice(empty);
        configuration->saveOnlyFaceVideo = true;
        configuration->detector.stepTimeout = 1;
        Session session;
        session.present(configuration, nullptr, true);
        QVERIFY(session.waitForOutcome());
        QCOMPARE(session.host->last().error->kind(), ZMCameraError::Case::bestShotError);
        QCOMPARE(session.host->last().videoFile, std::optional<QString>(videoPath));
        QVERIFY(session.waitForReports(1));
        QVERIFY(session.release());
        QCOMPARE(session.watch->savedCodes(), QStringList{QStringLiteral("ok")});
        QCOMPARE(entriesOf(documents + QStringLiteral("/bright_fold")), QStringList{});
        QCOMPARE(LogRecorder::instance().count(QRegularExpression(QStringLiteral("^>>> Error while"))), 0);
    }

    void compressorKeepsWhatItCannotRead_data()
    {
        QTest::addColumn<Damage>("damage");
        // What the compressor reports, and whether the file at the input's
        // path is afterwards the re-encoded video (else it is left untouched).
        QTest::addColumn<QList<CompressionResult>>("results");
        QTest::addColumn<bool>("replaced");
        using enum CompressionResult;
        // Reading stops where the file does; what could be read is kept.
        QTest::newRow("cut to a third") << Damage::CutToAThird << QList<CompressionResult>{success} << true;
        QTest::newRow("zero length") << Damage::ZeroLength << QList<CompressionResult>{failure} << false;
        QTest::newRow("photo") << Damage::Photo << QList<CompressionResult>{failure} << false;
    }

    void compressorKeepsWhatItCannotRead()
    {
        QFETCH(Damage, damage);
        QFETCH(QList<CompressionResult>, results);
        QFETCH(bool, replaced);
        const QString folder = scratch.filePath(QStringLiteral("compress-") + QString::fromLatin1(QTest::currentDataTag()).replace(' ', '-'));
        QVERIFY(QDir().mkpath(folder));
        QByteArray content;
        {
            QFile source(dataPath(damage == Damage::Photo ? "matplotlib__grace_hopper.jpg" : "A_zoom_blur_dark.mp4"));
            QVERIFY(source.open(QIODevice::ReadOnly));
            content = source.readAll();
        }
        if (damage == Damage::CutToAThird)
            content.truncate(content.size() / 3);
        else if (damage == Damage::ZeroLength)
            content.clear();
        const QString input = folder + QStringLiteral("/ZMRecordedVideo.mp4");
        QVERIFY(platform::writeFileAtomically(input, content));
        const QString temp = QDir::tempPath();
        const QSet<QString> tempBefore = filesUnder({temp});
        const ProcessCounters before = ProcessCounters::now();

        // In the process, the way the movie-output recorder calls it.
        std::mutex mutex;
        QList<CompressionResult> reported;
        {
            auto compressor = ZMVideoCompresion::create();
            compressor->compressFile(input, folder + QStringLiteral("/recompressed.mp4"), [&](CompressionResult result) {
                std::lock_guard lock(mutex);
                reported << result;
            });
            QTRY_VERIFY_WITH_TIMEOUT(platform::DispatchQueue::liveThreadCount() == 0, 30000);
        }
        {
            std::lock_guard lock(mutex);
            QCOMPARE(reported, results);
        }
        QCOMPARE(entriesOf(folder), QStringList{QStringLiteral("ZMRecordedVideo.mp4")});
        if (replaced) {
            QVERIFY(decodableFrames(input) > 0);
        } else {
            QFile kept(input);
            QVERIFY(kept.open(QIODevice::ReadOnly));
            QVERIFY(kept.readAll() == content);
        }
        QCOMPARE(filesUnder({temp}) - tempBefore, QSet<QString>{});
        ZAVO_COMPARE_COUNTERS(before);

        // The command-line tool on a fresh copy: its exit status and line.
        QVERIFY(platform::writeFileAtomically(input, content));
        QProcess tool;
        tool.start(QStringLiteral(ZAVO_COMPRESS_TOOL), {input});
        QVERIFY(tool.waitForFinished(60000));
        const bool succeeded = results.last() == CompressionResult::success;
        QCOMPARE(tool.exitCode(), succeeded ? 0 : 1);
        QCOMPARE(QString::fromUtf8(tool.readAllStandardOutput()),
                 QStringLiteral("zavo-compress: %1: %2\n").arg(input, succeeded ? "success" : "failure"));
        QCOMPARE(entriesOf(folder), QStringList{QStringLiteral("ZMRecordedVideo.mp4")});
        if (!replaced) {
            QFile kept(input);
            QVERIFY(kept.open(QIODevice::ReadOnly));
            QVERIFY(kept.readAll() == content);
        }
    }
};

int main(int argc, char** argv)
{
    // A temporary folder of the suite's own, so that files others leave in
    // the system's one are not taken for this suite's leftovers.
    const QByteArray temp = QDir::currentPath().toLocal8Bit() + "/faults-storage-tmp";
    QDir().mkpath(QString::fromLocal8Bit(temp));
    qputenv("TMPDIR", temp);
    QApplication app(argc, argv);
    TstFaultsStorage test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_faults_storage.moc"
