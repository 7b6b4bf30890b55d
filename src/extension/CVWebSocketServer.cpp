#include "extension/CVWebSocketServer.h"

#include "extension/WebSocketFrame.h"
#include "extension/WebSocketFrameDecoder.h"
#include "extension/WebSocketHandshake.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"

#include <algorithm>
#include <future>
#include <mutex>
#include <span>
#include <utility>
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

    // What the delegate hears, in the order the sockets said it. Deliveries wait in one list
    // that a single main-queue task takes whole, so a busy connection costs the main thread
    // one wake-up and one lock per batch rather than per message; the two lists trade places
    // and keep their room, so queueing allocates nothing once warm.
    // Releases a worker waiting on a parse failure once its delivery is gone: delivered,
    // or dropped with the queue.
    struct Handled {
        std::promise<void> promise;
        ~Handled() { promise.set_value(); }
    };
    struct Delivery {
        enum Kind { Text, Accepted, Disconnected, ParseFailure } kind;
        AsyncSocketPtr sock;
        QByteArray data; // the text, or the raw bytes that failed
        std::optional<NQError> error;
        std::shared_ptr<Handled> handled;
    };
    static constexpr int kDeliveriesPerTurn = 256; // then other main-thread work gets a turn
    std::mutex deliveryMutex;
    std::vector<Delivery> incoming; // filled on socket threads
    bool drainScheduled = false;
    std::vector<Delivery> taken; // main thread: the batch being delivered
    std::size_t takenAt = 0;

    // On a pool thread, what one socket callback burst produces is gathered and queued once
    // at the end of its task, so the threads parsing different connections do not meet on
    // the queue's lock for every message.
    struct Gathered {
        std::shared_ptr<Core> core;
        std::vector<Delivery> deliveries;
    };
    static inline thread_local Gathered t_gathered;

    void toMain(Delivery delivery)
    {
        Gathered &gathered = t_gathered;
        if (gathered.core.get() != this) {
            flushGathered();
            if (!WorkerPool::atEndOfTask(&Core::flushGathered))
                return enqueue({&delivery, 1});
            gathered.core = shared_from_this();
        }
        gathered.deliveries.push_back(std::move(delivery));
    }

    static void flushGathered()
    {
        Gathered &gathered = t_gathered;
        if (!gathered.core)
            return;
        const std::shared_ptr<Core> core = std::move(gathered.core);
        core->enqueue(gathered.deliveries);
        gathered.deliveries.clear();
    }

    // Hands deliveries to the main thread under one lock.
    void enqueue(std::span<Delivery> batch)
    {
        {
            std::lock_guard lock(deliveryMutex);
            for (Delivery &d : batch)
                incoming.push_back(std::move(d));
            if (std::exchange(drainScheduled, true))
                return;
        }
        scheduleDrain();
    }

    void scheduleDrain()
    {
        MainQueue::async([weak = weak_from_this()] {
            if (auto core = weak.lock())
                core->drain();
        });
    }

    void drain()
    {
        for (int i = 0; i < kDeliveriesPerTurn; ++i) {
            if (takenAt == taken.size()) {
                taken.clear();
                takenAt = 0;
                std::lock_guard lock(deliveryMutex);
                if (incoming.empty()) {
                    drainScheduled = false;
                    return;
                }
                taken.swap(incoming);
            }
            Delivery &next = taken[takenAt++];
            deliver(next);
            next.handled.reset();
        }
        scheduleDrain();
    }

    void deliver(const Delivery &d)
    {
        if (!server || !delegate)
            return;
        switch (d.kind) {
        case Delivery::Text:
            delegate->webSocketServerDidReceiveData(server, d.data, d.sock);
            break;
        case Delivery::Accepted:
            delegate->webSocketServerDidAcceptConnection(server, d.sock);
            break;
        case Delivery::Disconnected:
            delegate->webSocketServerClientDisconnected(server, d.sock);
            break;
        case Delivery::ParseFailure:
            delegate->webSocketServerCouldNotParseRawData(server, d.data, d.sock, *d.error);
            break;
        }
    }

    // Deliveries never run once the server is gone; destroyed outside the lock, they release
    // any worker waiting on one.
    void dropDeliveries()
    {
        std::vector<Delivery> dropped;
        std::lock_guard lock(deliveryMutex);
        dropped.swap(incoming);
    }

    void socketDidAcceptNewSocket(const AsyncSocketPtr &, const AsyncSocketPtr &newSocket) override
    {
        {
            std::lock_guard lock(mutex);
            connections.push_back(newSocket);
        }
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
            toMain({Delivery::Text, sock, std::move(*step.text), {}, {}});
        if (!step.reply.isEmpty())
            sock->writeData(step.reply, -1.0, ReplyWrite);
        sock->readDataToLength(step.nextLength, -1.0, step.nextTag);
    }

    void socketDidWriteDataWithTag(const AsyncSocketPtr &sock, long tag) override
    {
        if (tag != HandshakeWrite)
            return;
        toMain({Delivery::Accepted, sock, {}, {}, {}});
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
        toMain({Delivery::Disconnected, sock, {}, {}, {}});
    }

    // Hands the failure to the delegate and waits for it, then closes the connection.
    void fail(const AsyncSocketPtr &sock, const QByteArray &raw, const QString &text)
    {
        Delivery failure{Delivery::ParseFailure,
                         sock,
                         raw,
                         NQError(kErrorDomain, 1, {{NQError::kLocalizedDescriptionKey, text}}),
                         {}};
        if (MainQueue::isMainThread()) {
            deliver(failure);
        } else {
            // Released when the delegate has had it, or when it is dropped at shutdown.
            failure.handled = std::make_shared<Handled>();
            std::future<void> finished = failure.handled->promise.get_future();
            toMain(std::move(failure));
            flushGathered(); // with what came before it, and now: this thread waits on it
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
    m_core->dropDeliveries();
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
