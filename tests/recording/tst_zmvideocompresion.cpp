// The compressor: a portrait movie with sound becomes a small silent one that
// keeps its orientation, in the input's place; and every way it can fail.
#include "MissingPrerequisite.h"
#include "MediaTestSupport.h"
#include "base/DispatchQueue.h"
#include "base/ProcessInfo_p.h"
#include "recording/ZMVideoCompresion_p.h"

#include <QTemporaryDir>
#include <QtTest>
#include <mutex>
#include <thread>

using namespace zavo;
using namespace zavo::platform;
using namespace zavo::testing;

namespace {

/// Collects what one compression reports, from whichever thread.
struct Reports {
    std::mutex mutex;
    std::vector<CompressionResult> results;
    std::vector<std::thread::id> threads;

    ZMVideoCompresion::Completion completion()
    {
        return [this](CompressionResult result) {
            std::lock_guard lock(mutex);
            results.push_back(result);
            threads.push_back(std::this_thread::get_id());
        };
    }
    std::vector<CompressionResult> snapshot()
    {
        std::lock_guard lock(mutex);
        return results;
    }
    std::thread::id thread(size_t i)
    {
        std::lock_guard lock(mutex);
        return threads.at(i);
    }
};

using Results = std::vector<CompressionResult>;
const CompressionResult failure = CompressionResult::failure;
const CompressionResult success = CompressionResult::success;

}  // namespace

class TstZMVideoCompresion : public QObject {
    Q_OBJECT

    QTemporaryDir dir;
    QString portraitSource;  // 360x640 stored sideways, a quarter turn in its matrix, with sound
    QString audioSource;
    int baselineThreads = 0;

    QString copyOf(const QString& source, const QString& name)
    {
        const QString path = dir.filePath(name);
        QFile::remove(path);
        QFile::copy(source, path);
        return path;
    }

    /// Waits until every queue a compression made has finished its work.
    bool settled() const { return DispatchQueue::liveThreadCount() <= baselineThreads; }

private slots:
    void initTestCase()
    {
        if (!haveFfmpegTools())
            ZAVO_SKIP_MISSING("ffmpeg and ffprobe are needed to make and check the clips");
        portraitSource = dir.filePath("portrait-source.mp4");
        audioSource = dir.filePath("audio-source.m4a");
        // Encoded first, then remuxed: the command line writes the rotation
        // into the display matrix only when it copies the stream.
        const QString plain = dir.filePath("plain.mp4");
        QString errors;
        QVERIFY2(ffmpeg({"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=30:duration=2", "-f", "lavfi", "-i",
                         "sine=frequency=440:duration=2", "-c:v", "libx264", "-pix_fmt", "yuv420p", "-c:a", "aac",
                         "-shortest", plain},
                        &errors),
                 qPrintable(errors));
        QVERIFY(ffmpeg({"-i", plain, "-c", "copy", "-metadata:s:v:0", "rotate=270", portraitSource}));
        QVERIFY(ffmpeg({"-f", "lavfi", "-i", "sine=duration=1", "-c:a", "aac", audioSource}));
        baselineThreads = DispatchQueue::liveThreadCount();
    }

    void cleanup() { ProcessInfo::resetOperatingSystemVersion(); }

    void portraitMovieBecomesSmallSilentAndKeepsItsTurn()
    {
        const QJsonArray before = probeStreams(portraitSource);
        QCOMPARE(before.size(), 2);
        const double rotation = probeRotation(before.first().toObject());
        QVERIFY(rotation != 0);

        const QString input = copyOf(portraitSource, "session.mp4");
        const QString output = dir.filePath("recompressed.mp4");
        auto compressor = ZMVideoCompresion::create();
        Reports reports;
        compressor->compressFile(input, output, reports.completion());
        QTRY_VERIFY_WITH_TIMEOUT(!reports.snapshot().empty() && settled(), 60000);
        QCOMPARE(reports.snapshot(), Results{success});
        QVERIFY(reports.thread(0) != std::this_thread::get_id());
        QVERIFY(!compressor->assetWriter());
        QVERIFY(!compressor->assetReader());

        QVERIFY(!QFile::exists(output));
        const QJsonArray after = probeStreams(input);
        QCOMPARE(after.size(), 1);
        const QJsonObject video = after.first().toObject();
        QCOMPARE(video.value("codec_type").toString(), QStringLiteral("video"));
        QCOMPARE(video.value("codec_name").toString(), QStringLiteral("h264"));
        QCOMPARE(video.value("width").toInt(), 320);
        QCOMPARE(video.value("height").toInt(), 180);
        QCOMPARE(video.value("nb_frames").toString(), QStringLiteral("60"));
        QCOMPARE(probeRotation(video), rotation);
        // Index first, for playing while it downloads.
        QFile file(input);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        QVERIFY(bytes.indexOf("moov") < bytes.indexOf("mdat"));
    }

