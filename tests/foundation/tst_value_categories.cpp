#include "foundation/AppConfig.h"
#include "foundation/ApplicationExtended.h"
#include "foundation/ArrayFiltering.h"
#include "foundation/BundleExtended.h"
#include "foundation/DataExtended.h"
#include "foundation/DateUtils.h"
#include "foundation/ErrorIdentity.h"
#include "foundation/NQConfig.h"
#include "foundation/NQDevice.h"
#include "foundation/PropertyList.h"
#include "foundation/StringAddition.h"
#include "platform/linux/LinuxPlatform.h"
#include "support/Files.h"

#include <QTemporaryDir>
#include <QtTest>

#include <plist/plist.h>

#include <cstdlib>
#include <ctime>

using namespace DateUtils;
using namespace StringAddition;

namespace {
QDateTime utc(int y, int mo, int d, int h, int mi, int s, int ms = 0)
{
    return QDateTime(QDate(y, mo, d), QTime(h, mi, s, ms), Qt::UTC);
}

// Each value as the function gave it, and as it should be.
using Texts = QList<std::pair<QString, QString>>;
void compareAll(const Texts &texts)
{
    for (const auto &[actual, expected] : texts)
        QCOMPARE(actual, expected);
}

QByteArray xmlPlist(const QByteArray &body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body + "\n</plist>\n";
}

// The same property list in the binary format, written by libplist itself.
QByteArray binaryPlist(const QByteArray &body)
{
    const QByteArray xml = xmlPlist(body);
    plist_t root = nullptr;
    plist_from_xml(xml.constData(), static_cast<uint32_t>(xml.size()), &root);
    char *bin = nullptr;
    uint32_t length = 0;
    if (root)
        plist_to_bin(root, &bin, &length);
    plist_free(root);
    const QByteArray out(bin, static_cast<qsizetype>(length));
    std::free(bin);
    return out;
}

const QByteArray kCommon = R"(<dict>
  <key>Host URL</key><string>http://common.example</string>
  <key>Support Url</key><string>https://common.example/support</string>
  <key>Localizations</key><array><string>en</string><string>de</string></array>
  <key>Nested</key><dict><key>a</key><string>common-a</string><key>b</key><string>common-b</string>
    <key>deeper</key><dict><key>p</key><string>common-p</string></dict></dict>
  <key>Becomes text</key><dict><key>k</key><string>common-k</string></dict>
  <key>EULA Url</key><integer>5</integer>
</dict>)";

const QByteArray kRelease = R"(<dict>
  <key>Host URL</key><string>http://release.example</string>
  <key>Update Url Direct</key><string>http://release.example/pkg</string>
  <key>Nested</key><dict><key>b</key><string>release-b</string>
    <key>deeper</key><dict><key>q</key><string>release-q</string></dict></dict>
  <key>Becomes text</key><string>text</string>
</dict>)";
} // namespace

