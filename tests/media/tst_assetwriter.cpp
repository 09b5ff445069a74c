// Writing MP4 files: what ffprobe and the reader see in them, and how the
// writer behaves when the file cannot be written.
#include "MissingPrerequisite.h"
#include "MediaTestSupport.h"
#include "media/Asset.h"
#include "media/AssetWriter_p.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>
#include <cstring>
#include <future>

#include <sys/resource.h>

using namespace zavo::platform;
using namespace zavo::testing;

namespace {

struct Session {
    AssetWriterPtr writer;
    AssetWriterInputPtr input;
    AssetWriterInputPixelBufferAdaptorPtr adaptor;
};

Session makeSession(const QString& path, int width, int height, PixelBufferAttributes source)
{
    Session session;
    session.writer = AssetWriter::create(QUrl::fromLocalFile(path), FileType::MPEG4);
    session.input = AssetWriterInput::create(MediaType::Video, {VideoCodec::H264, width, height});
    session.adaptor = AssetWriterInputPixelBufferAdaptor::create(session.input, source);
    session.writer->addInput(session.input);
    return session;
}

/// Runs finishWriting and waits for its completion.
bool finish(const AssetWriterPtr& writer)
{
    auto done = std::make_shared<std::promise<void>>();
    auto future = done->get_future();
    writer->finishWriting([done] { done->set_value(); });
    return future.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
}

void fill(PixelBuffer& buffer, uint8_t b, uint8_t g, uint8_t r)
{
    for (int y = 0; y < buffer.height(); ++y) {
        uint8_t* row = buffer.baseAddress() + y * buffer.bytesPerRow();
        for (int x = 0; x < buffer.width(); ++x) {
            row[4 * x] = b;
            row[4 * x + 1] = g;
            row[4 * x + 2] = r;
            row[4 * x + 3] = 255;
        }
    }
}

/// Red, green, blue and white quarters, top left to bottom right: a picture
/// whose turn or mirror cannot go unseen.
void fillQuarters(PixelBuffer& buffer)
{
    for (int y = 0; y < buffer.height(); ++y) {
        uint8_t* row = buffer.baseAddress() + y * buffer.bytesPerRow();
        for (int x = 0; x < buffer.width(); ++x) {
            const bool right = x >= buffer.width() / 2, bottom = y >= buffer.height() / 2;
            const QRgb colour = bottom ? (right ? qRgb(255, 255, 255) : qRgb(0, 0, 255))
                                       : (right ? qRgb(0, 255, 0) : qRgb(255, 0, 0));
            row[4 * x] = uint8_t(qBlue(colour));
            row[4 * x + 1] = uint8_t(qGreen(colour));
            row[4 * x + 2] = uint8_t(qRed(colour));
            row[4 * x + 3] = 255;
        }
    }
}

bool near(QRgb a, QRgb b) { return qAbs(qRed(a) - qRed(b)) + qAbs(qGreen(a) - qGreen(b)) + qAbs(qBlue(a) - qBlue(b)) < 90; }

QStringList leftovers(const QString& dir)
{
    return QDir(dir).entryList(QDir::Files | QDir::Hidden);
}

}  // namespace

class TstAssetWriter : public QObject {
    Q_OBJECT

    QTemporaryDir dir;

private slots:
    void initTestCase()
    {
        if (!haveFfmpegTools())
            ZAVO_SKIP_MISSING("ffprobe is needed to check the files");
    }

