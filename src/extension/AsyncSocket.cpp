#include "extension/AsyncSocket.h"
#include "extension/SocketLoop.h"

#include "foundation/Log.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
constexpr qsizetype kReadChunk = 64 * 1024; // per read() call
constexpr int kReadsPerWakeup = 4;          // per readiness report: one busy client cannot hold the thread
// An emptied input buffer bigger than this is given back rather than kept for the next bytes.
constexpr qsizetype kKeptBufferBytes = 2 * kReadsPerWakeup * kReadChunk;

std::atomic<std::uint64_t> g_nextId{1};

NQError makeError(const char *domain, int code, const QString &text)
{
    return NQError(domain, code, {{NQError::kLocalizedDescriptionKey, text}});
}

NQError osError(int err)
{
    return makeError(NQError::kPosixDomain, err, QString::fromLocal8Bit(std::strerror(err)));
}

const NQError kPeerClosed =
    makeError(AsyncSocket::kErrorDomain, AsyncSocket::PeerClosedError, QStringLiteral("Connection closed by the peer"));
QString peerText(const sockaddr_storage &addr, socklen_t len)
{
    char host[NI_MAXHOST] = {}, port[NI_MAXSERV] = {};
    getnameinfo(reinterpret_cast<const sockaddr *>(&addr), len, host, sizeof host, port, sizeof port,
                NI_NUMERICHOST | NI_NUMERICSERV);
    return QString::fromLatin1(addr.ss_family == AF_INET6 ? "[%1]:%2" : "%1:%2").arg(host, port);
}

// Kept so that, out of descriptors, a pending client can still be taken off the backlog.
int g_spareFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
} // namespace

AsyncSocket::AsyncSocket(std::weak_ptr<AsyncSocketDelegate> delegate, SocketLoop *delegateQueue)
    : m_id(g_nextId++), m_delegate(std::move(delegate)), m_loop(delegateQueue)
{
}

AsyncSocket::~AsyncSocket()
{
    if (m_loop) // the last owner may be another thread; descriptors close where they are watched
        m_loop->call([this] { close({}); });
}

template <typename Task> void AsyncSocket::onLoop(Task task)
{
    if (!m_loop || m_loop->isLoopThread())
        return task();
    m_loop->post([self = shared_from_this(), task] { task(); });
}

bool AsyncSocket::acceptOnPort(std::uint16_t port, NQErrorOpt *error)
{
    NQErrorOpt failure;
    auto refuse = [&](const char *text) { failure = makeError(kErrorDomain, BadConfigError, QString::fromUtf8(text)); };
    if (m_delegate.expired())
        refuse("Attempting to accept without a delegate. Set a delegate first.");
    else if (!m_loop)
        refuse("Attempting to accept without a delegate queue. Set a delegate queue first.");
    else if (!m_ipv4 && !m_ipv6)
        refuse("Both IPv4 and IPv6 have been disabled. Must enable at least one protocol first.");
    else
        m_loop->call([&] {
            if (m_fd >= 0 || m_fd4 >= 0 || m_fd6 >= 0)
                return refuse("Attempting to accept while connected or accepting connections. Disconnect first.");
            m_port = port; // IPv6 takes the port IPv4 was given
            if ((m_ipv4 && !openListener(AF_INET, &failure)) || (m_ipv6 && !openListener(AF_INET6, &failure))) {
                close({});
                m_port = 0;
            }
            m_reported = true; // a failed start has nothing to report
        });
    if (failure && error)
        *error = failure;
    return !failure;
}

