// zavocamera-gallery: the component's visual parts as a host sees them.
//
//   zavocamera-gallery                  shows them in a window
//   zavocamera-gallery --output DIR     renders them offscreen, saves one PNG
//                                       each and prints one line per file
//
// The camera scenes put the overlay views over a still photo where the live
// preview would be, laid out the way the camera screen lays them out.
#include "base/Error.h"
#include "shell/ViewController.h"
#include "ui/ZCRoundButton.h"
#include "ui/ZEAboutVC.h"
#include "ui/ZMFaceDetectionView.h"
#include "ui/ZMImages_p.h"
#include "ui/ZMVideoStreamNotificationView.h"
#include "ui/ZavoFonts.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QEventLoop>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPushButton>
#include <QTabWidget>
#include <QTextStream>
#include <QToolButton>
#include <QVBoxLayout>
#include <QVariantAnimation>
#include <cstring>
#include <memory>

using namespace zavo;

namespace {

const QSize kPhoneSize(360, 640);
// Where the face is in the backdrop photo (photo pixels), as OpenCV's
// frontal-face cascade finds it; the camera screen would get it from the
// detector.
const QRect kFaceInPhoto(155, 105, 222, 222);
constexpr int kCloseButtonSize = 44;
constexpr int kControlsInset = 10;

const char* const kLongMessage =
    "Your face is too far from the camera. Move a little closer and keep your whole face inside the frame.";

// A stand-in for the live preview: the photo scaled to fill and cropped, as
// an aspect-fill preview shows the camera, with the screen's overlay on top.
class CameraScene : public QWidget {
public:
    CameraScene() : photo_(QStringLiteral(":/gallery/images/grace_hopper.jpg"))
    {
        setFixedSize(kPhoneSize);
        close_ = new QToolButton(this);
        close_->setIcon(QIcon(zavoCameraImage(QStringLiteral("close"))));
        close_->setIconSize(QSize(kCloseButtonSize, kCloseButtonSize));
        close_->setStyleSheet(QStringLiteral("QToolButton { border: none; background: transparent; }"));
        close_->setFixedSize(kCloseButtonSize, kCloseButtonSize);
        close_->setToolTip(QStringLiteral("Close"));

        // The colours and text style the default customizer gives the views.
        face_ = new ZMFaceDetectionView(Qt::green, Qt::red, this);
        banner_ = new ZMVideoStreamNotificationView(this);
        banner_->applyFont(etelka(banner_->NotificationLabelFontSize));
        banner_->applyTextColor(Qt::white);
        banner_->hide();
    }

    ZMFaceDetectionView* face() const { return face_; }
    ZMVideoStreamNotificationView* banner() const { return banner_; }

    void showMessage(const QString& text)
    {
        QVariantMap info{{QLatin1String(platform::kLocalizedDescriptionKey), text}};
        banner_->showNotificationMessage(
            std::make_shared<platform::ErrorObject>(QStringLiteral("com.zavo.gallery"), 1, info));
        banner_->show();
        layOut();
    }

    void hideMessage()
    {
        banner_->showNotificationMessage(nullptr);
        banner_->hide();
    }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.fillRect(rect(), Qt::black);
        painter.drawImage(photoRect(), photo_);
    }

    void resizeEvent(QResizeEvent*) override { layOut(); }

private:
    QRectF photoRect() const
    {
        const double scale = std::max(width() / double(photo_.width()), height() / double(photo_.height()));
        const QSizeF size = QSizeF(photo_.size()) * scale;
        return QRectF(QPointF((width() - size.width()) / 2, (height() - size.height()) / 2), size);
    }

    // Close button in the top trailing corner, the banner right under it at
    // full width with the height its text needs, the frame over the face.
    void layOut()
    {
        close_->move(width() - kControlsInset - kCloseButtonSize, kControlsInset);
        const int bannerTop = kControlsInset + kCloseButtonSize;
        banner_->setGeometry(0, bannerTop, width(), banner_->heightForWidth(width()));
        const QRectF photo = photoRect();
        const double scale = photo.width() / photo_.width();
        face_->setGeometry(QRectF(photo.topLeft() + QPointF(kFaceInPhoto.topLeft()) * scale,
                                  QSizeF(kFaceInPhoto.size()) * scale)
                               .toRect());
    }

    QImage photo_;
    QToolButton* close_;
    ZMFaceDetectionView* face_;
    ZMVideoStreamNotificationView* banner_;
};

