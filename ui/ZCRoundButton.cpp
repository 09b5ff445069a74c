#include "ui/ZCRoundButton.h"

#include "ui/ZavoFonts.h"

#include <QEvent>
#include <QPainter>
#include <QPainterPath>
#include <QVariantAnimation>
#include <algorithm>
#include <cmath>

namespace zavo {

namespace {

constexpr int kStateChangeMs = 100;
constexpr int kTouchMs = 200;
constexpr int kShadowMs = 200;
// Room around the title, and the height a finger needs.
constexpr int kTitleInsetX = 12;
constexpr int kTitleInsetY = 8;
constexpr int kMinimumHeight = 44;
constexpr int kTitleFlags = Qt::AlignCenter | Qt::TextWordWrap;

QColor mix(const QColor& from, const QColor& to, double t)
{
    if (!from.isValid() || !to.isValid())
        return t < 1 ? from : to;
    const QColor a = from.toRgb();
    const QColor b = to.toRgb();
    auto lerp = [t](float x, float y) { return static_cast<float>(x + (y - x) * t); };
    return QColor::fromRgbF(lerp(a.redF(), b.redF()), lerp(a.greenF(), b.greenF()), lerp(a.blueF(), b.blueF()),
                            lerp(a.alphaF(), b.alphaF()));
}

// The press animation runs from a double to an int and the release one the
// other way round; QVariantAnimation only interpolates equal types, so this one
// reads both as numbers.
class ShadowOpacityAnimation : public QVariantAnimation {
public:
    using QVariantAnimation::QVariantAnimation;

protected:
    QVariant interpolated(const QVariant& from, const QVariant& to, qreal progress) const override
    {
        return from.toDouble() + (to.toDouble() - from.toDouble()) * progress;
    }
};

}  // namespace

ZCRoundButton::ZCRoundButton(QWidget* parent) : QPushButton(parent)
{
    applyStyle();
    connect(this, &QAbstractButton::pressed, this, &ZCRoundButton::touchDown);
    // Qt emits released for a release inside, outside and when the press is
    // cancelled (focus loss, disabling), which are the three ends of a touch.
    connect(this, &QAbstractButton::released, this, &ZCRoundButton::touchUp);
}

ZCRoundButton::ZCRoundButton(const QRect& frame, QWidget* parent) : ZCRoundButton(parent) { Q_UNUSED(frame); }

ZCRoundButton::~ZCRoundButton() = default;

void ZCRoundButton::applyStyle()
{
    styledEnabled_ = isEnabled();
    layer_.backgroundColor = styledEnabled_ ? bgColor : disabledBgColor;
    layer_.borderWidth = borderWidth;
    layer_.borderColor = borderColor;
    layer_.shadowRadius = shadowRadius;
    layer_.shadowOffset = shadowOffset;
    layer_.shadowColor = shadowColor;
    layer_.shadowOpacity = 0;
    layer_.cornerRadius = cornerRadius;
    targetBackgroundColor_ = layer_.backgroundColor;
    targetBorderColor_ = layer_.borderColor;

    QPalette palette = this->palette();
    for (auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled})
        palette.setColor(group, QPalette::ButtonText, Qt::white);
    setPalette(palette);
    setFont(etelka(fontSize));
    // Free to narrow (the title wraps) and to take the height the wrapped
    // title needs; a layout caps neither with the one-line size hint.
    QSizePolicy policy(QSizePolicy::Preferred, QSizePolicy::Preferred);
    policy.setHeightForWidth(true);
    setSizePolicy(policy);
}

void ZCRoundButton::setEnabled(bool enabled)
{
    if (enabled != isEnabled()) {
        applyStateColors(enabled);
        startShadowAnimation(enabled ? ShadowAnimation::release : ShadowAnimation::press);
    }
    QPushButton::setEnabled(enabled);
    // A disabled parent keeps the button disabled whatever it was told.
    followEnabledState();
}

void ZCRoundButton::changeEvent(QEvent* event)
{
    QPushButton::changeEvent(event);
    if (event->type() == QEvent::EnabledChange)
        followEnabledState();
}

void ZCRoundButton::followEnabledState()
{
    const bool enabled = isEnabled();
    if (enabled == styledEnabled_)
        return;
    applyStateColors(enabled);
    startShadowAnimation(enabled ? ShadowAnimation::release : ShadowAnimation::press);
}

void ZCRoundButton::applyStateColors(bool enabled)
{
    styledEnabled_ = enabled;
    targetBackgroundColor_ = enabled ? bgColor : disabledBgColor;
    targetBorderColor_ = enabled ? borderColor : disabledBgColor;
    layer_.shadowOpacity = 0;
    animateColors(kStateChangeMs);
}

void ZCRoundButton::touchDown()
{
    startShadowAnimation(ShadowAnimation::press);
    targetBackgroundColor_ = highlightedBgColor;
    animateColors(kTouchMs);
}

