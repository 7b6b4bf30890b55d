#include "foundation/NQError.h"

#include <QStringList>

#include <cstring>

NQError::NQError(QString domain, int code, QVariantMap userInfo)
    : m_domain(std::move(domain)), m_code(code), m_userInfo(std::move(userInfo))
{
}

QString NQError::localizedDescription() const
{
    const QString text = m_userInfo.value(QLatin1String(kLocalizedDescriptionKey)).toString();
    if (!text.isEmpty())
        return text;
    return QStringLiteral("The operation couldn\u2019t be completed. (%1 error %2.)").arg(m_domain).arg(m_code);
}

QString NQError::localizedFailureReason() const
{
    return m_userInfo.value(QLatin1String(kLocalizedFailureReasonKey)).toString();
}

QString NQError::localizedRecoverySuggestion() const
{
    return m_userInfo.value(QLatin1String(kLocalizedRecoverySuggestionKey)).toString();
}

QString NQError::debugDescription() const
{
    QStringList info;
    for (auto it = m_userInfo.cbegin(); it != m_userInfo.cend(); ++it)
        info << QStringLiteral("%1=%2").arg(it.key(), it.value().toString());
    return QStringLiteral("Error Domain=%1 Code=%2 \"%3\" UserInfo={%4}")
        .arg(m_domain)
        .arg(m_code)
        .arg(localizedDescription(), info.join(QStringLiteral(", ")));
}

NQError NQError::posix(int errnoValue)
{
    return NQError(QLatin1String(kPosixDomain), errnoValue,
                   {{QLatin1String(kLocalizedDescriptionKey), QString::fromLocal8Bit(std::strerror(errnoValue))}});
}
