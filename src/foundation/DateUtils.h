#pragma once

#include <QDateTime>
#include <QString>

// Dates as text and time spans as calendar units. Every text operation builds its formatter
// afresh; nothing is cached, so a change of time zone or locale shows at the next call.
// "Local" is the system time zone, "default locale" is QLocale().
namespace DateUtils {

// "yyyy-MM-dd HH:mm:ss.SSS GMT" in UTC, default locale.
QString stringTesselDatetime(const QDateTime &date);
// "yyyy-MM-ddTHH:mm:ssZ" in UTC, POSIX locale.
QString iso8061(const QDateTime &date);
// Parses the iso8061() form; text from the first " (" on is ignored. An invalid QDateTime
// (in UTC) for text that does not parse.
QDateTime dateFromIso8061String(const QString &text);
// Local time, POSIX locale: "yyyy-MM-dd_HH-mm-ss" (file names), "HH:mm:ss yyyy-MM-dd",
// "HH:mm:ss", "HH_mm_ss".
QString asIdString(const QDateTime &date);
QString timeFirstString(const QDateTime &date);
QString timeString(const QDateTime &date);
QString timeStringId(const QDateTime &date);
// "yyyy/MM/dd" of a Unix time in seconds, local time, POSIX locale.
QString localDateStringFromUTCTimestamp(qint64 seconds);
// "dd/MM/yy HH:mm" of a Unix time in seconds / of a date; local time, default locale.
QString NSStringFromTimestamp(qint64 seconds);
QString toString(const QDateTime &date);

// 1 "Monday" ... 7 "Sunday"; any other number "Monday".
QString nameOFDay(int day);
// Today at 00:00:00 local time.
QDateTime getCurrentDate();
// Whole seconds from today's local midnight to now.
qint64 getCurrentSecondsOfDay();
// Unix time of today's local midnight.
qint64 currentTimestampMidnight();
// Whether both dates fall on the same local calendar day.
bool isSameDayAsDate(const QDateTime &date, const QDateTime &other);

// Seconds in 360-day years, 30-day months and days, truncated toward zero.
qint64 timeIntervalToYears(double interval);
qint64 timeIntervalToMonths(double interval);
qint64 timeIntervalToDays(double interval);

struct HoursMinutesSeconds {
    qint64 hours;   // not reduced
    qint64 minutes; // 0-59
    qint64 seconds; // 0-59
};
struct DaysHoursMinutes {
    qint64 days; // wraps every 30 days
    qint64 hours;
    qint64 minutes;
};
// The two split-ups of a number of seconds; their out-parameter forms share one name on the
// original platform, here they are told apart by the unit they start with.
HoursMinutesSeconds convertSecondsToHours(qint64 seconds);
DaysHoursMinutes convertSecondsToDays(qint64 seconds);

struct YearsMonthsDays {
    qint64 years;
    qint64 months; // total months, less one from 12 on
    qint64 days;   // total days, less one from 30 on
};
// Totals, not remainders, each lowered by one past its first unit: 400 days give 1 year,
// 12 months, 399 days. Months and years are computed in single precision.
YearsMonthsDays timeInterval(double interval);

} // namespace DateUtils