    void belowThePlatformGateNothingHappens()
    {
        ProcessInfo::setOperatingSystemVersion({15, 4, 0});
        const QString input = copyOf(portraitSource, "gated.mp4");
        const QByteArray original = [&] { QFile f(input); f.open(QIODevice::ReadOnly); return f.readAll(); }();
        auto compressor = ZMVideoCompresion::create();
        Reports reports;
        compressor->compressFile(input, dir.filePath("gated-out.mp4"), reports.completion());
        // No reader, no queue, no thread: nothing can complete later either.
        QVERIFY(!compressor->assetReader());
        QCOMPARE(DispatchQueue::liveThreadCount(), baselineThreads);
        QVERIFY(reports.snapshot().empty());
        QFile f(input);
        QVERIFY(f.open(QIODevice::ReadOnly));
        QCOMPARE(f.readAll(), original);
    }

    void unreadableInputsFailAtOnce_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("missing") << QByteArray();
        QTest::newRow("not a movie") << QByteArray("plain words, no frames\n").repeated(40);
    }

    void unreadableInputsFailAtOnce()
    {
        QFETCH(QByteArray, content);
        const QString input = dir.filePath("unreadable.mp4");
        QFile::remove(input);
        if (!content.isNull()) {
            QFile file(input);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(content);
        }
        auto compressor = ZMVideoCompresion::create();
        Reports reports;
        compressor->compressFile(input, dir.filePath("unreadable-out.mp4"), reports.completion());
        // No reader could be made: reported at once, on the caller's thread.
        QCOMPARE(reports.snapshot(), Results{failure});
        QVERIFY(reports.thread(0) == std::this_thread::get_id());
        QCOMPARE(QFile::exists(input), !content.isNull());
    }

    void movieWithoutVideoFailsAfterLoading()
    {
        const QString input = copyOf(audioSource, "sound-only.m4a");
        auto compressor = ZMVideoCompresion::create();
        Reports reports;
        compressor->compressFile(input, dir.filePath("sound-out.mp4"), reports.completion());
        QTRY_VERIFY_WITH_TIMEOUT(!reports.snapshot().empty() && settled(), 30000);
        QCOMPARE(reports.snapshot(), Results{failure});
        QVERIFY(reports.thread(0) != std::this_thread::get_id());
        QVERIFY(QFile::exists(input));
        // The reader stays behind in the field until a later call replaces it.
        QVERIFY(compressor->assetReader());
    }

    void occupiedOutputPathFailsAndKeepsTheInput()
    {
        const QString input = copyOf(portraitSource, "occupied.mp4");
        const QString output = dir.filePath("occupied-out.mp4");
        QFile blocker(output);
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.write("left from before");
        blocker.close();
        auto compressor = ZMVideoCompresion::create();
        Reports reports;
        compressor->compressFile(input, output, reports.completion());
        QTRY_VERIFY_WITH_TIMEOUT(!reports.snapshot().empty() && settled(), 30000);
        QCOMPARE(reports.snapshot(), Results{failure});
        QVERIFY(!compressor->assetWriter());
        QCOMPARE(probeStreams(input).size(), 2);
        QFile left(output);
        QVERIFY(left.open(QIODevice::ReadOnly));
        QCOMPARE(left.readAll(), QByteArray("left from before"));
    }

    void failedSwapReportsFailureThenSuccess()
    {
        // The input disappears while it is being compressed, so removing it
        // at the end fails: the result stays at the output path.
        const QString input = copyOf(portraitSource, "vanishing.mp4");
        const QString output = dir.filePath("vanishing-out.mp4");
        auto compressor = ZMVideoCompresion::create();
        std::once_flag removed;
        compressor->setProgressHandler([&](double) { std::call_once(removed, [&] { QFile::remove(input); }); });
        Reports reports;
        compressor->compressFile(input, output, reports.completion());
        QTRY_VERIFY_WITH_TIMEOUT(reports.snapshot().size() == 2 && settled(), 60000);
        QCOMPARE(reports.snapshot(), (Results{failure, success}));
        QVERIFY(reports.thread(0) == reports.thread(1));
        QVERIFY(!QFile::exists(input));
        QCOMPARE(probeStreams(output).first().toObject().value("width").toInt(), 320);
    }

    void releasedCompressorStopsWithoutReporting()
    {
        const QString input = copyOf(portraitSource, "abandoned.mp4");
        const QString output = dir.filePath("abandoned-out.mp4");
        auto compressor = ZMVideoCompresion::create();
        Reports reports;
        // Let go of the compressor from its own pump, at the first frame.
        auto holder = std::make_shared<std::shared_ptr<ZMVideoCompresion>>(compressor);
        compressor->setProgressHandler([holder](double) { holder->reset(); });
        compressor->compressFile(input, output, reports.completion());
        compressor.reset();
        QTRY_VERIFY_WITH_TIMEOUT(settled(), 60000);
        QVERIFY(reports.snapshot().empty());
        QVERIFY(!QFile::exists(output));
        QCOMPARE(QDir(dir.path()).entryList({".abandoned*"}, QDir::Files | QDir::Hidden), QStringList());
        QCOMPARE(probeStreams(input).size(), 2);
    }
};

QTEST_GUILESS_MAIN(TstZMVideoCompresion)
#include "tst_zmvideocompresion.moc"
