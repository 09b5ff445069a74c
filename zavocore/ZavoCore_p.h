#pragma once
// The core framework's error domain and string lookup.
#include "base/ZavoExport.h"
#include "base/Bundle_p.h"

#include <QString>

namespace zavo::core {

/// Domain of every error the core framework reports (its detector's guidance
/// and ending errors, and the recorders' recompression error).
inline const QString kZCErrorDomain = QStringLiteral("com.zavo.ZavoCore.ErrorDomain");

/// The core framework's bundle (its resources and string table).
ZAVO_EXPORT const platform::Bundle& zavoCoreBundle();

/// Looks key up in the core framework's string table; a missing entry yields
/// the key itself.
ZAVO_EXPORT QString zc_localized(const QString& key);

}  // namespace zavo::core
