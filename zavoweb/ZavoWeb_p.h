#pragma once
// The networking framework's bundle (its string table).
#include "base/Bundle_p.h"

namespace zavo::web {
const platform::Bundle& zavoWebBundle();
}
