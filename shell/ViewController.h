#pragma once
// Screens. A ViewController is a plain C++ object (held by shared_ptr) that
// owns a root widget built on first use of view(), and gets the load, layout
// and appearance hooks from that widget's events. A host shows view() as a
// window or puts it in its own layout.
#include "base/ZavoExport.h"
#include <QPointer>
#include <QString>
#include <QWidget>
#include <memory>
#include <vector>

class QLabel;
class QScreen;
class QPushButton;
class QStackedWidget;

namespace zavo::platform {

class NavigationController;

class ZAVO_EXPORT ViewController : public std::enable_shared_from_this<ViewController> {
public:
    ViewController();
    virtual ~ViewController();
    ViewController(const ViewController&) = delete;
    ViewController& operator=(const ViewController&) = delete;

    /// The root widget; loadView() and viewDidLoad() run on the first call.
    /// The controller owns it, also when the host has put it into a layout.
    /// A host may still delete it (with the window that holds it): the
    /// controller hears of it (viewWasDestroyed) and never builds another;
    /// view() is null from then on.
    QWidget* view();
    bool isViewLoaded() const { return !view_.isNull(); }
    /// Whether someone else deleted the root widget.
    bool wasViewDestroyed() const { return viewDestroyed_; }
    /// The navigation container showing this screen, if any.
    std::shared_ptr<NavigationController> navigationController() const { return navigationController_.lock(); }
    QString title() const { return title_; }
    void setTitle(const QString& title) { title_ = title; }

protected:
    /// Builds the root widget; the default is an empty widget. An override
    /// calls setView() (or the base implementation and then adds to view()).
    virtual void loadView();
    void setView(QWidget* view);
    virtual void viewDidLoad() {}
    virtual void viewDidLayoutSubviews() {}
    virtual void viewWillAppear(bool animated) { Q_UNUSED(animated); }
    virtual void viewWillDisappear(bool animated) { Q_UNUSED(animated); }
    /// The root widget was shown on, or its window moved to, screen (a
    /// desktop has several; a phone has one).
    virtual void viewDidChangeScreen(QScreen* screen) { Q_UNUSED(screen); }
    /// Someone else deleted the root widget (and every widget in it); the
    /// controller must not touch any of them again.
    virtual void viewWasDestroyed() {}

private:
    friend class NavigationController;
    class EventHook;
    void handleViewEvent(int eventType);

    QPointer<QWidget> view_;
    QMetaObject::Connection viewDestroyedConnection_;
    bool viewDestroyed_ = false;
    bool loading_ = false;
    QString title_;
    std::weak_ptr<NavigationController> navigationController_;
};

/// A stack of screens under a navigation bar with a back button.
class ZAVO_EXPORT NavigationController : public ViewController {
public:
    explicit NavigationController(std::shared_ptr<ViewController> root);
    static std::shared_ptr<NavigationController> create(std::shared_ptr<ViewController> root);

    void pushViewController(std::shared_ptr<ViewController> controller);
    /// Pops the top screen (never the root); returns it.
    std::shared_ptr<ViewController> popViewController();
    std::shared_ptr<ViewController> topViewController() const;
    const std::vector<std::shared_ptr<ViewController>>& viewControllers() const { return stack_; }

    bool isNavigationBarHidden() const { return navigationBarHidden_; }
    void setNavigationBarHidden(bool hidden);
    /// The bar widget, for tests and styling.
    QWidget* navigationBar() const { return bar_; }

protected:
    void loadView() override;

private:
    void showTop();

    std::vector<std::shared_ptr<ViewController>> stack_;
    bool navigationBarHidden_ = false;
    QPointer<QWidget> bar_;
    QPointer<QPushButton> backButton_;
    QPointer<QLabel> titleLabel_;
    QPointer<QStackedWidget> pages_;
};

}  // namespace zavo::platform
