#pragma once
// The component's own resource bundle: images, the screen's form and the
// string table, all under ":/zavocamera".
#include "base/ZavoExport.h"
#include "base/Bundle_p.h"

namespace zavo {

class ZAVO_EXPORT ZMBundleLink {
public:
    static const platform::Bundle& bundle();
    /// A text of the camera screen, from its form or its own labels, in the
    /// bundle's "ZMCameraViewController" context. The compiled form asks
    /// here for each of its texts (uic --tr), so the form is translated like
    /// every other string of the bundle, host translators first.
    static QString screenText(const char* text, const char* disambiguation = nullptr);
};

/// Identifier of the component's bundle; also the prefix of its queue labels
/// and the domain of its recorders' errors.
inline const QString kZavoCameraBundleIdentifier = QStringLiteral("com.zavo.ZavoCamera");

}  // namespace zavo