bool AsyncSocket::openListener(int family, NQErrorOpt *error)
{
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 && family == AF_INET6 && errno == EAFNOSUPPORT && m_fd4 >= 0) {
        OsLog("AsyncSocket").error(QStringLiteral("IPv6 unavailable, listening on IPv4 only"));
        return true;
    }
    auto fail = [&](const char *reason) {
        *error = NQError(NQError::kPosixDomain, errno,
                         {{NQError::kLocalizedDescriptionKey, QString::fromUtf8(reason)},
                          {NQError::kLocalizedFailureReasonKey, QString::fromLocal8Bit(std::strerror(errno))}});
        if (fd >= 0)
            ::close(fd);
        return false;
    };
    if (fd < 0)
        return fail("Error in socket() function");
    const int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0)
        return fail("Error enabling non-blocking IO on socket (fcntl)");
    const int one = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0)
        return fail("Error enabling address reuse (setsockopt)");
    if (family == AF_INET6) // else the IPv6 wildcard also claims the IPv4 port just bound
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
    sockaddr_in in{AF_INET, htons(m_port), {htonl(INADDR_ANY)}, {}};
    sockaddr_in6 in6{AF_INET6, htons(m_port), 0, in6addr_any, 0};
    auto *addr = family == AF_INET ? reinterpret_cast<sockaddr *>(&in) : reinterpret_cast<sockaddr *>(&in6);
    socklen_t len = family == AF_INET ? sizeof in : sizeof in6;
    if (bind(fd, addr, len) != 0)
        return fail("Error in bind() function");
    if (listen(fd, kListenBacklog) != 0)
        return fail("Error in listen() function");
    getsockname(fd, addr, &len);
    m_port = ntohs(family == AF_INET ? in.sin_port : in6.sin6_port);
    if ((errno = m_loop->watch(fd, this, EventPoller::Readable)))
        return fail("Error in listen() function");
    (family == AF_INET ? m_fd4 : m_fd6) = fd;
    return true;
}

void AsyncSocket::acceptPending(int listenFd)
{
    // The delegate may stop the listener from its callback.
    while (listenFd >= 0 && (listenFd == m_fd4 || listenFd == m_fd6)) {
        sockaddr_storage addr{};
        socklen_t len = sizeof addr;
        const int fd = accept4(listenFd, reinterpret_cast<sockaddr *>(&addr), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0 && (errno == EINTR || errno == ECONNABORTED))
            continue;
        if (fd < 0) {
            if ((errno == EMFILE || errno == ENFILE) && g_spareFd >= 0) {
                OsLog("AsyncSocket").error(QStringLiteral("Out of file descriptors: refusing a client"));
                ::close(g_spareFd);
                ::close(accept(listenFd, nullptr, nullptr));
                g_spareFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
            }
            return; // else EAGAIN: the backlog is empty
        }
        const auto client = std::make_shared<AsyncSocket>(m_delegate, m_loop);
        client->m_maxBuffered = m_maxBuffered.load();
        client->m_peer = peerText(addr, len);
        if (m_loop->watch(fd, client.get(), client->m_interest = EventPoller::Readable)) {
            ::close(fd);
            continue;
        }
        client->m_fd = fd;
        // Before any of its reads or its end, which come in later rounds of the loop.
        if (const auto delegate = m_delegate.lock())
            delegate->socketDidAcceptNewSocket(shared_from_this(), client);
    }
}

void AsyncSocket::queueRead(std::int64_t length, long tag)
{
    onLoop([this, length, tag] {
        if (m_fd >= 0) {
            m_reads.push_back({length, tag});
            pump();
        }
    });
}

void AsyncSocket::writeData(const QByteArray &data, double, long tag)
{
    onLoop([this, data, tag] {
        if (m_fd < 0)
            return;
        m_writes.emplace_back(data, tag);
        if (m_writes.size() == 1)
            writeKernel();
        pump();
    });
}

void AsyncSocket::disconnect()
{
    onLoop([this] {
        close({});
        pump();
    });
}

void AsyncSocket::handleReady(std::uint32_t events)
{
    const AsyncSocketPtr self = shared_from_this();
    if (m_fd < 0) { // a listener: whichever family fired, both backlogs are emptied
        acceptPending(m_fd4);
        acceptPending(m_fd6);
        return;
    }
    if (events & EventPoller::Writable)
        writeKernel();
    if (m_fd >= 0 && (events & (EventPoller::Readable | EventPoller::HangUp))) {
        if (m_interest & EventPoller::Readable)
            readKernel();
        else // reset while reading is paused: the poller would say so without end
            close(kPeerClosed);
    }
    pump();
}

void AsyncSocket::readKernel()
{
    m_in.remove(0, std::exchange(m_inPos, 0)); // moves where the bytes start, not the bytes
    for (int i = 0; i < kReadsPerWakeup && !m_eof && m_in.size() < m_maxBuffered; ++i) {
        const qsizetype want = std::min<qsizetype>(m_maxBuffered - m_in.size(), kReadChunk);
        const qsizetype held = m_in.size();
        m_in.resize(held + want); // read straight into the buffer's free end
        const ssize_t n = ::read(m_fd, m_in.data() + held, static_cast<size_t>(want));
        m_in.resize(held + std::max<qsizetype>(n, 0));
        if (n < 0 && errno != EINTR && errno != EAGAIN)
            return close(osError(errno));
        m_eof = n == 0;
        if ((n > 0 && n < want) || (n < 0 && errno == EAGAIN))
            return; // drained
    }
}