    void writesScaledH264ThatReadsBack()
    {
        const QString path = dir.filePath("colours.mp4");
        Session s = makeSession(path, 32, 48, {PixelFormat::BGRA32, 64, 96});
        QVERIFY(!s.adaptor->pixelBufferPool());
        QVERIFY(s.writer->startWriting());
        s.writer->startSessionAtSourceTime(MediaTime::zero());
        auto pool = s.adaptor->pixelBufferPool();
        QVERIFY(pool);
        QCOMPARE(pool->attributes().width, 64);
        // Ten frames: red, green, blue, ... so that order and colour both show.
        const uint8_t colours[3][3] = {{0, 0, 255}, {0, 255, 0}, {255, 0, 0}};
        for (int i = 0; i < 10; ++i) {
            auto buffer = pool->createPixelBuffer();
            fill(*buffer, colours[i % 3][0], colours[i % 3][1], colours[i % 3][2]);
            QVERIFY(s.input->isReadyForMoreMediaData());
            QVERIFY(s.adaptor->appendPixelBuffer(buffer, MediaTime::make(i, 30)));
        }
        QVERIFY(!s.adaptor->appendPixelBuffer(pool->createPixelBuffer(), MediaTime::make(5, 30)));
        s.input->markAsFinished();
        QVERIFY(!s.input->isReadyForMoreMediaData());
        QVERIFY(finish(s.writer));
        QCOMPARE(s.writer->status(), AssetWriter::Status::Completed);
        QVERIFY(!s.writer->error());

        const QJsonArray streams = probeStreams(path);
        QCOMPARE(streams.size(), 1);
        const QJsonObject video = streams.first().toObject();
        QCOMPARE(video.value("codec_name").toString(), QStringLiteral("h264"));
        QCOMPARE(video.value("width").toInt(), 32);
        QCOMPARE(video.value("height").toInt(), 48);
        QCOMPARE(video.value("nb_frames").toString(), QStringLiteral("10"));
        const QList<double> times = probeFrameTimes(path);
        QCOMPARE(times.size(), 10);
        for (int i = 0; i < times.size(); ++i)
            QCOMPARE(qRound(times[i] * 30 * 1000), i * 1000);

        auto asset = Asset::assetWithPath(path);
        auto reader = AssetReader::create(asset);
        auto output = AssetReaderTrackOutput::create(asset->tracksWithMediaType(MediaType::Video).front(),
                                                     {PixelFormat::BGRA32});
        reader->addOutput(output);
        QVERIFY(reader->startReading());
        for (int i = 0; i < 10; ++i) {
            SampleBuffer sample = output->copyNextSampleBuffer();
            QVERIFY(sample.isValid());
            const uint8_t* p = sample.imageBuffer()->baseAddress() + 20 * sample.imageBuffer()->bytesPerRow() + 40;
            for (int c = 0; c < 3; ++c)
                QVERIFY2(qAbs(int(p[c]) - colours[i % 3][c]) < 20, qPrintable(QStringLiteral("frame %1").arg(i)));
        }
        QVERIFY(!output->copyNextSampleBuffer().isValid());
    }

    void framesKeepTheirShapeInAnyPicture_data()
    {
        QTest::addColumn<QSize>("source");
        QTest::addColumn<QSize>("encoded");
        QTest::addColumn<double>("rotation");  // ffprobe's, anticlockwise
        // A frame appended with an orientation is turned clockwise, then
        // mirrored, in the encoder's own conversion; source is its shape as shown.
        QTest::addColumn<int>("frameRotation");
        QTest::addColumn<bool>("mirrored");
        QTest::newRow("portrait camera, landscape picture") << QSize(72, 128) << QSize(320, 180) << 90.0 << 0 << false;
        QTest::newRow("landscape camera, portrait picture") << QSize(128, 72) << QSize(180, 320) << 90.0 << 0 << false;
        QTest::newRow("4:3 camera, 16:9 picture") << QSize(160, 120) << QSize(320, 180) << 0.0 << 0 << false;
        QTest::newRow("4:3 camera, 9:16 picture") << QSize(160, 120) << QSize(180, 320) << 90.0 << 0 << false;
        QTest::newRow("same shape") << QSize(64, 96) << QSize(32, 48) << 0.0 << 0 << false;
        QTest::newRow("frame turned a quarter") << QSize(72, 128) << QSize(180, 320) << 0.0 << 90 << false;
        QTest::newRow("frame turned three quarters, landscape picture") << QSize(72, 128) << QSize(320, 180) << 90.0 << 270 << false;
        QTest::newRow("frame turned and mirrored, landscape picture") << QSize(72, 128) << QSize(320, 180) << 90.0 << 90 << true;
        QTest::newRow("frame upside down and mirrored") << QSize(128, 72) << QSize(320, 180) << 0.0 << 180 << true;
    }

