#pragma once
// Bundles: where a framework's resources (images, forms) and string tables
// live. A framework bundle's files are Qt resources under its resource root
// (":/zavocamera" for this component); its string tables are Qt translation
// files "<root>/i18n/<base>_<language>.qm", chosen by localizationLocale()
// with English as the fallback. The main bundle is the host application: its
// info dictionary comes from the application object and its strings from the
// translators the host installed.
//
// A framework's tables are never installed in the application. A lookup asks
// the host's translators first (QCoreApplication::translate) and the bundle's
// own table only when none of them has the text, so a host can reword any
// string whatever order things were installed in.
#include "base/ZavoExport.h"
#include <QLocale>
#include <QPixmap>
#include <QString>
#include <QVariantMap>
#include <memory>
#include <optional>

namespace zavo::platform {

class ZAVO_EXPORT Bundle {
public:
    /// A framework bundle. Keep one instance per framework (a function-local
    /// static is the usual place); lookups are thread-safe.
    Bundle(QString identifier, QString resourceRoot, QString translationBase);
    ~Bundle();
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

    /// The host application's bundle.
    static const Bundle& main();

    QString bundleIdentifier() const { return identifier_; }
    QString resourcePath() const { return resourceRoot_; }
    /// Path of "<root>/<name>.<ext>" (or "<root>/<name>" without ext), empty
    /// when there is no such resource.
    QString pathForResource(const QString& name, const QString& ext = {}) const;
    /// Image called name in "<root>/images" (png or svg); null when missing.
    QPixmap image(const QString& name) const;
    /// The translation of key in table ("Localizable" when empty). A missing
    /// entry yields value when it is not empty, otherwise the key itself.
    /// Any thread.
    QString localizedString(const QString& key, const QString& value = {}, const QString& table = {}) const;
    /// The translation of sourceText in context, the way
    /// QCoreApplication::translate answers (sourceText itself when no table
    /// has it), for texts keyed by their English wording such as a form's.
    /// Any thread.
    QString translate(const char* context, const char* sourceText, const char* disambiguation = nullptr) const;
    /// Host information: "CFBundleName", "CFBundleShortVersionString",
    /// "CFBundleVersion", "CFBundleIdentifier". For the main bundle they are
    /// the application object's dynamic properties of those names, falling
    /// back to applicationName()/applicationVersion()/organizationDomain() for
    /// the first, second and fourth. Absent without an application object.
    std::optional<QVariantMap> infoDictionary() const;

    /// The locale whose language every framework bundle's strings are in:
    /// the one set with setLocalizationLocale(), otherwise the application's
    /// default QLocale() (the system's unless the host called
    /// QLocale::setDefault). Any thread.
    static QLocale localizationLocale();
    /// Pins the framework bundles' strings to locale's language, or with
    /// nullopt lets them follow the application's locale again. Every bundle
    /// changes tables on its next lookup, and a change posts a
    /// QEvent::LanguageChange to the application so that widgets showing
    /// strings fetch them again. Any thread.
    static void setLocalizationLocale(std::optional<QLocale> locale);

private:
    struct MainTag {};
    explicit Bundle(MainTag);
    QString ownTranslation(const char* context, const char* sourceText, const char* disambiguation) const;

    QString identifier_;
    QString resourceRoot_;
    QString translationBase_;
    bool isMain_ = false;
    struct Tables;
    std::unique_ptr<Tables> tables_;
};

}  // namespace zavo::platform
