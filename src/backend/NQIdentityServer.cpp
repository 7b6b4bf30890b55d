#include "backend/NQIdentityServer.h"

#include "backend/BackendAnswers.h"
#include "backend/BackendRequest.h"
#include "foundation/AppConfig.h"

#include <QJsonObject>
#include <QRegularExpression>
#include <QTimeZone>

namespace {

// A string slot as the platform's formatter fills it: a missing value prints "(null)".
QString slot(const QString &value)
{
    return value.isNull() ? QStringLiteral("(null)") : value;
}

BackendRequest::LogLines installEventLines()
{
    BackendRequest::LogLines lines = BackendRequest::LogLines::named(QStringLiteral("install-event"));
    lines.start = QStringLiteral("Request report install-event");
    lines.endpoint = QStringLiteral("Request report install-event. endpointUrl = '%1'. parameters = '%2'");
    return lines;
}

} // namespace

NQIdentityServer &NQIdentityServer::sharedManager()
{
    static NQIdentityServer manager;
    return manager;
}

void NQIdentityServer::labelsettingsForLabelID(const QString &labelID, const QString &deviceId, const QString &key,
                                               int mark, const QString &languageCode, const QString &appVersion,
                                               LabelSettingsCompletion completion)
{
    BackendRequest::Options options;
    options.log = BackendRequest::LogLines::named(QStringLiteral("labelsettings"));
    const QString endpoint = QStringLiteral("%1/api1/Configuration/labelsettings").arg(slot(AppConfig::hostUrl()));
    options.url = QStringLiteral("%1/%2/%3/%4/%5")
                      .arg(endpoint, slot(labelID), slot(languageCode), slot(deviceId), slot(appVersion));
    BackendRequest::send(std::move(options), [completion](const BackendRequest::Result &result) {
        const BackendAnswers::LabelSettings answer = BackendAnswers::labelSettings(result);
        completion(answer.support, answer.linkAfterInstall, answer.linkAfterUninstall, answer.error);
    });
}

void NQIdentityServer::fetchBrowserExtensionConfigForLabelID(const QString &labelID, const QString &browser,
                                                             BrowserConfigCompletion completion)
{
    BackendRequest::Options options;
    options.log = BackendRequest::LogLines::named(QStringLiteral("BrowseConfiguration"));
    const QString endpoint = QStringLiteral("%1/api1/Configuration/extensiondownload").arg(slot(AppConfig::hostUrl()));
    options.url = QStringLiteral("%1/%2/%3").arg(endpoint, slot(labelID), slot(browser));
    BackendRequest::send(std::move(options), [completion](const BackendRequest::Result &result) {
        const BackendAnswers::ExtensionLink answer = BackendAnswers::extensionLink(result);
        completion(answer.success, answer.url, answer.error);
    });
}

void NQIdentityServer::reportAnalyticsEventForLabelID(const QString &labelID, const QString &deviceID,
                                                      const QString &machineID, const QString &languageCode,
                                                      const QString &countryCode, const QString &appVersion, int mark,
                                                      bool isInstall, AnalyticsCompletion completion)
{
    BackendRequest::Options options;
    options.log = installEventLines();
    options.url = QStringLiteral("%1/Configuration/installstats").arg(slot(AppConfig::hostUrl()));
    options.method = "POST";
    options.headers = {{"Content-Type", "application/json"}};
    QVariantMap body{{QStringLiteral("labelId"), labelID},      {QStringLiteral("mac"), deviceID},
                     {QStringLiteral("isoLang"), languageCode}, {QStringLiteral("isInstall"), isInstall},
                     {QStringLiteral("lang"), languageCode},    {QStringLiteral("appVer"), appVersion},
                     {QStringLiteral("machineId"), machineID},  {QStringLiteral("mark"), 0}};
    if (!countryCode.isNull())
        body.insert(QStringLiteral("country"), countryCode);
    options.jsonBody = body;
    BackendRequest::send(std::move(options), [completion](const BackendRequest::Result &result) {
        completion(BackendAnswers::installEventSent(result), result.error);
    });
}

std::optional<QDateTime> NQIdentityServer::dateFromTesselString(const QString &text)
{
    static const QRegularExpression zoned(
        QStringLiteral("^(\\d{4}-\\d{2}-\\d{2}T\\d{2}:\\d{2}:\\d{2})(Z|[+-]\\d{2}:\\d{2}|[+-]\\d{4})$"));
    if (const auto match = zoned.match(text); match.hasMatch()) {
        QDateTime date = QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-ddTHH:mm:ss"));
        if (date.isValid()) {
            const QString zone = match.captured(2);
            int offset = 0;
            int minutes = 0;
            if (zone != QLatin1String("Z")) {
                const QString digits = QString(zone).remove(QLatin1Char(':'));
                minutes = digits.mid(3, 2).toInt();
                offset =
                    (digits.mid(1, 2).toInt() * 3600 + minutes * 60) * (zone.startsWith(QLatin1Char('-')) ? -1 : 1);
            }
            // "+42:00" or "+01:75" names no zone; taken as one it would make an invalid date.
            const QTimeZone timeZone(offset);
            if (!timeZone.isValid() || minutes > 59)
                return std::nullopt;
            date.setTimeZone(timeZone);
            return date;
        }
    }
    static const QRegularExpression plain(QStringLiteral("^\\d{4}-\\d{2}-\\d{2}T(\\d{2}):\\d{2}:\\d{2}$"));
    const auto match = plain.match(text);
    if (!match.hasMatch())
        return std::nullopt;
    QDateTime date = QDateTime::fromString(text, QStringLiteral("yyyy-MM-ddTHH:mm:ss"));
    if (date.isValid())
        return date;
    // The 12-hour form: hours 1 to 12 without a day half, 12 being midnight.
    const int hour = match.captured(1).toInt();
    if (hour < 1 || hour > 12)
        return std::nullopt;
    QString morning = text;
    morning.replace(11, 2, QStringLiteral("%1").arg(hour % 12, 2, 10, QLatin1Char('0')));
    date = QDateTime::fromString(morning, QStringLiteral("yyyy-MM-ddTHH:mm:ss"));
    return date.isValid() ? std::optional<QDateTime>(date) : std::nullopt;
}
