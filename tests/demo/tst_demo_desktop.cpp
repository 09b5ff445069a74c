// The demo as a user starts it: in a real X server (Xvfb with the xcb
// plug-in) on a wide and a tall screen and at a scale factor of 2, each to a
// best shot whose face box lies where the offscreen run finds it; and --help
// with no display at all.
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRectF>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include "MissingPrerequisite.h"
#include "PictureMarkers.h"

using namespace zavo::testing;

namespace {

struct Run {
    int exitCode = -1;
    QJsonObject summary;
    QString errors;
};

/// Runs program with arguments in environment; the summary is the last line
/// of its output. The limit only bounds a hang: the demo's own guard ends a
/// session that finds nothing well before it.
Run runDemo(const QString& program, const QStringList& arguments, const QProcessEnvironment& environment)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    Run run;
    if (!process.waitForFinished(600000)) {
        process.kill();
        process.waitForFinished();
        run.errors = QStringLiteral("did not end");
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.errors = QString::fromLocal8Bit(process.readAllStandardError()).right(2000);
    const QList<QByteArray> lines = process.readAllStandardOutput().trimmed().split('\n');
    run.summary = QJsonDocument::fromJson(lines.last()).object();
    return run;
}

QRectF boxOf(const QJsonObject& summary)
{
    const QJsonArray box = summary.value(QStringLiteral("faceBox")).toArray();
    return box.size() == 4 ? QRectF(box[0].toDouble(), box[1].toDouble(), box[2].toDouble(), box[3].toDouble())
                           : QRectF();
}

double intersectionOverUnion(const QRectF& a, const QRectF& b)
{
    const QRectF common = a.intersected(b);
    const double shared = common.width() * common.height();
    const double all = a.width() * a.height() + b.width() * b.height() - shared;
    return all > 0 ? shared / all : 0;
}

/// The test's environment without anything that names a display or a
/// platform plug-in (CTest runs the suites offscreen).
QProcessEnvironment withoutDisplay()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "QT_SCALE_FACTOR"})
        environment.remove(QString::fromLatin1(name));
    return environment;
}

}  // namespace

class TstDemoDesktop : public QObject {
    Q_OBJECT

    const QString demo = QStringLiteral(ZAVO_DEMO_PATH);
    QTemporaryDir scratch;
    QRectF offscreenBox;
    QString markedClip;  // the camera of the real-screen runs
    static constexpr QSize kMarkedClipSize{720, 1280};

