#include "base/Bundle_p.h"

#include "base/Log_p.h"
#include "base/ThreadSafety.h"

#include <QCoreApplication>
#include <QEvent>
#include <QFile>
#include <QTranslator>
#include <algorithm>
#include <utility>
#include <vector>

namespace zavo::platform {

namespace {

// The locale a host pinned the frameworks' strings to; none while they follow
// the application's.
Guarded<std::optional<QLocale>>& pinnedLocale()
{
    static Guarded<std::optional<QLocale>> locale;
    return locale;
}

// The last locale found without tables of its own. Every bundle finds that
// out for itself; one line in the log is enough.
Guarded<QString>& reportedWithoutTables()
{
    static Guarded<QString> name;
    return name;
}

// "C" is what an unset environment gives; English is then what anyone would
// expect, not worth a line.
bool readsEnglish(const QLocale& locale)
{
    return locale.language() == QLocale::English || locale.language() == QLocale::C;
}

}  // namespace

struct Bundle::Tables {
    Mutex mutex;
    // The locale current was chosen for; a lookup for another one chooses
    // again.
    std::optional<QLocale> chosenFor ZAVO_GUARDED_BY(mutex);
    const QTranslator* current ZAVO_GUARDED_BY(mutex) = nullptr;  // null: no table at all
    // Each file loaded once and kept, so that switching back and forth does
    // not read the tables again.
    std::vector<std::unique_ptr<QTranslator>> loaded ZAVO_GUARDED_BY(mutex);
};

Bundle::Bundle(QString identifier, QString resourceRoot, QString translationBase)
    : identifier_(std::move(identifier))
    , resourceRoot_(std::move(resourceRoot))
    , translationBase_(std::move(translationBase))
    , tables_(std::make_unique<Tables>())
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

QLocale Bundle::localizationLocale() { return pinnedLocale().get().value_or(QLocale()); }

void Bundle::setLocalizationLocale(std::optional<QLocale> locale)
{
    const bool changed = pinnedLocale().with([&](std::optional<QLocale>& pinned) {
        if (pinned == locale)
            return false;
        pinned = std::move(locale);
        return true;
    });
    // The bundles notice on their next lookup; widgets learn of it the way
    // they learn of a translator installed by the host.
    if (QCoreApplication* app = QCoreApplication::instance(); changed && app)
        QCoreApplication::postEvent(app, new QEvent(QEvent::LanguageChange));
}

QString Bundle::ownTranslation(const char* context, const char* sourceText, const char* disambiguation) const
{
    const QLocale wanted = localizationLocale();
    Tables& t = *tables_;
    MutexLocker lock(t.mutex);
    bool showsEnglishInstead = false;
    if (t.chosenFor != wanted) {
        t.chosenFor = wanted;
        const QString dir = resourceRoot_ + QStringLiteral("/i18n");
        auto table = std::make_unique<QTranslator>();
        // The locale's languages in order of preference (a regional locale
        // ends with its bare language), English as the last resort.
        bool found = table->load(wanted, translationBase_, QStringLiteral("_"), dir);
        if (!found) {
            found = table->load(translationBase_ + QStringLiteral("_en"), dir);
            showsEnglishInstead = found && !readsEnglish(wanted);
        }
        if (!found) {
            qCWarning(lcBase) << "no string table for bundle" << identifier_;
            t.current = nullptr;
        } else {
            const auto same = std::find_if(t.loaded.begin(), t.loaded.end(),
                                           [&](const auto& loaded) { return loaded->filePath() == table->filePath(); });
            if (same != t.loaded.end()) {
                t.current = same->get();
            } else {
                t.current = table.get();
                t.loaded.push_back(std::move(table));
            }
        }
    }
    const QString translated = t.current ? t.current->translate(context, sourceText, disambiguation) : QString();
    lock.unlock();

    const QString name = wanted.name();
    if (showsEnglishInstead
        && reportedWithoutTables().with([&](QString& last) { return std::exchange(last, name) != name; }))
        qCInfo(lcBase).noquote() << "no strings in" << QLocale::languageToString(wanted.language()) << "(" + name + ");"
                                 << "showing English";
    return translated;
}

QString Bundle::translate(const char* context, const char* sourceText, const char* disambiguation) const
{
    const QString source = QString::fromUtf8(sourceText);
    // The host's translators first: what the application answers differs
    // from the source only when one of them has the text.
    if (QCoreApplication::instance()) {
        const QString host = QCoreApplication::translate(context, sourceText, disambiguation);
        if (!host.isEmpty() && host != source)
            return host;
    }
    if (isMain_)
        return source;
    const QString own = ownTranslation(context, sourceText, disambiguation);
    return own.isEmpty() ? source : own;
}

QString Bundle::localizedString(const QString& key, const QString& value, const QString& table) const
{
    const QByteArray context = (table.isEmpty() ? QStringLiteral("Localizable") : table).toUtf8();
    const QByteArray source = key.toUtf8();
    const QString translated = translate(context.constData(), source.constData());
    if (!translated.isEmpty() && translated != key)
        return translated;
    return value.isEmpty() ? key : value;
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
