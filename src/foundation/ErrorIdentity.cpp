#include "foundation/ErrorIdentity.h"

#include "foundation/LocalString.h"
#include "foundation/Log.h"

#include <QStringList>

namespace ErrorIdentity {

NQError errorWithCode(int code)
{
    return NQError(QLatin1String(kApplicationErrorDomain), code);
}

NQError errorWithCode(int code, const QString &message)
{
    QVariantMap info;
    if (!message.isNull())
        info.insert(QLatin1String(kMessageKey), message);
    return NQError(QLatin1String(kApplicationErrorDomain), code, info);
}

NQError errorForMissingKey(const QString &key)
{
    const QString description =
        QStringLiteral("%1 ('%2')").arg(LocalString::forKey(QStringLiteral("Missing key")), key);
    return NQError(QLatin1String(kBackendErrorDomain), kMissingKeyCode,
                   {{QLatin1String(NQError::kLocalizedDescriptionKey), description}});
}

NQError errorForMissingKey(const QString &key, const QList<NQError> &underlyingErrors)
{
    Q_UNUSED(underlyingErrors)
    return errorForMissingKey(key);
}

QVariantMap localizedDescriptions(const NQError &error)
{
    QVariantMap descriptions;
    descriptions.insert(QLatin1String(NQError::kLocalizedDescriptionKey), error.localizedDescription());
    const QString reason = error.localizedFailureReason();
    if (!reason.isEmpty())
        descriptions.insert(QLatin1String(NQError::kLocalizedFailureReasonKey), reason);
    const QString suggestion = error.localizedRecoverySuggestion();
    if (!suggestion.isEmpty())
        descriptions.insert(QLatin1String(NQError::kLocalizedRecoverySuggestionKey), suggestion);
    return descriptions;
}

void logObject(const NQError &error)
{
    const QVariantMap descriptions = localizedDescriptions(error);
    QStringList parts;
    for (auto it = descriptions.cbegin(); it != descriptions.cend(); ++it)
        parts << QStringLiteral("%1 = \"%2\"").arg(it.key(), it.value().toString());
    NQLog::line(QStringLiteral("|NQError| %1 {%2}").arg(error.debugDescription(), parts.join(QStringLiteral("; "))));
}

} // namespace ErrorIdentity
