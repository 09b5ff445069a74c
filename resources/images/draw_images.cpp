// Draws the component's two images into the folder given as the only
// argument: "close" (a white cross for the corner of the video) and
// "warning_icon" (the banner's amber warning sign). Both are drawn at twice
// their size in points. The PNGs are committed next to this file; run
//   zavocamera-draw-images resources/images
// after changing a shape here.
#include <QDir>
#include <QCoreApplication>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QTextStream>
#include <cstdio>
#include <vector>

namespace {

constexpr int kScale = 2;  // pixels per point

QImage transparentCanvas(int points)
{
    QImage image(points * kScale, points * kScale, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    return image;
}

// Three box-blur passes over a premultiplied image come close to a Gaussian
// of the same radius, which is all a soft drop shadow needs.
void boxBlur(QImage& image, int radius)
{
    const int w = image.width();
    const int h = image.height();
    std::vector<QRgb> line;
    auto blurLine = [&](auto pixelAt, int length) {
        line.assign(length, 0);
        for (int i = 0; i < length; ++i)
            line[i] = *pixelAt(i);
        for (int i = 0; i < length; ++i) {
            int sum[4] = {0, 0, 0, 0};
            int count = 0;
            for (int k = i - radius; k <= i + radius; ++k) {
                if (k < 0 || k >= length)
                    continue;
                const QRgb p = line[k];
                sum[0] += qRed(p);
                sum[1] += qGreen(p);
                sum[2] += qBlue(p);
                sum[3] += qAlpha(p);
                ++count;
            }
            *pixelAt(i) = qRgba(sum[0] / count, sum[1] / count, sum[2] / count, sum[3] / count);
        }
    };
    for (int pass = 0; pass < 3; ++pass) {
        for (int y = 0; y < h; ++y) {
            auto* row = reinterpret_cast<QRgb*>(image.scanLine(y));
            blurLine([row](int x) { return row + x; }, w);
        }
        for (int x = 0; x < w; ++x)
            blurLine([&image, x](int y) { return reinterpret_cast<QRgb*>(image.scanLine(y)) + x; }, h);
    }
}

// A cross of two round-capped strokes. Drawn white over a soft dark shadow so
// that it reads on bright video as well as on dark.
QImage drawClose()
{
    constexpr int points = 44;
    const double centre = points * kScale / 2.0;
    const double arm = 7.5 * kScale;  // half the cross's width
    QPainterPath cross;
    cross.moveTo(centre - arm, centre - arm);
    cross.lineTo(centre + arm, centre + arm);
    cross.moveTo(centre + arm, centre - arm);
    cross.lineTo(centre - arm, centre + arm);
    const QPen stroke(Qt::white, 2.5 * kScale, Qt::SolidLine, Qt::RoundCap);

    QImage image = transparentCanvas(points);
    {
        QPainter shadow(&image);
        shadow.setRenderHint(QPainter::Antialiasing);
        shadow.translate(0, 0.5 * kScale);
        QPen dark = stroke;
        dark.setColor(QColor(0, 0, 0, 110));
        dark.setWidthF(stroke.widthF() + 1.0 * kScale);
        shadow.setPen(dark);
        shadow.drawPath(cross);
    }
    boxBlur(image, 2 * kScale);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(stroke);
    painter.drawPath(cross);
    return image;
}

// An amber triangle with softly rounded corners and a dark exclamation mark.
QImage drawWarning()
{
    constexpr int points = 24;
    const double s = kScale;
    QImage image = transparentCanvas(points);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);

    // Stroking the triangle with a wide round join is what rounds its corners.
    const double corner = 2.2 * s;
    QPolygonF triangle;
    triangle << QPointF(12 * s, 2.6 * s) << QPointF(21.7 * s, 20.4 * s) << QPointF(2.3 * s, 20.4 * s);
    QLinearGradient amber(0, 2 * s, 0, 22 * s);
    amber.setColorAt(0, QColor(0xFF, 0xC8, 0x3D));
    amber.setColorAt(1, QColor(0xF5, 0xA0, 0x0B));
    painter.setPen(QPen(QBrush(amber), 2 * corner, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.setBrush(amber);
    painter.drawPolygon(triangle);

    const QColor ink(0x26, 0x1C, 0x05);
    painter.setPen(QPen(ink, 2.3 * s, Qt::SolidLine, Qt::RoundCap));
    painter.drawLine(QPointF(12 * s, 8.4 * s), QPointF(12 * s, 14.2 * s));
    painter.setPen(Qt::NoPen);
    painter.setBrush(ink);
    painter.drawEllipse(QPointF(12 * s, 17.9 * s), 1.35 * s, 1.35 * s);
    return image;
}

}  // namespace

int main(int argc, char** argv)
{
    // Raster painting needs no display, so neither does this tool.
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_DIR\n", argv[0]);
        return 2;
    }
    const QDir dir(QString::fromLocal8Bit(argv[1]));
    const std::pair<const char*, QImage> images[] = {{"close.png", drawClose()}, {"warning_icon.png", drawWarning()}};
    for (const auto& [name, image] : images) {
        const QString path = dir.filePath(QLatin1String(name));
        if (!image.save(path)) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
            return 1;
        }
        QTextStream(stdout) << path << '\n';
    }
    return 0;
}
