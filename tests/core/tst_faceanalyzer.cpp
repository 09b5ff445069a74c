// Face finding and quality judgement on real photos, and where faces land on
// the screen.
#include "AnalyzerTestSupport.h"
#include "zavocore/ZCPreviewGeometry_p.h"

#include <QFile>
#include <QPainter>
#include <QTest>

using namespace zavo;
using testing::analyse;
using testing::photo;
using core::detail::FaceAnalysis;
using core::detail::FaceAnalyzer;
using core::detail::FrameView;
using core::detail::Guidance;

namespace {

// The photo scaled up into a portrait camera frame, the face in the middle.
QImage cameraFrame(const QImage& face)
{
    QImage frame = face.scaled(720, 1280, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
    return frame.copy((frame.width() - 720) / 2, (frame.height() - 1280) / 2, 720, 1280);
}

}  // namespace

class TestFaceAnalyzer : public QObject {
    Q_OBJECT

private slots:
    void countsFacesInPhotos_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<int>("faces");
        QTest::addColumn<int>("guidance");
        const int none = int(Guidance::None), noFace = int(Guidance::NoFace), several = int(Guidance::MultipleFaces);
        QTest::newRow("grace hopper") << "matplotlib__grace_hopper.jpg" << 1 << none;
        // A whole figure in a square photo: the face is a small part of it.
        QTest::newRow("astronaut") << "skimage__astronaut.png" << 1 << int(Guidance::TooFar);
        // Turned by about 25 degrees; without landmarks no pose is known, and
        // the frontal cascade finds faces only up to about this far turned.
        QTest::newRow("marie curie, three-quarter") << "xraylarch__Marie_Curie.jpg" << 1 << none;
        // A profile is not what a frontal cascade looks for.
        QTest::newRow("camera, profile") << "skimage__camera.png" << 0 << noFace;
        // The round logo tattoo on an arm looks like a face to the first
        // cascade; the second opinion turns it down.
        QTest::newRow("qt logo, three faces") << "gpl/kphotoalbum__qt-logo.jpg" << 3 << several;
        QTest::newRow("bar, two lit faces") << "gpl/kphotoalbum__bar55_2.jpg" << 2 << several;
        QTest::newRow("snow") << "gpl/kphotoalbum__snow.jpg" << 0 << noFace;
        QTest::newRow("baboon") << "opencv-doc__baboon.jpg" << 0 << noFace;
    }

    void countsFacesInPhotos()
    {
        QFETCH(QString, file);
        QFETCH(int, faces);
        QFETCH(int, guidance);
        // The cascades' counts, which the analyzer falls back to without the
        // face network; the network's are in tst_facenetwork.
        core::ZCDetectorSettings settings;
        settings.faceNetworkPath = QStringLiteral("/nonexistent/face.onnx");
        FaceAnalyzer analyzer(settings);
        QVERIFY2(analyzer.loadError().isEmpty(), qPrintable(analyzer.loadError()));
        const FaceAnalysis analysis = analyse(analyzer, photo(file));
        QCOMPARE(int(analysis.faces.size()), faces);
        QCOMPARE(int(analysis.guidance), guidance);
    }

    void judgesAGoodFaceGood()
    {
        FaceAnalyzer analyzer{core::ZCDetectorSettings()};
        const FaceAnalysis analysis = analyse(analyzer, cameraFrame(photo("matplotlib__grace_hopper.jpg")));
        QCOMPARE(int(analysis.faces.size()), 1);
        QVERIFY(analysis.pose);
        QVERIFY2(analysis.guidance == Guidance::None,
                 qPrintable(QStringLiteral("guidance %1, yaw %2 pitch %3 roll %4 eyes %5")
                                .arg(int(analysis.guidance))
                                .arg(analysis.pose->yaw)
                                .arg(analysis.pose->pitch)
                                .arg(analysis.pose->roll)
                                .arg(analysis.eyesOpenness.value_or(-1))));
        QVERIFY2(analysis.sharpness > 2 * core::ZCDetectorSettings().minSharpness,
                 qPrintable(QString::number(analysis.sharpness)));
        QVERIFY(std::abs(analysis.pose->yaw) < 8 && std::abs(analysis.pose->pitch) < 10 && std::abs(analysis.pose->roll) < 8);
        QVERIFY(analysis.eyesOpenness >= core::ZCDetectorSettings().minEyeOpenness);
        const core::ZCQualityScore& q = analysis.quality;
        for (double part : {q.total, q.sharpness, q.exposure, q.faceSize, q.centring, q.pose})
            QVERIFY(part >= 0.0 && part <= 1.0);
        QVERIFY(q.total > 0.5);
        QVERIFY(q.faceSize > 0.9);
    }

