#include "quick/ZavoImageProvider_p.h"

#include "quick/QuickLog_p.h"

#include <QColor>
#include <QPainter>
#include <QQmlEngine>

namespace zavo::quick {

namespace {
const QString kProviderName = QStringLiteral("zavocamera");
}  // namespace

void ZavoImageProvider::installInto(QQmlEngine* engine)
{
    if (engine && !engine->imageProvider(kProviderName))
        engine->addImageProvider(kProviderName, new ZavoImageProvider);  // the engine's from here on
}

QImage ZavoImageProvider::requestImage(const QString& id, QSize* size, const QSize& requestedSize)
{
    const QStringList parts = id.split(QLatin1Char('/'));
    // The bundle's resource root; the images are drawn at twice their size
    // in points (see ui/ZMImages_p.h).
    QImage image(QStringLiteral(":/zavocamera/images/%1.png").arg(parts.value(0)));
    if (image.isNull()) {
        qCWarning(lcQuick) << "no image" << id << "in the component's bundle";
        return image;
    }
    if (parts.size() > 1) {
        const QColor tint = QColor::fromString(parts.value(1));
        image = image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
        QPainter painter(&image);
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(image.rect(), tint);
    }
    if (requestedSize.isValid() && requestedSize != image.size())
        image = image.scaled(requestedSize, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    if (size)
        *size = image.size();
    return image;
}

}  // namespace zavo::quick
