// The frame-dump recorder: frame files, assembly into the session video, the
// delegate's calls and their threads, and the failures.
#include "MissingPrerequisite.h"
#include "MediaTestSupport.h"
#include "resources/ZMBundleLink_p.h"
#include "media/Asset.h"
#include "base/FileSystem.h"
#include "recording/ZMRecordingStorage_p.h"
#include "recording/ZMSaveVideoService.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>
#include <cstring>
#include <future>
#include <mutex>
#include <thread>

#include <sys/resource.h>

using namespace zavo;
using namespace zavo::platform;
using namespace zavo::testing;

namespace {

class RecordingDelegate : public ZMSaveVideoServiceDelegate {
public:
    struct Event {
        QString name;
        ErrorPtr error;
        std::thread::id thread;
    };

    void videoFlushingWillBegin() override { add(QStringLiteral("willBegin"), nullptr); }
    void videoFlushingDidEndWithError(ErrorPtr error) override { add(QStringLiteral("didEnd"), std::move(error)); }
    void videoRecordingDidFinish(ErrorPtr error) override { add(QStringLiteral("final"), std::move(error)); }

    std::vector<Event> events() const
    {
        std::lock_guard lock(mutex_);
        return events_;
    }

private:
    void add(const QString& name, ErrorPtr error)
    {
        std::lock_guard lock(mutex_);
        events_.push_back({name, std::move(error), std::this_thread::get_id()});
    }
    mutable std::mutex mutex_;
    std::vector<Event> events_;
};

struct Bgra {
    uint8_t b, g, r;
};

const Bgra kColours[] = {{0, 0, 255}, {0, 255, 0}, {255, 0, 0}, {0, 255, 255}, {255, 0, 255}};

/// A captured frame of one colour, with rows of bytesPerRow bytes.
SampleBuffer frameOf(int width, int height, Bgra colour, size_t bytesPerRow = 0)
{
    auto storage = std::make_shared<std::vector<uint8_t>>();
    bytesPerRow = bytesPerRow ? bytesPerRow : size_t(width) * 4;
    storage->resize(bytesPerRow * size_t(height));
    for (int y = 0; y < height; ++y) {
        for (size_t x = 0; x < bytesPerRow / 4; ++x) {
            uint8_t* p = storage->data() + size_t(y) * bytesPerRow + x * 4;
            p[0] = colour.b;
            p[1] = colour.g;
            p[2] = colour.r;
            p[3] = 255;
        }
    }
    uint8_t* planes[] = {storage->data()};
    const size_t strides[] = {bytesPerRow};
    auto buffer = PixelBuffer::wrap(width, height, PixelFormat::BGRA32, planes, strides, storage);
    return SampleBuffer(buffer, MediaTime::zero(), FormatDescription::forImageBuffer(*buffer));
}

/// Ends the recording and waits for its completion; returns the thread it ran on.
std::optional<std::thread::id> endAndWait(const std::shared_ptr<ZMSaveVideoService>& service)
{
    auto done = std::make_shared<std::promise<std::thread::id>>();
    auto future = done->get_future();
    service->endRecordWithCompletion([done] { done->set_value(std::this_thread::get_id()); });
    if (future.wait_for(std::chrono::seconds(60)) != std::future_status::ready)
        return std::nullopt;
    return future.get();
}

std::vector<std::shared_ptr<PixelBuffer>> decodeBgra(const QString& path)
{
    std::vector<std::shared_ptr<PixelBuffer>> frames;
    auto asset = Asset::assetWithPath(path);
    auto reader = AssetReader::create(asset);
    auto tracks = asset->tracksWithMediaType(MediaType::Video);
    if (!reader || tracks.empty())
        return frames;
    auto output = AssetReaderTrackOutput::create(tracks.front(), {PixelFormat::BGRA32});
    reader->addOutput(output);
    reader->startReading();
    for (auto sample = output->copyNextSampleBuffer(); sample.isValid(); sample = output->copyNextSampleBuffer())
        frames.push_back(sample.imageBuffer());
    return frames;
}

bool looksLike(const PixelBuffer& frame, int x, int y, Bgra colour)
{
    const uint8_t* p = frame.baseAddress() + size_t(y) * frame.bytesPerRow() + size_t(x) * 4;
    return qAbs(p[0] - colour.b) < 24 && qAbs(p[1] - colour.g) < 24 && qAbs(p[2] - colour.r) < 24;
}

void expectOldVideoRemovalLine()
{
    // A missing old video is reported, harmlessly, at every flush.
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Error while deleting old video <Error Domain=POSIX Code=2 .*>$"));
}

}  // namespace

