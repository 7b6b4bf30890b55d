#include "extension/CVWebSocketServer.h"

#include "extension/AsyncSocket.h"
#include "extension/SocketLoop.h"
#include "extension/WebSocketFrame.h"
#include "extension/WebSocketFrameDecoder.h"
#include "extension/WebSocketHandshake.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"

#include <atomic>
#include <map>
#include <utility>
#include <vector>

using namespace WebSocketFrameDecoder;

// The sockets' delegate, living on the socket loop's thread. It sits behind a shared pointer
// so a batch already queued on the main thread finds it gone, not dangling.
class CVWebSocketServer::Core : public AsyncSocketDelegate, public std::enable_shared_from_this<Core> {
public:
    // Main thread only.
    CVWebSocketServer *server = nullptr;
    CVWebSocketServerDelegate *delegate = nullptr;

    std::atomic<int> count{0}; // written on the loop thread, read by clientCount()

    // Loop thread only.
    struct Client {
        AsyncSocketPtr socket;
        bool open = false; // its handshake response has gone out
        QString failure;   // why the server let it go
    };
    AsyncSocketPtr listener;
    std::map<std::uint64_t, Client> clients; // by id, which is accept order
    // What the main thread hears. A text names its connection by id alone, so no string is
    // shared between the threads per message; the other kinds carry the peer.
    struct Event {
        enum Kind { Accepted, Text, Disconnected, ParseFailure } kind;
        std::uint64_t id;
        QByteArray data; // the text, or the raw bytes that failed
        QString text;    // the failure, or why the connection ended
        QString peer;
    };
    // Events handed over at the end of a wake-up, or sooner past this many, so a flood from
    // many clients makes several modest batches rather than one huge one.
    static constexpr std::size_t kEventsPerBatch = 1024;
    std::vector<Event> batch;

    // Main thread only: the connections the delegate has been told of.
    std::map<std::uint64_t, WebSocketConnection> known;

    void toMain(Event event)
    {
        if (batch.empty())
            SocketLoop::shared().post([self = shared_from_this()] { self->flush(); });
        batch.push_back(std::move(event));
        if (batch.size() == kEventsPerBatch)
            flush();
    }

    void flush()
    {
        if (batch.empty())
            return;
        const bool full = batch.size() == kEventsPerBatch;
        MainQueue::async([weak = weak_from_this(), events = std::exchange(batch, {})] {
            if (const auto core = weak.lock())
                core->deliver(events);
        });
        if (full) // more of the flood is on its way
            batch.reserve(kEventsPerBatch);
    }

    void deliver(const std::vector<Event> &events)
    {
        for (const Event &e : events) {
            if (!server || !delegate) // gone, or going, meanwhile
                return;
            if (e.kind == Event::Text) {
                delegate->webSocketServerDidReceiveData(server, e.data, known[e.id]);
                continue;
            }
            const WebSocketConnection connection{e.id, e.peer};
            switch (e.kind) {
            case Event::Accepted:
                known.emplace(e.id, connection);
                delegate->webSocketServerDidAcceptConnection(server, connection);
                break;
            case Event::Disconnected:
                known.erase(e.id);
                OsLog("CVWebSocketServer").info(QStringLiteral("Connection %1 closed: %2").arg(e.peer, e.text));
                delegate->webSocketServerClientDisconnected(server, connection);
                break;
            default:
                delegate->webSocketServerCouldNotParseRawData(
                    server, e.data, connection,
                    NQError(kErrorDomain, 1, {{NQError::kLocalizedDescriptionKey, e.text}}));
                break;
            }
        }
    }

    void socketDidAcceptNewSocket(const AsyncSocketPtr &, const AsyncSocketPtr &newSocket) override
    {
        clients.emplace(newSocket->connectionId(), Client{newSocket, false, {}});
        ++count;
        newSocket->readDataWithTimeout(-1.0, HandshakeRead);
    }

