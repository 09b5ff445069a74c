#pragma once
// One session without a display: screenshot mid-session, best shot, summary.
#include "DemoSession.h"

#include <QDir>
#include <QJsonObject>
#include <QObject>
#include <QTimer>

namespace zavo::demo {

class HeadlessRun : public QObject {
    Q_OBJECT
public:
    /// timeoutSeconds 0: no guard.
    HeadlessRun(SessionOptions options, QDir output, int timeoutSeconds);
    /// Starts the session; exitRequested comes once with the exit status:
    /// 0 best shot, 1 error outcome, 3 no outcome in time.
    void start();

signals:
    void exitRequested(int status);

private:
    void saveScreenshot();
    void saveBestShot();
    void report();
    void giveUp();
    void finish(QJsonObject summary, int status);

    DetectorTiming timing_;
    DemoSession session_;
    QDir output_;
    QTimer guard_;
    QJsonObject files_;
    bool reported_ = false;
};

}  // namespace zavo::demo
