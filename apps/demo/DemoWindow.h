#pragma once
// The demo with a display: the camera screen, then a page with the result.
#include "DemoSession.h"

#include <QWidget>
#include <memory>

class QLabel;
class QPushButton;
class QStackedWidget;

namespace zavo {
class ZEAboutVC;
}

namespace zavo::demo {

class DemoWindow : public QWidget {
    Q_OBJECT
public:
    explicit DemoWindow(SessionOptions options, QWidget* parent = nullptr);
    ~DemoWindow() override;

    /// Starts a new session in place of the result page.
    void startSession();

protected:
    /// Enter on the result page starts over; Escape reaching the window
    /// (the screen did not take it) closes the camera screen.
    void keyPressEvent(QKeyEvent* event) override;

private:
    QWidget* buildResultPage();
    void showOutcome();
    void showVideo();
    void closeCamera();
    void playVideo();
    void showAbout();

    SessionOptions options_;
    DetectorTiming timing_;
    std::unique_ptr<DemoSession> session_;
    QStackedWidget* pages_;
    QWidget* resultPage_;
    QLabel* shotLabel_;
    QLabel* detailsLabel_;
    QLabel* videoLabel_;
    QPushButton* playButton_;
    QString player_;
    std::shared_ptr<ZEAboutVC> about_;
};

}  // namespace zavo::demo
