#pragma once
// Runs the face analyzer on a still image, as the detector runs it on a frame.
#include "CoreTestSupport.h"
#include "zavocore/ZCFaceAnalyzer_p.h"

#include <QPainter>
#include <QTransform>

namespace zavo::testing {

/// The analysis of one image with what the analyzer learnt from earlier
/// frames kept, as in a session.
inline core::detail::FaceAnalysis analyseNext(core::detail::FaceAnalyzer& analyzer, const QImage& image,
                                              platform::PixelFormat format = platform::PixelFormat::BGRA32)
{
    const platform::SampleBuffer frame = frameFromImage(image, platform::MediaTime::zero(), format);
    const auto& buffer = *frame.imageBuffer();
    const core::detail::FrameView view{buffer.baseAddress(), buffer.width(), buffer.height(), buffer.bytesPerRow(),
                                       format};
    return analyzer.analyze(view, QPointF(image.width() / 2.0, image.height() / 2.0));
}

/// The analysis of one image on its own: the analyzer forgets earlier frames.
inline core::detail::FaceAnalysis analyse(core::detail::FaceAnalyzer& analyzer, const QImage& image,
                                          platform::PixelFormat format = platform::PixelFormat::BGRA32)
{
    analyzer.reset();
    return analyseNext(analyzer, image, format);
}

// A print of the photo held in the hand and turned, its right edge away from
// the camera; squeeze is how much that edge shrinks.
inline QImage turnedAway(const QImage& image, double squeeze)
{
    const qreal w = image.width(), h = image.height();
    QTransform warp;
    QTransform::quadToQuad(QPolygonF({{0, 0}, {w, 0}, {w, h}, {0, h}}),
                           QPolygonF({{0, 0}, {w * (1 - squeeze / 2), h * squeeze / 2},
                                      {w * (1 - squeeze / 2), h * (1 - squeeze / 2)}, {0, h}}),
                           warp);
    QImage turned(image.size(), QImage::Format_ARGB32);
    turned.fill(Qt::darkGray);
    QPainter painter(&turned);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.setTransform(warp);
    painter.drawImage(0, 0, image);
    return turned;
}

}  // namespace zavo::testing
