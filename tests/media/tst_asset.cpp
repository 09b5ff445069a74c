// Reading media files: track lists, transforms, decoding, and every way a
// file can be unusable.
#include "MissingPrerequisite.h"
#include "MediaTestSupport.h"
#include "media/Asset.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>
#include <future>

using namespace zavo::platform;
using namespace zavo::testing;

namespace {

struct LoadResult {
    std::vector<AssetTrackPtr> tracks;
    ErrorPtr error;
    QThread* thread = nullptr;
};

LoadResult loadVideoTracks(const QString& path)
{
    auto promise = std::make_shared<std::promise<LoadResult>>();
    auto future = promise->get_future();
    Asset::assetWithPath(path)->loadTracksWithMediaType(MediaType::Video, [promise](auto tracks, ErrorPtr error) {
        promise->set_value(LoadResult{std::move(tracks), std::move(error), QThread::currentThread()});
    });
    if (future.wait_for(std::chrono::seconds(20)) != std::future_status::ready)
        return {};
    return future.get();
}

struct Decoded {
    std::vector<SampleBuffer> samples;
    AssetReader::Status status = AssetReader::Status::Unknown;
};

Decoded decodeAll(const QString& path, AssetReaderOutputSettings settings = {}, bool copies = false)
{
    Decoded decoded;
    auto asset = Asset::assetWithPath(path);
    auto reader = AssetReader::create(asset);
    if (!reader)
        return decoded;
    auto tracks = asset->tracksWithMediaType(MediaType::Video);
    if (tracks.empty())
        return decoded;
    auto output = AssetReaderTrackOutput::create(tracks.front(), settings);
    output->setAlwaysCopiesSampleData(copies);
    reader->addOutput(output);
    reader->startReading();
    for (SampleBuffer sample = output->copyNextSampleBuffer(); sample.isValid(); sample = output->copyNextSampleBuffer())
        decoded.samples.push_back(sample);
    decoded.status = reader->status();
    return decoded;
}

}  // namespace

class TstAsset : public QObject {
    Q_OBJECT

    QTemporaryDir dir;
    QString clip;         // 160x96, 30 frames at 30 fps, video and audio
    QString rotated;      // the same, with a quarter turn in its display matrix
    QString audioOnly;

private slots:
    void initTestCase()
    {
        if (!haveFfmpegTools())
            ZAVO_SKIP_MISSING("ffmpeg and ffprobe are needed to make the test clips");
        QVERIFY(dir.isValid());
        clip = dir.filePath("clip.mp4");
        rotated = dir.filePath("rotated.mp4");
        audioOnly = dir.filePath("audio.m4a");
        QString errors;
        QVERIFY2(ffmpeg({"-f", "lavfi", "-i", "testsrc=size=160x96:rate=30:duration=1", "-f", "lavfi", "-i",
                         "sine=duration=1", "-c:v", "libx264", "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest", clip},
                        &errors),
                 qPrintable(errors));
        QVERIFY(ffmpeg({"-i", clip, "-c", "copy", "-metadata:s:v:0", "rotate=270", rotated}));
        QVERIFY(ffmpeg({"-f", "lavfi", "-i", "sine=duration=1", "-c:a", "aac", audioOnly}));
    }

    void loadsTrackPropertiesOnABackgroundQueue()
    {
        const LoadResult result = loadVideoTracks(QStringLiteral(ZAVO_TEST_DATA_DIR "/A_zoom_blur_dark.mp4"));
        QVERIFY(!result.error);
        QCOMPARE(result.tracks.size(), size_t(1));
        QVERIFY(result.thread && result.thread != QCoreApplication::instance()->thread());
        const AssetTrackPtr& track = result.tracks.front();
        QCOMPARE(track->naturalSize(), QSize(720, 1280));
        QCOMPARE(track->nominalFrameRate(), 30.0f);
        QCOMPARE(track->duration().seconds(), 4.0);
        QVERIFY(track->preferredTransform().isIdentity());
        QCOMPARE(track->codecName(), QStringLiteral("h264"));
    }

    void preferredTransformIsTheDisplayMatrix()
    {
        const LoadResult result = loadVideoTracks(rotated);
        QCOMPARE(result.tracks.size(), size_t(1));
        // A clockwise quarter turn of a 160x96 picture: x' = -y (+ height), y' = x.
        const QTransform t = result.tracks.front()->preferredTransform();
        QCOMPARE(t.m11(), 0.0);
        QCOMPARE(t.m12(), 1.0);
        QCOMPARE(t.m21(), -1.0);
        QCOMPARE(t.m22(), 0.0);
        auto asset = Asset::assetWithPath(rotated);
        QCOMPARE(asset->tracksWithMediaType(MediaType::Audio).size(), size_t(1));
    }

