#pragma once
// One scripted session: screenshot mid-session, best shot, a one-line JSON
// summary, then the exit status. Runs offscreen, or in a real window when
// the host asks to quit after the session on a desktop.
#include "DemoSession.h"

#include <QDir>
#include <QJsonObject>
#include <QObject>
#include <QTimer>

namespace zavo::demo {

class SessionRun : public QObject {
    Q_OBJECT
public:
    enum class Display { Offscreen, Window };
    /// timeoutSeconds 0: no guard.
    SessionRun(SessionOptions options, QDir output, int timeoutSeconds, Display display);
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
    Display display_;
    QTimer guard_;
    QTimer windDown_;  // after the summary, until the released session is gone
    QJsonObject files_;
    bool reported_ = false;
};

}  // namespace zavo::demo
