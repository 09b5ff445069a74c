#pragma once
// Bundles: where a framework's resources (images, forms) and string tables
// live. A framework bundle's files are Qt resources under its resource root
// (":/zavocamera" for this component); its string tables are Qt translation
// files "<root>/i18n/<base>_<language>.qm", chosen by the system locale with
// English as the fallback. The main bundle is the host application: its info
// dictionary comes from the application object and its strings from the
// translators the host installed.
#include "base/ZavoExport.h"
#include <QPixmap>
#include <QString>
#include <QVariantMap>
#include <memory>
#include <optional>

class QTranslator;

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
    QString localizedString(const QString& key, const QString& value = {}, const QString& table = {}) const;
    /// Makes the bundle's string table visible to QCoreApplication::translate,
    /// through which Designer forms translate their texts, for the life of
    /// the current application object. Idempotent. Main thread; needs an
    /// application object. Nothing to do for the main bundle.
    void installTranslator() const;
    /// Host information: "CFBundleName", "CFBundleShortVersionString",
    /// "CFBundleVersion", "CFBundleIdentifier". For the main bundle they are
    /// the application object's dynamic properties of those names, falling
    /// back to applicationName()/applicationVersion()/organizationDomain() for
    /// the first, second and fourth. Absent without an application object.
    std::optional<QVariantMap> infoDictionary() const;

private:
    struct MainTag {};
    explicit Bundle(MainTag);
    const QTranslator* translator() const;

    QString identifier_;
    QString resourceRoot_;
    QString translationBase_;
    bool isMain_ = false;
    struct Translations;
    std::unique_ptr<Translations> translations_;
};

}  // namespace zavo::platform
