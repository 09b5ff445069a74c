#pragma once
// The component's styled push button: a rounded, bordered fill in the brand
// blue with a centred, wrapping white title in the brand typeface. The fill
// darkens while pressed and turns grey when disabled, with short animations.
#include "base/ZavoExport.h"
#include "ui/ZavoColors.h"

#include <QPointer>
#include <QPushButton>
#include <QSizeF>
#include <QVariantAnimation>

namespace zavo {

class ZAVO_EXPORT ZCRoundButton : public QPushButton {
    Q_OBJECT
    Q_PROPERTY(QColor bgColor MEMBER bgColor)
    Q_PROPERTY(double fontSize MEMBER fontSize)
public:
    explicit ZCRoundButton(QWidget* parent = nullptr);
    /// The frame is ignored: the button is meant to be placed by a layout.
    explicit ZCRoundButton(const QRect& frame, QWidget* parent = nullptr);
    ~ZCRoundButton() override;

    // Style. The values are applied at construction, on resize (corner radius
    // only), on enable/disable and on touches; changing one restyles nothing
    // by itself.
    double AnimationDuration = 0.2;  // kept for hosts; the animations use fixed durations
    QColor bgColor = zavoBlue();                               // enabled, not pressed
    double fontSize = 17.0;                                    // title, in points
    QColor highlightedBgColor = colorWithHex6(0x2782FF, 0.8);  // pressed
    QColor disabledBgColor = zavoAlto();                       // fill and border when disabled
    QColor borderColor = zavoBlue();                           // border when enabled
    QColor shadowColor = Qt::black;
    double borderWidth = 1.0;
    bool cornerEnabled = true;  // kept for hosts; corners are always rounded
    double cornerRadius = 6.0;
    double shadowRadius = 12.0;
    float shadowOpacity = 0.0f;  // kept for hosts; the drawn shadow is always fully transparent
    QSizeF shadowOffset{0, 4};

    /// What is drawn right now, animations included.
    struct Layer {
        QColor backgroundColor;
        QColor borderColor;
        double borderWidth = 0;
        double cornerRadius = 0;
        double shadowRadius = 0;
        QSizeF shadowOffset;
        QColor shadowColor;
        float shadowOpacity = 0;
    };
    const Layer& layer() const { return layer_; }

    /// QWidget::setEnabled is not virtual, so this hides it: a change animates
    /// the state colours (0.1 s) before the base class is told. The same value
    /// starts nothing but still reaches the base class. Enabling through a
    /// QWidget pointer, or through the parent, is followed too.
    void setEnabled(bool enabled);

    /// The running change of the fill or border colour; null when idle.
    QVariantAnimation* colorAnimation() const;
    /// The last "shadowOpacity" animation (key "basic"): the press animation
    /// stays after it finished, the release animation removes itself. Both
    /// run from zero to zero, so no shadow ever shows.
    QVariantAnimation* shadowAnimation() const { return shadowAnimation_; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;
    bool hasHeightForWidth() const override { return true; }
    int heightForWidth(int width) const override;

public Q_SLOTS:
    /// A press began: the highlighted fill, in 0.2 s.
    void touchDown();
    /// The press ended, inside, outside or cancelled: the normal fill, in
    /// 0.2 s, whatever the enabled state.
    void touchUp();

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    enum class ShadowAnimation { press, release };

    void applyStyle();
    void applyStateColors(bool enabled);
    void followEnabledState();
    void animateColors(int durationMs);
    void startShadowAnimation(ShadowAnimation kind);
    QRectF titleRect(const QRectF& bounds) const;
    int titleHeight(int width) const;

    Layer layer_;
    // Where the running colour animation is heading; what it shows is layer_.
    QColor targetBackgroundColor_;
    QColor targetBorderColor_;
    // The enabled state whose colours were last applied.
    bool styledEnabled_ = true;
    QPointer<QVariantAnimation> colorAnimation_;
    QPointer<QVariantAnimation> shadowAnimation_;
};

}  // namespace zavo
