#include "base/Bundle_p.h"

#include "base/Log_p.h"

#include <QCoreApplication>
#include <QFile>
#include <QLocale>
#include <QPointer>
#include <QTranslator>
#include <mutex>

namespace zavo::platform {

struct Bundle::Translations {
    std::once_flag loaded;
    QTranslator translator;
    bool hasTable = false;
    QPointer<QCoreApplication> installedIn;  // main thread only
};

Bundle::Bundle(QString identifier, QString resourceRoot, QString translationBase)
    : identifier_(std::move(identifier))
    , resourceRoot_(std::move(resourceRoot))
    , translationBase_(std::move(translationBase))
    , translations_(std::make_unique<Translations>())
{
}

Bundle::Bundle(MainTag) : isMain_(true) {}

Bundle::~Bundle() = default;

const Bundle& Bundle::main()
{
    static const Bundle mainBundle{MainTag{}};
    return mainBundle;
}

QString Bundle::pathForResource(const QString& name, const QString& ext) const
{
    if (resourceRoot_.isEmpty())
        return {};
    const QString path = resourceRoot_ + QLatin1Char('/') + name + (ext.isEmpty() ? QString() : QLatin1Char('.') + ext);
    return QFile::exists(path) ? path : QString();
}

QPixmap Bundle::image(const QString& name) const
{
    for (const char* ext : {"png", "svg"}) {
        const QString path = pathForResource(QStringLiteral("images/") + name, QLatin1String(ext));
        if (!path.isEmpty())
            return QPixmap(path);
    }
    return {};
}

const QTranslator* Bundle::translator() const
{
    if (!translations_)
        return nullptr;
    std::call_once(translations_->loaded, [this] {
        const QString dir = resourceRoot_ + QStringLiteral("/i18n");
        // The system's preferred languages first, English as the last resort.
        Translations& t = *translations_;
        t.hasTable = t.translator.load(QLocale::system(), translationBase_, QStringLiteral("_"), dir)
            || t.translator.load(translationBase_ + QStringLiteral("_en"), dir);
        if (!t.hasTable)
            qCWarning(lcBase) << "no string table for bundle" << identifier_;
    });
    return translations_->hasTable ? &translations_->translator : nullptr;
}

QString Bundle::localizedString(const QString& key, const QString& value, const QString& table) const
{
    const QByteArray context = (table.isEmpty() ? QStringLiteral("Localizable") : table).toUtf8();
    const QByteArray source = key.toUtf8();
    QString translated;
    if (isMain_) {
        if (QCoreApplication::instance()) {
            translated = QCoreApplication::translate(context.constData(), source.constData());
            if (translated == key)
                translated.clear();
        }
    } else if (const QTranslator* t = translator()) {
        translated = t->translate(context.constData(), source.constData());
    }
    if (!translated.isEmpty())
        return translated;
    return value.isEmpty() ? key : value;
}

void Bundle::installTranslator() const
{
    QCoreApplication* app = QCoreApplication::instance();
    if (isMain_ || !app || !translator() || translations_->installedIn == app)
        return;
    // The application does not own installed translators; the bundle's table
    // outlives every application object of the process.
    QCoreApplication::installTranslator(&translations_->translator);
    translations_->installedIn = app;
}

std::optional<QVariantMap> Bundle::infoDictionary() const
{
    if (!isMain_) {
        QVariantMap info;
        info.insert(QStringLiteral("CFBundleIdentifier"), identifier_);
        return info;
    }
    const QCoreApplication* app = QCoreApplication::instance();
    if (!app)
        return std::nullopt;
    QVariantMap info;
    auto take = [&](const char* key, const QString& fallback) {
        const QVariant property = app->property(key);
        if (property.isValid())
            info.insert(QLatin1String(key), property);
        else if (!fallback.isEmpty())
            info.insert(QLatin1String(key), fallback);
    };
    take("CFBundleName", QCoreApplication::applicationName());
    take("CFBundleShortVersionString", QCoreApplication::applicationVersion());
    take("CFBundleVersion", {});
    take("CFBundleIdentifier", QCoreApplication::organizationDomain());
    return info;
}

}  // namespace zavo::platform
