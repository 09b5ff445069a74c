#include "ui/ZMImages.h"

#include "resources/ZMBundleLink.h"

namespace zavo {

QPixmap zavoCameraImage(const QString& name)
{
    QPixmap image = ZMBundleLink::bundle().image(name);
    if (!image.isNull())
        image.setDevicePixelRatio(kZavoImageScale);
    return image;
}

}  // namespace zavo
