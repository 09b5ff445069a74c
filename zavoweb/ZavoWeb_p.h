#pragma once
// The networking framework's bundle (its string table).
#include "base/ZavoExport.h"
#include "base/Bundle_p.h"

namespace zavo::web {
ZAVO_EXPORT const platform::Bundle& zavoWebBundle();
}