    /// What a user sees of a session run with the marked clip as the (front)
    /// camera: the screen upright and mirrored, the best shot too (it is a
    /// frame the detector judged), the session video upright and not
    /// mirrored (the movie recorder records what the camera sees).
    void checkPictures(const Run& run)
    {
        const QImage reference = markedFace(kMarkedClipSize);
        QString why;
        const QImage screenshot(run.summary.value("screenshot").toString());
        QVERIFY2(looksShownAs(screenshot, reference, 0, true, true, &why), qPrintable("screen: " + why));
        const QImage shot(run.summary.value("bestShotImage").toString());
        QVERIFY2(looksShownAs(shot, reference, 0, true, false, &why), qPrintable("best shot: " + why));
        const QImage video = shownLastFrame(run.summary.value("videoPath").toString(), scratch.path());
        QVERIFY2(looksShownAs(video, reference, 0, false, false, &why), qPrintable("session video: " + why));
    }

private slots:
    void helpNeedsNoDisplay()
    {
        QProcess process;
        process.setProcessEnvironment(withoutDisplay());
        process.start(demo, {QStringLiteral("--help")});
        QVERIFY(process.waitForFinished(60000));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);
        const QString help = QString::fromLocal8Bit(process.readAllStandardOutput());
        QVERIFY(help.contains(QStringLiteral("--quit-after-session")));
        QVERIFY(help.contains(QStringLiteral("--orientation")));
    }

    void aBadOptionIsRefusedWithoutDisplay()
    {
        QProcess process;
        process.setProcessEnvironment(withoutDisplay());
        process.start(demo, {QStringLiteral("--orientation"), QStringLiteral("sideways")});
        QVERIFY(process.waitForFinished(60000));
        QCOMPARE(process.exitCode(), 2);
        QVERIFY(process.readAllStandardError().contains("--orientation"));
    }

    /// Without a display the demo runs headless; a session that finds no
    /// face is ended by the demo's own limit, with exit status 3 and a
    /// summary that says so.
    void headlessSessionEndsAtItsTimeLimit()
    {
        QProcessEnvironment offscreen = withoutDisplay();
        offscreen.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        const Run run = runDemo(demo,
                                {"--camera", QStringLiteral(ZAVO_TEST_DATA_DIR "/E_no_face.mp4"), "--no-record",
                                 "--timeout", "1", "--output", scratch.filePath("timeout")},
                                offscreen);
        QCOMPARE(run.exitCode, 3);
        QCOMPARE(run.summary.value("outcome").toString(), QStringLiteral("error"));
        QCOMPARE(run.summary.value("errorText").toString(), QStringLiteral("no outcome within 1 s"));
        QVERIFY(run.summary.value("faceBox").isNull());
    }

    void realScreens_data()
    {
        QTest::addColumn<QString>("screen");
        QTest::addColumn<QString>("scale");
        QTest::newRow("1920x1080") << "1920x1080x24" << "";
        QTest::newRow("1080x1920") << "1080x1920x24" << "";
        QTest::newRow("1920x1080 at scale 2") << "1920x1080x24" << "2";
    }

    void realScreens()
    {
        QFETCH(QString, screen);
        QFETCH(QString, scale);
        const QString xvfbRun = QStandardPaths::findExecutable(QStringLiteral("xvfb-run"));
        if (xvfbRun.isEmpty() || QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty())
            ZAVO_SKIP_MISSING("no X server to start: install the xvfb package (scripts/setup.sh does)");
        if (!haveFfmpegTools())
            ZAVO_SKIP_MISSING("ffmpeg makes the marked clip and decodes the session video");
        if (markedClip.isEmpty()) {
            const QString path = scratch.filePath(QStringLiteral("marked-face.mp4"));
            QVERIFY(makeMarkedFaceClip(path, kMarkedClipSize));
            markedClip = path;
        }
        if (offscreenBox.isNull()) {
            QProcessEnvironment offscreen = withoutDisplay();
            offscreen.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
            const Run reference
                = runDemo(demo, {"--camera", markedClip, "--output", scratch.filePath("offscreen")}, offscreen);
            QVERIFY2(reference.exitCode == 0, qPrintable(reference.errors));
            offscreenBox = boxOf(reference.summary);
            QVERIFY(!offscreenBox.isEmpty());
            checkPictures(reference);
            if (QTest::currentTestFailed())
                return;
        }

        QProcessEnvironment desktop = withoutDisplay();
        desktop.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        if (!scale.isEmpty())
            desktop.insert(QStringLiteral("QT_SCALE_FACTOR"), scale);
        const QString output = scratch.filePath(QTest::currentDataTag());
        const Run run = runDemo(xvfbRun,
                                {"-a", "-s", QStringLiteral("-screen 0 %1").arg(screen), demo, "--quit-after-session",
                                 "--camera", markedClip, "--output", output},
                                desktop);
        QVERIFY2(run.exitCode == 0, qPrintable(run.errors));
        QCOMPARE(run.summary.value("outcome").toString(), QStringLiteral("bestShot"));
        const double overlap = intersectionOverUnion(boxOf(run.summary), offscreenBox);
        QVERIFY2(overlap >= 0.5, qPrintable(QStringLiteral("face box overlap %1").arg(overlap)));
        checkPictures(run);
    }
};

QTEST_GUILESS_MAIN(TstDemoDesktop)
#include "tst_demo_desktop.moc"
