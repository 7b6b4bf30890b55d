#include "foundation/DateUtils.h"

#include <QtTest>

#include <ctime>

using namespace DateUtils;

namespace {
QDateTime utc(int y, int mo, int d, int h, int mi, int s, int ms = 0)
{
    return QDateTime(QDate(y, mo, d), QTime(h, mi, s, ms), Qt::UTC);
}
} // namespace

// Runs in Central European time (UTC+1, +2 in summer), so that local and UTC texts differ.
class TestDateUtils : public QObject {
    Q_OBJECT
private slots:
    void initTestCase()
    {
        qputenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
        tzset();
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    }

    void utcFormats()
    {
        const QDateTime winter = utc(2024, 1, 15, 12, 34, 56, 789).toLocalTime();
        QCOMPARE(winter.time().hour(), 13);
        QCOMPARE(stringTesselDatetime(winter), QStringLiteral("2024-01-15 12:34:56.789 GMT"));
        QCOMPARE(iso8061(winter), QStringLiteral("2024-01-15T12:34:56Z"));
        QCOMPARE(iso8061(utc(999, 2, 3, 4, 5, 6)), QStringLiteral("0999-02-03T04:05:06Z"));
    }

    void isoParsing()
    {
        const QDateTime expected = utc(2024, 1, 15, 12, 34, 56);
        QCOMPARE(dateFromIso8061String(QStringLiteral("2024-01-15T12:34:56Z")), expected);
        QCOMPARE(dateFromIso8061String(QStringLiteral("2024-01-15T13:34:56+01:00")), expected);
        QCOMPARE(dateFromIso8061String(QStringLiteral("2024-01-15T07:04:56-0530")), expected);
        QCOMPARE(dateFromIso8061String(QStringLiteral("2024-01-15T12:34:56Z (Coordinated Universal Time)")), expected);
        QCOMPARE(dateFromIso8061String(QStringLiteral("2024-01-15T14:34:56+02:00 (EET) (x)")), expected);
        // A round trip through the formatter.
        QCOMPARE(dateFromIso8061String(iso8061(expected)), expected);

        for (const char *bad : {"", "garbage", "2024-01-15T12:34:56", "2024-01-15 12:34:56Z", "2024-02-30T00:00:00Z",
                                "2024-01-15T24:00:00Z", "2024-01-15T12:34:56Z trailing", "2024-01-15T12:34:56+25:00",
                                " (2024-01-15T12:34:56Z)"})
            QVERIFY2(!dateFromIso8061String(QLatin1String(bad)).isValid(), bad);
    }

    void localFormats()
    {
        const QDateTime winter = utc(2024, 1, 15, 12, 4, 5);
        QCOMPARE(asIdString(winter), QStringLiteral("2024-01-15_13-04-05"));
        QCOMPARE(timeFirstString(winter), QStringLiteral("13:04:05 2024-01-15"));
        QCOMPARE(timeString(winter), QStringLiteral("13:04:05"));
        QCOMPARE(timeStringId(winter), QStringLiteral("13_04_05"));
        // Summer time is two hours ahead.
        QCOMPARE(timeString(utc(2024, 7, 1, 10, 0, 0)), QStringLiteral("12:00:00"));

        // 23:30 UTC is already the next day here.
        const qint64 lateEvening = utc(2024, 1, 15, 23, 30, 0).toSecsSinceEpoch();
        QCOMPARE(localDateStringFromUTCTimestamp(lateEvening), QStringLiteral("2024/01/16"));
        QCOMPARE(NSStringFromTimestamp(lateEvening), QStringLiteral("16/01/24 00:30"));
        QCOMPARE(toString(utc(2024, 12, 31, 22, 59, 0)), QStringLiteral("31/12/24 23:59"));
    }