// A white panel holding one round button, as a host form would.
class ButtonPanel : public QWidget {
public:
    explicit ButtonPanel(const QString& title)
    {
        setAutoFillBackground(true);
        QPalette palette = this->palette();
        palette.setColor(QPalette::Window, Qt::white);
        setPalette(palette);
        auto* column = new QVBoxLayout(this);
        column->setContentsMargins(24, 24, 24, 24);
        button_ = new ZCRoundButton(this);
        button_->setText(title);
        column->addWidget(button_);
        // A window does not take its height from its layout's height for
        // width; a wrapped title needs it.
        setFixedSize(kPhoneSize.width(), heightForWidth(kPhoneSize.width()));
    }

    ZCRoundButton* button() const { return button_; }

private:
    ZCRoundButton* button_;
};

// The host side of the about screen: a navigation stack whose first screen
// runs without the bar, as the camera screen does.
struct AboutStack {
    std::shared_ptr<platform::ViewController> home = std::make_shared<platform::ViewController>();
    std::shared_ptr<platform::NavigationController> navigation = platform::NavigationController::create(home);
    std::shared_ptr<ZEAboutVC> about = std::make_shared<ZEAboutVC>(std::make_shared<core::ZCZavoConfiguration>());

    AboutStack()
    {
        home->setTitle(QStringLiteral("Home"));
        about->setTitle(QStringLiteral("About"));
        navigation->setNavigationBarHidden(true);
    }
};

void describeHost()
{
    QCoreApplication::setApplicationName(QStringLiteral("Zavo Demo"));
    QCoreApplication::setApplicationVersion(QStringLiteral("2.1.0"));
    qApp->setProperty("CFBundleVersion", QStringLiteral("57"));
}

void settle()
{
    for (int i = 0; i < 3; ++i)
        QCoreApplication::processEvents();
}

void waitFor(QAbstractAnimation* animation)
{
    if (!animation || animation->state() == QAbstractAnimation::Stopped)
        return;
    QEventLoop loop;
    QObject::connect(animation, &QAbstractAnimation::finished, &loop, &QEventLoop::quit);
    loop.exec();
}

void pressWithMouse(QWidget* widget)
{
    const QPointF centre = QRectF(widget->rect()).center();
    QMouseEvent press(QEvent::MouseButtonPress, centre, widget->mapToGlobal(centre), Qt::LeftButton, Qt::LeftButton,
                      Qt::NoModifier);
    QCoreApplication::sendEvent(widget, &press);
}

class Shooter {
public:
    explicit Shooter(QDir dir) : dir_(std::move(dir)) {}

    bool save(QWidget* widget, const QString& name)
    {
        settle();
        const QString path = dir_.filePath(name);
        if (!widget->grab().save(path)) {
            QTextStream(stderr) << "cannot write " << path << '\n';
            ok_ = false;
            return false;
        }
        QTextStream(stdout) << "saved " << path << '\n';
        return true;
    }

    bool ok() const { return ok_; }

private:
    QDir dir_;
    bool ok_ = true;
};

void shootCamera(Shooter& shooter)
{
    CameraScene scene;
    scene.show();
    scene.showMessage(QString::fromLatin1(kLongMessage));
    scene.face()->switchToNegativeState();
    shooter.save(&scene, QStringLiteral("banner.png"));

    scene.hideMessage();
    scene.face()->switchToPositiveState();
    shooter.save(&scene, QStringLiteral("face_frame_positive.png"));
    scene.face()->switchToNegativeState();
    shooter.save(&scene, QStringLiteral("face_frame_negative.png"));
}

void shootButtons(Shooter& shooter)
{
    ButtonPanel normal(QStringLiteral("Continue"));
    normal.show();
    shooter.save(&normal, QStringLiteral("round_button_normal.png"));

    ButtonPanel pressed(QStringLiteral("Continue"));
    pressed.show();
    settle();
    pressWithMouse(pressed.button());
    waitFor(pressed.button()->colorAnimation());
    shooter.save(&pressed, QStringLiteral("round_button_pressed.png"));

    ButtonPanel disabled(QStringLiteral("Continue"));
    disabled.show();
    disabled.button()->setEnabled(false);
    waitFor(disabled.button()->colorAnimation());
    shooter.save(&disabled, QStringLiteral("round_button_disabled.png"));

    ButtonPanel wrapped(QStringLiteral("Take a new photo of your face and send it for verification"));
    wrapped.show();
    shooter.save(&wrapped, QStringLiteral("round_button_wrapped.png"));
}

void shootAbout(Shooter& shooter)
{
    AboutStack stack;
    QWidget* window = stack.navigation->view();
    window->resize(kPhoneSize.width(), 240);
    window->show();
    settle();
    stack.navigation->pushViewController(stack.about);
    shooter.save(window, QStringLiteral("about.png"));
}

