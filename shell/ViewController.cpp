#include "shell/ViewController.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace zavo::platform {

// Turns the root widget's events into the controller's hooks. It is a child
// of the root widget, so it goes away with it.
class ViewController::EventHook : public QObject {
public:
    EventHook(ViewController* owner, QWidget* view) : QObject(view), owner_(owner) {}

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (watched == parent())
            owner_->handleViewEvent(event->type());
        return false;
    }

private:
    ViewController* owner_;  // outlives the hook: the owner deletes the view first
};

ViewController::ViewController() = default;

ViewController::~ViewController()
{
    // The view may sit in a host layout; deleting it also takes it out of its
    // parent. If the parent was destroyed first, view_ is already null.
    QObject::disconnect(viewDestroyedConnection_);
    if (view_)
        delete view_.data();
}

QWidget* ViewController::view()
{
    // A root the host deleted is not rebuilt: a second viewDidLoad would
    // start a second session behind the host's back.
    if (!view_ && !loading_ && !viewDestroyed_) {
        loading_ = true;
        loadView();
        if (!view_)
            setView(new QWidget);
        loading_ = false;
        viewDidLoad();
    }
    return view_;
}

void ViewController::loadView() { setView(new QWidget); }

void ViewController::setView(QWidget* view)
{
    QObject::disconnect(viewDestroyedConnection_);
    view_ = view;
    if (!view)
        return;
    view->installEventFilter(new EventHook(this, view));
    // Disconnected before the controller deletes the view itself, so this
    // only runs when someone else deletes it.
    viewDestroyedConnection_ = QObject::connect(view, &QObject::destroyed, [this] {
        viewDestroyed_ = true;
        viewWasDestroyed();
    });
}

void ViewController::handleViewEvent(int eventType)
{
    switch (eventType) {
    case QEvent::Show:
        viewDidChangeScreen(view_->screen());
        viewWillAppear(false);
        viewDidLayoutSubviews();
        break;
    // Qt sends this to every widget of a window that moved to another screen.
    case QEvent::ScreenChangeInternal: viewDidChangeScreen(view_->screen()); break;
    case QEvent::Hide: viewWillDisappear(false); break;
    case QEvent::Resize:
    case QEvent::LayoutRequest: viewDidLayoutSubviews(); break;
    default: break;
    }
}

// ------------------------------------------------------------- navigation

NavigationController::NavigationController(std::shared_ptr<ViewController> root)
{
    if (root)
        stack_.push_back(std::move(root));
}

std::shared_ptr<NavigationController> NavigationController::create(std::shared_ptr<ViewController> root)
{
    auto controller = std::make_shared<NavigationController>(std::move(root));
    for (auto& child : controller->stack_)
        child->navigationController_ = controller;
    return controller;
}

void NavigationController::loadView()
{
    auto* root = new QWidget;
    auto* column = new QVBoxLayout(root);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);

    bar_ = new QWidget(root);
    bar_->setObjectName(QStringLiteral("navigationBar"));
    bar_->setFixedHeight(44);
    bar_->setAutoFillBackground(true);
    auto* row = new QHBoxLayout(bar_);
    row->setContentsMargins(8, 0, 8, 0);
    backButton_ = new QPushButton(QStringLiteral("‹ Back"), bar_);
    backButton_->setFlat(true);
    backButton_->setAccessibleName(QStringLiteral("Back"));
    QObject::connect(backButton_, &QPushButton::clicked, bar_, [this] { popViewController(); });
    titleLabel_ = new QLabel(bar_);
    titleLabel_->setAlignment(Qt::AlignCenter);
    row->addWidget(backButton_);
    row->addWidget(titleLabel_, 1);
    column->addWidget(bar_);

    pages_ = new QStackedWidget(root);
    column->addWidget(pages_, 1);
    setView(root);
    bar_->setVisible(!navigationBarHidden_);
    showTop();
}

void NavigationController::pushViewController(std::shared_ptr<ViewController> controller)
{
    if (!controller)
        return;
    controller->navigationController_ = std::static_pointer_cast<NavigationController>(shared_from_this());
    stack_.push_back(std::move(controller));
    if (isViewLoaded())
        showTop();
}

std::shared_ptr<ViewController> NavigationController::popViewController()
{
    if (stack_.size() < 2)
        return nullptr;
    auto top = stack_.back();
    stack_.pop_back();
    if (isViewLoaded() && top->isViewLoaded()) {
        // Hiding first runs the leaving screen's viewWillDisappear while it is
        // still inside this container.
        top->view()->hide();
        pages_->removeWidget(top->view());
        top->view()->setParent(nullptr);
    }
    top->navigationController_.reset();
    if (isViewLoaded())
        showTop();
    return top;
}

std::shared_ptr<ViewController> NavigationController::topViewController() const
{
    return stack_.empty() ? nullptr : stack_.back();
}

void NavigationController::setNavigationBarHidden(bool hidden)
{
    navigationBarHidden_ = hidden;
    if (bar_)
        bar_->setVisible(!hidden);
}

void NavigationController::showTop()
{
    auto top = topViewController();
    if (!top || !pages_)
        return;
    QWidget* page = top->view();
    if (pages_->indexOf(page) < 0)
        pages_->addWidget(page);
    pages_->setCurrentWidget(page);
    titleLabel_->setText(top->title());
    backButton_->setVisible(stack_.size() > 1);
}

}  // namespace zavo::platform
