#pragma once
// The QML front end's log category, "zavo.quick": its own, so that a host
// chasing a QML problem can switch on these lines without the screen's.
#include "base/ZavoExport.h"
#include <QLoggingCategory>

namespace zavo::quick {
ZAVO_EXPORT Q_DECLARE_LOGGING_CATEGORY(lcQuick)  // "zavo.quick": the QML module: items, preview, camera list
}  // namespace zavo::quick
