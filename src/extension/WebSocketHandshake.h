#pragma once

#include <QByteArray>
#include <QString>

// The opening handshake, as a pure function of the bytes of the client's first read.
//
// Only "GET /Quellon/ HTTP/1.1" is served, and the key is taken from the first line that
// splits at ":" into exactly "Sec-WebSocket-Key" and a value (names compared case-sensitively).
// No other header is required or checked, and a request split over two reads is not joined:
// the extension always sends its request in one piece.
namespace WebSocketHandshake {

inline constexpr auto kRequestLine = "GET /Quellon/ HTTP/1.1";
inline constexpr auto kKeyHeader = "Sec-WebSocket-Key";
inline constexpr auto kAcceptGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
inline constexpr auto kInvalidHandshake = "Invalid handshake from client";

struct Result {
    bool ok = false;
    QString response; // the full response text when ok
    QString failure;  // the reason when not
};

Result handshakeResponseForData(const QByteArray &data);
// Base64 of the SHA-1 of key + the protocol's GUID.
QString acceptValueForKey(const QString &key);

} // namespace WebSocketHandshake
