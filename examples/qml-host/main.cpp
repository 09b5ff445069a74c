// A QML host: shows the QML camera screen in a window, prints how the
// session ended and the session video, and quits.
//
//   zavocamera-qml-host-example [--close-after-ms N] [VIDEO]
//
// With a video file it plays that file as the front camera; with
// --close-after-ms it closes its window after N ms, as a user would.
// Prints "best shot <quality>" or "error <text>", then "video <path>" once
// the video is final ("video none" without one). Exits 0 on a best shot.
#include <camera/file/FileCaptureDevice.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QQmlApplicationEngine>
#include <QTimer>
#include <QWindow>
#include <cstdio>

/// What the QML side calls with the outcome.
class Host final : public QObject {
    Q_OBJECT
public:
    int exitCode = 1;

    Q_INVOKABLE void bestShot(double quality, const QString& videoPath)
    {
        std::printf("best shot %.2f\n", quality);
        outcome(0, videoPath);
    }
    Q_INVOKABLE void failed(const QString& text, const QString& videoPath)
    {
        std::printf("error %s\n", qPrintable(text));
        outcome(1, videoPath);
    }
    // Comes after the outcome, once the video it named is final.
    Q_INVOKABLE void videoFinished(const QString& path, const QString& error)
    {
        std::printf("video %s%s\n", path.isEmpty() ? "none" : qPrintable(path),
                    error.isEmpty() ? "" : qPrintable(QStringLiteral(" (%1)").arg(error)));
        std::fflush(stdout);
        QCoreApplication::quit();
    }

private:
    void outcome(int code, const QString& videoPath)
    {
        exitCode = code;
        if (videoPath.isEmpty()) {
            std::printf("video none\n");
            QCoreApplication::quit();
        }
        std::fflush(stdout);
    }
};

int main(int argc, char** argv)
{
    // The camera screen runs its session's widgets out of sight: the
    // application object is a QApplication.
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("zavocamera-qml-host-example"));
    // A closed window ends the session; the host quits once it has heard how.
    app.setQuitOnLastWindowClosed(false);

    QCommandLineParser parser;
    parser.addHelpOption();
    QCommandLineOption closeAfter(QStringLiteral("close-after-ms"), QStringLiteral("Close the window after N ms."),
                                  QStringLiteral("N"));
    parser.addOption(closeAfter);
    parser.addPositionalArgument(QStringLiteral("video"), QStringLiteral("A video file to play as the front camera."));
    parser.process(app);

    std::shared_ptr<zavo::platform::FileCaptureDevice> fileCamera;
    if (!parser.positionalArguments().isEmpty()) {
        const QString path = parser.positionalArguments().first();
        zavo::platform::ErrorPtr error;
        fileCamera = zavo::platform::FileCaptureDevice::create(path, zavo::platform::CaptureDevicePosition::Front, &error);
        if (!fileCamera) {
            std::fprintf(stderr, "cannot play %s: %s\n", qPrintable(path), qPrintable(error->localizedDescription()));
            return 2;
        }
        zavo::platform::CaptureDeviceRegistry::shared().registerDevice(fileCamera);
    }

    Host host;
    QQmlApplicationEngine engine;
    // Under /usr the module is in Qt's own import path; under another
    // prefix, where the package put it.
    engine.addImportPath(QStringLiteral(ZAVOCAMERA_QML_IMPORT_DIR));
    engine.setInitialProperties({{QStringLiteral("host"), QVariant::fromValue(&host)}});
    engine.load(QUrl(QStringLiteral("qrc:/Main.qml")));
    if (engine.rootObjects().isEmpty())
        return 2;
    auto* window = qobject_cast<QWindow*>(engine.rootObjects().first());
    if (parser.isSet(closeAfter) && window)
        QTimer::singleShot(parser.value(closeAfter).toInt(), window, &QWindow::close);
    app.exec();
    return host.exitCode;
}

#include "main.moc"
