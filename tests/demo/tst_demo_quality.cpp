// What a user in front of the camera gets, through the whole screen on the
// file camera (mirrored, as a front camera): clips spliced from real photos
// where the best shot must come from the right part, the guidance must say
// what to change, and a splice of two people must not pass a turn.
#include "DemoCamera.h"
#include "DemoSession.h"
#include "MediaTestSupport.h"

#include "base/FileSystem.h"
#include "camera/CaptureAuthorization_p.h"
#include "zavocore/ZCStepConfig.h"
#include "zavocore/ZavoCore_p.h"

#include <QFile>
#include <QPainter>
#include <QTemporaryDir>
#include <QTextStream>
#include <QWidget>
#include <QtTest>

using namespace zavo;
using namespace zavo::demo;

namespace {

const QString kData = QStringLiteral(ZAVO_TEST_DATA_DIR);

/// The file of a labelled set whose columns after the first match values
/// (an empty value matches anything).
QString labelled(const QString& set, const QStringList& values)
{
    QFile file(kData + QLatin1Char('/') + set + QStringLiteral("/labels.csv"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    QTextStream in(&file);
    in.readLine();
    while (!in.atEnd()) {
        const QStringList row = in.readLine().trimmed().split(QLatin1Char(','));
        bool match = row.size() > values.size();
        for (qsizetype i = 0; match && i < values.size(); ++i)
            match = values[i].isEmpty() || row[i + 1] == values[i];
        if (match)
            return kData + QLatin1Char('/') + set + QLatin1Char('/') + row[0];
    }
    return {};
}

/// A pose-labelled render of identity at yaw (pitch 0).
QString posed(const QString& identity, int yaw)
{
    return labelled(QStringLiteral("headpose"), {identity, QString::number(yaw), QStringLiteral("0")});
}

struct Part {
    QString image;
    double seconds;
};

/// A 720x1280 30 fps clip of the images, each fitted into the frame on grey.
bool makeClip(const QString& path, const QList<Part>& parts)
{
    QStringList arguments;
    QString graph;
    for (qsizetype i = 0; i < parts.size(); ++i) {
        arguments << "-loop" << "1" << "-t" << QString::number(parts[i].seconds) << "-i" << parts[i].image;
        graph += QStringLiteral("[%1]scale=720:1280:force_original_aspect_ratio=decrease,pad=720:1280:(ow-iw)/2:(oh-ih)/2:gray,"
                                "setsar=1,fps=30[v%1];")
                     .arg(i);
    }
    for (qsizetype i = 0; i < parts.size(); ++i)
        graph += QStringLiteral("[v%1]").arg(i);
    graph += QStringLiteral("concat=n=%1:v=1:a=0,format=yuv420p").arg(parts.size());
    arguments << "-filter_complex" << graph << "-c:v" << "libx264" << "-preset" << "veryfast" << path;
    QString errors;
    if (!testing::ffmpeg(arguments, &errors)) {
        qWarning("ffmpeg: %s", qPrintable(errors));
        return false;
    }
    return true;
}

/// Mean absolute difference per channel, 0..255, of two pictures compared
/// at a small size (the camera's conversions and scaling stay well under 10).
double difference(const QImage& a, const QImage& b)
{
    const QImage x = a.scaled(64, 64, Qt::IgnoreAspectRatio, Qt::SmoothTransformation).convertToFormat(QImage::Format_RGB32);
    const QImage y = b.scaled(64, 64, Qt::IgnoreAspectRatio, Qt::SmoothTransformation).convertToFormat(QImage::Format_RGB32);
    double sum = 0;
    for (int row = 0; row < 64; ++row) {
        for (int column = 0; column < 64; ++column) {
            const QRgb p = x.pixel(column, row), q = y.pixel(column, row);
            sum += std::abs(qRed(p) - qRed(q)) + std::abs(qGreen(p) - qGreen(q)) + std::abs(qBlue(p) - qBlue(q));
        }
    }
    return sum / (64 * 64 * 3);
}

}  // namespace

class TestDemoQuality : public QObject {
    Q_OBJECT

    QTemporaryDir scratch;
    DetectorTiming timing;

    /// One session on clip to its end, with the given steps and step limit.
    std::optional<SessionOutcome> runSession(const QString& clip, std::vector<core::ZCStepConfigPtr> steps = {},
                                             double stepTimeout = 8,
                                             std::function<void(core::ZCDetectorSettings&)> adjust = {})
    {
        QString problem;
        const auto camera = FrontCamera::install({CameraChoice::Kind::File, clip}, &problem);
        if (!camera) {
            qWarning("%s", qPrintable(problem));
            return std::nullopt;
        }
        SessionOptions options;
        options.recordVideo = false;
        options.steps = std::move(steps);
        options.adjustConfiguration = [stepTimeout, adjust](core::ZCZavoConfiguration& configuration) {
            configuration.detector.stepTimeout = stepTimeout;
            configuration.detector.shuffleSteps = false;
            if (adjust)
                adjust(configuration.detector);
        };
        DemoSession session(options, &timing);
        QSignalSpy finished(&session, &DemoSession::finished);
        QWidget* view = session.view();
        view->resize(360, 640);
        view->show();
        session.start();
        if (!finished.wait(90000))
            return std::nullopt;
        std::optional<SessionOutcome> outcome = session.outcome();
        session.release();
        return outcome;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(scratch.isValid());
        platform::setDocumentsDirectory(scratch.path());
        platform::CaptureAuthorization::setPolicy(std::make_shared<platform::FixedCaptureAuthorizationPolicy>(
            platform::AuthorizationStatus::Authorized, true));
        QVERIFY2(testing::haveFfmpegTools(), "ffmpeg is needed to make the clips (scripts/setup.sh installs it)");
    }

    void cleanupTestCase()
    {
        platform::CaptureAuthorization::setPolicy(nullptr);
        platform::setDocumentsDirectory({});
    }

    /// A clip that opens with shut eyes and then shows an open-eyed face
    /// takes its shot from the second part, and says why not the first.
    void shutEyesAreNeverTheShot()
    {
        const QString shut = kData + QStringLiteral("/eyes/gpl/canyon_squinting_woman.jpg");
        const QString open = kData + QStringLiteral("/eyes/gpl/jesper.jpg");
        const QString clip = scratch.filePath(QStringLiteral("eyes.mp4"));
        QVERIFY(makeClip(clip, {{shut, 2.0}, {open, 3.0}}));
        // The shut-eyed photo is small and blurs when the clip fills the
        // frame with it: let blur pass, so that only the eyes refuse it.
        const auto outcome = runSession(clip, {}, 8, [](core::ZCDetectorSettings& settings) { settings.minSharpness = 2; });
        QVERIFY(outcome);
        QVERIFY2(outcome->bestShot, outcome->error ? qPrintable(outcome->error->localizedDescription()) : "");
        QVERIFY2(outcome->guidance.contains(QStringLiteral("errors.eyes_closed")),
                 qPrintable(outcome->guidance.join(QLatin1Char(' '))));
        const double at = outcome->bestShot->frameTime().seconds();
        QVERIFY2(at >= 2.0 && at < 5.0, qPrintable(QString::number(at)));
        // The shot's pixels are the open-eyed face (mirrored, as the front
        // camera delivered it), not the shut-eyed one.
        const QImage shot = outcome->bestShot->image();
        const auto placed = [&](const QString& image) {
            const QSize fitted = QImage(image).size().scaled(shot.size(), Qt::KeepAspectRatio);
            return QRect(QPoint((shot.width() - fitted.width()) / 2, (shot.height() - fitted.height()) / 2), fitted);
        };
        const double toOpen = difference(shot.copy(placed(open)), QImage(open).mirrored(true, false));
        const double toShut = difference(shot.copy(placed(shut)), QImage(shut).mirrored(true, false));
        QVERIFY2(toOpen < 10 && toOpen < toShut / 2,
                 qPrintable(QStringLiteral("difference to the open-eyed part %1, to the shut-eyed %2").arg(toOpen).arg(toShut)));
        QVERIFY(outcome->bestShot->quality().eyesOpen >= 0.35);
    }

    /// A face filling the frame is told to move back, and never taken.
    void aFaceTooCloseIsToldToMoveBack()
    {
        const QImage grace(kData + QStringLiteral("/matplotlib__grace_hopper.jpg"));
        // The face about 600 of the frame's 720 pixels, the chin at the edge.
        const QImage close = grace.scaledToWidth(1400, Qt::SmoothTransformation).copy(340, 200, 720, 1280);
        const QString still = scratch.filePath(QStringLiteral("close.png"));
        QVERIFY(close.save(still));
        const QString clip = scratch.filePath(QStringLiteral("close.mp4"));
        QVERIFY(makeClip(clip, {{still, 3}}));
        const auto outcome = runSession(clip, {}, 4);
        QVERIFY(outcome);
        QVERIFY(!outcome->bestShot);
        QVERIFY2(outcome->guidance.contains(QStringLiteral("errors.face_too_close")),
                 qPrintable(outcome->guidance.join(QLatin1Char(' '))));
        QVERIFY2(outcome->error && outcome->error->localizedDescription().contains(core::zc_localized(QStringLiteral("errors.face_too_close"))),
                 outcome->error ? qPrintable(outcome->error->localizedDescription()) : "no error");
    }

    /// A head turning to the user's own left and back passes a "turn left"
    /// step, and the shot is the frontal face after it; a clip cut from one
    /// person turning to another facing the camera passes nothing.
    void aTurnPassesOnlyWhenTheSamePersonTurnsAndComesBack()
    {
        // The clip is what the camera sees: turned towards the picture's
        // right is the person's own left.
        const QString frontal = posed(QStringLiteral("hopper"), 0);
        const QString turned = posed(QStringLiteral("hopper"), 45);
        const QString other = posed(QStringLiteral("collins"), 0);
        QVERIFY(!frontal.isEmpty() && !turned.isEmpty() && !other.isEmpty());
        const auto turnLeft = [] {
            return std::vector<core::ZCStepConfigPtr>{std::make_shared<core::ZCStepConfig>(core::ZCStepKind::TurnHeadLeft, 6)};
        };

        const QString real = scratch.filePath(QStringLiteral("turn.mp4"));
        QVERIFY(makeClip(real, {{frontal, 1.0}, {turned, 1.0}, {frontal, 3.0}}));
        const auto passed = runSession(real, turnLeft());
        QVERIFY(passed);
        QVERIFY2(passed->bestShot, passed->error ? qPrintable(passed->error->localizedDescription()) : "");
        const double at = passed->bestShot->frameTime().seconds();
        QVERIFY2(at >= 2.0 && at < 5.0, qPrintable(QString::number(at)));
        // The shot shows the frontal face (mirrored, as the front camera
        // delivered it), not the turned one: compare where the clip put the
        // render in the frame.
        const QImage shot = passed->bestShot->image();
        const QSize fitted = QImage(frontal).size().scaled(shot.size(), Qt::KeepAspectRatio);
        const QRect placed(QPoint((shot.width() - fitted.width()) / 2, (shot.height() - fitted.height()) / 2), fitted);
        const double toFrontal = difference(shot.copy(placed), QImage(frontal).mirrored(true, false));
        const double toTurned = difference(shot.copy(placed), QImage(turned).mirrored(true, false));
        QVERIFY2(toFrontal < 10 && toFrontal < toTurned / 2,
                 qPrintable(QStringLiteral("difference to the frontal render %1, to the turned %2").arg(toFrontal).arg(toTurned)));

        const QString splice = scratch.filePath(QStringLiteral("splice.mp4"));
        QVERIFY(makeClip(splice, {{frontal, 1.0}, {turned, 1.0}, {other, 3.0}}));
        const auto refused = runSession(splice, turnLeft());
        QVERIFY(refused);
        QVERIFY(!refused->bestShot);
        QVERIFY(refused->error);
        QCOMPARE(refused->error->bestShotErrorValue()->code(), 1000);
    }
};

QTEST_MAIN(TestDemoQuality)
#include "tst_demo_quality.moc"
