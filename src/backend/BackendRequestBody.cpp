#include "backend/BackendRequest.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>

#include <cmath>

namespace {

// Mirrors what the platform's JSON writer refuses: a missing value (nil) and non-finite numbers.
bool jsonCompatible(const QVariant &value)
{
    if (!value.isValid())
        return false;
    switch (value.typeId()) {
    case QMetaType::QString:
        return !value.toString().isNull();
    case QMetaType::Double:
    case QMetaType::Float:
        return std::isfinite(value.toDouble());
    case QMetaType::QVariantMap: {
        const QVariantMap map = value.toMap();
        for (const auto &v : map)
            if (!jsonCompatible(v))
                return false;
        return true;
    }
    case QMetaType::QVariantList: {
        const QVariantList list = value.toList();
        for (const auto &v : list)
            if (!jsonCompatible(v))
                return false;
        return true;
    }
    default:
        return !QJsonValue::fromVariant(value).isUndefined();
    }
}

QString valueDescription(const QVariant &value)
{
    if (value.typeId() == QMetaType::Bool)
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    if (value.typeId() == QMetaType::QVariantMap)
        return BackendRequest::dictionaryDescription(value.toMap());
    const QString text = value.toString();
    static const QRegularExpression bare(QStringLiteral("^[A-Za-z0-9_]+$"));
    if (bare.match(text).hasMatch())
        return text;
    QString escaped = text;
    escaped.replace(QLatin1Char('\\'), QLatin1String("\\\\")).replace(QLatin1Char('"'), QLatin1String("\\\""));
    return QLatin1Char('"') + escaped + QLatin1Char('"');
}

} // namespace

std::optional<QByteArray> BackendRequest::serializeJson(const QVariantMap &body)
{
    if (!jsonCompatible(body))
        return std::nullopt;
    return QJsonDocument(QJsonObject::fromVariantMap(body)).toJson(QJsonDocument::Compact);
}

QString BackendRequest::dictionaryDescription(const QVariantMap &map)
{
    // QVariantMap is ordered by key, as the platform's description sorts them.
    QString text = QStringLiteral("{\n");
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        text += QStringLiteral("    %1 = %2;\n").arg(valueDescription(it.key()), valueDescription(it.value()));
    return text + QLatin1Char('}');
}