    void tellsWhatIsWrongWithAFace_data()
    {
        QTest::addColumn<QString>("damage");
        QTest::addColumn<Guidance>("guidance");
        QTest::newRow("blurred") << "blur" << Guidance::Blurred;
        QTest::newRow("dark") << "dark" << Guidance::TooDark;
        QTest::newRow("bright") << "bright" << Guidance::TooBright;
        QTest::newRow("far") << "far" << Guidance::TooFar;
    }
    void tellsWhatIsWrongWithAFace()
    {
        QFETCH(QString, damage);
        QFETCH(Guidance, guidance);
        QImage frame = cameraFrame(photo("matplotlib__grace_hopper.jpg"));
        if (damage == "blur") {
            frame = frame.scaled(90, 160, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                        .scaled(720, 1280, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        } else if (damage == "dark" || damage == "bright") {
            for (int y = 0; y < frame.height(); ++y) {
                QRgb* line = reinterpret_cast<QRgb*>(frame.scanLine(y));
                for (int x = 0; x < frame.width(); ++x) {
                    const auto shade = [&](int c) { return damage == "dark" ? c / 4 : 190 + c / 4; };
                    line[x] = qRgb(shade(qRed(line[x])), shade(qGreen(line[x])), shade(qBlue(line[x])));
                }
            }
        } else {
            QImage far(720, 1280, QImage::Format_ARGB32);
            far.fill(Qt::darkGray);
            QPainter(&far).drawImage(QRect(160, 400, 400, 469), photo("matplotlib__grace_hopper.jpg"));
            frame = far;
        }
        FaceAnalyzer analyzer{core::ZCDetectorSettings()};
        const FaceAnalysis analysis = analyse(analyzer, frame);
        QCOMPARE(int(analysis.faces.size()), 1);
        QCOMPARE(analysis.guidance, guidance);
    }

    void tellsOpenFromShutEyesOnRealFaces_data()
    {
        // tests/data/eyes: real photos labelled by looking (labels.csv says
        // where each comes from), shut meaning an eye closed or a slit.
        QTest::addColumn<QString>("file");
        QTest::addColumn<bool>("open");
        QFile labels(testing::dataPath(QStringLiteral("eyes/labels.csv")));
        QVERIFY(labels.open(QIODevice::ReadOnly | QIODevice::Text));
        labels.readLine();
        while (!labels.atEnd()) {
            const QStringList row = QString::fromUtf8(labels.readLine()).trimmed().split(QLatin1Char(','));
            if (row.size() > 2)
                QTest::newRow(qPrintable(row[0])) << row[0] << (row[1] == QLatin1String("open"));
        }
    }
    void tellsOpenFromShutEyesOnRealFaces()
    {
        QFETCH(QString, file);
        QFETCH(bool, open);
        FaceAnalyzer analyzer{core::ZCDetectorSettings()};
        const QImage image = photo(QStringLiteral("eyes/") + file);
        const FaceAnalysis analysis = analyse(analyzer, image);
        QCOMPARE(analysis.landmarks.size(), size_t(1));
        const platform::SampleBuffer frame = testing::frameFromImage(image, platform::MediaTime::zero());
        const auto& buffer = *frame.imageBuffer();
        const FrameView view{buffer.baseAddress(), buffer.width(), buffer.height(), buffer.bytesPerRow(),
                             platform::PixelFormat::BGRA32};
        const double openness = analyzer.eyesOpenness(view, analysis.landmarks.front());
        QVERIFY2((openness >= core::ZCDetectorSettings().minEyeOpenness) == open, qPrintable(QString::number(openness)));
    }

    void faceCascadesAreNeededOnlyWithoutTheNetwork()
    {
        core::ZCDetectorSettings settings;
        settings.faceCascadePath = QStringLiteral("/nonexistent/cascade.xml");
        settings.verifierCascadePath = QStringLiteral("/nonexistent/verifier.xml");
        {
            // With the network (as installed) OpenCV's face cascades are not
            // read at all, and the eyes are judged by the built-in cascade.
            FaceAnalyzer analyzer(settings);
            QVERIFY2(analyzer.usesNetwork(), "the face network is not installed (scripts/setup.sh fetches it)");
            QVERIFY2(analyzer.loadError().isEmpty(), qPrintable(analyzer.loadError()));
            const FaceAnalysis analysis = analyse(analyzer, cameraFrame(photo("matplotlib__grace_hopper.jpg")));
            QCOMPARE(analysis.faces.size(), size_t(1));
            QCOMPARE(analysis.guidance, Guidance::None);
        }
        settings.faceNetworkPath = QStringLiteral("/nonexistent/face.onnx");
        FaceAnalyzer analyzer(settings);
        QVERIFY(analyzer.loadError().contains("/nonexistent/cascade.xml"));
        QCOMPARE(analyse(analyzer, photo("matplotlib__grace_hopper.jpg")).faces.size(), size_t(0));
    }

    void mapsFacesWithAspectFill()
    {
        using core::detail::PreviewGeometry;
        // A 720x1280 frame on a 360x720 screen: scaled by 0.5625 to 405x720,
        // 22.5 points cropped on each side.
        const PreviewGeometry portrait{QSizeF(360, 720), {}};
        QCOMPARE(portrait.toScreen(QRectF(100, 200, 400, 400), QSizeF(720, 1280)),
                 QRectF(100 * 0.5625 - 22.5, 200 * 0.5625, 400 * 0.5625, 400 * 0.5625));
        // A landscape frame on a portrait screen fills the height.
        const PreviewGeometry tall{QSizeF(300, 400), {}};
        QCOMPARE(tall.toScreen(QRectF(0, 0, 160, 120), QSizeF(160, 120)), QRectF(-116.6666666666667 + 0, 0, 533.3333333333333, 400));
        // Unknown screen: frame coordinates pass through.
        QCOMPARE(PreviewGeometry{}.toScreen(QRectF(1, 2, 3, 4), QSizeF(720, 1280)), QRectF(1, 2, 3, 4));
        // Insets move the centre the user aims at, not the picture.
        const PreviewGeometry notched{QSizeF(360, 640), {40, 0, 0, 0}};
        QCOMPARE(notched.focusInFrame(QSizeF(720, 1280)), QPointF(360, 680));
        QCOMPARE(notched.toScreen(QRectF(0, 0, 720, 1280), QSizeF(720, 1280)), QRectF(0, 0, 360, 640));
    }

};

QTEST_GUILESS_MAIN(TestFaceAnalyzer)
#include "tst_faceanalyzer.moc"
