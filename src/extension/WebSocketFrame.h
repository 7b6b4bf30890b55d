#pragma once

#include <QByteArray>
#include <QString>

// Server-to-client frame encoding: one unmasked, unfragmented text frame (FIN + opcode 1) with
// a 2-, 4- or 10-byte header depending on the payload length.
namespace WebSocketFrame {

QByteArray webSocketFrameData(const QByteArray &payload);
// The text's UTF-8 bytes, framed.
QByteArray webSocketFrameData(const QString &text);

} // namespace WebSocketFrame
