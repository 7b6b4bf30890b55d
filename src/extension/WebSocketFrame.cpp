#include "extension/WebSocketFrame.h"

namespace WebSocketFrame {

QByteArray webSocketFrameData(const QByteArray &payload)
{
    const quint64 length = static_cast<quint64>(payload.size());
    unsigned char header[10] = {0x81};
    int headerLength;
    if (length < 126) {
        header[1] = static_cast<unsigned char>(length);
        headerLength = 2;
    } else if (length < 65536) {
        header[1] = 126;
        header[2] = static_cast<unsigned char>(length >> 8);
        header[3] = static_cast<unsigned char>(length);
        headerLength = 4;
    } else {
        header[1] = 127;
        for (int i = 0; i < 8; ++i)
            header[2 + i] = static_cast<unsigned char>(length >> (56 - 8 * i));
        headerLength = 10;
    }
    QByteArray frame;
    frame.reserve(headerLength + payload.size());
    frame.append(reinterpret_cast<const char *>(header), headerLength);
    frame.append(payload);
    return frame;
}

QByteArray webSocketFrameData(const QString &text)
{
    return webSocketFrameData(text.toUtf8());
}

} // namespace WebSocketFrame
