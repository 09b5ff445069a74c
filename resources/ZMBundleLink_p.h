#pragma once
// The component's own resource bundle: images, the screen's form and the
// string table, all under ":/zavocamera".
#include "base/ZavoExport.h"
#include "base/Bundle_p.h"

namespace zavo {

class ZAVO_EXPORT ZMBundleLink {
public:
    static const platform::Bundle& bundle();
};

/// Identifier of the component's bundle; also the prefix of its queue labels
/// and the domain of its recorders' errors.
inline const QString kZavoCameraBundleIdentifier = QStringLiteral("com.zavo.ZavoCamera");

}  // namespace zavo
