#include "SessionRun.h"

#include "DemoSummary.h"
#include "WindowPlacement.h"

#include "base/DispatchQueue.h"

#include <QJsonDocument>
#include <QTextStream>
#include <QWidget>

namespace zavo::demo {

namespace {
// A phone-sized screen in points; with the demo's scale factor of 2 the
// preview is drawn at the camera's 720x1280.
const QSize kScreenSize(360, 640);
}  // namespace

SessionRun::SessionRun(SessionOptions options, QDir output, int timeoutSeconds, Display display)
    : session_(options, &timing_), output_(std::move(output)), display_(display)
{
    guard_.setSingleShot(true);
    if (timeoutSeconds > 0)
        guard_.setInterval(timeoutSeconds * 1000);
    connect(&guard_, &QTimer::timeout, this, &SessionRun::giveUp);
    connect(&session_, &DemoSession::faceFrameShown, this, &SessionRun::saveScreenshot);
    connect(&session_, &DemoSession::finished, this, &SessionRun::saveBestShot);
    connect(&session_, &DemoSession::videoSettled, this, &SessionRun::report);
}

void SessionRun::start()
{
    if (guard_.interval() > 0)
        guard_.start();
    QWidget* view = session_.view();
    if (display_ == Display::Window) {
        view->setWindowTitle(QStringLiteral("ZavoCamera demo"));
        showPlaced(view);
    } else {
        view->resize(kScreenSize);
        view->show();
    }
    session_.start();
}

void SessionRun::saveScreenshot()
{
    const QString path = output_.filePath(QStringLiteral("camera_screen.png"));
    if (session_.view()->grab().save(path))
        files_.insert(QStringLiteral("screenshot"), path);
    else
        QTextStream(stderr) << "cannot write " << path << '\n';
}

void SessionRun::saveBestShot()
{
    const auto& outcome = *session_.outcome();
    if (!outcome.bestShot)
        return;
    const QString path = output_.filePath(QStringLiteral("best_shot.png"));
    if (annotatedBestShot(*outcome.bestShot).save(path))
        files_.insert(QStringLiteral("bestShotImage"), path);
    else
        QTextStream(stderr) << "cannot write " << path << '\n';
}

void SessionRun::report()
{
    const auto& outcome = *session_.outcome();
    finish(sessionSummary(outcome, session_.video()), outcome.bestShot ? 0 : 1);
}

void SessionRun::giveUp()
{
    const QString text = QStringLiteral("no outcome within %1 s").arg(guard_.interval() / 1000);
    // The session still runs: end it as the user would, so that its camera
    // and threads wind down before the process ends.
    session_.cancel();
    if (const auto& outcome = session_.outcome()) {
        // The outcome came but its video did not settle in time.
        QJsonObject summary = sessionSummary(*outcome, std::nullopt);
        summary.insert(QStringLiteral("videoProblem"), QStringLiteral("the video was not final in time"));
        finish(summary, outcome->bestShot ? 0 : 1);
        return;
    }
    std::optional<double> firstFrame;
    if (const auto duration = timing_.timeToFirstFrame())
        firstFrame = std::chrono::duration<double, std::milli>(*duration).count();
    finish(failureSummary(text, firstFrame), 3);
}

void SessionRun::finish(QJsonObject summary, int status)
{
    if (reported_)
        return;
    reported_ = true;
    guard_.stop();
    for (auto it = files_.constBegin(); it != files_.constEnd(); ++it)
        summary.insert(it.key(), it.value());
    QTextStream(stdout) << QJsonDocument(summary).toJson(QJsonDocument::Compact) << Qt::endl;
    session_.release();
    // Exit only once the released screen and its queues are gone: a process
    // that ends while the detector still analyses a frame tears OpenCV's
    // thread-local data down under it. The wait only bounds a hang.
    auto waited = std::make_shared<int>(0);
    connect(&windDown_, &QTimer::timeout, this, [this, status, waited] {
        if ((session_.isReleased() && platform::DispatchQueue::liveThreadCount() == 0) || ++*waited > 500) {
            windDown_.stop();
            emit exitRequested(status);
        }
    });
    windDown_.start(20);
}

}  // namespace zavo::demo
