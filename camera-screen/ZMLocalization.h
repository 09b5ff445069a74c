#pragma once
// The language of the component's texts.
#include "base/ZavoExport.h"

#include <QLocale>

namespace zavo {

/// Which language the component shows its texts in: the screen's labels,
/// the guidance in its banner and the descriptions of the errors it reports.
///
/// By default they follow the application's locale, QLocale(): the system's
/// unless the host called QLocale::setDefault. The component ships English,
/// German, French and Spanish; a regional locale (fr_CA, es_MX) uses its
/// language, and a language it does not ship shows English. Whatever the
/// locale, translators the host installs with
/// QCoreApplication::installTranslator are asked first, so a host can reword
/// any text; the README's "Languages" section lists the contexts and keys.
struct ZAVO_EXPORT ZMLocalization {
    /// Shows the component's texts in locale's language from now on,
    /// whatever the application's locale is. Texts fetched afterwards are in
    /// that language, and the application receives a QEvent::LanguageChange,
    /// on which a shown camera screen relabels itself. Any thread.
    static void setLocale(const QLocale& locale);
    /// Follows the application's locale again, as when nothing was set.
    static void followApplicationLocale();
    /// The locale the component's texts are currently in (or would be, for a
    /// language it does not ship). Any thread.
    static QLocale locale();
};

}  // namespace zavo