// Value categories and the configuration files read into them.
// Runs in Central European time (UTC+1, +2 in summer), so that local and UTC texts differ.
class TestValueCategories : public QObject {
    Q_OBJECT
private:
    QTemporaryDir m_dir;
    QString common() const { return m_dir.filePath("CommonConfig.plist"); }
    QString release() const { return m_dir.filePath("ReleaseConfig.plist"); }

private slots:
    void initTestCase()
    {
        qputenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
        tzset();
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    }
    void init()
    {
        QFile::remove(common());
        QFile::remove(release());
        Platform::setInstance(std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{
            .applicationSupportDirectory = m_dir.filePath("support"), .resourcesDirectory = m_dir.path()}));
    }
    void cleanup()
    {
        BundleExtended::setInfoDictionaryForTesting(std::nullopt);
        Platform::setInstance(nullptr);
    }

    void digestsAndXor()
    {
        compareAll({
            {sha1(QStringLiteral("\u00e9")), "bf15be717ac1b080b4f1c456692825891ff5073d"},
            {sha256(QStringLiteral("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
            {DataExtended::hexStringWithSeparator(QByteArray("\x00\xab\xff", 3), QStringLiteral(" - ")),
             "00 - ab - ff"},
            {xor_(QStringLiteral("hello")), QString::fromLatin1("/\t\x07\x03\"")},
        });
        QVERIFY(!DataExtended::hexString({}).isNull());
        // Byte 34 meets key byte 0 again.
        const QString g = xor_(QString(35, QLatin1Char('G')));
        QCOMPARE(g.at(34).unicode(), 0);
        QVERIFY(!xor_(QString()).isNull());
        QVERIFY(xor_(QStringLiteral("\u00e9")).isNull()); // 0xC3 ^ 'G' is a lone continuation byte
    }

    void textChecks()
    {
        for (const QString &m : QStringList{"", "abc", "*bcd", "*bcde", "abcdef", "*bcdefg", "****efghij"})
            QCOMPARE(masked(QStringLiteral("abcdefghij").left(m.size())), m);
        QCOMPARE(stringBetweenString(QStringLiteral("a[bb]c[d]"), "[", "]"), QStringLiteral("bb"));
        QCOMPARE(stringBetweenString2(QStringLiteral("a[b]c"), "[", "]"), QStringLiteral("b"));
        for (const char *none : {"a]b[c", "abc]", "a[bc"})
            QVERIFY2(stringBetweenString(QLatin1String(none), "[", "]").isNull(), none);
        QVERIFY(stringBetweenString(QStringLiteral("ab"), "ab", "b").isNull()); // end only after the start
        QVERIFY(!stringBetweenString(QStringLiteral("x[]y"), "[", "]").isNull());

        for (const char *good : {"a@b.cd", "first last@mail.example.museum"})
            QVERIFY2(stringCorrectEmailFormat(QLatin1String(good)), good);
        for (const char *bad : {"a@b.c", "@b.cd", "a@b.cd1", "a@bcd", ""})
            QVERIFY2(!stringCorrectEmailFormat(QLatin1String(bad)), bad);
        QVERIFY(isPasswordStrong(QStringLiteral("Abcdef1!")));
        QVERIFY(isPasswordStrong(QString::fromUtf8("ÄäbCde1+")));
        // No symbol, too short, no upper, no lower, no digit, unlisted symbols, non-ASCII letters.
        for (const char *weak : {"Abcdefg1", "Ab1!xyz", "abcdef1!_", "ABCDEF1!", "Abcdefg!?", "Abcdef1_~", "Ääbcde1!"})
            QVERIFY2(!isPasswordStrong(QString::fromUtf8(weak)), weak);
        const QString text = QStringLiteral("id=42; name=pelorin");
        const QString pattern = QStringLiteral(R"((\w+)=(\w+))");
        QCOMPARE(matchWithRegex(text, pattern), (QStringList{"id=42", "id", "42"}));
        QCOMPARE(matchWithRegex(text, pattern, 2), QStringLiteral("42"));
        QCOMPARE(firstMatchedGroupWithRegex(text, QStringLiteral(R"(name=(\w+))")), QStringLiteral("pelorin"));
        QVERIFY(matchWithRegex(text, QStringLiteral("nomatch")).isEmpty());
    }

    void durationsSpansAndDeviceID()
    {
        QSet<QChar> alphabet;
        for (int i = 0; i < 200; ++i) {
            const QString id = randomDeviceID();
            QVERIFY2(QRegularExpression(QStringLiteral("^[0-9A-Z]{32}MAC2$")).match(id).hasMatch(), qPrintable(id));
            for (const QChar c : id.left(32))
                alphabet.insert(c);
        }
        QCOMPARE(alphabet.size(), 36); // every digit and capital is drawn
        // The hour keys are picked the other way round from the day keys; translated labels go
        // in as they are, placeholders included.
        const auto key = [](const QString &k) { return k.section('_', -1); };
        compareAll({
            {secondsToMMHHSS(90061), "25:01:01"},
            {durationStringFromSeconds(0, key), ""},
            {durationStringFromSeconds(59, key), "59 seconds"},
            {durationStringFromSeconds(3600, key), "1 hours 0 minutes 0 seconds"},
            {durationStringFromSeconds(90061, key), "1 day 25 hour 1 minutes 1 seconds"},
            {durationStringFromSeconds(2 * 86400 + 5, key), "2 days 48 hour 0 minutes 5 seconds"},
            {durationStringFromSeconds(61, [](const QString &) { return QStringLiteral("%1"); }), "1 %1 1 %1"},
        });
        QCOMPARE(timeIntervalToYears(2 * 31104000.0 - 1), 1);
        QCOMPARE(timeIntervalToMonths(2592000.0 * 5 + 0.5), 5);
        QCOMPARE(timeIntervalToDays(-86399.9), 0); // toward zero, not down
        const auto h = convertSecondsToHours(90061);
        QCOMPARE(QList<qint64>({h.hours, h.minutes, h.seconds}), QList<qint64>({25, 1, 1}));
        const auto d = convertSecondsToDays(29 * 86400 + 3661);
        QCOMPARE(QList<qint64>({d.days, d.hours, d.minutes}), QList<qint64>({29, 1, 1}));
        QCOMPARE(convertSecondsToDays(30 * 86400 + 3661).days, 0); // wraps at 30 days
        // Years, months and days are each a lowered total: {days, years, months, days}.
        const QList<QList<qint64>> totals{
            {29, 0, 0, 29}, {30, 0, 1, 29}, {359, 0, 11, 358}, {360, 1, 11, 359}, {400, 1, 12, 399}};
        for (const auto &t : totals) {
            const YearsMonthsDays span = timeInterval(t[0] * 86400.0);
            QCOMPARE(QList<qint64>({span.years, span.months, span.days}), t.mid(1));
        }
        QCOMPARE(timeInterval(29 * 86400.0 + 86399).months, 0); // whole days only
    }

    void formatsAndParsing()
    {
        // 23:30 UTC is already the next day here; July is summer time.
        const QDateTime local = utc(2024, 1, 15, 12, 4, 5);
        const qint64 lateEvening = utc(2024, 1, 15, 23, 30, 0).toSecsSinceEpoch();
        compareAll({
            {stringTesselDatetime(utc(2024, 1, 15, 12, 34, 56, 789).toLocalTime()), "2024-01-15 12:34:56.789 GMT"},
            {iso8061(utc(999, 2, 3, 4, 5, 6)), "0999-02-03T04:05:06Z"},
            {asIdString(local), "2024-01-15_13-04-05"},
            {timeString(utc(2024, 7, 1, 10, 0, 0)), "12:00:00"},
            {localDateStringFromUTCTimestamp(lateEvening), "2024/01/16"},
            {NSStringFromTimestamp(lateEvening), "16/01/24 00:30"},
        });
        for (const char *good : {"2024-01-15T12:34:56Z", "2024-01-15T13:34:56+01:00", "2024-01-15T07:04:56-0530",
                                 "2024-01-15T14:34:56+02:00 (EET) (x)"})
            QCOMPARE(dateFromIso8061String(QLatin1String(good)), utc(2024, 1, 15, 12, 34, 56));
        for (const char *bad : {"2024-01-15T12:34:56", "2024-01-15 12:34:56Z", "2024-02-30T00:00:00Z",
                                "2024-01-15T24:00:00Z", "2024-01-15T12:34:56Z trailing", "2024-01-15T12:34:56+25:00"})
            QVERIFY2(!dateFromIso8061String(QLatin1String(bad)).isValid(), bad);
        const QList<std::pair<int, QString>> days{{0, "Monday"}, {6, "Saturday"}, {7, "Sunday"}, {8, "Monday"}};
        for (const auto &[number, day] : days)
            QCOMPARE(nameOFDay(number), day);

        const QDateTime midnight = getCurrentDate();
        QCOMPARE(midnight.time(), QTime(0, 0));
        QVERIFY(qAbs(midnight.addSecs(getCurrentSecondsOfDay()).secsTo(QDateTime::currentDateTime())) <= 2);
        QCOMPARE(QDateTime::fromSecsSinceEpoch(currentTimestampMidnight()), midnight);
        // Different UTC days, the same local day.
        QVERIFY(isSameDayAsDate(utc(2024, 1, 15, 23, 30, 0), utc(2024, 1, 16, 10, 0, 0)));
        QVERIFY(!isSameDayAsDate(QDateTime(), QDateTime()));
    }

    // The first object of each value; 2.0 is the same number as 2, the text "1" a value of its own.
    void filterKeepsTheFirstOfEachValue()
    {
        QVariantList objects;
        for (const QVariant &id : {QVariant(1), QVariant(2), QVariant(1), QVariant(), QVariant(), QVariant(2.0),
                                   QVariant(QStringLiteral("1"))})
            objects << QVariantMap{{"id", id}, {"n", objects.size()}};
        QList<int> kept;
        for (const QVariant &o : ArrayFiltering::filterObjectsByKey(objects, QStringLiteral("id")))
            kept << o.toMap().value("n").toInt();
        QCOMPARE(kept, (QList<int>{0, 1, 3, 6}));
    }

    void errorsBundleConfigAndDevice()
    {
        QVERIFY(ErrorIdentity::errorWithCode(7, QString()).userInfo().isEmpty());
        QCOMPARE(ErrorIdentity::errorWithCode(7, QLatin1String("")).userInfo(), (QVariantMap{{"kNQErrorMessage", ""}}));
        const NQError missing = ErrorIdentity::errorForMissingKey(QStringLiteral("token"));
        QCOMPARE(missing.domain(), QStringLiteral("com.pelorin.vpn.mac.identity.error"));
        QCOMPARE(missing.code(), -32);
        QCOMPARE(missing.localizedDescription(), QStringLiteral("Missing key ('token')"));

        QCOMPARE(ApplicationExtended::appName(), QStringLiteral("PelorinVPN"));
        BundleExtended::setInfoDictionaryForTesting(QVariantMap());
        QCOMPARE(ApplicationExtended::appName(), QStringLiteral("<ERROR>='Cannot retrieve app name'"));
        const QList<std::pair<const char *, qint64>> versions{{"2.10", 2},  {"12beta", 12}, {"  7", 7},
                                                              {"-4.2", -4}, {"beta", 0},    {"", 0}};
        for (const auto &[text, number] : versions) {
            BundleExtended::setInfoDictionaryForTesting(QVariantMap{{BundleExtended::kShortVersionKey, text}});
            QCOMPARE(AppConfig::appVersionNumber(), number);
        }
        QCOMPARE(AppConfig::labelID(), QStringLiteral("20014"));
        const NQConfig c = NQConfig::makeDefault();
        QCOMPARE(c.appHttpDefaultTimeout, 60.0);
        QVERIFY(c.identityServiceAPI.startsWith("http"));
        QCOMPARE(c.identityServiceAPI, c.identityServiceHost);

        const QString model = m_dir.filePath("product_name");
        QVERIFY(writeFile(model, "Pelorin Test Machine\n"));
        Platform::setInstance(std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{.dmiProductNameFile = model}));
        NQErrorOpt error = ErrorIdentity::errorWithCode(1);
        QCOMPARE(NQDevice::modelIdentifierWithError(&error), QStringLiteral("Pelorin Test Machine"));
        QVERIFY(!error);
        Platform::setInstance(
            std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{.dmiProductNameFile = m_dir.filePath("missing")}));
        QCOMPARE(NQDevice::modelIdentifierWithError(&error), std::nullopt);
        QVERIFY(error && !error->localizedDescription().isEmpty());
    }

    // Release extends common deeply, in either format, and both are read again on every call.
    void releaseExtendsCommon()
    {
        QVERIFY(writeFile(common(), binaryPlist(kCommon)));
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://common.example"));
        QVERIFY(writeFile(release(), binaryPlist(kRelease)));
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://release.example"));
        QCOMPARE(AppConfig::supportUrl(), QStringLiteral("https://common.example/support"));
        QCOMPARE(AppConfig::updateUrlDirect(), QStringLiteral("http://release.example/pkg"));
        QCOMPARE(AppConfig::appLocalizations(), (QStringList{"en", "de"}));
        const QVariantMap deeper{{"p", "common-p"}, {"q", "release-q"}};
        QCOMPARE(AppConfig::configs().value("Nested").toMap(),
                 (QVariantMap{{"a", "common-a"}, {"b", "release-b"}, {"deeper", deeper}}));
        QCOMPARE(AppConfig::configs().value("Becomes text"), QVariant("text"));
        QVERIFY(AppConfig::privacyPolicyUrl().isNull());
        QVERIFY(AppConfig::eulaUrl().isNull()); // not a string
        // Past the size limit the release file is not read at all.
        QVERIFY(writeFile(release(), xmlPlist(kRelease).append(QByteArray(PropertyList::kMaxFileBytes, ' '))));
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://common.example"));
        QCOMPARE(AppConfig::appDataURL(), m_dir.filePath("support") + "/com.pelorin.vpn.mac");
        QVERIFY(!QFileInfo::exists(m_dir.filePath("support"))); // named, not created
    }

    void valueTypesSurviveBothFormats()
    {
        const QByteArray body = R"(<dict>
  <key>negative</key><integer>-7</integer>
  <key>big</key><integer>4294967296</integer>
  <key>real</key><real>2.5</real>
  <key>yes</key><true/>
  <key>data</key><data>AAH/</data>
  <key>date</key><date>2024-01-15T12:34:56Z</date>
  <key>text</key><string>gr&#252;n &amp; blau</string>
  <key>list</key><array><integer>1</integer><dict/></array>
</dict>)";
        const QVariantMap expected{
            {"negative", qint64(-7)},
            {"big", qint64(4294967296)},
            {"real", 2.5},
            {"yes", true},
            {"data", QByteArray("\x00\x01\xff", 3)},
            {"date", QDateTime(QDate(2024, 1, 15), QTime(12, 34, 56), Qt::UTC)},
            {"text", QStringLiteral("gr\u00fcn & blau")},
            {"list", QVariantList{qint64(1), QVariantMap()}},
        };
        QCOMPARE(PropertyList::dictionaryFromData(xmlPlist(body)), expected);
        QCOMPARE(PropertyList::dictionaryFromData(binaryPlist(body)), expected);

        // libplist's copying getters assert on a NUL in a string or key, which would end the program.
        const QByteArray nul = QByteArray("<dict><key>text</key><string>a") + '\0' + "b</string></dict>";
        QCOMPARE(PropertyList::dictionaryFromData(xmlPlist(nul)).value_or(QVariantMap()),
                 (QVariantMap{{"text", QStringLiteral("a")}}));
        QByteArray binary = binaryPlist("<dict><key>ab</key><string>x</string></dict>");
        // The key's ASCII text of two becomes a UTF-16 text of one: a NUL.
        binary.replace(QByteArray("\x52") + "ab", QByteArray("\x61\0\0", 3));
        QCOMPARE(PropertyList::dictionaryFromData(binary).value_or(QVariantMap()), (QVariantMap{{"", "x"}}));

        // Nesting past the depth limit is cut off, not followed down.
        QVariant deep = PropertyList::dictionaryFromData(
                            xmlPlist("<dict><key>d</key>" + QByteArray("<array>").repeated(200) +
                                     "<string>bottom</string>" + QByteArray("</array>").repeated(200) + "</dict>"))
                            .value_or(QVariantMap())
                            .value("d");
        int levels = 0;
        for (; deep.typeId() == QMetaType::QVariantList && !deep.toList().isEmpty(); ++levels)
            deep = deep.toList().first();
        QVERIFY(levels > 10 && levels < 200);
    }
};

QTEST_GUILESS_MAIN(TestValueCategories)
#include "tst_value_categories.moc"
