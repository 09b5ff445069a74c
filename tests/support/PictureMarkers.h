#pragma once
// A picture whose turn and mirror cannot go unseen, and the check that reads
// them back from whatever a path made of it.
//
// The marked face is a real portrait (Grace Hopper, public domain) with three
// coloured blocks: red at the top left, yellow at the top right, magenta at
// the bottom left. A quarter turn moves them round, a mirror swaps red and
// yellow, and the face keeps the detector taking its shot. The blocks sit near
// the middle of the picture's width so that a preview's aspect-fill crop of a
// landscape frame into a portrait view keeps them.
//
// The check does not look for the blocks one by one (the flag behind the
// face has red and gold in it, and the screen draws its own frame and banner
// over the preview): it compares the picture as a whole with the reference
// turned and mirrored each of the eight ways, at a small size, and names the
// closest. A path that turns or mirrors a picture it should not gives another
// answer, by a wide margin.
#include "MediaTestSupport.h"

#include <QImage>
#include <QPainter>
#include <QString>
#include <QTransform>

#include <array>
#include <cmath>
#include <limits>

namespace zavo::testing {

#ifdef ZAVO_TEST_DATA_DIR
/// The marked face drawn at size: the portrait's head and shoulders fitted
/// whole and centred on grey, the blocks placed on the portrait.
inline QImage markedFace(QSize size)
{
    static const QImage photo
        = QImage(QStringLiteral(ZAVO_TEST_DATA_DIR "/matplotlib__grace_hopper.jpg")).copy(16, 0, 480, 480);
    QImage canvas(size, QImage::Format_RGB32);
    canvas.fill(QColor(128, 128, 128));
    QPainter painter(&canvas);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    const double scale = std::min(double(size.width()) / photo.width(), double(size.height()) / photo.height());
    const QSizeF shown(photo.width() * scale, photo.height() * scale);
    const QRectF place(QPointF((size.width() - shown.width()) / 2, (size.height() - shown.height()) / 2), shown);
    painter.drawImage(place, photo);
    const double block = 0.1 * std::min(size.width(), size.height());
    auto at = [&](double fx, double fy) { return QRectF(place.x() + fx * place.width(), place.y() + fy * place.height(), block, block); };
    painter.fillRect(at(0.28, 0.02), QColor(230, 20, 20));
    painter.fillRect(at(0.72 - block / place.width(), 0.02), QColor(240, 220, 0));
    painter.fillRect(at(0.28, 0.98 - block / place.height()), QColor(220, 0, 220));
    return canvas;
}

/// Where the face's middle (between the eyes and the mouth) is in the
/// marked face drawn at size, before any turn or mirror.
inline QPointF markedFaceCentre(QSize size)
{
    const double scale = std::min(size.width() / 480.0, size.height() / 480.0);
    const double top = (size.height() - 480 * scale) / 2;
    return {size.width() / 2.0, top + 0.47 * 480 * scale};
}

/// A still clip of picture: seconds long at 30 frames a second, H.264 as a
/// phone or webcam recording would be.
inline bool makeStillClip(const QString& path, const QImage& picture, int seconds = 3)
{
    const QString png = path + QStringLiteral(".png");
    if (!picture.save(png))
        return false;
    const bool made = ffmpeg({"-loop", "1", "-framerate", "30", "-i", png, "-t", QString::number(seconds), "-c:v",
                              "libx264", "-pix_fmt", "yuv420p", "-g", "30", path});
    QFile::remove(png);
    return made;
}

/// A still clip of the marked face, for a file camera.
inline bool makeMarkedFaceClip(const QString& path, QSize size, int seconds = 3)
{
    return makeStillClip(path, markedFace(size), seconds);
}
#endif

/// How a picture was shown: turned clockwise by rotation degrees, then
/// mirrored left to right.
struct Appearance {
    int rotation = 0;
    bool mirrored = false;
    double distance = 0;  // mean difference from the reference shown that way, 0..255
    double runnerUp = 0;  // the same for the closest other way

