#pragma once
// The rectangle drawn around the face: a transparent widget with a thin
// rounded border whose colour says whether the detection is good. The camera
// screen positions it and flips its state; the view only draws.
#include "base/ZavoExport.h"
#include "ui/ZMFaceDetectionViewProtocol.h"

#include <QColor>
#include <QWidget>

namespace zavo {

class ZAVO_EXPORT ZMFaceDetectionView : public QWidget, public ZMFaceDetectionViewProtocol {
    Q_OBJECT
public:
    /// Starts in the positive state: a 1-point border of radius 8 in the
    /// positive colour.
    ZMFaceDetectionView(const QColor& positiveDetectionColor, const QColor& negativeDetectionColor,
                        QWidget* parent = nullptr);
    /// Both colours clear and no border at all, so the view draws nothing. The
    /// frame is ignored: the screen sets the geometry itself once it knows
    /// where the face is.
    explicit ZMFaceDetectionView(const QRect& frame = {}, QWidget* parent = nullptr);
    ~ZMFaceDetectionView() override;

    void switchToPositiveState() override;
    void switchToNegativeState() override;
    QWidget* widget() override { return this; }

    QColor positiveDetectionColor() const { return positiveDetectionColor_; }
    QColor negativeDetectionColor() const { return negativeDetectionColor_; }

    /// The border as drawn. An invalid colour means no border colour was ever
    /// set.
    QColor borderColor() const { return borderColor_; }
    double borderWidth() const { return borderWidth_; }
    double cornerRadius() const { return cornerRadius_; }
    /// How many times a switch really changed the border colour; a switch to
    /// the state already shown leaves the border (and this count) alone.
    int borderColorChangeCount() const { return borderColorChangeCount_; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void applyBorderColor(const QColor& color);

    QColor positiveDetectionColor_;
    QColor negativeDetectionColor_;
    QColor borderColor_;
    double borderWidth_ = 0;
    double cornerRadius_ = 0;
    int borderColorChangeCount_ = 0;
};

}  // namespace zavo
