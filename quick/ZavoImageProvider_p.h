#pragma once
// The component's images for QML, as the widget screen draws them:
// "image://zavocamera/<name>" is the bundle image, "image://zavocamera/<name>/<colour>"
// the same drawn in one flat colour keeping its alpha (the close button's
// white cross), <colour> being a name QColor reads ("white").
#include <QQuickImageProvider>

class QQmlEngine;

namespace zavo::quick {

class ZavoImageProvider final : public QQuickImageProvider {
public:
    ZavoImageProvider() : QQuickImageProvider(QQuickImageProvider::Image) {}

    /// Adds the provider to engine unless it has one already (the engine
    /// owns it).
    static void installInto(QQmlEngine* engine);

    QImage requestImage(const QString& id, QSize* size, const QSize& requestedSize) override;
};

}  // namespace zavo::quick
