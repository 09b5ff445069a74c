// The component's strings: every language has every string, the language
// follows the application's locale or the one a host sets and changes at
// run time, and a host's translators win over the component's tables.
#include "LogRecorder.h"

#include "camera-screen/ZMLocalization.h"
#include "resources/ZMBundleLink_p.h"
#include "zavocore/ZavoCore_p.h"
#include "zavoweb/ZavoWeb_p.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QRegularExpression>
#include <QTest>
#include <QTranslator>
#include <QXmlStreamReader>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

using zavo::ZMLocalization;
using zavo::platform::Bundle;

namespace {

struct Entry {
    QString context;
    QString source;
    QString translation;
    QString type;  // "unfinished", "vanished", "obsolete" or empty
};

QList<Entry> readTable(const QString& path)
{
    QList<Entry> table;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return table;
    QXmlStreamReader xml(&file);
    QString context;
    QString source;
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isStartElement())
            continue;
        if (xml.name() == QLatin1String("name")) {
            context = xml.readElementText();
        } else if (xml.name() == QLatin1String("source")) {
            source = xml.readElementText();
        } else if (xml.name() == QLatin1String("translation")) {
            const QString type = xml.attributes().value(QLatin1String("type")).toString();
            table.append({context, source, xml.readElementText(), type});
        }
    }
    return table;
}

struct BundleFiles {
    const char* name;
    const Bundle& (*bundle)();
    const char* tables;  // "<folder>/<base>", the .ts files beside each other
};

const BundleFiles kBundles[] = {
    {"component", &zavo::ZMBundleLink::bundle, "resources/i18n/zavocamera"},
    {"core", &zavo::core::zavoCoreBundle, "zavocore/zavocore"},
    {"web", &zavo::web::zavoWebBundle, "zavoweb/zavoweb"},
};

QString tablePath(const BundleFiles& bundle, const QString& language)
{
    return QStringLiteral(ZAVO_SOURCE_DIR "/%1_%2.ts").arg(QLatin1String(bundle.tables), language);
}

// The languages that ship a table for bundle, English aside.
QStringList languagesOf(const BundleFiles& bundle)
{
    const QFileInfo english(tablePath(bundle, QStringLiteral("en")));
    const QString prefix = english.completeBaseName().chopped(2);
    QStringList languages;
    for (const QString& file : QDir(english.path()).entryList({prefix + QStringLiteral("*.ts")}, QDir::Files)) {
        const QString language = file.mid(prefix.size()).chopped(3);
        if (language != QLatin1String("en"))
            languages << language;
    }
    return languages;
}

QStringList placeholders(const QString& text)
{
    QStringList found;
    for (const auto& match : QRegularExpression(QStringLiteral("%L?\\d")).globalMatch(text))
        found << match.captured();
    found.sort();
    return found;
}

// One string of each bundle, each reached its own way: the core's through
// zc_localized, the web's and the component's through their bundles, and a
// text of the screen's form through the function the compiled form calls.
struct Sample {
    QString core;
    QString web;
    QString component;
    QString form;
};

Sample currentStrings()
{
    return {zavo::core::zc_localized(QStringLiteral("errors.face_too_far")),
            zavo::web::zavoWebBundle().localizedString(QStringLiteral("errors.connection")),
            zavo::ZMBundleLink::bundle().localizedString(QStringLiteral("errors.canceled")),
            zavo::ZMBundleLink::screenText("Switch camera")};
}

const QHash<QString, Sample>& expected()
{
    static const QHash<QString, Sample> samples{
        {QStringLiteral("en"),
         {QStringLiteral("Move closer to the camera."),
          QStringLiteral("The server could not be reached. Check your connection and try again."),
          QStringLiteral("The capture was cancelled."), QStringLiteral("Switch camera")}},
        {QStringLiteral("de"),
         {QStringLiteral("Gehen Sie näher an die Kamera heran."),
          QStringLiteral("Der Server ist nicht erreichbar. Prüfen Sie Ihre Verbindung und versuchen Sie es erneut."),
          QStringLiteral("Die Aufnahme wurde abgebrochen."), QStringLiteral("Kamera wechseln")}},
        {QStringLiteral("fr"),
         {QStringLiteral("Rapprochez-vous de la caméra."),
          QStringLiteral("Impossible de joindre le serveur. Vérifiez votre connexion, puis réessayez."),
          QStringLiteral("La capture a été annulée."), QStringLiteral("Changer de caméra")}},
        {QStringLiteral("es"),
         {QStringLiteral("Acérquese a la cámara."),
          QStringLiteral("No se pudo conectar con el servidor. Verifique su conexión y vuelva a intentarlo."),
          QStringLiteral("La captura se canceló."), QStringLiteral("Cambiar de cámara")}},
    };
    return samples;
}

