#include "ui/ZMVideoStreamNotificationView.h"

#include "ui/ZMImages_p.h"
#include "ui/ZavoFonts.h"

#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>
#include <cmath>

namespace zavo {

namespace {

// The translucent rounded card. The icon is its child but not in its layout:
// it is centred vertically by hand, so that only the label decides the card's
// height, however tall the icon is.
class BannerCard : public QWidget {
public:
    BannerCard(double cornerRadius, double sideOffset, QWidget* parent)
        : QWidget(parent), cornerRadius_(cornerRadius), sideOffset_(sideOffset)
    {
    }

    void setIcon(QLabel* icon) { icon_ = icon; }

protected:
    void paintEvent(QPaintEvent*) override
    {
        // Children sit at least sideOffset inside the card, farther than the
        // corner radius, so the rounded fill needs no clipping of them.
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor::fromRgbF(0, 0, 0, 0.3f));
        painter.drawRoundedRect(QRectF(rect()), cornerRadius_, cornerRadius_);
    }

    void resizeEvent(QResizeEvent*) override
    {
        if (!icon_)
            return;
        const QSize size = icon_->size();
        icon_->move(std::lround(sideOffset_), (height() - size.height()) / 2);
    }

private:
    double cornerRadius_;
    double sideOffset_;
    QLabel* icon_ = nullptr;
};

}  // namespace

ZMVideoStreamNotificationView::ZMVideoStreamNotificationView(QWidget* parent)
    : ZMVideoStreamNotificationView(QRect(), parent)
{
}

ZMVideoStreamNotificationView::ZMVideoStreamNotificationView(const QRect& frame, QWidget* parent)
    : QWidget(parent), notificationLabel_(new QLabel)
{
    setGeometry(frame);
    buildViewTree();
}

ZMVideoStreamNotificationView::~ZMVideoStreamNotificationView() = default;

void ZMVideoStreamNotificationView::buildViewTree()
{
    const int side = std::lround(SideOffset);
    auto* card = new BannerCard(CornerRadius, SideOffset, this);
    card->setObjectName(QStringLiteral("backgroundView"));
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(side, side, side, side);
    outer->setSpacing(0);
    outer->addWidget(card);

    auto* icon = new QLabel(card);
    icon->setObjectName(QStringLiteral("iconView"));
    const QPixmap image = zavoCameraImage(QStringLiteral("warning_icon"));
    const QSize iconSize = image.isNull() ? QSize(0, 0) : image.deviceIndependentSize().toSize();
    icon->setPixmap(image);
    icon->setFixedSize(iconSize);
    card->setIcon(icon);

    notificationLabel_->setObjectName(QStringLiteral("notificationLabel"));
    notificationLabel_->setWordWrap(true);
    // Messages are plain text: a description that happens to contain "<" must
    // not be read as markup.
    notificationLabel_->setTextFormat(Qt::PlainText);
    if (auto font = fontNamed(kEtelkaFontFamily, NotificationLabelFontSize))
        notificationLabel_->setFont(*font);
    // The label is the only thing in the card's layout: its margins are the
    // card edges, and on the leading side the icon and its two spacings.
    auto* row = new QVBoxLayout(card);
    row->setContentsMargins(side + iconSize.width() + side, side, side, side);
    row->addWidget(notificationLabel_);
}

void ZMVideoStreamNotificationView::showNotificationMessage(platform::ErrorPtr error)
{
    currentError_ = std::move(error);
    notificationLabel_->setText(currentError_ ? currentError_->localizedDescription() : QString());
}

void ZMVideoStreamNotificationView::applyFont(const QFont& font) { notificationLabel_->setFont(font); }

void ZMVideoStreamNotificationView::applyTextColor(const QColor& color)
{
    QPalette palette = notificationLabel_->palette();
    palette.setColor(QPalette::WindowText, color);
    notificationLabel_->setPalette(palette);
}

}  // namespace zavo
