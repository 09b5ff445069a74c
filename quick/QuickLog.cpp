#include "quick/QuickLog_p.h"

namespace zavo::quick {
Q_LOGGING_CATEGORY(lcQuick, "zavo.quick", QtInfoMsg)
}  // namespace zavo::quick