    void socketDidReadData(const AsyncSocketPtr &sock, QByteArray data, long tag) override
    {
        if (tag == HandshakeRead) {
            const auto result = WebSocketHandshake::handshakeResponseForData(data);
            if (!result.ok)
                return fail(sock, data, result.failure);
            sock->writeData(result.response.toUtf8(), -1.0, HandshakeWrite);
            return;
        }
        Step step = readStep(tag, std::move(data));
        if (!step.failure.isEmpty())
            return fail(sock, step.rejected, step.failure);
        if (step.text)
            toMain({Event::Text, sock->connectionId(), std::move(*step.text), {}, {}});
        if (!step.reply.isEmpty())
            sock->writeData(step.reply, -1.0, ReplyWrite);
        sock->readDataToLength(step.nextLength, -1.0, step.nextTag);
    }

    void socketDidWriteDataWithTag(const AsyncSocketPtr &sock, long tag) override
    {
        if (tag != HandshakeWrite)
            return;
        clients[sock->connectionId()].open = true;
        toMain({Event::Accepted, sock->connectionId(), {}, {}, sock->description()});
        sock->readDataToLength(2, -1.0, HeaderRead);
    }

    void socketDidDisconnect(const AsyncSocketPtr &sock, const NQErrorOpt &error) override
    {
        const auto it = clients.find(sock->connectionId());
        if (it == clients.end())
            return; // the listener, or the server is closing
        const QString reason = !it->second.failure.isEmpty() ? QStringLiteral("protocol error: ") + it->second.failure
                               : error                       ? error->localizedDescription()
                                                             : QStringLiteral("closed by the server");
        clients.erase(it);
        --count;
        toMain({Event::Disconnected, sock->connectionId(), {}, reason, sock->description()});
    }

    // The delegate hears of the failure after every message the connection sent before it;
    // then the connection closes.
    void fail(const AsyncSocketPtr &sock, const QByteArray &raw, const QString &text)
    {
        clients[sock->connectionId()].failure = text;
        toMain({Event::ParseFailure, sock->connectionId(), raw, text, sock->description()});
        sock->disconnect();
    }

    void write(Client &client, const QByteArray &frame)
    {
        if (client.open)
            client.socket->writeData(frame, -1.0, FrameWrite);
    }
};

std::unique_ptr<CVWebSocketServer>
CVWebSocketServer::initWithPort(std::uint16_t port, CVWebSocketServerDelegate *delegate, NQErrorOpt *error)
{
    std::unique_ptr<CVWebSocketServer> server(new CVWebSocketServer);
    auto core = std::make_shared<Core>();
    core->server = server.get();
    core->delegate = delegate;
    core->listener = std::make_shared<AsyncSocket>(core, &SocketLoop::shared());
    core->listener->setMaxBufferedBytes(kMaxBufferedBytesPerConnection);
    NQErrorOpt failure;
    if (!core->listener->acceptOnPort(port, &failure)) {
        NQLog::line(QStringLiteral("CVWebSockerServer failed to initialize: %1").arg(failure->debugDescription()));
        if (error)
            *error = failure;
        return nullptr;
    }
    server->m_port = core->listener->localPort();
    server->m_core = std::move(core);
    return server;
}

CVWebSocketServer::~CVWebSocketServer()
{
    if (!m_core)
        return;
    m_core->server = nullptr;
    m_core->delegate = nullptr;
    // The listener goes with the core, on this thread, which made it.
    SocketLoop::shared().call([core = m_core.get()] {
        const auto clients = std::exchange(core->clients, {});
        for (const auto &[id, client] : clients)
            client.socket->disconnect();
        core->listener->disconnect();
    });
}

void CVWebSocketServer::send(const QString &text)
{
    if (m_core->count == 0)
        return;
    SocketLoop::shared().post([core = m_core, frame = WebSocketFrame::webSocketFrameData(text)] {
        for (auto &[id, client] : core->clients)
            core->write(client, frame);
    });
}

int CVWebSocketServer::clientCount() const
{
    return m_core->count;
}

void CVWebSocketServer::writeWebSocketFrame(const WebSocketConnection &connection, const QString &text)
{
    SocketLoop::shared().post([core = m_core, id = connection.id, frame = WebSocketFrame::webSocketFrameData(text)] {
        if (const auto it = core->clients.find(id); it != core->clients.end())
            core->write(it->second, frame);
    });
}
