#include "vpn/UdpLatencyProbe.h"

#include "foundation/MainQueue.h"
#include "vpn/OpenVpnPing.h"

#include <QElapsedTimer>
#include <QNetworkDatagram>
#include <QNetworkProxy>
#include <QQueue>
#include <QRandomGenerator>
#include <QTimer>
#include <QUdpSocket>

#include <memory>

// Lives on the probe's thread; everything below runs there.
class UdpLatencyProbe::Worker : public QObject {
public:
    Worker(quint16 port, int timeoutMs) : m_port(port), m_timeoutMs(timeoutMs) {}

    void enqueue(const QStringList &addresses, const std::shared_ptr<Each> &each)
    {
        for (const QString &address : addresses)
            m_queue.enqueue({address, each});
        startNext();
    }

private:
    struct Pending {
        QString address;
        std::shared_ptr<Each> each;
    };

    void startNext()
    {
        while (m_active < kMaxParallelProbes && !m_queue.isEmpty())
            start(m_queue.dequeue());
    }

    void start(const Pending &pending)
    {
        ++m_active;
        auto *socket = new QUdpSocket(this);
        // The tunnel goes straight to the server, so does its probe; this also keeps the
        // probe out of the system proxy lookup, which is not safe beside another thread's.
        socket->setProxy(QNetworkProxy::NoProxy);
        auto *timeout = new QTimer(socket);
        auto sent = std::make_shared<QElapsedTimer>();
        const quint64 session = QRandomGenerator::system()->generate64();
        auto finish = [this, socket, pending, done = std::make_shared<bool>(false)](Result result) {
            if (*done)
                return;
            *done = true;
            socket->disconnect(this);
            socket->deleteLater();
            --m_active;
            MainQueue::async([pending, result] { (*pending.each)(pending.address, result); });
            startNext();
        };
        QObject::connect(socket, &QUdpSocket::connected, this, [socket, sent, session] {
            sent->start();
            socket->write(OpenVpnPing::request(session));
        });
        QObject::connect(socket, &QUdpSocket::readyRead, this, [socket, sent, session, finish] {
            // Woken with nothing to read, the socket held an ICMP error (port or host
            // unreachable), which Qt reads away without reporting it.
            if (!socket->hasPendingDatagrams() && !socket->receiveDatagram().isValid())
                return finish(std::nullopt);
            while (socket->hasPendingDatagrams()) {
                if (OpenVpnPing::isReply(socket->receiveDatagram().data(), session)) {
                    // Whole milliseconds, rounded up: a reply under a millisecond reads 1 ms.
                    constexpr qint64 kNsPerMs = 1000000;
                    return finish(int((sent->nsecsElapsed() + kNsPerMs - 1) / kNsPerMs));
                }
            }
        });
        QObject::connect(socket, &QUdpSocket::errorOccurred, this, [finish] { finish(std::nullopt); });
        timeout->setSingleShot(true);
        QObject::connect(timeout, &QTimer::timeout, this, [finish] { finish(std::nullopt); });
        timeout->start(m_timeoutMs);
        socket->connectToHost(pending.address, m_port);
    }

    const quint16 m_port;
    const int m_timeoutMs;
    QQueue<Pending> m_queue;
    int m_active = 0;
};

UdpLatencyProbe::UdpLatencyProbe(quint16 port, int timeoutMs) : m_thread(QStringLiteral("UdpLatencyProbe"))
{
    m_thread.post([this, port, timeoutMs] {
        m_worker = new Worker(port, timeoutMs);
        m_worker->setParent(m_thread.context());
    });
}

UdpLatencyProbe::~UdpLatencyProbe() = default;

void UdpLatencyProbe::measure(const QStringList &addresses, Each each)
{
    auto shared = std::make_shared<Each>(std::move(each));
    m_thread.post([this, addresses, shared] { m_worker->enqueue(addresses, shared); });
}
