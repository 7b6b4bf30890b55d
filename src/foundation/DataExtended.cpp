#include "foundation/DataExtended.h"

namespace DataExtended {

QString hexStringWithSeparator(const QByteArray &data, const QString &separator)
{
    QString text;
    text.reserve(data.size() * (2 + separator.size()));
    for (const char byte : data)
        text += QString::asprintf("%02x", static_cast<unsigned char>(byte)) + separator;
    if (!separator.isEmpty() && !text.isEmpty())
        text.chop(separator.size());
    if (text.isNull())
        text = QLatin1String("");
    return text;
}

QString hexString(const QByteArray &data)
{
    return hexStringWithSeparator(data, QString());
}

} // namespace DataExtended