bool operator==(const Sample& a, const Sample& b)
{
    return a.core == b.core && a.web == b.web && a.component == b.component && a.form == b.form;
}

char* toString(const Sample& s)
{
    return QTest::toString(QStringList{s.core, s.web, s.component, s.form}.join(QStringLiteral(" | ")));
}

class LanguageChangeCounter : public QObject {
public:
    int count = 0;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (watched == QCoreApplication::instance() && event->type() == QEvent::LanguageChange)
            ++count;
        return false;
    }
};

}  // namespace

class TranslationsTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup()
    {
        ZMLocalization::followApplicationLocale();
        QLocale::setDefault(QLocale::system());
    }

    // With nothing set, the application's locale is the system's (German
    // here), and the component's table stays out of the application.
    void theSystemLocaleIsTheDefault()
    {
        QCOMPARE(ZMLocalization::locale(), QLocale());
        QCOMPARE(currentStrings(), expected()[QStringLiteral("de")]);
        QCOMPARE(zavo::ZMBundleLink::screenText("Close"), QStringLiteral("Schließen"));
        QCOMPARE(QCoreApplication::translate("ZMCameraViewController", "Close"), QStringLiteral("Close"));
        QCOMPARE(zavo::ZMBundleLink::bundle().localizedString(QStringLiteral("errors.no_such_key")),
                 QStringLiteral("errors.no_such_key"));
    }

    void everyLanguageHasEveryString_data()
    {
        QTest::addColumn<int>("bundle");
        QTest::addColumn<QString>("language");
        for (int i = 0; i < int(std::size(kBundles)); ++i) {
            const QStringList languages = languagesOf(kBundles[i]);
            for (const char* shipped : {"de", "fr", "es"})
                QVERIFY2(languages.contains(QLatin1String(shipped)), shipped);
            for (const QString& language : languages)
                QTest::addRow("%s/%s", kBundles[i].name, qPrintable(language)) << i << language;
        }
    }

    // The same strings as English, each finished and with English's
    // placeholders; and what the compiled library answers for the language
    // is exactly its table.
    void everyLanguageHasEveryString()
    {
        QFETCH(int, bundle);
        QFETCH(QString, language);
        const BundleFiles& files = kBundles[bundle];
        const QList<Entry> english = readTable(tablePath(files, QStringLiteral("en")));
        const QList<Entry> table = readTable(tablePath(files, language));
        QVERIFY(!english.isEmpty());
        QCOMPARE(table.size(), english.size());

        ZMLocalization::setLocale(QLocale(language));
        for (const Entry& source : english) {
            const QString where = source.context + u'/' + source.source;
            const auto entry = std::find_if(table.begin(), table.end(), [&](const Entry& e) {
                return e.context == source.context && e.source == source.source;
            });
            QVERIFY2(entry != table.end(), qPrintable(where + QStringLiteral(" is missing")));
            QVERIFY2(entry->type.isEmpty(), qPrintable(where + QStringLiteral(" is ") + entry->type));
            QVERIFY2(!entry->translation.trimmed().isEmpty(), qPrintable(where));
            QCOMPARE(placeholders(entry->translation), placeholders(source.translation));
            const QByteArray context = source.context.toUtf8();
            const QByteArray key = source.source.toUtf8();
            QCOMPARE(files.bundle().translate(context.constData(), key.constData()), entry->translation);
        }
    }

    void switchesAtRunTime()
    {
        QCoreApplication::sendPostedEvents();
        LanguageChangeCounter changes;
        QCoreApplication::instance()->installEventFilter(&changes);
        for (const char* language : {"en", "fr", "es", "de"}) {
            ZMLocalization::setLocale(QLocale(QLatin1String(language)));
            QCOMPARE(ZMLocalization::locale(), QLocale(QLatin1String(language)));
            QCOMPARE(currentStrings(), expected()[QLatin1String(language)]);
        }
        // Widgets hear of each change; the same locale again is no change.
        ZMLocalization::setLocale(QLocale(QStringLiteral("de")));
        QCoreApplication::sendPostedEvents();
        QCOMPARE(changes.count, 4);
        QCoreApplication::instance()->removeEventFilter(&changes);

        // A regional locale takes its language's table.
        ZMLocalization::setLocale(QLocale(QStringLiteral("fr_CA")));
        QCOMPARE(currentStrings(), expected()[QStringLiteral("fr")]);
        ZMLocalization::setLocale(QLocale(QStringLiteral("es_MX")));
        QCOMPARE(currentStrings(), expected()[QStringLiteral("es")]);
    }

    // Following the application, the component changes language when the
    // host changes the default locale; a locale the host set for the
    // component wins over it until the host lets go.
    void followsTheApplicationsDefaultLocale()
    {
        for (const char* language : {"en", "fr", "es", "de"}) {
            QLocale::setDefault(QLocale(QLatin1String(language)));
            QCOMPARE(currentStrings(), expected()[QLatin1String(language)]);
        }
        QLocale::setDefault(QLocale(QStringLiteral("es_MX")));
        ZMLocalization::setLocale(QLocale(QStringLiteral("fr_FR")));
        QCOMPARE(currentStrings(), expected()[QStringLiteral("fr")]);
        ZMLocalization::followApplicationLocale();
        QCOMPARE(ZMLocalization::locale(), QLocale(QStringLiteral("es_MX")));
        QCOMPARE(currentStrings(), expected()[QStringLiteral("es")]);
        QLocale::setDefault(QLocale::system());
        QCOMPARE(currentStrings(), expected()[QStringLiteral("de")]);
    }

    void aLanguageWithoutTablesShowsEnglishAndSaysSoOnce()
    {
        zavo::testing::LogRecorder& log = zavo::testing::LogRecorder::instance();
        log.clear();
        ZMLocalization::setLocale(QLocale(QLocale::Japanese, QLocale::Japan));
        QCOMPARE(currentStrings(), expected()[QStringLiteral("en")]);
        QCOMPARE(currentStrings(), expected()[QStringLiteral("en")]);
        QCOMPARE(log.count(QRegularExpression(QStringLiteral("^no strings in Japanese.*showing English$"))), 1);
        // English itself and an unset environment's "C" are not worth a line.
        ZMLocalization::setLocale(QLocale(QStringLiteral("en_GB")));
        QCOMPARE(currentStrings(), expected()[QStringLiteral("en")]);
        ZMLocalization::setLocale(QLocale::c());
        QCOMPARE(currentStrings(), expected()[QStringLiteral("en")]);
        QCOMPARE(log.count(QRegularExpression(QStringLiteral("showing English"))), 1);
    }

    // A host translator rewords what it has, in whatever language the
    // component is in, and the component's table answers the rest.
    void hostTranslatorsComeFirst()
    {
        QTranslator host;
        QVERIFY(host.load(QStringLiteral(":/host/host_overrides.qm")));
        ZMLocalization::setLocale(QLocale(QStringLiteral("fr")));
        QVERIFY(QCoreApplication::installTranslator(&host));
        const Sample reworded{QStringLiteral("Please come a little closer."),
                              QStringLiteral("No connection to the identity service."),
                              QStringLiteral("You stopped the check."), QStringLiteral("Use the other camera")};
        QCOMPARE(currentStrings(), reworded);
        QCOMPARE(zavo::core::zc_localized(QStringLiteral("errors.face_too_close")),
                 QStringLiteral("Reculez un peu\u00a0: votre tête doit tenir entièrement dans l’image."));
        QCOMPARE(zavo::ZMBundleLink::screenText("Close"), QStringLiteral("Done"));
        ZMLocalization::setLocale(QLocale(QStringLiteral("es")));
        QCOMPARE(currentStrings(), reworded);

        QVERIFY(QCoreApplication::removeTranslator(&host));
        QCOMPARE(currentStrings(), expected()[QStringLiteral("es")]);
    }

    // Lookups on other threads while the language changes see one of the
    // languages' strings, never a torn or empty one.
    void lookupsWhileTheLanguageChanges()
    {
        QSet<QString> known;
        for (const Sample& sample : expected())
            known << sample.core << sample.web << sample.component << sample.form;
        std::atomic<bool> stop{false};
        std::atomic<int> unknown{0};
        std::atomic<int> lookups{0};
        std::vector<std::thread> readers;
        for (int i = 0; i < 3; ++i) {
            readers.emplace_back([&] {
                while (!stop) {
                    const Sample s = currentStrings();
                    for (const QString& text : {s.core, s.web, s.component, s.form})
                        unknown += known.contains(text) ? 0 : 1;
                    ++lookups;
                }
            });
        }
        const char* languages[] = {"en", "fr", "es", "de"};
        for (int round = 0; round < 200 || lookups < 100; ++round)
            ZMLocalization::setLocale(QLocale(QLatin1String(languages[round % 4])));
        stop = true;
        for (std::thread& reader : readers)
            reader.join();
        QCOMPARE(unknown.load(), 0);
    }
};

QTEST_GUILESS_MAIN(TranslationsTest)
#include "tst_translations.moc"
