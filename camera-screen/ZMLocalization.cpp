#include "camera-screen/ZMLocalization.h"

#include "base/Bundle_p.h"

namespace zavo {

// The component and the frameworks below it share the choice: a host thinks
// of one component, not of three string tables.
void ZMLocalization::setLocale(const QLocale& locale) { platform::Bundle::setLocalizationLocale(locale); }

void ZMLocalization::followApplicationLocale() { platform::Bundle::setLocalizationLocale(std::nullopt); }

QLocale ZMLocalization::locale() { return platform::Bundle::localizationLocale(); }

}  // namespace zavo
