#include "DemoWindow.h"

#include "DemoSummary.h"

#include "ui/ZEAboutVC.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QStackedWidget>
#include <QStandardPaths>
#include <QVBoxLayout>

namespace zavo::demo {

namespace {

const QSize kScreenSize(360, 640);

QString findPlayer()
{
    for (const char* name : {"ffplay", "xdg-open"}) {
        const QString path = QStandardPaths::findExecutable(QString::fromLatin1(name));
        if (!path.isEmpty())
            return path;
    }
    return {};
}

QString qualityText(const core::ZCQualityScore& q)
{
    return QStringLiteral("Quality %1 (sharpness %2, exposure %3, face size %4, centring %5, pose %6)")
        .arg(q.total, 0, 'f', 2)
        .arg(q.sharpness, 0, 'f', 2)
        .arg(q.exposure, 0, 'f', 2)
        .arg(q.faceSize, 0, 'f', 2)
        .arg(q.centring, 0, 'f', 2)
        .arg(q.pose, 0, 'f', 2);
}

}  // namespace

DemoWindow::DemoWindow(SessionOptions options, QWidget* parent)
    : QWidget(parent), options_(options), player_(findPlayer())
{
    setWindowTitle(QStringLiteral("ZavoCamera demo"));
    pages_ = new QStackedWidget(this);
    resultPage_ = buildResultPage();
    pages_->addWidget(resultPage_);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(pages_);
}

DemoWindow::~DemoWindow()
{
    // The screen's controller owns its view; take it out of the stack first.
    if (session_ && session_->view())
        session_->view()->setParent(nullptr);
}

QWidget* DemoWindow::buildResultPage()
{
    auto* page = new QWidget;
    auto* column = new QVBoxLayout(page);
    shotLabel_ = new QLabel;
    shotLabel_->setAlignment(Qt::AlignCenter);
    shotLabel_->setMinimumSize(200, 240);
    detailsLabel_ = new QLabel;
    detailsLabel_->setWordWrap(true);
    videoLabel_ = new QLabel;
    videoLabel_->setWordWrap(true);
    videoLabel_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    playButton_ = new QPushButton(QStringLiteral("Play video"));
    playButton_->setVisible(!player_.isEmpty());
    playButton_->setEnabled(false);
    auto* again = new QPushButton(QStringLiteral("New session"));
    again->setDefault(true);
    auto* about = new QPushButton(QStringLiteral("About"));
    connect(playButton_, &QPushButton::clicked, this, &DemoWindow::playVideo);
    connect(again, &QPushButton::clicked, this, &DemoWindow::startSession);
    connect(about, &QPushButton::clicked, this, &DemoWindow::showAbout);
    column->addWidget(shotLabel_, 1);
    column->addWidget(detailsLabel_);
    column->addWidget(videoLabel_);
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(playButton_);
    buttons->addWidget(again);
    buttons->addWidget(about);
    column->addLayout(buttons);
    return page;
}

void DemoWindow::startSession()
{
    closeCamera();
    session_ = std::make_unique<DemoSession>(options_, &timing_);
    connect(session_.get(), &DemoSession::finished, this, &DemoWindow::showOutcome);
    connect(session_.get(), &DemoSession::videoSettled, this, &DemoWindow::showVideo);
    pages_->addWidget(session_->view());
    pages_->setCurrentWidget(session_->view());
    session_->view()->setFocus();
    session_->start();
}

void DemoWindow::closeCamera()
{
    if (!session_)
        return;
    if (QWidget* view = session_->view()) {
        pages_->removeWidget(view);
        view->setParent(nullptr);
    }
    session_.reset();
    pages_->setCurrentWidget(resultPage_);
}

void DemoWindow::showOutcome()
{
    const SessionOutcome& outcome = *session_->outcome();
    if (outcome.bestShot) {
        const QImage shot = annotatedBestShot(*outcome.bestShot);
        shotLabel_->setPixmap(QPixmap::fromImage(shot.scaled(shotLabel_->size(), Qt::KeepAspectRatio,
                                                             Qt::SmoothTransformation)));
        detailsLabel_->setText(qualityText(outcome.bestShot->quality()));
    } else {
        shotLabel_->clear();
        detailsLabel_->setText(outcome.error->localizedDescription());
    }
    videoLabel_->setText(outcome.videoFile ? QStringLiteral("Video (still being finished): %1").arg(*outcome.videoFile)
                                           : QStringLiteral("No video recorded."));
    playButton_->setEnabled(false);
    // The host removes the screen; the video may still be in the works and
    // the session object keeps waiting for it.
    if (QWidget* view = session_->view()) {
        pages_->removeWidget(view);
        view->hide();
    }
    pages_->setCurrentWidget(resultPage_);
}

void DemoWindow::showVideo()
{
    const SessionOutcome& outcome = *session_->outcome();
    const auto& video = session_->video();
    if (outcome.videoFile && video) {
        videoLabel_->setText(video->finished
                                 ? QStringLiteral("Video: %1 (%2 frames)").arg(*outcome.videoFile).arg(video->frames)
                                 : QStringLiteral("Video: %1 (%2)").arg(*outcome.videoFile, video->problem));
        playButton_->setEnabled(video->frames > 0);
    }
    // Nothing of the session is needed any more.
    session_->release();
}

void DemoWindow::playVideo()
{
    if (session_ && session_->outcome() && session_->outcome()->videoFile)
        QProcess::startDetached(player_, {*session_->outcome()->videoFile});
}

void DemoWindow::showAbout()
{
    if (!about_)
        about_ = std::make_shared<ZEAboutVC>(std::make_shared<core::ZCZavoConfiguration>());
    QWidget* page = about_->view();
    page->setWindowTitle(QStringLiteral("About"));
    page->resize(kScreenSize.width(), 200);
    page->show();
    page->raise();
}

void DemoWindow::keyPressEvent(QKeyEvent* event)
{
    const bool onResult = pages_->currentWidget() == resultPage_;
    if (onResult && (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter)) {
        startSession();
        return;
    }
    if (!onResult && event->key() == Qt::Key_Escape) {
        // The screen's own close ends the session with "canceled" and its
        // video; without one, just take the screen away.
        if (!session_->cancel())
            closeCamera();
        return;
    }
    QWidget::keyPressEvent(event);
}

}  // namespace zavo::demo
