// Every user-facing string has a German translation, and a German system
// locale selects it.
#include "resources/ZMBundleLink_p.h"
#include "zavocore/ZavoCore_p.h"
#include "zavoweb/ZavoWeb_p.h"

#include <QCoreApplication>
#include <QFile>
#include <QList>
#include <QTest>
#include <QXmlStreamReader>

namespace {

struct Entry {
    QString context;
    QString key;
    QString english;
};

// Every entry of a string table's source file.
QList<Entry> englishTable(const QString& path)
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
        if (xml.name() == QLatin1String("name"))
            context = xml.readElementText();
        else if (xml.name() == QLatin1String("source"))
            source = xml.readElementText();
        else if (xml.name() == QLatin1String("translation"))
            table.append({context, source, xml.readElementText()});
    }
    return table;
}

}  // namespace

class TranslationsTest : public QObject {
    Q_OBJECT

private slots:
    void everyKeyIsGerman_data()
    {
        QTest::addColumn<QString>("table");
        QTest::addColumn<int>("bundle");
        QTest::newRow("component") << QStringLiteral("resources/i18n/zavocamera_en.ts") << 0;
        QTest::newRow("core") << QStringLiteral("zavocore/zavocore_en.ts") << 1;
        QTest::newRow("web") << QStringLiteral("zavoweb/zavoweb_en.ts") << 2;
    }

    void everyKeyIsGerman()
    {
        QFETCH(QString, table);
        QFETCH(int, bundle);
        const zavo::platform::Bundle* bundles[] = {&zavo::ZMBundleLink::bundle(), &zavo::core::zavoCoreBundle(),
                                                   &zavo::web::zavoWebBundle()};
        const QList<Entry> english = englishTable(QStringLiteral(ZAVO_SOURCE_DIR "/") + table);
        QVERIFY2(!english.isEmpty(), qPrintable(table));
        for (const Entry& entry : english) {
            const QString german = bundles[bundle]->localizedString(entry.key, {}, entry.context);
            // A missing entry falls back to the key; a copied one to English.
            QVERIFY2(german != entry.key && german != entry.english, qPrintable(entry.context + u'/' + entry.key));
        }
    }

    // The screen's form asks the bundle; the application's translators
    // never hold the component's table.
    void formTextsComeFromTheBundle()
    {
        QCOMPARE(zavo::ZMBundleLink::screenText("Close"), QStringLiteral("Schließen"));
        QCOMPARE(QCoreApplication::translate("ZMCameraViewController", "Close"), QStringLiteral("Close"));
    }

    void umlautsSurviveTheTable()
    {
        QCOMPARE(zavo::core::zc_localized(QStringLiteral("errors.face_too_far")),
                 QStringLiteral("Gehen Sie näher an die Kamera heran."));
    }
};

QTEST_GUILESS_MAIN(TranslationsTest)
#include "tst_translations.moc"
