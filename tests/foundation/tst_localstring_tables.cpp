#include "foundation/LocalString.h"

#include <QFile>
#include <QMap>
#include <QXmlStreamReader>
#include <QtTest>

namespace {

struct Entry {
    QString source;
    QString translation;
    QString type; // "unfinished", "vanished", "obsolete" or empty
};

// id -> entry of one language file; `error` says what made the file unreadable.
QMap<QString, Entry> readTable(const QString &code, QString *error)
{
    QMap<QString, Entry> entries;
    QFile file(qEnvironmentVariable("PELORIN_SOURCE_DIR") +
               QStringLiteral("/resources/translations/pelorin_%1.ts").arg(code));
    if (!file.open(QIODevice::ReadOnly))
        *error = file.fileName() + QStringLiteral(": ") + file.errorString();
    QXmlStreamReader xml(&file);
    QString id;
    Entry entry;
    while (file.isOpen() && !xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement() && xml.name() == u"message") {
            id = xml.attributes().value("id").toString();
            entry = {};
        } else if (xml.isStartElement() && xml.name() == u"source") {
            entry.source = xml.readElementText();
        } else if (xml.isStartElement() && xml.name() == u"translation") {
            entry.type = xml.attributes().value("type").toString();
            entry.translation = xml.readElementText();
        } else if (xml.isEndElement() && xml.name() == u"message") {
            if (entries.contains(id))
                *error = QStringLiteral("duplicate id '%1'").arg(id);
            entries.insert(id, entry);
        }
    }
    if (xml.hasError())
        *error = xml.errorString();
    return entries;
}

} // namespace

class TestLocalStringTables : public QObject {
    Q_OBJECT
private slots:
    // Every language has every key, translated from the current English, with the same slots;
    // and what the build put into the library is what the files say.
    void everyLanguageHasEveryKeyAsBuilt()
    {
        QString error;
        const auto english = readTable(QStringLiteral("en"), &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QVERIFY(english.size() >= 50);
        for (const QString &code : QStringList{"en", "de", "fr", "sv", "fi", "es", "no", "da", "it", "pt"}) {
            const auto table = readTable(code, &error);
            QVERIFY2(error.isEmpty(), qPrintable(error));
            QCOMPARE(table.keys(), english.keys());
            for (auto it = english.cbegin(); it != english.cend(); ++it) {
                const Entry &entry = table.value(it.key());
                const QString where = code + QStringLiteral(": ") + it.key();
                QVERIFY2(entry.type.isEmpty() && !entry.translation.trimmed().isEmpty(), qPrintable(where));
                QVERIFY2(entry.source == it->translation, qPrintable(where + " has a stale source"));
                QVERIFY2(entry.translation.count("%@") == it->translation.count("%@"),
                         qPrintable(where + " lost a %@"));
                QVERIFY2(entry.translation.contains("<app_name>") == it->translation.contains("<app_name>"),
                         qPrintable(where + " differs in <app_name>"));
                QCOMPARE(LocalString::forKeyInLanguage(it.key(), code),
                         QString(entry.translation).replace("<app_name>", "PelorinVPN"));
            }
        }
        // Keys the screens, alerts and duration texts look up by name; texts whose English
        // wording is fixed keep it exactly.
        for (const char *key :
             {"ManageUpdates_UpdateGui_day", "ManageUpdates_UpdateGui_days", "ManageUpdates_UpdateGui_hour",
              "ManageUpdates_UpdateGui_hours", "ManageUpdates_UpdateGui_minutes", "seconds", "Missing key",
              "Quit_software_name", "ConnectedTime", "ConnectingToTheSecureServerIn", "vpn_setup_failed_check_internet",
              "installing_vpn_configuration_failed", "update_found", "all_rights_reserved"})
            QVERIFY2(english.contains(key), key);
        for (const char *fixed :
             {"Connection Error", "It seems that your connection to our server is lost.",
              "Please reconect to apply changes.", "Reconnect required", "the key must not to be nil"})
            QCOMPARE(english.value(fixed).translation, QString::fromUtf8(fixed));
    }
};

QTEST_GUILESS_MAIN(TestLocalStringTables)
#include "tst_localstring_tables.moc"
