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
    LocalString::Overrides o;
    o.preferredLanguages = preferred;
    o.supportedCodes = supported;
    o.userLocale = locale;
    return o;
}

bool hasRecord(const LogCapture &capture, const QString &subsystem, const QString &category, OsLog::Level level,
               const QString &text)
{
    for (const auto &r : capture.osRecords())
        if (r.subsystem == subsystem && r.category == category && r.level == level && r.text == text)
            return true;
    return false;
}

const QString kManager = QStringLiteral("com.pelorin.vpn.mac.localization");
const QString kTable = QStringLiteral("com.pelorin.vpn.mac.settings.localization");

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

    void swedishDeviceStartsInSwedishAndKeepsIt()
    {
        LogCapture capture;
        LocalString::setOverridesForTesting(machine({"sv-SE", "en-US"}));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("sv"));
        QCOMPARE(store().appLanguageCode(), QStringLiteral("sv"));
        QCOMPARE(LocalString::appLanguageName(), QStringLiteral("Svenska"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Connect")), QStringLiteral("Anslut"));
        QVERIFY(hasRecord(capture, kManager, "Manager", OsLog::Level::Info, "Device languages = 'sv-SE, en-US'"));
        QVERIFY(
            hasRecord(capture, kManager, "Manager", OsLog::Level::Debug, "Use AppLanguageCode from AppConfig ('sv')"));

        // Once stored, the device no longer decides.
        LocalString::setOverridesForTesting(machine({"de-DE"}));
        QCOMPARE(LocalString::deviceLanguageCode(), QStringLiteral("de"));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("sv"));
    }

    void unsupportedDeviceLanguageStoresEnglish()
    {
        LogCapture capture;
        LocalString::setOverridesForTesting(machine({"ja-JP"}));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("en"));
        QCOMPARE(store().appLanguageCode(), QStringLiteral("en"));
        QCOMPARE(LocalString::appLanguageName(), QStringLiteral("English"));
        // English has no entry in the native-name table: kept, with the warning as written.
        QVERIFY(hasRecord(capture, kManager, "Manager", OsLog::Level::Error,
                          "WARNING. Missing localization for LanguageName='English''"));

        // A supported list without the device's language falls back the same way.
        LocalString::setOverridesForTesting(machine({"fi-FI"}, {"en", "de"}));
        store().removeAppLanguageCode();
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("en"));
    }

    void deviceLanguageCodeForms_data()
    {
        QTest::addColumn<QStringList>("preferred");
        QTest::addColumn<QString>("code");
        QTest::newRow("tag with region") << QStringList{"pt-BR", "en"} << "pt";
        QTest::newRow("linux locale name") << QStringList{"pt_BR"} << "pt";
        QTest::newRow("script and region") << QStringList{"zh-Hant-TW"} << "zh";
        QTest::newRow("bare code") << QStringList{"da"} << "da";
        QTest::newRow("no preference") << QStringList{} << "en";
        QTest::newRow("empty first") << QStringList{"", "de"} << "en";
        QTest::newRow("C locale") << QStringList{"C"} << "en";
        QTest::newRow("POSIX locale") << QStringList{"POSIX"} << "en";
    }
    void deviceLanguageCodeForms()
    {
        QFETCH(QStringList, preferred);
        QFETCH(QString, code);
        LocalString::setOverridesForTesting(machine(preferred));
        QCOMPARE(LocalString::deviceLanguageCode(), code);
    }

    void deviceLanguageIsReadOncePerRun()
    {
        LogCapture capture;
        LocalString::setOverridesForTesting(machine({"it-IT"}));
        QCOMPARE(LocalString::deviceLanguageCode(), QStringLiteral("it"));
        QCOMPARE(LocalString::deviceLanguageCode(), QStringLiteral("it"));
        QCOMPARE(capture.osTexts("Manager").filter("Device languages").size(), 1);
    }

    void settingTheCodeLogsStoresAndSwitchesTexts()
    {
        LogCapture capture;
        QCOMPARE(LocalString::forKey(QStringLiteral("Disconnect")), QStringLiteral("Disconnect"));
        LocalString::setAppLanguageCode(QStringLiteral("de"));
        QVERIFY(hasRecord(capture, kManager, "Manager", OsLog::Level::Info, "Set AppLanguageCode: 'de'."));
        QCOMPARE(store().appLanguageCode(), QStringLiteral("de"));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("de"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Disconnect")), QStringLiteral("Trennen"));
        QCOMPARE(LocalString::appLanguageName(), QStringLiteral("Deutsch"));
        LocalString::setAppLanguageCode(QStringLiteral("no"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Disconnect")), QStringLiteral("Koble fra"));
        QCOMPARE(LocalString::appLanguageName(), QStringLiteral("Norsk"));
    }

    void durationsReadNaturallyDespiteTheSwappedHourKeys()
    {
        // The duration text picks the hour keys the other way round from the day keys; the
        // tables carry the texts so that the words still agree with the numbers.
        QCOMPARE(StringAddition::durationStringFromSeconds(7200), QStringLiteral("2 hours 0 minutes 0 seconds"));
        QCOMPARE(StringAddition::durationStringFromSeconds(3660), QStringLiteral("1 hour 1 minutes 0 seconds"));
        QCOMPARE(StringAddition::durationStringFromSeconds(2 * 86400),
                 QStringLiteral("2 days 48 hours 0 minutes 0 seconds"));
        LocalString::setAppLanguageCode(QStringLiteral("de"));
        QCOMPARE(StringAddition::durationStringFromSeconds(7200), QStringLiteral("2 Stunden 0 Minuten 0 Sekunden"));
    }

    void lookupReplacesAppNameAndReturnsMissingKeys()
    {
        LocalString::setAppLanguageCode(QStringLiteral("en"));
        QCOMPARE(LocalString::forKey(QStringLiteral("<app_name>")), QStringLiteral("PelorinVPN"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Quit_software_name")), QStringLiteral("Quit PelorinVPN"));
        QCOMPARE(LocalString::forKey(QStringLiteral("No_such_key")), QStringLiteral("No_such_key"));
        // The replacement also applies to a key that came back as itself, every occurrence.
        QCOMPARE(LocalString::forKey(QStringLiteral("<app_name> & <app_name>")),
                 QStringLiteral("PelorinVPN & PelorinVPN"));
        QCOMPARE(LocalString::forKey(QString()), QString());
        QCOMPARE(LocalString::forKey(QStringLiteral("ConnectingToTheSecureServerIn")).arg(QStringLiteral("Sweden")),
                 QStringLiteral("Connecting to the secure server in %@…").arg(QStringLiteral("Sweden")));

        LocalString::setAppLanguageCode(QStringLiteral("de"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Quit_software_name")), QStringLiteral("PelorinVPN beenden"));

        // A stored code without a table gives every key back rather than failing.
        LocalString::setAppLanguageCode(QStringLiteral("ja"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Connect")), QStringLiteral("Connect"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Quit_software_name")), QStringLiteral("Quit_software_name"));
    }

    // Error texts go through the same lookup: the missing-key error and the keychain store's.
    void errorTextsAreTranslated_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("missingKey");
        QTest::addColumn<QString>("nilKey");
        QTest::newRow("en") << "en"
                            << "Missing key ('ovpn')"
                            << "the key must not to be nil";
        QTest::newRow("de") << "de"
                            << "Fehlender Schlüssel ('ovpn')"
                            << "Der Schlüssel darf nicht leer sein";
        QTest::newRow("fi") << "fi"
                            << "Puuttuva avain ('ovpn')"
                            << "Avain ei saa olla tyhjä";
    }
    void errorTextsAreTranslated()
    {
        QFETCH(QString, code);
        QFETCH(QString, missingKey);
        QFETCH(QString, nilKey);
        LocalString::setAppLanguageCode(code);
        QCOMPARE(ErrorIdentity::errorForMissingKey(QStringLiteral("ovpn")).localizedDescription(), missingKey);
        NQErrorOpt error;
        KeychainStore(QStringLiteral("svc"), std::make_shared<FileSecretBackend>(m_dir.filePath(QStringLiteral("s"))))
            .setString(QStringLiteral("v"), QString(), &error);
        QVERIFY(error);
        QCOMPARE(error->localizedDescription(), nilKey);
    }

    // An English locale shows each language in its own words; any other locale shows its
    // own names as given, the user's own language with a capital.
    void shownNames_data()
    {
        QTest::addColumn<QLocale>("locale");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("name");
        const QLocale en(QLocale::English, QLocale::UnitedStates);
        const QLocale sv(QLocale::Swedish, QLocale::Sweden);
        const QLocale pt(QLocale::Portuguese, QLocale::Brazil);
        const QStringList names{"English", "Deutsch", "Français", "Svenska",  "Suomi",
                                "Español", "Norsk",   "Dansk",    "Italiano", "Português"};
        for (int i = 0; i < kShipped.size(); ++i)
            QTest::newRow(qPrintable(kShipped.at(i))) << en << kShipped.at(i) << names.at(i);
        const auto row = [](const char *tag, const QLocale &locale, const char *code, const char *name) {
            QTest::newRow(tag) << locale << QString::fromUtf8(code) << QString::fromUtf8(name);
        };
        row("nb", en, "nb", "Norsk");
        row("other language as the locale names it", en, "ja", "Japanese");
        row("unknown code", en, "xx", "");
        row("empty code", en, "", "");
        row("sv own", sv, "sv", "Svenska");
        row("sv other", sv, "de", "tyska");
        row("sv english", sv, "en", "engelska");
        row("pt own", pt, "pt", "Português");
        row("pt other", pt, "fr", "francês");
        row("pt unknown code", pt, "xx", "");
    }
    void shownNames()
    {
        QFETCH(QLocale, locale);
        QFETCH(QString, code);
        QFETCH(QString, name);
        LocalString::setOverridesForTesting(machine({"en-US"}, kShipped, locale));
        QCOMPARE(LocalString::languageNameForCode(code), name);
    }

    void unknownStoredCodeIsShownAsEnglish()
    {
        LocalString::setAppLanguageCode(QStringLiteral("xx"));
        QCOMPARE(LocalString::appLanguageName(), QStringLiteral("English"));
    }

    void numericNameOrder()
    {
        using LanguageNames::numericCompare;
        QVERIFY(numericCompare("Lang 2", "Lang 10") < 0);
        QVERIFY(numericCompare("Lang 10", "Lang 2") > 0);
        QVERIFY(numericCompare("Dansk", "Deutsch") < 0);
        QCOMPARE(numericCompare("x007", "x7"), 0);
        QVERIFY(numericCompare("Norsk", "Norsk 2") < 0);
        QVERIFY(numericCompare("99999999999999999999", "100000000000000000000") < 0);
    }

    void listRowsAndCodesStayPaired()
    {
        LogCapture capture;
        LocalString::setOverridesForTesting(machine({"fr-FR"}, QStringList(kShipped) << "xx"));
        const LanguagesTableSource source;
        QVERIFY(hasRecord(capture, kTable, "Table", OsLog::Level::Info,
                          "App support 11 languages. Current App language: 'fr' - 'Français'."));
        QCOMPARE(source.numberOfRows(), 11);
        QCOMPARE(source.tableData().size(), 11);
        QCOMPARE(source.tableData().value("xx"), QStringLiteral("xx")); // no name: the code serves
        QCOMPARE(source.tableData().value("no"), QStringLiteral("Norsk"));
        QStringList codes;
        for (int row = 0; row < source.numberOfRows(); ++row) {
            QCOMPARE(source.valueForRow(row), source.tableData().value(source.codeForRow(row)));
            codes << source.codeForRow(row);
        }
        // Rows follow the map's own order, not the sorted one, and that order is the same at
        // every launch (a per-process hash seed must not reach it).
        QCOMPARE(codes, source.tableData().keys());
        QCOMPARE(codes, (QStringList{"da", "de", "en", "es", "fi", "fr", "it", "no", "pt", "sv", "xx"}));
        QCOMPARE(source.valueForRow(11), QString());
        QCOMPARE(source.codeForRow(-1), QString());
    }

    void choosingGermanPostsOneEntry()
    {
        LogCapture capture;
        const LanguagesTableSource source;
        QList<QVariantMap> posted;
        int observer = 0;
        EventBus::defaultCenter().addObserver(&observer, Events::LANGUAGE_SELECTED,
                                              [&](const Event &e) { posted << e.userInfo; });
        const int germanRow = static_cast<int>(source.tableData().keys().indexOf("de"));
        QVERIFY(germanRow >= 0);
        source.selectRow(germanRow);
        source.selectRow(source.numberOfRows()); // outside the list: nothing
        QCOMPARE(posted.size(), 1);
        QCOMPARE(posted.first(), (QVariantMap{{"de", "Deutsch"}}));
        QVERIFY(hasRecord(capture, kTable, "Table", OsLog::Level::Info,
                          "Post NT_LANGUAGE_SELECTED with info: { languageName='Deutsch', languageCode='de' }"));
        EventBus::defaultCenter().removeObserver(&observer);
    }
};

QTEST_GUILESS_MAIN(TestLocalString)
#include "tst_localstring.moc"