    void framesKeepTheirShapeInAnyPicture()
    {
        QFETCH(QSize, source);
        QFETCH(QSize, encoded);
        QFETCH(double, rotation);
        QFETCH(int, frameRotation);
        QFETCH(bool, mirrored);
        const QString path = dir.filePath("shape.mp4");
        QFile::remove(path);
        // The frame as the camera gives it: the shown quarters mirrored back
        // and turned back.
        auto shownQuarters = PixelBuffer::create(source.width(), source.height(), PixelFormat::BGRA32);
        fillQuarters(*shownQuarters);
        const QImage camera = QImage(shownQuarters->baseAddress(), source.width(), source.height(),
                                     qsizetype(shownQuarters->bytesPerRow()), QImage::Format_RGB32)
                                  .mirrored(mirrored, false)
                                  .transformed(QTransform().rotate(-frameRotation));
        Session s = makeSession(path, encoded.width(), encoded.height(),
                                {PixelFormat::BGRA32, camera.width(), camera.height()});
        QVERIFY(s.writer->startWriting());
        s.writer->startSessionAtSourceTime(MediaTime::zero());
        for (int i = 0; i < 3; ++i) {
            auto buffer = s.adaptor->pixelBufferPool()->createPixelBuffer();
            for (int y = 0; y < camera.height(); ++y)
                std::memcpy(buffer->baseAddress() + y * buffer->bytesPerRow(), camera.constScanLine(y),
                            size_t(camera.width()) * 4);
            QVERIFY(s.adaptor->appendPixelBuffer(buffer, MediaTime::make(i, 30), frameRotation, mirrored));
        }
        s.input->markAsFinished();
        QVERIFY(finish(s.writer));
        QCOMPARE(s.writer->status(), AssetWriter::Status::Completed);

        // The pixel size stays what was asked for; the shape comes back in
        // the display matrix and the sample aspect ratio.
        const QJsonObject video = probeStreams(path).first().toObject();
        QCOMPARE(video.value("width").toInt(), encoded.width());
        QCOMPARE(video.value("height").toInt(), encoded.height());
        QCOMPARE(qAbs(probeRotation(video)), rotation);
        const QImage shown = shownFirstFrame(path, dir.path());
        QVERIFY(!shown.isNull());
        const double aspect = double(shown.width()) / shown.height();
        const double wanted = double(source.width()) / source.height();
        QVERIFY2(qAbs(aspect / wanted - 1) < 0.02, qPrintable(QStringLiteral("shown %1x%2").arg(shown.width()).arg(shown.height())));
        // Upright and not mirrored: each quarter where it was.
        const int w = shown.width(), h = shown.height();
        QVERIFY(near(shown.pixel(w / 4, h / 4), qRgb(255, 0, 0)));
        QVERIFY(near(shown.pixel(3 * w / 4, h / 4), qRgb(0, 255, 0)));
        QVERIFY(near(shown.pixel(w / 4, 3 * h / 4), qRgb(0, 0, 255)));
        QVERIFY(near(shown.pixel(3 * w / 4, 3 * h / 4), qRgb(255, 255, 255)));
        // Our own reader sees the same turn.
        const auto track = Asset::assetWithPath(path)->tracksWithMediaType(MediaType::Video).front();
        QCOMPARE(track->preferredTransform().isIdentity(), rotation == 0);
    }