    QString describe() const
    {
        return QStringLiteral("turned %1%2 (difference %3, next best %4)")
            .arg(rotation)
            .arg(mirrored ? QStringLiteral(" and mirrored") : QString())
            .arg(distance, 0, 'f', 1)
            .arg(runnerUp, 0, 'f', 1);
    }
};

/// reference turned clockwise by rotation degrees, then mirrored.
inline QImage shownAs(const QImage& reference, int rotation, bool mirrored)
{
    QImage turned = reference.transformed(QTransform().rotate(rotation));
    return mirrored ? turned.mirrored(true, false) : turned;
}

/// image fitted whole into size, centred on black, as a recorder fits a
/// frame of another shape.
inline QImage fittedInto(const QImage& image, QSize size)
{
    QImage canvas(size, QImage::Format_RGB32);
    canvas.fill(Qt::black);
    const QImage scaled = image.scaled(size, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    QPainter(&canvas).drawImage(QPoint((size.width() - scaled.width()) / 2, (size.height() - scaled.height()) / 2),
                                scaled);
    return canvas;
}

/// The middle of image cut to aspect's shape, as an aspect-fill view shows it.
inline QImage aspectFillCrop(const QImage& image, QSizeF aspect)
{
    const double wanted = aspect.width() / aspect.height();
    const double have = double(image.width()) / image.height();
    if (std::abs(wanted - have) < 1e-3)
        return image;
    if (have > wanted) {
        const int w = int(std::lround(image.height() * wanted));
        return image.copy((image.width() - w) / 2, 0, w, image.height());
    }
    const int h = int(std::lround(image.width() / wanted));
    return image.copy(0, (image.height() - h) / 2, image.width(), h);
}

/// Which of the eight ways of showing reference seen is. With aspectFill the
/// reference is first cut to seen's shape, as a preview does.
inline Appearance appearanceOf(const QImage& seen, const QImage& reference, bool aspectFill = false)
{
    constexpr int kSide = 48;
    const QImage small = seen.convertToFormat(QImage::Format_RGB32)
                             .scaled(kSide, kSide, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    std::array<Appearance, 8> ways;
    for (int i = 0; i < 8; ++i) {
        Appearance& way = ways[size_t(i)];
        way.rotation = (i / 2) * 90;
        way.mirrored = i % 2;
        QImage candidate = shownAs(reference.convertToFormat(QImage::Format_RGB32), way.rotation, way.mirrored);
        if (aspectFill)
            candidate = aspectFillCrop(candidate, seen.size());
        candidate = candidate.scaled(kSide, kSide, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        double sum = 0;
        for (int y = 0; y < kSide; ++y) {
            const auto* a = reinterpret_cast<const QRgb*>(small.constScanLine(y));
            const auto* b = reinterpret_cast<const QRgb*>(candidate.constScanLine(y));
            for (int x = 0; x < kSide; ++x)
                sum += std::abs(qRed(a[x]) - qRed(b[x])) + std::abs(qGreen(a[x]) - qGreen(b[x]))
                    + std::abs(qBlue(a[x]) - qBlue(b[x]));
        }
        way.distance = sum / (3.0 * kSide * kSide);
    }
    Appearance best = ways[0];
    for (const Appearance& way : ways) {
        if (way.distance < best.distance)
            best = way;
    }
    best.runnerUp = std::numeric_limits<double>::max();
    for (const Appearance& way : ways) {
        if ((way.rotation != best.rotation || way.mirrored != best.mirrored) && way.distance < best.runnerUp)
            best.runnerUp = way.distance;
    }
    return best;
}

/// True when seen is reference turned and mirrored as expected, clearly (the
/// next best way at least 1.5 times as far off); why says what was seen.
inline bool looksShownAs(const QImage& seen, const QImage& reference, int rotation, bool mirrored, bool aspectFill,
                         QString* why)
{
    if (seen.isNull()) {
        if (why)
            *why = QStringLiteral("no picture");
        return false;
    }
    const Appearance found = appearanceOf(seen, reference, aspectFill);
    if (why)
        *why = QStringLiteral("expected turned %1%2, seen %3")
                   .arg(rotation)
                   .arg(mirrored ? QStringLiteral(" and mirrored") : QString())
                   .arg(found.describe());
    return found.rotation == rotation && found.mirrored == mirrored && found.runnerUp >= 1.5 * found.distance;
}

}  // namespace zavo::testing
