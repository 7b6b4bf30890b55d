// The listening half of AsyncSocket: opening the wildcard listeners and accepting clients.
#include "extension/AsyncSocket.h"
#include "extension/SocketLoop.h"

#include "foundation/Log.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
NQError configError(const char *text)
{
    return NQError(AsyncSocket::kErrorDomain, AsyncSocket::BadConfigError,
                   {{NQError::kLocalizedDescriptionKey, QString::fromUtf8(text)}});
}

NQError socketError(int err, const char *reason)
{
    return NQError(NQError::kPosixDomain, err,
                   {{NQError::kLocalizedDescriptionKey, QString::fromUtf8(reason)},
                    {NQError::kLocalizedFailureReasonKey, QString::fromLocal8Bit(std::strerror(err))}});
}

bool setNonBlocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL, 0);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

QString peerText(const sockaddr_storage &addr)
{
    char host[INET6_ADDRSTRLEN] = {};
    if (addr.ss_family == AF_INET) {
        const auto *in = reinterpret_cast<const sockaddr_in *>(&addr);
        inet_ntop(AF_INET, &in->sin_addr, host, sizeof host);
        return QStringLiteral("%1:%2").arg(QString::fromLatin1(host)).arg(ntohs(in->sin_port));
    }
    const auto *in6 = reinterpret_cast<const sockaddr_in6 *>(&addr);
    inet_ntop(AF_INET6, &in6->sin6_addr, host, sizeof host);
    return QStringLiteral("[%1]:%2").arg(QString::fromLatin1(host)).arg(ntohs(in6->sin6_port));
}

// A descriptor kept in reserve so that, when the process runs out of descriptors, a pending
// client can still be taken off the backlog and closed instead of being reported forever.
int g_spareFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
} // namespace

bool AsyncSocket::acceptOnPort(std::uint16_t port, NQErrorOpt *error)
{
    NQErrorOpt failure;
    if (m_delegate.expired())
        failure = configError("Attempting to accept without a delegate. Set a delegate first.");
    else if (!m_loop)
        failure = configError("Attempting to accept without a delegate queue. Set a delegate queue first.");
    else if (!m_ipv4Enabled && !m_ipv6Enabled)
        failure = configError("Both IPv4 and IPv6 have been disabled. Must enable at least one protocol first.");
    else
        m_loop->call([&] {
            if (m_fd >= 0 || m_fd4 >= 0 || m_fd6 >= 0)
                failure =
                    configError("Attempting to accept while connected or accepting connections. Disconnect first.");
            else if ((m_ipv4Enabled && !openListener(AF_INET, port, &failure)) ||
                     (m_ipv6Enabled && !openListener(AF_INET6, m_fd4 >= 0 ? m_port4 : port, &failure)))
                close({});
            m_reported = true; // a failed start has nothing to report
        });
    if (failure && error)
        *error = failure;
    return !failure;
}

bool AsyncSocket::openListener(int family, std::uint16_t port, NQErrorOpt *error)
{
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (family == AF_INET6 && errno == EAFNOSUPPORT && m_fd4 >= 0) {
            // A kernel without IPv6 still serves IPv4 clients.
            OsLog("AsyncSocket").error(QStringLiteral("IPv6 unavailable, listening on IPv4 only"));
            return true;
        }
        *error = socketError(errno, "Error in socket() function");
        return false;
    }
    auto fail = [&](const char *reason) {
        *error = socketError(errno, reason);
        ::close(fd);
        return false;
    };
    if (!setNonBlocking(fd))
        return fail("Error enabling non-blocking IO on socket (fcntl)");
    const int one = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0)
        return fail("Error enabling address reuse (setsockopt)");
    sockaddr_storage addr{};
    socklen_t len;
    if (family == AF_INET) {
        auto *in = reinterpret_cast<sockaddr_in *>(&addr);
        in->sin_family = AF_INET;
        in->sin_addr.s_addr = htonl(INADDR_ANY);
        in->sin_port = htons(port);
        len = sizeof(sockaddr_in);
    } else {
        // Without this the IPv6 wildcard also claims the IPv4 port we just bound.
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&addr);
        in6->sin6_family = AF_INET6;
        in6->sin6_addr = in6addr_any;
        in6->sin6_port = htons(port);
        len = sizeof(sockaddr_in6);
    }
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), len) != 0)
        return fail("Error in bind() function");
    if (listen(fd, kListenBacklog) != 0)
        return fail("Error in listen() function");
    socklen_t got = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &got);
    int pollError = 0;
    const std::uint64_t token = m_loop->watch(fd, this, EventPoller::Readable, &pollError);
    if (!token) {
        errno = pollError;
        return fail("Error in listen() function");
    }
    if (family == AF_INET) {
        m_fd4 = fd, m_token4 = token;
        m_port4 = ntohs(reinterpret_cast<sockaddr_in *>(&addr)->sin_port);
    } else {
        m_fd6 = fd, m_token6 = token;
        m_port6 = ntohs(reinterpret_cast<sockaddr_in6 *>(&addr)->sin6_port);
    }
    return true;
}

void AsyncSocket::acceptPending(int listenFd)
{
    while (listenFd >= 0 && (listenFd == m_fd4 || listenFd == m_fd6)) { // the delegate may stop listening
        sockaddr_storage addr{};
        socklen_t len = sizeof addr;
        const int fd = accept4(listenFd, reinterpret_cast<sockaddr *>(&addr), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if ((errno == EMFILE || errno == ENFILE) && g_spareFd >= 0) {
                OsLog("AsyncSocket").error(QStringLiteral("Out of file descriptors: refusing a client"));
                ::close(g_spareFd);
                const int refused = accept(listenFd, nullptr, nullptr);
                if (refused >= 0)
                    ::close(refused);
                g_spareFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
            }
            return; // EAGAIN: backlog empty
        }
        AsyncSocketPtr client(new AsyncSocket);
        client->m_delegate = m_delegate;
        client->m_loop = m_loop;
        client->m_maxBuffered = m_maxBuffered;
        client->m_peer = peerText(addr);
        int pollError = 0;
        client->m_token = m_loop->watch(fd, client.get(), client->m_interest = EventPoller::Readable, &pollError);
        if (!client->m_token) {
            ::close(fd);
            continue;
        }
        client->m_fd = fd;
        const auto delegate = m_delegate.lock();
        if (!delegate)
            return client->close({});
        // Before any of its reads or its end: its events come in later rounds of the loop.
        delegate->socketDidAcceptNewSocket(shared_from_this(), client);
    }
}