    void storesTheTransformAndTheIndexFirst()
    {
        const QString path = dir.filePath("portrait.mp4");
        Session s = makeSession(path, 64, 32, {PixelFormat::ARGB32, 64, 32});
        const QTransform quarterTurn(0, 1, -1, 0, 32, 0);
        s.input->setTransform(quarterTurn);
        s.writer->setShouldOptimizeForNetworkUse(true);
        QVERIFY(s.writer->startWriting());
        s.writer->startSessionAtSourceTime(MediaTime::make(100, 10));
        // Frames before the session start are dropped, the rest start at 0.
        for (int i = 95; i < 105; ++i)
            QVERIFY(s.adaptor->appendPixelBuffer(s.adaptor->pixelBufferPool()->createPixelBuffer(), MediaTime::make(i, 10)));
        s.input->markAsFinished();
        QVERIFY(finish(s.writer));
        QCOMPARE(s.writer->status(), AssetWriter::Status::Completed);

        const QJsonObject video = probeStreams(path).first().toObject();
        QCOMPARE(probeRotation(video), -90.0);
        QCOMPARE(video.value("nb_frames").toString(), QStringLiteral("5"));
        QCOMPARE(probeFrameTimes(path).first(), 0.0);
        QCOMPARE(Asset::assetWithPath(path)->tracksWithMediaType(MediaType::Video).front()->preferredTransform(),
                 quarterTurn);
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        QVERIFY(bytes.indexOf("moov") < bytes.indexOf("mdat"));
    }

    void pullsFramesThroughTheRequestBlock()
    {
        const QString path = dir.filePath("pulled.mp4");
        Session s = makeSession(path, 16, 16, {PixelFormat::BGRA32, 16, 16});
        auto queue = DispatchQueue::create("pump");
        std::promise<bool> onQueue;
        int next = 0;
        QVERIFY(s.writer->startWriting());
        s.writer->startSessionAtSourceTime(MediaTime::zero());
        s.input->requestMediaDataWhenReady(queue, [&, input = s.input, adaptor = s.adaptor] {
            while (input->isReadyForMoreMediaData() && next < 40)
                adaptor->appendPixelBuffer(adaptor->pixelBufferPool()->createPixelBuffer(), MediaTime::make(next++, 25));
            onQueue.set_value(queue->isCurrent());
            input->markAsFinished();
        });
        auto ran = onQueue.get_future();
        QVERIFY(ran.wait_for(std::chrono::seconds(30)) == std::future_status::ready);
        QVERIFY(ran.get());
        QVERIFY(finish(s.writer));
        QCOMPARE(probeStreams(path).first().toObject().value("nb_frames").toString(), QStringLiteral("40"));
    }

    void refusesToOverwriteAndToWriteNowhere()
    {
        const QString existing = dir.filePath("existing.mp4");
        QFile file(existing);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        ErrorPtr error;
        QVERIFY(!AssetWriter::create(QUrl::fromLocalFile(existing), FileType::MPEG4, &error));
        QCOMPARE(error->code(), long(MediaErrorCode::FileAlreadyExists));

        // A folder below a regular file cannot exist, not even for root.
        QVERIFY(!AssetWriter::create(QUrl::fromLocalFile(existing + "/sub/out.mp4"), FileType::MPEG4, &error));
        QCOMPARE(error->code(), long(MediaErrorCode::CannotWrite));

        // The folder goes away between creating the writer and writing.
        QTemporaryDir gone;
        Session s = makeSession(gone.filePath("out.mp4"), 16, 16, {PixelFormat::BGRA32, 16, 16});
        QVERIFY(gone.remove());
        auto held = std::make_shared<int>(0);
        std::weak_ptr<int> watch = held;
        s.input->requestMediaDataWhenReady(DispatchQueue::create("never"), [held] {});
        held.reset();
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^writing .* failed: .*No such file or directory"));
        QVERIFY(!s.writer->startWriting());
        QCOMPARE(s.writer->status(), AssetWriter::Status::Failed);
        QCOMPARE(s.writer->error()->code(), long(MediaErrorCode::CannotWrite));
        QVERIFY(!s.input->isReadyForMoreMediaData());
        QVERIFY(!s.adaptor->pixelBufferPool());
        // The block that will never run is let go, with what it holds.
        QVERIFY(watch.expired());
        QVERIFY(finish(s.writer));
    }