class TstZMSaveVideoService : public QObject {
    Q_OBJECT

    QTemporaryDir documents;
    QString folder;
    QString videoPath;

    QStringList folderEntries() const
    {
        return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }

private slots:
    void initTestCase()
    {
        if (!haveFfmpegTools())
            ZAVO_SKIP_MISSING("ffprobe is needed to check the session videos");
        setDocumentsDirectory(documents.path());
        folder = documents.filePath("bright_fold");
        videoPath = folder + "/ZMRecordedVideo.mp4";
    }

    void init() { QDir(folder).removeRecursively(); }


    void initializerRemovesOldFrameFiles()
    {
        QVERIFY(QDir().mkpath(folder));
        for (const char* name : {"bf_sample_buffer_0.dat", "bf_sample_buffer_17.dat", "other.dat", "ZMRecordedVideo.mp4"}) {
            QFile file(folder + "/" + name);
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
        auto service = ZMSaveVideoService::create(96, 160, 30);
        QCOMPARE(folderEntries(), QStringList{"ZMRecordedVideo.mp4"});
        QCOMPARE(service->processingQueue()->label(), kZavoCameraBundleIdentifier + ".ZMSaveVideoService");
    }

    void appendWritesRawFramesWithTheirPadding()
    {
        auto service = ZMSaveVideoService::create(96, 160, 30);
        service->beginRecordWithFileURL(QUrl::fromLocalFile(videoPath));
        QVERIFY(!QFileInfo::exists(folder));  // begin makes nothing
        const SampleBuffer frame = frameOf(96, 160, kColours[0], 448);
        for (int i = 0; i < 3; ++i)
            service->appendStorageWithSampleBuffer(frame);
        QCOMPARE(service->framesCounter(), 3);
        QCOMPARE(folderEntries(), (QStringList{"bf_sample_buffer_0.dat", "bf_sample_buffer_1.dat", "bf_sample_buffer_2.dat"}));
        QFile file(folder + "/bf_sample_buffer_2.dat");
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        QCOMPARE(bytes.size(), 448 * 160);
        QCOMPARE(QByteArray(reinterpret_cast<const char*>(frame.imageBuffer()->baseAddress()), bytes.size()), bytes);
        // A new recording starts again from file 0.
        service->beginRecordWithFileURL(QUrl::fromLocalFile(videoPath));
        service->appendStorageWithSampleBuffer(frameOf(96, 160, kColours[1], 448));
        QCOMPARE(service->framesCounter(), 1);
        QCOMPARE(folderEntries().size(), 3);
    }

    void frameWriteOnAFullDiskLeavesNoPartialFrame()
    {
        auto service = ZMSaveVideoService::create(96, 160, 30);
        service->beginRecordWithFileURL(QUrl::fromLocalFile(videoPath));
        QVERIFY(QDir().mkpath(folder));
        QFile older(folder + "/bf_sample_buffer_0.dat");
        QVERIFY(older.open(QIODevice::WriteOnly));
        older.write("an older frame");
        older.close();
        // A file size limit below one frame fails the write as a full disk does.
        rlimit saved{};
        getrlimit(RLIMIT_FSIZE, &saved);
        auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit tiny = saved;
        tiny.rlim_cur = 8192;
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &tiny), 0);
        service->appendStorageWithSampleBuffer(frameOf(96, 160, kColours[0]));
        setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, previousHandler);
        // The failed frame is counted, its name keeps what it had, and the
        // file written aside is gone.
        QCOMPARE(service->framesCounter(), 1);
        QCOMPARE(folderEntries(), QStringList{"bf_sample_buffer_0.dat"});
        QVERIFY(older.open(QIODevice::ReadOnly));
        QCOMPARE(older.readAll(), QByteArray("an older frame"));
        // Room again: the next frame is written whole.
        service->appendStorageWithSampleBuffer(frameOf(96, 160, kColours[1]));
        QCOMPARE(QFileInfo(folder + "/bf_sample_buffer_1.dat").size(), qint64(96 * 4 * 160));
        QCOMPARE(folderEntries().size(), 2);
    }

    void flushAssemblesNPlusOneFramesAndReportsInOrder()
    {
        auto delegate = std::make_shared<RecordingDelegate>();
        auto service = ZMSaveVideoService::videoServiceWithDelegate(delegate, 96, 160, 30);
        service->beginRecordWithFileURL(QUrl::fromLocalFile(videoPath));
        for (const Bgra& colour : kColours)
            service->appendStorageWithSampleBuffer(frameOf(96, 160, colour));
        QTest::ignoreMessage(QtInfoMsg, "Totally captured 5 frames");
        expectOldVideoRemovalLine();
        const auto caller = std::this_thread::get_id();
        const auto completionThread = endAndWait(service);
        QVERIFY(completionThread);

        const auto events = delegate->events();
        QCOMPARE(events.size(), size_t(3));
        QCOMPARE(events[0].name, QStringLiteral("willBegin"));
        QVERIFY(events[0].thread == caller);
        QCOMPARE(events[1].name, QStringLiteral("didEnd"));
        QVERIFY(!events[1].error);
        QCOMPARE(events[2].name, QStringLiteral("final"));  // nothing more comes for this recording
        QVERIFY(!events[2].error);
        QVERIFY(events[1].thread != caller);
        QVERIFY(*completionThread == events[1].thread);

        // Every frame file was consumed; only the video is left.
        QCOMPARE(folderEntries(), QStringList{"ZMRecordedVideo.mp4"});
        const QJsonArray streams = probeStreams(videoPath);
        QCOMPARE(streams.size(), 1);
        const QJsonObject video = streams.first().toObject();
        QCOMPARE(video.value("codec_name").toString(), QStringLiteral("h264"));
        QCOMPARE(video.value("width").toInt(), 180);
        QCOMPARE(video.value("height").toInt(), 320);
        QCOMPARE(video.value("nb_frames").toString(), QStringLiteral("6"));
        const QList<double> times = probeFrameTimes(videoPath);
        QCOMPARE(times.size(), 6);
        for (int i = 0; i < times.size(); ++i)
            QCOMPARE(qRound(times[i] * 30 * 1000), i * 1000);

        // The sixth frame is the pool buffer that the missing file 5 left as
        // it was: the recycled buffer still holding frame 4.
        const auto frames = decodeBgra(videoPath);
        QCOMPARE(frames.size(), size_t(6));
        for (int i = 0; i < 6; ++i)
            QVERIFY2(looksLike(*frames[i], 90, 160, kColours[std::min(i, 4)]), qPrintable(QString::number(i)));
    }

    void aLandscapeCameraKeepsItsShape()
    {
        // Configured for portrait, as the capture manager always is, while the
        // webcam delivers landscape frames: left half red, right half blue.
        auto service = ZMSaveVideoService::create(96, 160, 30);
        service->beginRecordWithFileURL(QUrl::fromLocalFile(videoPath));
        for (int i = 0; i < 3; ++i) {
            SampleBuffer frame = frameOf(160, 96, kColours[0]);
            const auto& image = frame.imageBuffer();
            for (int y = 0; y < 96; ++y)
                for (int x = 80; x < 160; ++x)
                    std::memcpy(image->baseAddress() + y * image->bytesPerRow() + 4 * x, "\xff\x00\x00\xff", 4);
            service->appendStorageWithSampleBuffer(frame);
        }
        QTest::ignoreMessage(QtInfoMsg, "Totally captured 3 frames");
        expectOldVideoRemovalLine();
        QVERIFY(endAndWait(service));

        const QJsonObject video = probeStreams(videoPath).first().toObject();
        QCOMPARE(video.value("width").toInt(), 180);
        QCOMPARE(video.value("height").toInt(), 320);
        const QImage shown = shownFirstFrame(videoPath, documents.path());
        QVERIFY(!shown.isNull());
        QVERIFY2(qAbs(double(shown.width()) / shown.height() / (160.0 / 96.0) - 1) < 0.02,
                 qPrintable(QStringLiteral("shown %1x%2").arg(shown.width()).arg(shown.height())));
        const QRgb left = shown.pixel(shown.width() / 4, shown.height() / 2);
        const QRgb right = shown.pixel(3 * shown.width() / 4, shown.height() / 2);
        QVERIFY(qRed(left) > 200 && qBlue(left) < 60);
        QVERIFY(qBlue(right) > 200 && qRed(right) < 60);
    }

    void timescaleIsTheFrameRateCutToAWholeNumber()
    {
        auto service = ZMSaveVideoService::create(96, 160, 29.97);
        service->beginRecordWithFileURL(QUrl::fromLocalFile(videoPath));
        for (int i = 0; i < 3; ++i)
            service->appendStorageWithSampleBuffer(frameOf(96, 160, kColours[i]));
        QTest::ignoreMessage(QtInfoMsg, "Totally captured 3 frames");
        expectOldVideoRemovalLine();
        QVERIFY(endAndWait(service));
        const QList<double> times = probeFrameTimes(videoPath);
        QCOMPARE(times.size(), 4);
        QCOMPARE(qRound(times[3] * 29 * 1000), 3000);
    }

    void readsFramesBackWithThePoolStride()
    {
        // Rows captured 448 bytes apart but read back 384 apart (the pool's
        // stride for 96 pixels): the picture drifts upwards, row by row.
        auto service = ZMSaveVideoService::create(96, 160, 30);
        service->beginRecordWithFileURL(QUrl::fromLocalFile(videoPath));
        auto storage = std::make_shared<std::vector<uint8_t>>(448 * 160);
        for (int y = 0; y < 160; ++y)
            std::fill_n(storage->data() + y * 448, 448, uint8_t(y * 3 / 2));
        uint8_t* planes[] = {storage->data()};
        const size_t strides[] = {448};
        auto buffer = PixelBuffer::wrap(96, 160, PixelFormat::BGRA32, planes, strides, storage);
        service->appendStorageWithSampleBuffer(SampleBuffer(buffer, MediaTime::zero(), FormatDescription::forImageBuffer(*buffer)));
        QTest::ignoreMessage(QtInfoMsg, "Totally captured 1 frames");
        expectOldVideoRemovalLine();
        QVERIFY(endAndWait(service));
        const auto frames = decodeBgra(videoPath);
        QCOMPARE(frames.size(), size_t(2));
        // Output row 200 shows capture row 100, which now holds the bytes of
        // capture row 100 * 384 / 448 = 85: grey 128 instead of 150.
        const uint8_t* p = frames[0]->baseAddress() + 200 * frames[0]->bytesPerRow() + 90 * 4;
        QVERIFY2(qAbs(int(p[1]) - 128) < 10, qPrintable(QString::number(p[1])));
    }

    void zeroFramesStillMakeOneFrameAndNoDelegateIsFine()
    {
        QVERIFY(QDir().mkpath(folder));  // left by an earlier recording
        auto service = ZMSaveVideoService::create(96, 160, 30);
        service->beginRecordWithFileURL(QUrl::fromLocalFile(videoPath));
        QTest::ignoreMessage(QtInfoMsg, "Totally captured 0 frames");
        expectOldVideoRemovalLine();
        QVERIFY(endAndWait(service));  // no delegate: the completion alone
        QCOMPARE(probeFrameTimes(videoPath), QList<double>{0.0});
    }

    void writerSetUpFailureReportsTheFlushError()
    {
        // The session video's folder cannot exist: its parent is a regular file.
        QVERIFY(QDir().mkpath(folder));
        const QString blocker = folder + "/not-a-folder";
        QFile file(blocker);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        auto delegate = std::make_shared<RecordingDelegate>();
        auto service = ZMSaveVideoService::videoServiceWithDelegate(delegate, 96, 160, 30);
        service->beginRecordWithFileURL(QUrl::fromLocalFile(blocker + "/ZMRecordedVideo.mp4"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Error while deleting old video <Error Domain=POSIX Code=20 .*>$"));
        service->appendStorageWithSampleBuffer(frameOf(96, 160, kColours[0]));
        const auto completionThread = endAndWait(service);
        QVERIFY(completionThread);
        const auto events = delegate->events();
        QCOMPARE(events.size(), size_t(3));
        QCOMPARE(events[2].name, QStringLiteral("final"));
        QVERIFY(events[2].error == events[1].error);
        QCOMPARE(events[1].name, QStringLiteral("didEnd"));
        QVERIFY(events[1].error);
        QCOMPARE(events[1].error->domain(), kZavoCameraBundleIdentifier);
        QCOMPARE(events[1].error->code(), 1018L);
        QCOMPARE(events[1].error->localizedDescription(), QStringLiteral("errors.VIDEO_FLUSH_FAILED"));
        // Reported on the processing queue, then the completion there too.
        QVERIFY(events[1].thread == *completionThread);
        // The frame file stays until the next recorder is made.
        QVERIFY(QFile::exists(folder + "/bf_sample_buffer_0.dat"));
        ZMSaveVideoService::create(96, 160, 30);
        QVERIFY(!QFile::exists(folder + "/bf_sample_buffer_0.dat"));
    }

    void unwritableFolderNeitherStopsRecordingNorCrashes()
    {
        // Documents below a regular file: the recording folder can never be
        // made, not even by root. Frames are lost but still counted, and the
        // flush reports that its writer could not be set up.
        QVERIFY(QDir().mkpath(folder));
        const QString blocker = folder + "/regular-file";
        QFile file(blocker);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        setDocumentsDirectory(blocker + "/Documents");
        auto delegate = std::make_shared<RecordingDelegate>();
        auto service = ZMSaveVideoService::videoServiceWithDelegate(delegate, 96, 160, 30);
        service->beginRecordWithFileURL(QUrl::fromLocalFile(blocker + "/Documents/bright_fold/ZMRecordedVideo.mp4"));
        service->appendStorageWithSampleBuffer(frameOf(96, 160, kColours[0]));
        service->appendStorageWithSampleBuffer(frameOf(96, 160, kColours[1]));
        QCOMPARE(service->framesCounter(), 2);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Error while deleting old video <Error Domain=POSIX Code=20 .*>$"));
        const bool ended = bool(endAndWait(service));
        setDocumentsDirectory(documents.path());
        QVERIFY(ended);
        const auto events = delegate->events();
        QCOMPARE(events.size(), size_t(3));
        QVERIFY(events[1].error);
        QCOMPARE(events[1].error->code(), 1018L);
    }

    void diskFullLeavesNoHalfWrittenVideo()
    {
        auto service = ZMSaveVideoService::create(96, 160, 30);
        service->beginRecordWithFileURL(QUrl::fromLocalFile(videoPath));
        for (int i = 0; i < 30; ++i) {
            // Noise, so that the video needs far more room than allowed below.
            SampleBuffer frame = frameOf(96, 160, kColours[0]);
            uint8_t* p = frame.imageBuffer()->baseAddress();
            for (size_t j = 0; j < frame.imageBuffer()->dataSize(); ++j)
                p[j] = uint8_t((j * 7919 + size_t(i) * 104729) >> 5);
            service->appendStorageWithSampleBuffer(frame);
        }
        QFile old(videoPath);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("an older session video");
        old.close();
        // A file size limit fails writes as a full disk does, without privileges.
        rlimit saved{};
        getrlimit(RLIMIT_FSIZE, &saved);
        auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit tiny = saved;
        tiny.rlim_cur = 8192;
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &tiny), 0);
        QTest::ignoreMessage(QtInfoMsg, "Totally captured 30 frames");
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^writing .* failed: .*"));
        const bool ended = bool(endAndWait(service));
        setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, previousHandler);
        QVERIFY(ended);
        // The old video was removed before writing; nothing half-written took its place.
        QCOMPARE(folderEntries(), QStringList());
    }
};

QTEST_GUILESS_MAIN(TstZMSaveVideoService)
#include "tst_zmsavevideoservice.moc"
