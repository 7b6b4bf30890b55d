#include "foundation/LocalString.h"

#include <QFile>
#include <QMap>
#include <QXmlStreamReader>
#include <QtTest>

namespace {

const QStringList kShipped{"en", "de", "fr", "sv", "fi", "es", "no", "da", "it", "pt"};

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
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.fileName() + QStringLiteral(": ") + file.errorString();
        return entries;
    }
    QXmlStreamReader xml(&file);
    QString id;
    Entry entry;
    while (!xml.atEnd()) {
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

int slotCount(const QString &text)
{
    return static_cast<int>(text.count(QStringLiteral("%@")));
}

} // namespace

class TestLocalStringTables : public QObject {
    Q_OBJECT
private slots:
    void everyLanguageHasEveryKey_data()
    {
        QTest::addColumn<QString>("code");
        for (const QString &code : kShipped)
            QTest::newRow(qPrintable(code)) << code;
    }
    void everyLanguageHasEveryKey()
    {
        QFETCH(QString, code);
        QString error;
        const auto english = readTable(QStringLiteral("en"), &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        const auto table = readTable(code, &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QVERIFY(english.size() >= 50);
        QCOMPARE(table.keys(), english.keys());
        for (auto it = english.cbegin(); it != english.cend(); ++it) {
            const Entry &entry = table.value(it.key());
            const QString where = code + QStringLiteral(": ") + it.key();
            QVERIFY2(entry.type.isEmpty(), qPrintable(where + " is marked " + entry.type));
            QVERIFY2(!entry.translation.trimmed().isEmpty(), qPrintable(where + " has no text"));
            // Everyone translates the same English source.
            QVERIFY2(entry.source == it->translation, qPrintable(where + " has a stale source"));
            QVERIFY2(slotCount(entry.translation) == slotCount(it->translation), qPrintable(where + " lost a %@ slot"));
            QVERIFY2(entry.translation.contains("<app_name>") == it->translation.contains("<app_name>"),
                     qPrintable(where + " differs in <app_name>"));
        }
    }

    // What the build put into the library is what the files say.
    void builtTablesMatchTheFiles()
    {
        for (const QString &code : kShipped) {
            QString error;
            const auto table = readTable(code, &error);
            QVERIFY2(error.isEmpty(), qPrintable(error));
            for (auto it = table.cbegin(); it != table.cend(); ++it) {
                const QString expected = QString(it->translation).replace("<app_name>", "PelorinVPN");
                QCOMPARE(LocalString::forKeyInLanguage(it.key(), code), expected);
            }
        }
    }

    // Keys the screens, alerts, menus and duration texts look up by name.
    void englishHoldsTheKeysTheProductUses()
    {
        QString error;
        const auto english = readTable(QStringLiteral("en"), &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        const QStringList used{"ManageUpdates_UpdateGui_day",
                               "ManageUpdates_UpdateGui_days",
                               "ManageUpdates_UpdateGui_hour",
                               "ManageUpdates_UpdateGui_hours",
                               "ManageUpdates_UpdateGui_minutes",
                               "seconds",
                               "Missing key",
                               "<app_name>",
                               "Open",
                               "Settings",
                               "Quit_software_name",
                               "Connection Error",
                               "It seems that your connection to our server is lost.",
                               "Continue",
                               "Retry",
                               "Restart",
                               "Quit",
                               "Connect",
                               "Disconnect",
                               "Cancel",
                               "Disconnecting",
                               "ConnectedTime",
                               "ConnectingToTheSecureServerIn",
                               "vpn_setup_failed_check_internet",
                               "installing_vpn_configuration_failed",
                               "latest_version_already_installed",
                               "update_found",
                               "all_rights_reserved"};
        for (const QString &key : used)
            QVERIFY2(english.contains(key), qPrintable(key));
        QCOMPARE(slotCount(english.value("ConnectingToTheSecureServerIn").translation), 1);
        QCOMPARE(english.value("Quit_software_name").translation, QStringLiteral("Quit <app_name>"));
        // Texts whose English wording is fixed keep it exactly.
        for (const QString &fixed :
             QStringList{"Connection Error", "It seems that your connection to our server is lost.",
                         "Please reconect to apply changes.", "Reconnect required", "Cannot open Google Chrome",
                         "the key must not to be nil"})
            QCOMPARE(english.value(fixed).translation, QString(fixed));
    }
};

QTEST_GUILESS_MAIN(TestLocalStringTables)
#include "tst_localstring_tables.moc"