    void fullDiskFailsAndLeavesNothingBehind()
    {
        QTemporaryDir full;
        const QString path = full.filePath("big.mp4");
        Session s = makeSession(path, 320, 240, {PixelFormat::BGRA32, 320, 240});
        QVERIFY(s.writer->startWriting());
        s.writer->startSessionAtSourceTime(MediaTime::zero());
        // A file size limit fails writes the way a full disk does (EFBIG
        // instead of ENOSPC) and works without privileges.
        rlimit saved{};
        getrlimit(RLIMIT_FSIZE, &saved);
        auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit tiny = saved;
        tiny.rlim_cur = 4096;
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &tiny), 0);
        auto pool = s.adaptor->pixelBufferPool();
        for (int i = 0; i < 60 && s.input->isReadyForMoreMediaData(); ++i) {
            auto buffer = pool->createPixelBuffer();
            // Noise, so that every frame costs many bytes.
            for (size_t j = 0; j < buffer->dataSize(); ++j)
                buffer->baseAddress()[j] = uint8_t((j * 7919 + size_t(i) * 104729) >> 3);
            s.adaptor->appendPixelBuffer(buffer, MediaTime::make(i, 30));
        }
        s.input->markAsFinished();
        const bool finished = finish(s.writer);
        setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, previousHandler);
        QVERIFY(finished);
        QCOMPARE(s.writer->status(), AssetWriter::Status::Failed);
        QCOMPARE(s.writer->error()->domain(), kMediaErrorDomain);
        QCOMPARE(s.writer->error()->code(), long(MediaErrorCode::CannotWrite));
        QCOMPARE(leftovers(full.path()), QStringList());
    }

    void cancelledOrDroppedWritersLeaveNothingBehind()
    {
        QTemporaryDir scratch;
        {
            Session s = makeSession(scratch.filePath("cancelled.mp4"), 16, 16, {PixelFormat::BGRA32, 16, 16});
            QVERIFY(s.writer->startWriting());
            s.writer->startSessionAtSourceTime(MediaTime::zero());
            QVERIFY(s.adaptor->appendPixelBuffer(s.adaptor->pixelBufferPool()->createPixelBuffer(), MediaTime::zero()));
            s.writer->cancelWriting();
            QCOMPARE(s.writer->status(), AssetWriter::Status::Cancelled);
            QVERIFY(!s.input->isReadyForMoreMediaData());
        }
        {
            Session s = makeSession(scratch.filePath("dropped.mp4"), 16, 16, {PixelFormat::BGRA32, 16, 16});
            QVERIFY(s.writer->startWriting());
        }
        QTRY_COMPARE(leftovers(scratch.path()), QStringList());
    }

    // Once a caller has heard the outcome, nothing later changes it: a late
    // cancel does not turn a finished file into a cancelled one (and remove
    // it), a second start does not reopen it, and a writer finished before
    // it started cannot be started afterwards.
    void anOutcomeOnceReachedStays()
    {
        QTemporaryDir scratch;
        {
            Session s = makeSession(scratch.filePath("done.mp4"), 16, 16, {PixelFormat::BGRA32, 16, 16});
            QVERIFY(s.writer->startWriting());
            QVERIFY(!s.writer->startWriting());
            s.writer->startSessionAtSourceTime(MediaTime::zero());
            QVERIFY(s.adaptor->appendPixelBuffer(s.adaptor->pixelBufferPool()->createPixelBuffer(), MediaTime::zero()));
            QVERIFY(finish(s.writer));
            QCOMPARE(s.writer->status(), AssetWriter::Status::Completed);
            s.writer->cancelWriting();
            QVERIFY(!s.writer->startWriting());
            QCOMPARE(s.writer->status(), AssetWriter::Status::Completed);
            QVERIFY(!s.adaptor->appendPixelBuffer(s.adaptor->pixelBufferPool()->createPixelBuffer(), MediaTime::make(1, 30)));
        }
        QTRY_COMPARE(leftovers(scratch.path()), QStringList{"done.mp4"});
        {
            Session s = makeSession(scratch.filePath("never.mp4"), 16, 16, {PixelFormat::BGRA32, 16, 16});
            QVERIFY(finish(s.writer));
            QVERIFY(!s.writer->startWriting());
            QCOMPARE(s.writer->status(), AssetWriter::Status::Cancelled);
        }
        QCOMPARE(leftovers(scratch.path()), QStringList{"done.mp4"});
    }
};

QTEST_GUILESS_MAIN(TstAssetWriter)
#include "tst_assetwriter.moc"
