#pragma once

#include "extension/CVWebSocketServer.h"
#include "foundation/MainQueue.h"

#include <QList>
#include <QStringList>

// Records the server's delegate callbacks and checks they all arrive on the main thread.
class ServerRecorder : public CVWebSocketServerDelegate {
public:
    int accepted = 0;
    int disconnected = 0;
    QList<QByteArray> messages;
    QList<WebSocketConnection> messageConnections;
    QStringList errors;
    QList<QByteArray> errorData;
    int failedConnectionMessages = -1; // messages from the failing connection before its error
    bool offMainThread = false;
    std::function<void(const QByteArray &)> onMessage;

    void webSocketServerDidAcceptConnection(CVWebSocketServer *, const WebSocketConnection &) override
    {
        check(), ++accepted;
    }
    void webSocketServerDidReceiveData(CVWebSocketServer *, const QByteArray &data,
                                       const WebSocketConnection &c) override
    {
        check(), messages << data, messageConnections << c;
        if (onMessage)
            onMessage(data);
    }
    void webSocketServerClientDisconnected(CVWebSocketServer *, const WebSocketConnection &) override
    {
        check(), ++disconnected;
    }
    void webSocketServerCouldNotParseRawData(CVWebSocketServer *, const QByteArray &raw, const WebSocketConnection &c,
                                             const NQError &error) override
    {
        check();
        failedConnectionMessages = static_cast<int>(messageConnections.count(c));
        const bool ours = error.domain() == QLatin1String(CVWebSocketServer::kErrorDomain) && error.code() == 1;
        errors << (ours ? error.localizedDescription() : "unexpected error " + error.debugDescription());
        errorData << raw;
    }

private:
    void check() { offMainThread = offMainThread || !MainQueue::isMainThread(); }
};