    void unusableFilesGiveErrors_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<long>("code");
        QTest::addColumn<bool>("readable");
        QTest::newRow("missing") << "missing.mp4" << QByteArray() << long(MediaErrorCode::FileNotFound) << false;
        QTest::newRow("empty") << "empty.mp4" << QByteArray("") << long(MediaErrorCode::FileFormatNotRecognized) << false;
        QTest::newRow("text") << "notes.mp4" << QByteArray("not a movie at all\n").repeated(50)
                              << long(MediaErrorCode::FileFormatNotRecognized) << false;
        QTest::newRow("audio only") << "" << QByteArray() << long(MediaErrorCode::NoSuchTrack) << true;
    }

    void unusableFilesGiveErrors()
    {
        QFETCH(QString, name);
        QFETCH(QByteArray, content);
        QFETCH(long, code);
        QFETCH(bool, readable);
        QString path = name.isEmpty() ? audioOnly : dir.filePath(name);
        if (!content.isNull()) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(content);
        }
        const LoadResult result = loadVideoTracks(path);
        QVERIFY(result.tracks.empty());
        QVERIFY(result.error);
        QCOMPARE(result.error->domain(), kMediaErrorDomain);
        QCOMPARE(result.error->code(), code);

        ErrorPtr error;
        auto reader = AssetReader::create(Asset::assetWithPath(path), &error);
        QCOMPARE(bool(reader), readable);
        QCOMPARE(bool(error), !readable);
    }

    void aReaderProbesTheFileForItsAssetToo()
    {
        // The file is gone once the reader has it open: tracks asked for
        // afterwards can only come from the reader's own probe.
        const QString copy = dir.filePath("probed-once.mp4");
        QVERIFY(QFile::copy(clip, copy));
        auto asset = Asset::assetWithPath(copy);
        auto reader = AssetReader::create(asset);
        QVERIFY(reader);
        QVERIFY(QFile::remove(copy));
        ErrorPtr error;
        const auto tracks = asset->tracksWithMediaType(MediaType::Video, &error);
        QVERIFY(!error);
        QCOMPARE(tracks.size(), size_t(1));
        QCOMPARE(tracks.front()->naturalSize(), QSize(160, 96));
        QCOMPARE(tracks.front()->asset(), asset);
        QCOMPARE(asset->tracksWithMediaType(MediaType::Audio).size(), size_t(1));
    }

    void decodesEveryFrameWithItsTime()
    {
        const Decoded argb = decodeAll(clip);
        QCOMPARE(argb.status, AssetReader::Status::Completed);
        QCOMPARE(argb.samples.size(), size_t(30));
        for (size_t i = 0; i < argb.samples.size(); ++i) {
            const SampleBuffer& sample = argb.samples[i];
            QCOMPARE(sample.presentationTimeStamp(), MediaTime::make(int64_t(i), 30));
            QCOMPARE(sample.imageBuffer()->pixelFormat(), PixelFormat::ARGB32);
            QCOMPARE(sample.imageBuffer()->width(), 160);
        }
        // The same frame asked for as BGRA holds the same pixels in the other
        // byte order (testsrc's first frame starts with opaque colour bars).
        const Decoded bgra = decodeAll(clip, {PixelFormat::BGRA32, 80, 48}, true);
        QCOMPARE(bgra.samples.size(), size_t(30));
        const auto& small = bgra.samples.front().imageBuffer();
        QCOMPARE(small->width(), 80);
        QCOMPARE(small->pixelFormat(), PixelFormat::BGRA32);
        const uint8_t* a = argb.samples.front().imageBuffer()->baseAddress() + 40 * argb.samples.front().imageBuffer()->bytesPerRow();
        const uint8_t* b = small->baseAddress() + 20 * small->bytesPerRow();
        QCOMPARE(int(a[0]), 255);
        QCOMPARE(int(b[3]), 255);
        QVERIFY(qAbs(int(a[1]) - int(b[2])) < 24 && qAbs(int(a[3]) - int(b[0])) < 24);
    }

    void truncatedFileGivesItsWholeFramesThenFails()
    {
        // Cut a clip whose index comes first in the middle of its frames.
        const QString whole = dir.filePath("faststart.mp4");
        QVERIFY(ffmpeg({"-i", clip, "-an", "-c", "copy", "-movflags", "+faststart", whole}));
        QFile in(whole);
        QVERIFY(in.open(QIODevice::ReadOnly));
        const QByteArray bytes = in.readAll();
        // At four fifths the index and the first frames are whole (ffmpeg
        // decodes 15 of the 30); what is missing is only the end.
        const QString cut = dir.filePath("cut.mp4");
        QFile out(cut);
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(bytes.left(bytes.size() * 4 / 5));
        out.close();
        const Decoded decoded = decodeAll(cut);
        // Every whole frame is read first; then the damage is reported as a
        // failure, not passed off as the end of a complete track.
        QVERIFY2(decoded.samples.size() >= 10 && decoded.samples.size() < 30,
                 qPrintable(QString::number(decoded.samples.size())));
        QCOMPARE(decoded.status, AssetReader::Status::Failed);
    }
};

QTEST_GUILESS_MAIN(TstAsset)
#include "tst_asset.moc"
