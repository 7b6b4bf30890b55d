#pragma once

#include "extension/AsyncSocket.h"

class CVWebSocketServer;

// What the WebSocket server tells its owner. Every callback runs on the main thread.
class CVWebSocketServerDelegate {
public:
    virtual ~CVWebSocketServerDelegate() = default;

    // The handshake response has gone out.
    virtual void webSocketServerDidAcceptConnection(CVWebSocketServer *server, const AsyncSocketPtr &connection) {}
    // A complete text message (unmasked payload bytes).
    virtual void webSocketServerDidReceiveData(CVWebSocketServer *server, const QByteArray &data,
                                               const AsyncSocketPtr &connection)
    {
    }
    virtual void webSocketServerClientDisconnected(CVWebSocketServer *server, const AsyncSocketPtr &connection) {}
    // The handshake or a frame could not be handled; the connection is closed right after.
    // The socket thread waits until this has run.
    virtual void webSocketServerCouldNotParseRawData(CVWebSocketServer *server, const QByteArray &rawData,
                                                     const AsyncSocketPtr &connection, const NQError &error)
    {
    }
};
