#include "zavocore/ZavoCore_p.h"

#include "zavocore/ZCZavoConfiguration.h"

#ifndef ZAVO_VERSION
#define ZAVO_VERSION "0.0.0"
#endif

namespace zavo::core {

ZCZavoConfiguration::ZCZavoConfiguration()
    : zavoIDSDKVersion(QStringLiteral(ZAVO_VERSION)), zavoSDKVersion(QStringLiteral(ZAVO_VERSION))
{
}

const platform::Bundle& zavoCoreBundle()
{
    static const platform::Bundle bundle(QStringLiteral("com.zavo.ZavoCore"), QStringLiteral(":/zavocore"),
                                         QStringLiteral("zavocore"));
    return bundle;
}

QString zc_localized(const QString& key) { return zavoCoreBundle().localizedString(key); }

}  // namespace zavo::core
