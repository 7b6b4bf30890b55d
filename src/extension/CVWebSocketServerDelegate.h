#pragma once

#include "foundation/NQError.h"

#include <QByteArray>
#include <QString>

#include <cstdint>

class CVWebSocketServer;

// A connection as the main thread knows it: an id, the only way back to its socket (through
// the server), and the peer's address for logs.
struct WebSocketConnection {
    std::uint64_t id = 0;
    QString peer;
    QString description() const { return peer; }
    bool operator==(const WebSocketConnection &other) const { return id == other.id; }
};

// What the WebSocket server tells its owner. Every callback runs on the main thread, in the
// order things happened on each connection.
class CVWebSocketServerDelegate {
public:
    virtual ~CVWebSocketServerDelegate() = default;

    // The handshake response has gone out.
    virtual void webSocketServerDidAcceptConnection(CVWebSocketServer *server, const WebSocketConnection &connection) {}
    // A complete text message (unmasked payload bytes).
    virtual void webSocketServerDidReceiveData(CVWebSocketServer *server, const QByteArray &data,
                                               const WebSocketConnection &connection)
    {
    }
    virtual void webSocketServerClientDisconnected(CVWebSocketServer *server, const WebSocketConnection &connection) {}
    // The handshake or a frame could not be handled; the connection is closed right after,
    // after every message it sent before.
    virtual void webSocketServerCouldNotParseRawData(CVWebSocketServer *server, const QByteArray &rawData,
                                                     const WebSocketConnection &connection, const NQError &error)
    {
    }
};
