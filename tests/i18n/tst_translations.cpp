// Every user-facing string has a German translation, and a German system
// locale selects it.
#include "camera-screen/ZMBundleLink.h"
#include "zavocore/ZavoCore.h"
#include "zavoweb/ZavoWeb.h"

#include <QFile>
#include <QMap>
#include <QTest>
#include <QXmlStreamReader>

namespace {

// key -> English text, read from a string table's source file.
QMap<QString, QString> englishTable(const QString& path)
{
    QMap<QString, QString> table;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return table;
    QXmlStreamReader xml(&file);
    QString source;
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isStartElement())
            continue;
        if (xml.name() == QLatin1String("source"))
            source = xml.readElementText();
        else if (xml.name() == QLatin1String("translation"))
            table.insert(source, xml.readElementText());
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
        const QMap<QString, QString> english = englishTable(QStringLiteral(ZAVO_SOURCE_DIR "/") + table);
        QVERIFY2(!english.isEmpty(), qPrintable(table));
        for (auto it = english.cbegin(); it != english.cend(); ++it) {
            const QString german = bundles[bundle]->localizedString(it.key());
            // A missing entry falls back to the key; a copied one to English.
            QVERIFY2(german != it.key() && german != it.value(), qPrintable(it.key()));
        }
    }

    void umlautsSurviveTheTable()
    {
        QCOMPARE(zavo::core::zc_localized(QStringLiteral("errors.face_too_far")),
                 QStringLiteral("Gehen Sie näher an die Kamera heran."));
    }
};

QTEST_GUILESS_MAIN(TranslationsTest)
#include "tst_translations.moc"
