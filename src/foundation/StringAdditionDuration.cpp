// The duration text of StringAddition, kept apart because it is the one operation that needs
// translated labels.
#include "foundation/StringAddition.h"

#include "foundation/LocalString.h"

namespace StringAddition {

QString durationStringFromSeconds(qint64 seconds, const std::function<QString(const QString &)> &label)
{
    const qint64 days = seconds / 86400;
    const qint64 hours = seconds / 3600; // the total, not reduced by the days
    const qint64 minutes = (seconds / 60) % 60;
    const qint64 secs = seconds % 60;
    if (days == 0 && hours == 0 && minutes == 0 && secs == 0)
        return QLatin1String("");

    const auto n = [](qint64 value) { return QString::number(value); };
    const QString dayLabel = label(days > 1 ? QStringLiteral("ManageUpdates_UpdateGui_days")
                                            : QStringLiteral("ManageUpdates_UpdateGui_day"));
    // The hour keys are used the other way round from the day keys; translations rely on it.
    const QString hourLabel = label(hours > 1 ? QStringLiteral("ManageUpdates_UpdateGui_hour")
                                              : QStringLiteral("ManageUpdates_UpdateGui_hours"));
    const QString minuteLabel = label(QStringLiteral("ManageUpdates_UpdateGui_minutes"));
    const QString secondLabel = label(QStringLiteral("seconds"));

    if (days >= 1)
        return QStringLiteral("%1 %2 %3 %4 %5 %6 %7 %8")
            .arg(n(days), dayLabel, n(hours), hourLabel, n(minutes), minuteLabel, n(secs), secondLabel);
    if (hours == 0) {
        if (minutes == 0)
            return QStringLiteral("%1 %2").arg(n(secs), secondLabel);
        return QStringLiteral("%1 %2 %3 %4").arg(n(minutes), minuteLabel, n(secs), secondLabel);
    }
    return QStringLiteral("%1 %2 %3 %4 %5 %6").arg(n(hours), hourLabel, n(minutes), minuteLabel, n(secs), secondLabel);
}

QString durationStringFromSeconds(qint64 seconds)
{
    return durationStringFromSeconds(seconds, [](const QString &key) { return LocalString::forKey(key); });
}

} // namespace StringAddition
