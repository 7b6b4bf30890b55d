#include "foundation/ApplicationExtended.h"
#include "foundation/ArrayFiltering.h"
#include "foundation/BundleExtended.h"
#include "foundation/DataExtended.h"
#include "foundation/DateUtils.h"
#include "foundation/DictionaryMerge.h"
#include "foundation/ErrorIdentity.h"
#include "foundation/NQDevice.h"
#include "foundation/StringAddition.h"
#include "platform/linux/LinuxPlatform.h"
#include "support/LogCapture.h"

#include <QTemporaryDir>
#include <QtTest>

#include <ctime>

using namespace DateUtils;
using namespace StringAddition;

namespace {
QDateTime utc(int y, int mo, int d, int h, int mi, int s, int ms = 0)
{
    return QDateTime(QDate(y, mo, d), QTime(h, mi, s, ms), Qt::UTC);
}
} // namespace

// Runs in Central European time (UTC+1, +2 in summer), so that local and UTC texts differ.
class TestValueCategories : public QObject {
    Q_OBJECT
private slots:
    void initTestCase()
    {
        qputenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
        tzset();
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    }
    void cleanup()
    {
        BundleExtended::setInfoDictionaryForTesting(std::nullopt);
        Platform::setInstance(nullptr);
    }

    void digestsAndXor()
    {
        QCOMPARE(sha1(QStringLiteral("\u00e9")), QStringLiteral("bf15be717ac1b080b4f1c456692825891ff5073d"));
        QCOMPARE(sha256(QStringLiteral("abc")),
                 QStringLiteral("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
        // The WebSocket handshake answer for the sample key of the protocol's own documentation.
        QCOMPARE(sha1base64(QStringLiteral("dGhlIHNhbXBsZSBub25jZQ==258EAFA5-E914-47DA-95CA-C5AB0DC85B11")),
                 QStringLiteral("s3pPLMBiTxaQ9kYGzzhZRbK+xOo="));
        QCOMPARE(DataExtended::hexStringWithSeparator(QByteArray("\x00\xab\xff", 3), QStringLiteral(" - ")),
                 QStringLiteral("00 - ab - ff"));
        QVERIFY(!DataExtended::hexString({}).isNull());
        QCOMPARE(xor_(QStringLiteral("hello")), QString::fromLatin1("/\t\x07\x03\""));
        // Byte 34 meets key byte 0 again.
        const QString g = xor_(QString(35, QLatin1Char('G')));
        QCOMPARE(g.at(1).unicode(), 'G' ^ 'l');
        QCOMPARE(g.at(34).unicode(), 0);
        QVERIFY(!xor_(QString()).isNull());
        QVERIFY(xor_(QStringLiteral("\u00e9")).isNull()); // 0xC3 ^ 'G' is a lone continuation byte
    }

    void textChecks()
    {
        const QStringList masks{"", "abc", "*bcd", "*bcde", "abcdef", "*bcdefg", "****efghij"};
        for (const QString &m : masks)
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
        for (const QString &strong : {QStringLiteral("Abcdef1!"), QStringLiteral("\u00c4\u00e4bCde1+")})
            QVERIFY2(isPasswordStrong(strong), qPrintable(strong));
        // No symbol, too short, no upper, no lower, no digit, unlisted symbols, non-ASCII letters.
        for (const QString &weak : {QStringLiteral("Abcdefg1"), QStringLiteral("Ab1!xyz"), QStringLiteral("abcdef1!_"),
                                    QStringLiteral("ABCDEF1!"), QStringLiteral("Abcdefg!?"),
                                    QStringLiteral("Abcdef1_~"), QStringLiteral("\u00c4\u00e4bcde1!")})
            QVERIFY2(!isPasswordStrong(weak), qPrintable(weak));
        const QString text = QStringLiteral("id=42; name=pelorin");
        const QString pattern = QStringLiteral(R"((\w+)=(\w+))");
        QCOMPARE(matchWithRegex(text, pattern), (QStringList{"id=42", "id", "42"}));
        QCOMPARE(matchWithRegex(text, pattern, 2), QStringLiteral("42"));
        QVERIFY(matchWithRegex(text, pattern, 3).isNull());
        QCOMPARE(firstMatchedGroupWithRegex(text, QStringLiteral(R"(name=(\w+))")), QStringLiteral("pelorin"));
        QCOMPARE(firstMatchedResultWithRegex(text, QStringLiteral("name"))->capturedStart(0), 7);
        QCOMPARE(matchWithRegex(QStringLiteral("b"), QStringLiteral("(a)?b")).size(),
                 2); // unmatched group keeps its slot
        for (const QString &bad : {QStringLiteral("nomatch"), QStringLiteral("(")}) {
            QVERIFY(!firstMatchedResultWithRegex(text, bad).has_value());
            QVERIFY(matchWithRegex(text, bad).isEmpty());
        }
    }

    void durationsAndDeviceID()
    {
        QSet<QString> ids;
        for (int i = 0; i < 200; ++i)
            ids.insert(randomDeviceID());
        QCOMPARE(ids.size(), 200);
        QSet<QChar> alphabet;
        for (const QString &id : ids) {
            QVERIFY2(QRegularExpression(QStringLiteral("^[0-9A-Z]{32}MAC2$")).match(id).hasMatch(), qPrintable(id));
            for (const QChar c : id.left(32))
                alphabet.insert(c);
        }
        QCOMPARE(alphabet.size(), 36); // every digit and capital is drawn
        QCOMPARE(secondsToMMHHSS(59), QStringLiteral("0:00:59"));
        QCOMPARE(secondsToMMHHSS(90061), QStringLiteral("25:01:01"));
        // The hour keys are picked the other way round from the day keys.
        const auto key = [](const QString &k) { return k.section('_', -1); };
        QCOMPARE(durationStringFromSeconds(0, key), QLatin1String(""));
        QCOMPARE(durationStringFromSeconds(59, key), QStringLiteral("59 seconds"));
        QCOMPARE(durationStringFromSeconds(3600, key), QStringLiteral("1 hours 0 minutes 0 seconds"));
        QCOMPARE(durationStringFromSeconds(90061, key), QStringLiteral("1 day 25 hour 1 minutes 1 seconds"));
        QCOMPARE(durationStringFromSeconds(2 * 86400 + 5, key), QStringLiteral("2 days 48 hour 0 minutes 5 seconds"));
        // Translated labels go in as they are, placeholders included.
        QCOMPARE(durationStringFromSeconds(61, [](const QString &) { return QStringLiteral("%1"); }),
                 QStringLiteral("1 %1 1 %1"));
    }

    void formatsAndParsing()
    {
        const QDateTime winter = utc(2024, 1, 15, 12, 34, 56, 789).toLocalTime();
        QCOMPARE(stringTesselDatetime(winter), QStringLiteral("2024-01-15 12:34:56.789 GMT"));
        QCOMPARE(iso8061(utc(999, 2, 3, 4, 5, 6)), QStringLiteral("0999-02-03T04:05:06Z"));
        const QDateTime expected = utc(2024, 1, 15, 12, 34, 56);
        for (const char *good : {"2024-01-15T12:34:56Z", "2024-01-15T13:34:56+01:00", "2024-01-15T07:04:56-0530",
                                 "2024-01-15T14:34:56+02:00 (EET) (x)"})
            QCOMPARE(dateFromIso8061String(QLatin1String(good)), expected);
        for (const char *bad :
             {"", "2024-01-15T12:34:56", "2024-01-15 12:34:56Z", "2024-02-30T00:00:00Z", "2024-01-15T24:00:00Z",
              "2024-01-15T12:34:56Z trailing", "2024-01-15T12:34:56+25:00", " (2024-01-15T12:34:56Z)"})
            QVERIFY2(!dateFromIso8061String(QLatin1String(bad)).isValid(), bad);

        const QDateTime local = utc(2024, 1, 15, 12, 4, 5);
        QCOMPARE(asIdString(local), QStringLiteral("2024-01-15_13-04-05"));
        QCOMPARE(timeFirstString(local), QStringLiteral("13:04:05 2024-01-15"));
        QCOMPARE(timeStringId(local), QStringLiteral("13_04_05"));
        QCOMPARE(timeString(utc(2024, 7, 1, 10, 0, 0)), QStringLiteral("12:00:00")); // summer time
        // 23:30 UTC is already the next day here.
        const qint64 lateEvening = utc(2024, 1, 15, 23, 30, 0).toSecsSinceEpoch();
        QCOMPARE(localDateStringFromUTCTimestamp(lateEvening), QStringLiteral("2024/01/16"));
        QCOMPARE(NSStringFromTimestamp(lateEvening), QStringLiteral("16/01/24 00:30"));
        QCOMPARE(toString(utc(2024, 12, 31, 22, 59, 0)), QStringLiteral("31/12/24 23:59"));
        const QStringList days{"Monday", "Monday", "Saturday", "Sunday", "Monday", "Monday"};
        const QList<int> numbers{1, 0, 6, 7, 8, -1};
        for (int i = 0; i < numbers.size(); ++i)
            QCOMPARE(nameOFDay(numbers[i]), days[i]);
    }

    void todayAndSameDay()
    {
        const QDateTime midnight = getCurrentDate();
        const QDateTime now = QDateTime::currentDateTime();
        QCOMPARE(midnight.time(), QTime(0, 0));
        QVERIFY(qAbs(midnight.addSecs(getCurrentSecondsOfDay()).secsTo(now)) <= 2);
        QCOMPARE(QDateTime::fromSecsSinceEpoch(currentTimestampMidnight()), midnight);
        // Different UTC days, the same local day, and the reverse.
        QVERIFY(isSameDayAsDate(utc(2024, 1, 15, 23, 30, 0), utc(2024, 1, 16, 10, 0, 0)));
        QVERIFY(!isSameDayAsDate(utc(2024, 1, 15, 22, 30, 0), utc(2024, 1, 15, 23, 30, 0)));
        QVERIFY(!isSameDayAsDate(QDateTime(), QDateTime()));
    }

    void spansInCalendarUnits()
    {
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
        QCOMPARE(timeInterval(29 * 86400.0 + 86399).days, 29);
    }

    void hexMergeAndFilter()
    {
        const QVariantMap base{{"keep", 1},
                               {"replace", 1},
                               {"nested", QVariantMap{{"x", 1}, {"y", 1}, {"deeper", QVariantMap{{"p", 1}}}}},
                               {"mapBecomesText", QVariantMap{{"k", 1}}}};
        const QVariantMap extension{{"replace", 2},
                                    {"nested", QVariantMap{{"y", 2}, {"deeper", QVariantMap{{"q", 2}}}}},
                                    {"mapBecomesText", "text"}};
        const QVariantMap expected{
            {"keep", 1},
            {"replace", 2},
            {"nested", QVariantMap{{"x", 1}, {"y", 2}, {"deeper", QVariantMap{{"p", 1}, {"q", 2}}}}},
            {"mapBecomesText", "text"}};
        QCOMPARE(DictionaryMerge::dictionaryByExtending(base, extension), expected);
        QCOMPARE(DictionaryMerge::dictionaryByExtendingWithDictionary(base, extension), expected);

        QVariantList objects;
        for (const QVariant &id : {QVariant(1), QVariant(2), QVariant(1), QVariant(), QVariant(), QVariant(2.0),
                                   QVariant(QStringLiteral("1"))})
            objects << QVariantMap{{"id", id}, {"n", objects.size()}};
        QList<int> kept;
        for (const QVariant &o : ArrayFiltering::filterObjectsByKey(objects, QStringLiteral("id")))
            kept << o.toMap().value("n").toInt();
        // First of each value; 2.0 is the same number as 2, the text "1" a value of its own.
        QCOMPARE(kept, (QList<int>{0, 1, 3, 6}));
    }

    void errors()
    {
        QVERIFY(ErrorIdentity::errorWithCode(7, QString()).userInfo().isEmpty());
        QCOMPARE(ErrorIdentity::errorWithCode(7, QLatin1String("")).userInfo(), (QVariantMap{{"kNQErrorMessage", ""}}));
        const NQError missing = ErrorIdentity::errorForMissingKey(QStringLiteral("token"));
        QCOMPARE(missing.domain(), QStringLiteral("com.pelorin.vpn.mac.identity.error"));
        QCOMPARE(missing.code(), -32);
        QCOMPARE(missing.localizedDescription(), QStringLiteral("Missing key ('token')"));
        QCOMPARE(
            ErrorIdentity::localizedDescriptions(ErrorIdentity::errorWithCode(3)),
            (QVariantMap{{NQError::kLocalizedDescriptionKey,
                          QStringLiteral("The operation couldn\u2019t be completed. (com.pelorin.vpn error 3.)")}}));
        const NQError full(QStringLiteral("d"), 1,
                           {{NQError::kLocalizedDescriptionKey, "what"},
                            {NQError::kLocalizedFailureReasonKey, "why"},
                            {NQError::kLocalizedRecoverySuggestionKey, "retry"},
                            {"other", "ignored"}});
        QCOMPARE(ErrorIdentity::localizedDescriptions(full).size(), 3);
        LogCapture capture;
        ErrorIdentity::logObject(full);
        QCOMPARE(capture.lines().size(), 1);
        QVERIFY(capture.lines().first().contains(QStringLiteral("NSLocalizedRecoverySuggestion = \"retry\"")));
    }

    void bundleAndDevice()
    {
        QCOMPARE(ApplicationExtended::appName(), QStringLiteral("PelorinVPN"));
        BundleExtended::setInfoDictionaryForTesting(
            QVariantMap{{BundleExtended::kShortVersionKey, "2.3.1"}, {BundleExtended::kVersionKey, "45"}});
        QCOMPARE(BundleExtended::appVersionString(), QStringLiteral("2.3.1.45"));
        QCOMPARE(ApplicationExtended::appName(), QStringLiteral("<ERROR>='Cannot retrieve app name'"));

        QTemporaryDir dir;
        QFile model(dir.filePath("product_name"));
        QVERIFY(model.open(QIODevice::WriteOnly) && model.write("Pelorin Test Machine\n") > 0);
        model.close();
        Platform::setInstance(
            std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{.dmiProductNameFile = model.fileName()}));
        NQErrorOpt error = ErrorIdentity::errorWithCode(1);
        QCOMPARE(NQDevice::modelIdentifierWithError(&error), QStringLiteral("Pelorin Test Machine"));
        QVERIFY(!error);
        Platform::setInstance(
            std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{.dmiProductNameFile = dir.filePath("missing")}));
        QCOMPARE(NQDevice::modelIdentifierWithError(&error), std::nullopt);
        QVERIFY(error && !error->localizedDescription().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestValueCategories)
#include "tst_value_categories.moc"