void AsyncSocket::writeKernel()
{
    while (!m_writes.empty()) {
        const QByteArray &data = m_writes.front().first;
        const ssize_t n = ::send(m_fd, data.constData() + m_written, size_t(data.size() - m_written), MSG_NOSIGNAL);
        if (n < 0 && errno != EINTR && errno != EAGAIN)
            return close(osError(errno));
        if (n < 0 && errno == EAGAIN)
            return;
        if ((m_written += std::max<ssize_t>(n, 0)) < data.size())
            continue;
        m_wroteTags.push_back(m_writes.front().second);
        m_writes.pop_front();
        m_written = 0;
    }
}

// Runs the callbacks due, one at a time; a call from inside one only queues, so none nest.
void AsyncSocket::pump()
{
    if (m_pumping)
        return;
    const AsyncSocketPtr self = shared_from_this();
    const auto delegate = m_delegate.lock();
    if (!delegate)
        return close({});
    m_pumping = true;
    while (deliverOne(*delegate, self)) {
    }
    m_pumping = false;
    if (m_fd >= 0) {
        const std::uint32_t wanted = (!m_eof && m_in.size() - m_inPos < m_maxBuffered ? EventPoller::Readable : 0u) |
                                     (m_writes.empty() ? 0u : EventPoller::Writable);
        if (wanted != std::exchange(m_interest, wanted))
            m_loop->watch(m_fd, this, wanted);
    } else if (m_fd4 < 0 && m_fd6 < 0 && !std::exchange(m_reported, true)) {
        delegate->socketDidDisconnect(self, m_closeError);
    }
}

bool AsyncSocket::deliverOne(AsyncSocketDelegate &delegate, const AsyncSocketPtr &self)
{
    if (m_fd < 0)
        return false;
    if (!m_wroteTags.empty()) {
        const long tag = m_wroteTags.front();
        m_wroteTags.pop_front();
        delegate.socketDidWriteDataWithTag(self, tag);
        return true;
    }
    const qsizetype held = m_in.size() - m_inPos;
    const std::int64_t wanted = m_reads.empty() ? 0 : m_reads.front().length;
    if (m_reads.empty() || (wanted < 0 ? held == 0 : wanted > held)) {
        if (m_eof) // nothing more will come to meet it
            close(kPeerClosed);
        else if (wanted > m_maxBuffered && held >= m_maxBuffered)
            close(makeError(kErrorDomain, ReadLimitError,
                            QStringLiteral("Read of %1 bytes exceeds the %2-byte buffer limit")
                                .arg(wanted)
                                .arg(m_maxBuffered.load())));
        return false;
    }
    const qsizetype n = wanted < 0 ? held : qsizetype(wanted);
    // The whole buffer is handed over, not copied.
    QByteArray data = n == m_in.size() ? std::exchange(m_in, {}) : QByteArray(m_in.constData() + m_inPos, n);
    if ((m_inPos += n) >= m_in.size()) {
        m_inPos = 0;
        m_in.capacity() > kKeptBufferBytes ? m_in.clear() : m_in.resize(0);
    }
    const long tag = m_reads.front().tag;
    m_reads.erase(m_reads.begin());
    delegate.socketDidReadData(self, std::move(data), tag);
    return true;
}

// Closes whatever is open and drops what was queued; the next pump reports it.
void AsyncSocket::close(NQErrorOpt error)
{
    if (m_fd < 0 && m_fd4 < 0 && m_fd6 < 0)
        return;
    for (int *fd : {&m_fd, &m_fd4, &m_fd6}) {
        if (*fd >= 0) {
            m_loop->unwatch(*fd, this);
            ::close(std::exchange(*fd, -1));
        }
    }
    m_reads.clear();
    m_writes.clear();
    m_wroteTags.clear();
    m_in.clear();
    m_inPos = 0;
    m_closeError = std::move(error);
    m_reported = false;
}
