#include "ui/ZMImages_p.h"

#include "resources/ZMBundleLink_p.h"

namespace zavo {

QPixmap zavoCameraImage(const QString& name)
{
    QPixmap image = ZMBundleLink::bundle().image(name);
    if (!image.isNull())
        image.setDevicePixelRatio(kZavoImageScale);
    return image;
}

}  // namespace zavo
