#include "extension/WebSocketHandshake.h"

#include "foundation/StringAddition.h"

#include <QStringList>

namespace WebSocketHandshake {

QString acceptValueForKey(const QString &key)
{
    return StringAddition::sha1base64(key + QString::fromLatin1(kAcceptGuid));
}

Result handshakeResponseForData(const QByteArray &data)
{
    const QStringList lines = QString::fromUtf8(data).split(QStringLiteral("\r\n"));
    if (lines.first() != QLatin1String(kRequestLine))
        return {false, {}, QString::fromLatin1(kInvalidHandshake)};
    QString key;
    bool found = false;
    for (const QString &line : lines) {
        const QStringList parts = line.split(QLatin1Char(':'));
        if (parts.size() == 2 && parts[0] == QLatin1String(kKeyHeader)) {
            key = parts[1].trimmed();
            found = true;
            break;
        }
    }
    if (!found)
        return {false, {}, QString::fromLatin1(kInvalidHandshake)};
    return {true,
            QStringLiteral("HTTP/1.1 101 Web Socket Protocol Handshake\r\nUpgrade: websocket\r\nConnection: "
                           "Upgrade\r\nSec-WebSocket-Accept: %1\r\n\r\n")
                .arg(acceptValueForKey(key)),
            {}};
}

} // namespace WebSocketHandshake
