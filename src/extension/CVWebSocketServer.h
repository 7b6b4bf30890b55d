#pragma once

#include "extension/CVWebSocketServerDelegate.h"

#include <QString>

#include <cstdint>
#include <memory>

// A minimal WebSocket server for the browser extension: text frames only, handshake on the
// fixed resource "/Quellon/", ping and close answered by the server itself, and one text
// message sent to every connected client at once.
//
// Create, use and destroy it on the main thread; the delegate is not owned and must outlive
// the server (callbacks still queued when the server goes are dropped). Its sockets live on
// the socket loop's thread, which parses what arrives and hands the main thread each
// wake-up's events in one batch; the main thread reaches a connection by its id alone.
class CVWebSocketServer {
public:
    static constexpr auto kErrorDomain = "com.corvane.webSocketServer";
    // Unread bytes held per connection. The protocol sets no frame limit, so this caps what
    // is buffered, never what a header declares: the extension's largest messages (whitelist,
    // statistics) stay far below it.
    static constexpr std::int64_t kMaxBufferedBytesPerConnection = 16 * 1024 * 1024;

    // Listens on `port` (0: any free port); nullptr after logging when listening fails, with
    // the error in `error` when given.
    static std::unique_ptr<CVWebSocketServer> initWithPort(std::uint16_t port, CVWebSocketServerDelegate *delegate,
                                                           NQErrorOpt *error = nullptr);
    ~CVWebSocketServer();
    CVWebSocketServer(const CVWebSocketServer &) = delete;
    CVWebSocketServer &operator=(const CVWebSocketServer &) = delete;

    // The listening port (the one the system chose when 0 was asked for).
    std::uint16_t port() const { return m_port; }
    // Frames `text` and writes it to every connection past its handshake.
    void send(const QString &text);
    // Accepted connections, those still in their handshake included.
    int clientCount() const;
    // Writes one text frame to `connection` only, if it is still there.
    void writeWebSocketFrame(const WebSocketConnection &connection, const QString &text);

    class Core;

private:
    CVWebSocketServer() = default;
    std::shared_ptr<Core> m_core;
    std::uint16_t m_port = 0;
};
