#pragma once
// The networking framework's bundle (its string table).
#include "platform/Bundle.h"

namespace zavo::web {
const platform::Bundle& zavoWebBundle();
}
