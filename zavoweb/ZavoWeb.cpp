#include "zavoweb/ZavoWeb_p.h"

namespace zavo::web {
const platform::Bundle& zavoWebBundle()
{
    static const platform::Bundle bundle(QStringLiteral("com.zavo.ZavoWeb"), QStringLiteral(":/zavoweb"),
                                         QStringLiteral("zavoweb"));
    return bundle;
}
}  // namespace zavo::web
