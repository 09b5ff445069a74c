#pragma once
// The banner laid over the video preview to tell the user what is wrong: a
// warning icon and a wrapping message on a translucent dark rounded card. It
// decides nothing itself; the camera screen shows, hides and positions it.
#include "base/ZavoExport.h"
#include "ui/ZMVideoStreamNotificationViewProtocol.h"

#include <QWidget>

class QLabel;

namespace zavo {

class ZAVO_EXPORT ZMVideoStreamNotificationView : public QWidget, public ZMVideoStreamNotificationViewProtocol {
    Q_OBJECT
public:
    explicit ZMVideoStreamNotificationView(QWidget* parent = nullptr);
    ZMVideoStreamNotificationView(const QRect& frame, QWidget* parent = nullptr);
    ~ZMVideoStreamNotificationView() override;

    /// Inset of the card inside the view, and the spacing between card edge,
    /// icon and label.
    const double SideOffset = 10.0;
    const double CornerRadius = 5.0;
    const double NotificationLabelFontSize = 15.0;

    void showNotificationMessage(platform::ErrorPtr error) override;
    platform::ErrorPtr notificationMessage() const override { return currentError_; }
    QWidget* widget() override { return this; }

    /// The label's font. Until this is called the label uses the brand face
    /// when it is installed, else the widget default.
    void applyFont(const QFont& font);
    /// The label's text colour; the widget default until this is called.
    void applyTextColor(const QColor& color);
    QLabel* notificationLabel() const { return notificationLabel_; }

private:
    void buildViewTree();

    QLabel* notificationLabel_;  // owned by the card, as a child widget
    platform::ErrorPtr currentError_;
};

}  // namespace zavo
