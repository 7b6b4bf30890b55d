#include "foundation/AppStorageManager.h"
#include "foundation/ErrorIdentity.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/KeychainStore.h"
#include "foundation/LanguageNames.h"
#include "foundation/LanguagesTableSource.h"
#include "foundation/LocalString.h"
#include "foundation/StringAddition.h"
#include "support/LogCapture.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

const QStringList kShipped{"en", "de", "fr", "sv", "fi", "es", "no", "da", "it", "pt"};

LocalString::Overrides machine(const QStringList &preferred, const QStringList &supported = kShipped,
                               const QLocale &locale = QLocale(QLocale::English, QLocale::UnitedStates))
{
    return {preferred, supported, locale};
}

bool hasRecord(const LogCapture &capture, const QString &category, OsLog::Level level, const QString &text)
{
    const QString subsystem = category == QLatin1String("Table")
                                  ? QStringLiteral("com.pelorin.vpn.mac.settings.localization")
                                  : QStringLiteral("com.pelorin.vpn.mac.localization");
    for (const auto &r : capture.osRecords())
        if (r.subsystem == subsystem && r.category == category && r.level == level && r.text == text)
            return true;
    return false;
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
    }

    void deviceLanguageDecidesOnlyTheFirstTime()
    {
        LogCapture capture;
        LocalString::setOverridesForTesting(machine({"sv-SE", "en-US"}));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("sv"));
        QCOMPARE(store().appLanguageCode(), QStringLiteral("sv"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Connect")), QStringLiteral("Anslut"));
        QVERIFY(hasRecord(capture, "Manager", OsLog::Level::Info, "Device languages = 'sv-SE, en-US'"));
        QVERIFY(hasRecord(capture, "Manager", OsLog::Level::Debug, "Use AppLanguageCode from AppConfig ('sv')"));
        LocalString::deviceLanguageCode();
        QCOMPARE(capture.osTexts("Manager").filter("Device languages").size(), 1); // read once per run
        LocalString::setOverridesForTesting(machine({"de-DE"}));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("sv"));

        // A device language without a table, or not among the supported, stores English.
        for (const auto &[preferred, supported] :
             {std::pair{QStringList{"ja-JP"}, kShipped}, std::pair{QStringList{"fi-FI"}, QStringList{"en", "de"}}}) {
            store().removeAppLanguageCode();
            LocalString::setOverridesForTesting(machine(preferred, supported));
            QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("en"));
            QCOMPARE(store().appLanguageCode(), QStringLiteral("en"));
        }
        // English has no entry in the native-name table: kept, with the warning as written.
        QCOMPARE(LocalString::appLanguageName(), QStringLiteral("English"));
        QVERIFY(hasRecord(capture, "Manager", OsLog::Level::Error,
                          "WARNING. Missing localization for LanguageName='English''"));
    }

    void deviceLanguageCodeForms()
    {
        const QList<std::pair<QStringList, QString>> forms{
            {{"pt-BR", "en"}, "pt"}, {{"pt_BR"}, "pt"}, {{"zh-Hant-TW"}, "zh"}, {{}, "en"},
            {{"", "de"}, "en"},      {{"C"}, "en"},     {{"POSIX"}, "en"}};
        for (const auto &[preferred, code] : forms) {
            LocalString::setOverridesForTesting(machine(preferred));
            QCOMPARE(LocalString::deviceLanguageCode(), code);
        }
    }

    void chosenLanguageSwitchesTextsAndErrors()
    {
        LogCapture capture;
        LocalString::setAppLanguageCode(QStringLiteral("de"));
        QVERIFY(hasRecord(capture, "Manager", OsLog::Level::Info, "Set AppLanguageCode: 'de'."));
        QCOMPARE(store().appLanguageCode(), QStringLiteral("de"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Disconnect")), QStringLiteral("Trennen"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Quit_software_name")), QStringLiteral("PelorinVPN beenden"));
        QCOMPARE(StringAddition::durationStringFromSeconds(7200), QStringLiteral("2 Stunden 0 Minuten 0 Sekunden"));
        QCOMPARE(ErrorIdentity::errorForMissingKey(QStringLiteral("ovpn")).localizedDescription(),
                 QStringLiteral("Fehlender Schlüssel ('ovpn')"));
        NQErrorOpt error;
        KeychainStore(QStringLiteral("svc"), std::make_shared<FileSecretBackend>(m_dir.filePath(QStringLiteral("s"))))
            .setString(QStringLiteral("v"), QString(), &error);
        QCOMPARE(error->localizedDescription(), QStringLiteral("Der Schlüssel darf nicht leer sein"));

        LocalString::setAppLanguageCode(QStringLiteral("en"));
        // The words agree with the numbers despite the swapped hour keys.
        QCOMPARE(StringAddition::durationStringFromSeconds(3660), QStringLiteral("1 hour 1 minutes 0 seconds"));
        QCOMPARE(StringAddition::durationStringFromSeconds(2 * 86400),
                 QStringLiteral("2 days 48 hours 0 minutes 0 seconds"));
        QCOMPARE(LocalString::forKey(QStringLiteral("No_such_key")), QStringLiteral("No_such_key"));
        QCOMPARE(LocalString::forKey(QStringLiteral("<app_name> & <app_name>")),
                 QStringLiteral("PelorinVPN & PelorinVPN"));
        QCOMPARE(LocalString::forKey(QStringLiteral("ConnectingToTheSecureServerIn")),
                 QStringLiteral("Connecting to the secure server in %@…"));
        // A stored code without a table gives every key back; its name is English.
        LocalString::setAppLanguageCode(QStringLiteral("ja"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Quit_software_name")), QStringLiteral("Quit_software_name"));
        LocalString::setAppLanguageCode(QStringLiteral("xx"));
        QCOMPARE(LocalString::appLanguageName(), QStringLiteral("English"));
    }

    // An English locale shows each language in its own words; any other locale shows its
    // own names as given, the user's own language with a capital.
    void shownNames()
    {
        const QLocale en(QLocale::English, QLocale::UnitedStates), sv(QLocale::Swedish, QLocale::Sweden),
            pt(QLocale::Portuguese, QLocale::Brazil);
        const QList<std::tuple<QLocale, QString, QString>> names{
            {en, "de", "Deutsch"},   {en, "fr", "Français"}, {en, "no", "Norsk"},     {en, "nb", "Norsk"},
            {en, "pt", "Português"}, {en, "ja", "Japanese"}, {en, "xx", ""},          {en, "", ""},
            {sv, "sv", "Svenska"},   {sv, "de", "tyska"},    {pt, "pt", "Português"}, {pt, "fr", "francês"},
            {pt, "xx", ""}};
        for (const auto &[locale, code, name] : names) {
            LocalString::setOverridesForTesting(machine({"en-US"}, kShipped, locale));
            QCOMPARE(LocalString::languageNameForCode(code), name);
        }
        QVERIFY(LanguageNames::numericCompare("Lang 2", "Lang 10") < 0);
        QVERIFY(LanguageNames::numericCompare("Lang 10", "Lang 2") > 0);
        QVERIFY(LanguageNames::numericCompare("Dansk", "Deutsch") < 0);
        QCOMPARE(LanguageNames::numericCompare("x007", "x7"), 0);
        QVERIFY(LanguageNames::numericCompare("Norsk", "Norsk 2") < 0);
        QVERIFY(LanguageNames::numericCompare("99999999999999999999", "100000000000000000000") < 0);
    }

    void languageListRowsAndChoice()
    {
        LogCapture capture;
        LocalString::setOverridesForTesting(machine({"fr-FR"}, QStringList(kShipped) << "xx"));
        const LanguagesTableSource source;
        QVERIFY(hasRecord(capture, "Table", OsLog::Level::Info,
                          "App support 11 languages. Current App language: 'fr' - 'Français'."));
        QCOMPARE(source.numberOfRows(), 11);
        QCOMPARE(source.tableData().value("xx"), QStringLiteral("xx")); // no name: the code serves
        QStringList codes;
        for (int row = 0; row < source.numberOfRows(); ++row) {
            QCOMPARE(source.valueForRow(row), source.tableData().value(source.codeForRow(row)));
            codes << source.codeForRow(row);
        }
        // The map's own order, the same at every launch (no per-process hash seed).
        QCOMPARE(codes, (QStringList{"da", "de", "en", "es", "fi", "fr", "it", "no", "pt", "sv", "xx"}));
        QCOMPARE(source.valueForRow(11), QString());
        QCOMPARE(source.codeForRow(-1), QString());

        QList<QVariantMap> posted;
        int observer = 0;
        EventBus::defaultCenter().addObserver(&observer, Events::LANGUAGE_SELECTED,
                                              [&](const Event &e) { posted << e.userInfo; });
        source.selectRow(1);
        source.selectRow(source.numberOfRows()); // outside the list: nothing
        QCOMPARE(posted, (QList<QVariantMap>{{{"de", "Deutsch"}}}));
        QVERIFY(hasRecord(capture, "Table", OsLog::Level::Info,
                          "Post NT_LANGUAGE_SELECTED with info: { languageName='Deutsch', languageCode='de' }"));
        EventBus::defaultCenter().removeObserver(&observer);
    }
};

QTEST_GUILESS_MAIN(TestLocalString)
#include "tst_localstring.moc"
