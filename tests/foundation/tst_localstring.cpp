// Runs under a Brazilian Portuguese session (see the test's environment): the device test
// uses no stand-ins, the others set what the machine would tell.
#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/KeychainStore.h"
#include "foundation/LanguageNames.h"
#include "foundation/LanguagesTableSource.h"
#include "foundation/LocalString.h"
#include "platform/linux/LinuxPlatform.h"

#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QtTest>

namespace {

const QStringList kShipped{"en", "de", "fr", "sv", "fi", "es", "no", "da", "it", "pt"};

LocalString::Overrides machine(const QStringList &preferred, const QStringList &supported = kShipped,
                               const QLocale &locale = QLocale(QLocale::English, QLocale::UnitedStates))
{
    return {preferred, supported, locale};
}

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

class TestLocalString : public QObject {
    Q_OBJECT
private:
    QTemporaryDir m_dir;
    int m_run = 0;
    AppStorageManager &store() { return AppStorageManager::sharedManager(); }

private slots:
    void init()
    {
        // A settings file of its own per test: nothing stored carries over.
        AppStorageManager::setSharedManagerForTesting(
            std::make_unique<AppStorageManager>(m_dir.filePath(QStringLiteral("settings-%1.conf").arg(++m_run)),
                                                KeychainStore(QStringLiteral("com.pelorin.vpn.mac"))));
        LocalString::setOverridesForTesting(machine({"en-US"}));
        EventBus::defaultCenter().reset();
    }
    void cleanup()
    {
        LocalString::setOverridesForTesting({});
        AppStorageManager::setSharedManagerForTesting(nullptr);
        Platform::setInstance(nullptr);
    }

    // The device language comes from the process locale, the shipped ones from the resources.
    void sessionLanguageChoosesShippedPortuguese()
    {
        LocalString::setOverridesForTesting({});
        Platform::setInstance(std::make_unique<LinuxPlatform>(
            LinuxPlatform::Overrides{.resourcesDirectory = qEnvironmentVariable("PELORIN_SOURCE_DIR") + "/resources"}));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("pt"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Quit_software_name")), QStringLiteral("Sair do PelorinVPN"));
        // The Portuguese locale names the others in Portuguese. Rows and codes stay paired; a row
        // past either end is nothing and chooses nothing.
        const LanguagesTableSource table;
        QCOMPARE(table.numberOfRows(), 10);
        QCOMPARE(table.tableData().value("de"), QStringLiteral("alemão"));
        QCOMPARE(table.codeForRow(1), QStringLiteral("de"));
        int posted = 0;
        EventBus::defaultCenter().addObserver(this, Events::LANGUAGE_SELECTED, [&](const Event &) { ++posted; });
        for (const int outside : {-1, table.numberOfRows()}) {
            QVERIFY(table.valueForRow(outside).isNull() && table.codeForRow(outside).isNull());
            table.selectRow(outside);
        }
        QCOMPARE(posted, 0);
        EventBus::defaultCenter().removeObserver(this);
    }

    void deviceLanguageDecidesOnlyTheFirstTime()
    {
        LocalString::setOverridesForTesting(machine({"sv-SE", "en-US"}));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("sv"));
        LocalString::setOverridesForTesting(machine({"de-DE"}));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("sv"));

        // A device language not among the supported stores English.
        store().removeAppLanguageCode();
        LocalString::setOverridesForTesting(machine({"fi-FI"}, {"en", "de"}));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("en"));
        QCOMPARE(store().appLanguageCode(), QStringLiteral("en"));
        // English has no entry in the native-name table: kept as it is.
        QCOMPARE(LocalString::appLanguageName(), QStringLiteral("English"));

        const QList<std::pair<QStringList, QString>> forms{
            {{"pt-BR", "en"}, "pt"}, {{"pt_BR"}, "pt"}, {{}, "en"}, {{"C"}, "en"}, {{"POSIX"}, "en"}};
        for (const auto &[preferred, code] : forms) {
            LocalString::setOverridesForTesting(machine(preferred));
            QCOMPARE(LocalString::deviceLanguageCode(), code);
        }
    }

    // An English locale shows each language in its own words; any other locale shows its
    // own names as given, the user's own language with a capital.
    void shownNames()
    {
        const QLocale en(QLocale::English, QLocale::UnitedStates), pt(QLocale::Portuguese, QLocale::Brazil);
        const QList<std::tuple<QLocale, QString, QString>> names{
            {en, "de", "Deutsch"},   {en, "fr", "Français"}, {en, "no", "Norsk"},     {en, "nb", "Norsk"},
            {en, "pt", "Português"}, {en, "xx", ""},         {pt, "pt", "Português"}, {pt, "fr", "francês"}};
        for (const auto &[locale, code, name] : names) {
            LocalString::setOverridesForTesting(machine({"en-US"}, kShipped, locale));
            QCOMPARE(LocalString::languageNameForCode(code), name);
        }
        const QList<std::tuple<const char *, const char *, int>> order{
            {"Lang 2", "Lang 10", -1}, {"Lang 10", "Lang 2", 1}, {"Dansk", "Deutsch", -1},
            {"x007", "x7", 0},         {"Norsk", "Norsk 2", -1}, {"99999999999999999999", "100000000000000000000", -1}};
        for (const auto &[a, b, sign] : order)
            QVERIFY2(qBound(-1, LanguageNames::numericCompare(a, b), 1) == sign, a);
    }

    // Every language has every key, translated from the current English, with the same slots;
    // and what the build put into the library is what the files say.
    void everyLanguageHasEveryKeyAsBuilt()
    {
        QString error;
        const auto english = readTable(QStringLiteral("en"), &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QVERIFY(english.size() >= 50);
        for (const QString &code : kShipped) {
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

QTEST_GUILESS_MAIN(TestLocalString)
#include "tst_localstring.moc"
