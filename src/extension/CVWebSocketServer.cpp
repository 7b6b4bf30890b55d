#include "extension/CVWebSocketServer.h"

#include "extension/WebSocketFrame.h"
#include "extension/WebSocketFrameDecoder.h"
#include "extension/WebSocketHandshake.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"

#include <algorithm>
#include <future>
#include <mutex>
#include <vector>

using namespace WebSocketFrameDecoder;

// The socket delegate. It lives behind a shared pointer so callbacks already queued on the
// worker pool or the main queue find it gone, not dangling, once the server is destroyed.
class CVWebSocketServer::Core : public AsyncSocketDelegate, public std::enable_shared_from_this<Core> {
public:
    // Main thread only.
    CVWebSocketServer *server = nullptr;
    CVWebSocketServerDelegate *delegate = nullptr;

    AsyncSocketPtr listener;
    std::mutex mutex; // guards connections: changed on socket threads, read by send()
    std::vector<AsyncSocketPtr> connections;

    template <typename F> void toMain(F fn)
    {
        MainQueue::async([weak = weak_from_this(), fn = std::move(fn)] {
            if (auto core = weak.lock(); core && core->server && core->delegate)
                fn(*core);
        });
    }

    void socketDidAcceptNewSocket(const AsyncSocketPtr &, const AsyncSocketPtr &newSocket) override
    {
        {
            std::lock_guard lock(mutex);
            connections.push_back(newSocket);
        }
        newSocket->readDataWithTimeout(-1.0, HandshakeRead);
    }

    void socketDidReadData(const AsyncSocketPtr &sock, const QByteArray &data, long tag) override
    {
        if (tag == HandshakeRead) {
            const auto result = WebSocketHandshake::handshakeResponseForData(data);
            if (!result.ok)
                return fail(sock, data, result.failure);
            sock->writeData(result.response.toUtf8(), -1.0, HandshakeWrite);
            return;
        }
        const Step step = readStep(tag, data);
        if (!step.failure.isEmpty())
            return fail(sock, data, step.failure);
        if (step.text)
            toMain([sock, text = *step.text](Core &core) {
                core.delegate->webSocketServerDidReceiveData(core.server, text, sock);
            });
        if (!step.reply.isEmpty())
            sock->writeData(step.reply, -1.0, ReplyWrite);
        sock->readDataToLength(step.nextLength, -1.0, step.nextTag);
    }

    void socketDidWriteDataWithTag(const AsyncSocketPtr &sock, long tag) override
    {
        if (tag != HandshakeWrite)
            return;
        toMain([sock](Core &core) { core.delegate->webSocketServerDidAcceptConnection(core.server, sock); });
        sock->readDataToLength(2, -1.0, HeaderRead);
    }

    void socketDidDisconnect(const AsyncSocketPtr &sock, const NQErrorOpt &) override
    {
        if (sock == listener)
            return;
        {
            std::lock_guard lock(mutex);
            connections.erase(std::remove(connections.begin(), connections.end(), sock), connections.end());
        }
        toMain([sock](Core &core) { core.delegate->webSocketServerClientDisconnected(core.server, sock); });
    }

    // Hands the failure to the delegate and waits for it, then closes the connection.
    void fail(const AsyncSocketPtr &sock, const QByteArray &raw, const QString &text)
    {
        const NQError error(kErrorDomain, 1, {{NQError::kLocalizedDescriptionKey, text}});
        auto report = [weak = weak_from_this(), sock, raw, error] {
            if (auto core = weak.lock(); core && core->server && core->delegate)
                core->delegate->webSocketServerCouldNotParseRawData(core->server, raw, sock, error);
        };
        if (MainQueue::isMainThread()) {
            report();
        } else {
            // Released when the main queue has run the task, or dropped it at shutdown.
            struct Done {
                std::promise<void> promise;
                ~Done() { promise.set_value(); }
            };
            auto done = std::make_shared<Done>();
            std::future<void> finished = done->promise.get_future();
            MainQueue::async([report, done = std::move(done)] { report(); });
            finished.wait();
        }
        sock->disconnect();
    }
};

std::unique_ptr<CVWebSocketServer>
CVWebSocketServer::initWithPort(std::uint16_t port, CVWebSocketServerDelegate *delegate, NQErrorOpt *error)
{
    std::unique_ptr<CVWebSocketServer> server(new CVWebSocketServer);
    auto core = std::make_shared<Core>();
    core->server = server.get();
    core->delegate = delegate;
    core->listener = AsyncSocket::create(core, WorkerPool::globalDefault());
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
    m_core->listener->disconnect();
    std::vector<AsyncSocketPtr> connections;
    {
        std::lock_guard lock(m_core->mutex);
        connections.swap(m_core->connections);
    }
    for (const auto &connection : connections)
        connection->disconnect();
}

void CVWebSocketServer::send(const QString &text)
{
    std::vector<AsyncSocketPtr> connections;
    {
        std::lock_guard lock(m_core->mutex);
        connections = m_core->connections;
    }
    if (connections.empty())
        return;
    const QByteArray frame = WebSocketFrame::webSocketFrameData(text);
    for (const auto &connection : connections)
        connection->writeData(frame, -1.0, FrameWrite);
}

int CVWebSocketServer::clientCount() const
{
    std::lock_guard lock(m_core->mutex);
    return static_cast<int>(m_core->connections.size());
}

void CVWebSocketServer::writeWebSocketFrame(const AsyncSocketPtr &connection, const QString &text)
{
    connection->writeData(WebSocketFrame::webSocketFrameData(text), -1.0, FrameWrite);
}
