#pragma once
// Where a frame's pixels appear on the camera screen.
//
// The preview fills the screen's whole bounds with aspect-fill gravity: the
// frame is scaled by the larger of the two screen/frame ratios, centred, and
// what overflows is cropped. The safe-area insets do not move the preview;
// they only say which part of it the user can see unobstructed, so the
// "centre" the user aims at is the centre of the safe area.
//
// Mirroring: the capture pipeline delivers front-camera frames already
// mirrored, exactly as the preview paints them, so the mapping is a pure
// aspect-fill mapping with no flip of its own.
#include "base/ZavoExport.h"
#include "base/Geometry.h"

#include <QPointF>
#include <QRectF>
#include <QSizeF>

namespace zavo::core::detail {

struct ZAVO_EXPORT PreviewGeometry {
    QSizeF screen;
    platform::EdgeInsets insets;

    /// A rectangle in frame pixels as it shows on the screen, in points.
    /// Before the screen's size is known the frame's own coordinates are
    /// returned.
    QRectF toScreen(const QRectF& inFrame, const QSizeF& frame) const
    {
        if (screen.isEmpty() || frame.isEmpty())
            return inFrame;
        const double scale = fillScale(frame);
        const QPointF offset = fillOffset(frame, scale);
        return QRectF(inFrame.x() * scale + offset.x(), inFrame.y() * scale + offset.y(), inFrame.width() * scale,
                      inFrame.height() * scale);
    }

    /// The centre of the safe area, in frame pixels.
    QPointF focusInFrame(const QSizeF& frame) const
    {
        if (screen.isEmpty() || frame.isEmpty())
            return QPointF(frame.width() / 2, frame.height() / 2);
        const double scale = fillScale(frame);
        const QPointF offset = fillOffset(frame, scale);
        const QPointF safeCentre((insets.left + screen.width() - insets.right) / 2,
                                 (insets.top + screen.height() - insets.bottom) / 2);
        return (safeCentre - offset) / scale;
    }

private:
    double fillScale(const QSizeF& frame) const
    {
        return std::max(screen.width() / frame.width(), screen.height() / frame.height());
    }
    QPointF fillOffset(const QSizeF& frame, double scale) const
    {
        return QPointF((screen.width() - frame.width() * scale) / 2, (screen.height() - frame.height() * scale) / 2);
    }
};

}  // namespace zavo::core::detail