void ZCRoundButton::touchUp()
{
    startShadowAnimation(ShadowAnimation::release);
    targetBackgroundColor_ = bgColor;
    animateColors(kTouchMs);
}

// A new colour change takes over from a running one where it stands, so that
// a quick press and release never jumps.
void ZCRoundButton::animateColors(int durationMs)
{
    delete colorAnimation_.data();
    const QColor fromBackground = layer_.backgroundColor;
    const QColor fromBorder = layer_.borderColor;
    const QColor toBackground = targetBackgroundColor_;
    const QColor toBorder = targetBorderColor_;
    auto* animation = new QVariantAnimation(this);
    animation->setDuration(durationMs);
    animation->setStartValue(0.0);
    animation->setEndValue(1.0);
    connect(animation, &QVariantAnimation::valueChanged, this, [=, this](const QVariant& value) {
        const double t = value.toDouble();
        layer_.backgroundColor = mix(fromBackground, toBackground, t);
        layer_.borderColor = mix(fromBorder, toBorder, t);
        update();
    });
    colorAnimation_ = animation;
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

QVariantAnimation* ZCRoundButton::colorAnimation() const
{
    // A finished animation lingers until its deferred deletion.
    return colorAnimation_ && colorAnimation_->state() == QAbstractAnimation::Running ? colorAnimation_.data() : nullptr;
}

void ZCRoundButton::startShadowAnimation(ShadowAnimation kind)
{
    // Added under one key, so a new animation replaces the running one.
    delete shadowAnimation_.data();
    auto* animation = new ShadowOpacityAnimation(this);
    animation->setObjectName(QStringLiteral("basic"));
    animation->setProperty("keyPath", QByteArrayLiteral("shadowOpacity"));
    animation->setDuration(kShadowMs);
    const bool press = kind == ShadowAnimation::press;
    animation->setStartValue(press ? QVariant(0.0) : QVariant(0));
    animation->setEndValue(press ? QVariant(0) : QVariant(0.0));
    connect(animation, &QVariantAnimation::valueChanged, this,
            [this](const QVariant& value) { layer_.shadowOpacity = value.toFloat(); });
    shadowAnimation_ = animation;
    // The press animation keeps its final value (it is not removed on
    // completion); the release animation goes away when it is done.
    animation->start(press ? QAbstractAnimation::KeepWhenStopped : QAbstractAnimation::DeleteWhenStopped);
}

void ZCRoundButton::resizeEvent(QResizeEvent* event)
{
    QPushButton::resizeEvent(event);
    layer_.cornerRadius = cornerRadius;
}

void ZCRoundButton::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF bounds = rect();
    const double radius = std::min(layer_.cornerRadius, std::min(bounds.width(), bounds.height()) / 2);
    QPainterPath fill;
    fill.addRoundedRect(bounds, radius, radius);
    painter.fillPath(fill, layer_.backgroundColor);
    if (layer_.borderWidth > 0) {
        // Inside the bounds, as a layer border is.
        const double inset = layer_.borderWidth / 2;
        painter.setPen(QPen(layer_.borderColor, layer_.borderWidth));
        painter.setBrush(Qt::NoBrush);
        painter.drawRoundedRect(bounds.adjusted(inset, inset, -inset, -inset), std::max(0.0, radius - inset),
                                std::max(0.0, radius - inset));
    }
    painter.setPen(palette().color(QPalette::ButtonText));
    painter.setFont(font());
    painter.drawText(titleRect(bounds), kTitleFlags, text());
}

QRectF ZCRoundButton::titleRect(const QRectF& bounds) const
{
    return bounds.adjusted(kTitleInsetX, kTitleInsetY, -kTitleInsetX, -kTitleInsetY);
}

int ZCRoundButton::titleHeight(int width) const
{
    const QRect available(0, 0, std::max(1, width - 2 * kTitleInsetX), QWIDGETSIZE_MAX);
    return fontMetrics().boundingRect(available, kTitleFlags, text()).height();
}

QSize ZCRoundButton::sizeHint() const
{
    const QFontMetrics metrics = fontMetrics();
    const int width = metrics.horizontalAdvance(text()) + 2 * kTitleInsetX;
    return {width, std::max(kMinimumHeight, metrics.height() + 2 * kTitleInsetY)};
}

QSize ZCRoundButton::minimumSizeHint() const
{
    // Narrow enough for the longest word, so a layout can make the title wrap.
    const QFontMetrics metrics = fontMetrics();
    int widest = 0;
    for (const QString& word : text().split(QLatin1Char(' '), Qt::SkipEmptyParts))
        widest = std::max(widest, metrics.horizontalAdvance(word));
    return {widest + 2 * kTitleInsetX, kMinimumHeight};
}

int ZCRoundButton::heightForWidth(int width) const
{
    return std::max(kMinimumHeight, titleHeight(width) + 2 * kTitleInsetY);
}

}  // namespace zavo