int renderAll(const QString& output)
{
    if (!QDir().mkpath(output)) {
        QTextStream(stderr) << "cannot create " << output << '\n';
        return 1;
    }
    Shooter shooter{QDir(output)};
    shootAbout(shooter);
    shootCamera(shooter);
    shootButtons(shooter);
    return shooter.ok() ? 0 : 1;
}

// ------------------------------------------------------------ window mode

QWidget* cameraTab()
{
    auto* page = new QWidget;
    auto* row = new QHBoxLayout(page);
    auto* scene = new CameraScene;
    row->addWidget(scene);
    auto* controls = new QVBoxLayout;
    auto addAction = [&](const QString& title, auto action) {
        auto* button = new QPushButton(title);
        QObject::connect(button, &QPushButton::clicked, page, action);
        controls->addWidget(button);
    };
    addAction(QStringLiteral("Positive"), [scene] { scene->face()->switchToPositiveState(); });
    addAction(QStringLiteral("Negative"), [scene] { scene->face()->switchToNegativeState(); });
    addAction(QStringLiteral("Show message"), [scene] { scene->showMessage(QString::fromLatin1(kLongMessage)); });
    addAction(QStringLiteral("Hide message"), [scene] { scene->hideMessage(); });
    controls->addStretch();
    row->addLayout(controls);
    return page;
}

QWidget* buttonsTab()
{
    auto* page = new QWidget;
    auto* column = new QVBoxLayout(page);
    auto* live = new ButtonPanel(QStringLiteral("Press me"));
    auto* wrapped = new ButtonPanel(QStringLiteral("Take a new photo of your face and send it for verification"));
    auto* toggle = new QPushButton(QStringLiteral("Enable / disable"));
    QObject::connect(toggle, &QPushButton::clicked, live,
                     [live] { live->button()->setEnabled(!live->button()->isEnabled()); });
    column->addWidget(live);
    column->addWidget(wrapped);
    column->addWidget(toggle);
    column->addStretch();
    return page;
}

int showWindow(QApplication& app)
{
    AboutStack stack;
    auto* homeLayout = new QVBoxLayout(stack.home->view());
    auto* open = new QPushButton(QStringLiteral("About this app"));
    QObject::connect(open, &QPushButton::clicked, open, [&stack] { stack.navigation->pushViewController(stack.about); });
    homeLayout->addWidget(open);
    homeLayout->addStretch();

    QTabWidget tabs;
    tabs.setWindowTitle(QStringLiteral("ZavoCamera gallery"));
    tabs.addTab(cameraTab(), QStringLiteral("Camera overlay"));
    tabs.addTab(buttonsTab(), QStringLiteral("Round button"));
    tabs.addTab(stack.navigation->view(), QStringLiteral("About screen"));
    tabs.show();
    const int status = app.exec();
    // The tabs own the pages; take the navigation page out first so that its
    // controller, which also owns it, can delete it in its own time.
    stack.navigation->view()->setParent(nullptr);
    return status;
}

// The offscreen platform warns about every fixed-size window it cannot pass
// size hints on for; that says nothing about the screenshots.
QtMessageHandler previousHandler = nullptr;

void dropOffscreenNoise(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (message == QLatin1String("This plugin does not support propagateSizeHints()"))
        return;
    previousHandler(type, context, message);
}

// Whether argv asks for offscreen rendering; read before the application
// object exists, because that is when the platform plugin is chosen.
bool wantsOutput(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--output") == 0 || std::strncmp(argv[i], "--output=", 9) == 0)
            return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv)
{
    if (wantsOutput(argc, argv)) {
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        // Screenshots at twice the point size, as a high-density screen shows them.
        if (qEnvironmentVariableIsEmpty("QT_SCALE_FACTOR"))
            qputenv("QT_SCALE_FACTOR", "2");
        previousHandler = qInstallMessageHandler(dropOffscreenNoise);
    }
    QApplication app(argc, argv);
    describeHost();
    QFont font = QApplication::font();
    font.setPointSizeF(11);
    QApplication::setFont(font);

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Shows the visual parts of ZavoCamera."));
    parser.addHelpOption();
    const QCommandLineOption output(QStringLiteral("output"), QStringLiteral("Save PNG screenshots into <dir>."),
                                    QStringLiteral("dir"));
    parser.addOption(output);
    parser.process(app);
    if (parser.isSet(output))
        return renderAll(parser.value(output));
    return showWindow(app);
}