    void dayNames()
    {
        QCOMPARE(nameOFDay(1), QStringLiteral("Monday"));
        QCOMPARE(nameOFDay(6), QStringLiteral("Saturday"));
        QCOMPARE(nameOFDay(7), QStringLiteral("Sunday"));
        QCOMPARE(nameOFDay(0), QStringLiteral("Monday"));
        QCOMPARE(nameOFDay(8), QStringLiteral("Monday"));
        QCOMPARE(nameOFDay(-1), QStringLiteral("Monday"));
    }

    void todayAndSameDay()
    {
        const QDateTime before = QDateTime::currentDateTime();
        const QDateTime midnight = getCurrentDate();
        const qint64 secondsOfDay = getCurrentSecondsOfDay();
        const QDateTime after = QDateTime::currentDateTime();
        QCOMPARE(midnight.time(), QTime(0, 0));
        QVERIFY(midnight.date() == before.date() || midnight.date() == after.date());
        QVERIFY(secondsOfDay >= 0 && secondsOfDay < 25 * 3600);
        QVERIFY(qAbs(midnight.addSecs(secondsOfDay).secsTo(after)) <= 2);

        const QDateTime stamped = QDateTime::fromSecsSinceEpoch(currentTimestampMidnight());
        QCOMPARE(stamped.time(), QTime(0, 0));
        QCOMPARE(stamped.date(), midnight.date());

        // Different UTC days, the same local day, and the reverse.
        QVERIFY(isSameDayAsDate(utc(2024, 1, 15, 23, 30, 0), utc(2024, 1, 16, 10, 0, 0)));
        QVERIFY(!isSameDayAsDate(utc(2024, 1, 15, 22, 30, 0), utc(2024, 1, 15, 23, 30, 0)));
        QVERIFY(!isSameDayAsDate(QDateTime(), QDateTime()));
    }

    void spansInCalendarUnits()
    {
        QCOMPARE(timeIntervalToYears(2 * 31104000.0 - 1), 1);
        QCOMPARE(timeIntervalToMonths(2592000.0 * 5 + 0.5), 5);
        QCOMPARE(timeIntervalToDays(86399.9), 0);
        QCOMPARE(timeIntervalToDays(-86399.9), 0); // toward zero, not down

        const auto h = convertSecondsToHours(90061);
        QCOMPARE(h.hours, 25);
        QCOMPARE(h.minutes, 1);
        QCOMPARE(h.seconds, 1);

        const auto d29 = convertSecondsToDays(29 * 86400 + 3661);
        QCOMPARE(d29.days, 29);
        QCOMPARE(d29.hours, 1);
        QCOMPARE(d29.minutes, 1);
        QCOMPARE(convertSecondsToDays(30 * 86400 + 3661).days, 0); // wraps at 30 days
    }

    void yearsMonthsDaysAreLoweredTotals_data()
    {
        QTest::addColumn<double>("seconds");
        QTest::addColumn<qint64>("years");
        QTest::addColumn<qint64>("months");
        QTest::addColumn<qint64>("days");
        QTest::newRow("0") << 0.0 << qint64(0) << qint64(0) << qint64(0);
        QTest::newRow("29 days") << 29 * 86400.0 << qint64(0) << qint64(0) << qint64(29);
        QTest::newRow("29 days 23h") << 29 * 86400.0 + 86399 << qint64(0) << qint64(0) << qint64(29);
        QTest::newRow("30 days") << 30 * 86400.0 << qint64(0) << qint64(1) << qint64(29);
        QTest::newRow("359 days") << 359 * 86400.0 << qint64(0) << qint64(11) << qint64(358);
        QTest::newRow("360 days") << 360 * 86400.0 << qint64(1) << qint64(11) << qint64(359);
        QTest::newRow("400 days") << 400 * 86400.0 << qint64(1) << qint64(12) << qint64(399);
    }

    void yearsMonthsDaysAreLoweredTotals()
    {
        QFETCH(double, seconds);
        const YearsMonthsDays span = timeInterval(seconds);
        QTEST(span.years, "years");
        QTEST(span.months, "months");
        QTEST(span.days, "days");
    }
};

QTEST_GUILESS_MAIN(TestDateUtils)
#include "tst_date_utils.moc"
