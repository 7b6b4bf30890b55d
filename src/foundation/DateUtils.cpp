#include "foundation/DateUtils.h"

#include <QLocale>
#include <QRegularExpression>

#include <cmath>
#include <limits>

// Date patterns use Qt's notation; the texts match what the platform's ICU patterns print:
//  - "SSS" (fraction of a second) is Qt's "zzz", milliseconds truncated.
//  - "ZZZZ" is the localised GMT format; in UTC it prints "GMT" (with an offset it would be
//    "GMT+01:00"), so the UTC-only stamp appends " GMT".
//  - "ZZZZZ" is the ISO 8601 offset, which prints "Z" for a zero offset ("+01:00" otherwise);
//    iso8061() always formats in UTC, so it appends "Z". Parsing accepts "Z" and "+hh:mm",
//    "+hhmm" and "+hh" offsets.
// "en_US_POSIX" is QLocale::c(); the "default" locale is QLocale() made at each call.

namespace {

QString format(const QLocale &locale, const QDateTime &date, const char *pattern)
{
    return locale.toString(date, QLatin1String(pattern));
}

qint64 truncated(double value)
{
    // NaN and values past the integer range have no meaningful count; report 0 / the limit.
    if (std::isnan(value))
        return 0;
    if (value >= 9.2e18)
        return std::numeric_limits<qint64>::max();
    if (value <= -9.2e18)
        return std::numeric_limits<qint64>::min();
    return static_cast<qint64>(value);
}

} // namespace

namespace DateUtils {

QString stringTesselDatetime(const QDateTime &date)
{
    return format(QLocale(), date.toUTC(), "yyyy-MM-dd HH:mm:ss.zzz") + QLatin1String(" GMT");
}

QString iso8061(const QDateTime &date)
{
    return format(QLocale::c(), date.toUTC(), "yyyy-MM-dd'T'HH:mm:ss") + QLatin1Char('Z');
}

QDateTime dateFromIso8061String(const QString &text)
{
    const qsizetype cut = text.indexOf(QLatin1String(" ("));
    const QString stamp = cut >= 0 ? text.left(cut) : text;
    static const QRegularExpression pattern(QStringLiteral(
        R"(^(\d{4})-(\d{1,2})-(\d{1,2})T(\d{1,2}):(\d{1,2}):(\d{1,2})(?:(Z)|([+-])(\d{2})(?::?(\d{2}))?)$)"));
    const QRegularExpressionMatch m = pattern.match(stamp);
    if (!m.hasMatch())
        return {};
    const QDate day(m.captured(1).toInt(), m.captured(2).toInt(), m.captured(3).toInt());
    const QTime time(m.captured(4).toInt(), m.captured(5).toInt(), m.captured(6).toInt());
    if (!day.isValid() || !time.isValid())
        return {};
    int offset = 0;
    if (m.captured(7).isEmpty()) {
        const int hours = m.captured(9).toInt();
        const int minutes = m.captured(10).toInt();
        if (hours > 23 || minutes > 59)
            return {};
        offset = (hours * 3600 + minutes * 60) * (m.captured(8) == QLatin1String("-") ? -1 : 1);
    }
    return QDateTime(day, time, Qt::UTC).addSecs(-offset);
}

QString asIdString(const QDateTime &date)
{
    return format(QLocale::c(), date.toLocalTime(), "yyyy-MM-dd_HH-mm-ss");
}

QString timeFirstString(const QDateTime &date)
{
    return format(QLocale::c(), date.toLocalTime(), "HH:mm:ss yyyy-MM-dd");
}

QString timeString(const QDateTime &date)
{
    return format(QLocale::c(), date.toLocalTime(), "HH:mm:ss");
}

QString timeStringId(const QDateTime &date)
{
    return format(QLocale::c(), date.toLocalTime(), "HH_mm_ss");
}

QString localDateStringFromUTCTimestamp(qint64 seconds)
{
    return format(QLocale::c(), QDateTime::fromSecsSinceEpoch(seconds).toLocalTime(), "yyyy/MM/dd");
}

QString NSStringFromTimestamp(qint64 seconds)
{
    return toString(QDateTime::fromSecsSinceEpoch(seconds));
}

QString toString(const QDateTime &date)
{
    return format(QLocale(), date.toLocalTime(), "dd/MM/yy HH:mm");
}

QString nameOFDay(int day)
{
    static const char *const names[] = {"Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"};
    return QLatin1String(day >= 1 && day <= 7 ? names[day - 1] : names[0]);
}

QDateTime getCurrentDate()
{
    return QDateTime(QDate::currentDate(), QTime(0, 0));
}

qint64 getCurrentSecondsOfDay()
{
    return getCurrentDate().secsTo(QDateTime::currentDateTime());
}

qint64 currentTimestampMidnight()
{
    return getCurrentDate().toSecsSinceEpoch();
}

bool isSameDayAsDate(const QDateTime &date, const QDateTime &other)
{
    return date.isValid() && other.isValid() && date.toLocalTime().date() == other.toLocalTime().date();
}

qint64 timeIntervalToYears(double interval)
{
    return truncated(interval / 31104000);
}

qint64 timeIntervalToMonths(double interval)
{
    return truncated(interval / 2592000);
}

qint64 timeIntervalToDays(double interval)
{
    return truncated(interval / 86400);
}

HoursMinutesSeconds convertSecondsToHours(qint64 seconds)
{
    return {seconds / 3600, (seconds / 60) % 60, seconds % 60};
}

DaysHoursMinutes convertSecondsToDays(qint64 seconds)
{
    return {(seconds % 2592000) / 86400, (seconds % 86400) / 3600, (seconds % 3600) / 60};
}

YearsMonthsDays timeInterval(double interval)
{
    double days = std::floor(interval / 86400);
    const float months = std::floor(static_cast<float>(days) / 30.0f);
    const float years = std::floor(months / 12.0f);
    qint64 monthCount = truncated(months);
    if (days >= 30)
        days -= 1;
    if (monthCount >= 12)
        monthCount -= 1;
    return {truncated(years), monthCount, truncated(days)};
}

} // namespace DateUtils
