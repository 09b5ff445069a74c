#include "ui/ZMFaceDetectionView.h"

#include <QPainter>

namespace zavo {

namespace {
constexpr double kBorderWidth = 1.0;
constexpr double kCornerRadius = 8.0;
}  // namespace

ZMFaceDetectionView::ZMFaceDetectionView(const QColor& positiveDetectionColor, const QColor& negativeDetectionColor,
                                         QWidget* parent)
    : QWidget(parent)
    , positiveDetectionColor_(positiveDetectionColor)
    , negativeDetectionColor_(negativeDetectionColor)
    , borderColor_(positiveDetectionColor)
    , borderWidth_(kBorderWidth)
    , cornerRadius_(kCornerRadius)
{
}

ZMFaceDetectionView::ZMFaceDetectionView(const QRect& frame, QWidget* parent)
    : QWidget(parent), positiveDetectionColor_(Qt::transparent), negativeDetectionColor_(Qt::transparent)
{
    Q_UNUSED(frame);
}

ZMFaceDetectionView::~ZMFaceDetectionView() = default;

void ZMFaceDetectionView::switchToPositiveState() { applyBorderColor(positiveDetectionColor_); }

void ZMFaceDetectionView::switchToNegativeState() { applyBorderColor(negativeDetectionColor_); }

// The screen calls the switches for every detector report; comparing by value
// keeps repeated reports of the same state from repainting.
void ZMFaceDetectionView::applyBorderColor(const QColor& color)
{
    if (borderColor_ == color)
        return;
    borderColor_ = color;
    ++borderColorChangeCount_;
    update();
}

void ZMFaceDetectionView::paintEvent(QPaintEvent*)
{
    if (borderWidth_ <= 0 || !borderColor_.isValid() || borderColor_.alpha() == 0)
        return;
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    // The border lies inside the bounds, like a layer border.
    const double inset = borderWidth_ / 2;
    const QRectF box = QRectF(rect()).adjusted(inset, inset, -inset, -inset);
    const double radius = std::max(0.0, cornerRadius_ - inset);
    painter.setPen(QPen(borderColor_, borderWidth_));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(box, radius, radius);
}

}  // namespace zavo
