#include "resources/ZMBundleLink_p.h"

namespace zavo {

const platform::Bundle& ZMBundleLink::bundle()
{
    static const platform::Bundle bundle(kZavoCameraBundleIdentifier, QStringLiteral(":/zavocamera"),
                                         QStringLiteral("zavocamera"));
    return bundle;
}

QString ZMBundleLink::screenText(const char* text, const char* disambiguation)
{
    return bundle().translate("ZMCameraViewController", text, disambiguation);
}

}  // namespace zavo
