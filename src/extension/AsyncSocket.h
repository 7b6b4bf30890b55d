#pragma once

#include "foundation/NQError.h"

#include <QString>

#include <atomic>
#include <deque>
#include <memory>
#include <vector>

class AsyncSocket;
class SocketLoop;
using AsyncSocketPtr = std::shared_ptr<AsyncSocket>;

// Callbacks of AsyncSocket, all run on the socket loop's thread, one at a time.
class AsyncSocketDelegate {
public:
    virtual ~AsyncSocketDelegate() = default;
    // A client connected to the listener `sock`; keep `newSocket` or it closes.
    virtual void socketDidAcceptNewSocket(const AsyncSocketPtr &sock, const AsyncSocketPtr &newSocket) {}
    virtual void socketDidReadData(const AsyncSocketPtr &sock, QByteArray data, long tag) {}
    virtual void socketDidWriteDataWithTag(const AsyncSocketPtr &sock, long tag) {} // all bytes handed to the kernel
    // Once per socket. `error` says why: empty after disconnect(), else PeerClosedError,
    // ReadLimitError or an operating-system error.
    virtual void socketDidDisconnect(const AsyncSocketPtr &sock, const NQErrorOpt &error) {}
};

// Asynchronous TCP socket, used as a server: a listener, and per accepted connection tagged
// reads and writes completing in order by callback. The socket loop's thread owns every socket
// and runs every callback; a call from another thread is queued there behind earlier calls.
// Time-outs are for the call's shape only: none (negative) is all this product passes.
class AsyncSocket : public std::enable_shared_from_this<AsyncSocket> {
public:
    static constexpr auto kErrorDomain = "AsyncSocketErrorDomain";
    enum ErrorCode { BadConfigError = 1, ReadLimitError = 2, PeerClosedError = 3 };
    static constexpr std::int64_t kDefaultMaxBufferedBytes = 16 * 1024 * 1024; // unread, per connection
    static constexpr int kListenBacklog = 1024;                                // pending connections the kernel keeps

    // An idle socket reporting to `delegate` (held weakly) on `delegateQueue`.
    AsyncSocket(std::weak_ptr<AsyncSocketDelegate> delegate, SocketLoop *delegateQueue);
    ~AsyncSocket(); // not copyable: the atomic member sees to that

    // Settings, before acceptOnPort (the limit, any time). Reading pauses at the limit, which new
    // connections inherit; a read that needs more fails with ReadLimitError.
    void setIPv4Enabled(bool enabled) { m_ipv4 = enabled; }
    void setIPv6Enabled(bool enabled) { m_ipv6 = enabled; }
    void setMaxBufferedBytes(std::int64_t limit) { m_maxBuffered = std::max<std::int64_t>(1, limit); }

    // The wildcard address of IPv4, then of IPv6 on the same port. False with `error` set on
    // failure, nothing left open.
    bool acceptOnPort(std::uint16_t port, NQErrorOpt *error);
    std::uint16_t localPort() const { return m_port; } // 0 when not listening

    // Completes with everything available (at least one byte).
    void readDataWithTimeout(double, long tag) { queueRead(-1, tag); }
    // Completes with exactly `length` bytes; past what a signed count holds, never.
    void readDataToLength(std::uint64_t length, double, long tag)
    {
        queueRead(static_cast<std::int64_t>(std::min<std::uint64_t>(length, INT64_MAX)), tag);
    }
    void writeData(const QByteArray &data, double timeout, long tag);
    // Closes at once, dropping queued reads and writes; the disconnection is still reported.
    void disconnect();

    std::uint64_t connectionId() const { return m_id; } // how other threads name a connection
    QString description() const { return m_peer; }      // "<peer address>:<port>", for logs

private:
    friend class SocketLoop;
    struct Read {
        std::int64_t length; // -1: whatever is available
        long tag;
    };

    template <typename Task> void onLoop(Task task);
    void queueRead(std::int64_t length, long tag);
    void handleReady(std::uint32_t events);
    bool openListener(int family, NQErrorOpt *error);
    void acceptPending(int listenFd);
    void readKernel();
    void writeKernel();
    void pump();
    bool deliverOne(AsyncSocketDelegate &delegate, const AsyncSocketPtr &self);
    void close(NQErrorOpt error);

    const std::uint64_t m_id;
    const std::weak_ptr<AsyncSocketDelegate> m_delegate;
    SocketLoop *const m_loop;
    bool m_ipv4 = true, m_ipv6 = true;
    std::atomic<std::int64_t> m_maxBuffered = kDefaultMaxBufferedBytes;
    std::uint16_t m_port = 0;
    QString m_peer;

    // From here on, loop thread only.
    int m_fd = -1, m_fd4 = -1, m_fd6 = -1; // a connection, or a listener's two families
    std::uint32_t m_interest = 0;
    QByteArray m_in; // read from the kernel; unread from m_inPos on
    qsizetype m_inPos = 0;
    bool m_eof = false;        // the peer's end of stream has been read
    std::vector<Read> m_reads; // rarely more than one: a vector beats a deque here
    std::deque<std::pair<QByteArray, long>> m_writes;
    qsizetype m_written = 0;      // of the front write
    std::deque<long> m_wroteTags; // completed writes not yet reported
    bool m_pumping = false;       // a callback of this socket is running
    bool m_reported = true;       // the end was reported, or there is nothing to report
    NQErrorOpt m_closeError;
};
