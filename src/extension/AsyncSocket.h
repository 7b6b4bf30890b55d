#pragma once

#include "extension/AsyncSocketDelegate.h"

#include <QString>

#include <cstdint>
#include <deque>
#include <vector>

class SocketLoop;

// Asynchronous TCP socket, used here as a server: a listener that accepts any number of
// clients, and per accepted connection a queue of tagged reads and writes completing by
// callback (AsyncSocketDelegate).
//
// The socket loop's thread owns every socket and runs every callback; a call from another
// thread is queued there, behind the calls made before it. Reads of one connection complete
// in the order queued, bytes past the current request wait for the next one; writes go out
// and complete in order. Time-outs are taken for the call's shape only: a negative value
// (none) is all this product passes.
class AsyncSocket : public std::enable_shared_from_this<AsyncSocket> {
public:
    static constexpr auto kErrorDomain = "AsyncSocketErrorDomain";
    enum ErrorCode {
        BadConfigError = 1,  // accept refused before touching the network
        ReadLimitError = 2,  // a read needs more than maxBufferedBytes held at once
        PeerClosedError = 3, // the peer ended the connection
    };
    // Unread bytes held per connection by default; see setMaxBufferedBytes().
    static constexpr std::int64_t kDefaultMaxBufferedBytes = 16 * 1024 * 1024;
    // Pending connections the kernel keeps per listening socket.
    static constexpr int kListenBacklog = 1024;

    // An idle socket reporting to `delegate` (held weakly) on `delegateQueue`, which a null
    // queue makes acceptOnPort refuse.
    static AsyncSocketPtr create(std::weak_ptr<AsyncSocketDelegate> delegate, SocketLoop *delegateQueue);
    ~AsyncSocket();
    AsyncSocket(const AsyncSocket &) = delete;
    AsyncSocket &operator=(const AsyncSocket &) = delete;

    // Settings, before acceptOnPort; accepted sockets inherit them.
    void setDelegate(std::weak_ptr<AsyncSocketDelegate> delegate) { m_delegate = std::move(delegate); }
    void setDelegateQueue(SocketLoop *queue) { m_loop = queue; }
    void setIPv4Enabled(bool enabled) { m_ipv4Enabled = enabled; }
    void setIPv6Enabled(bool enabled) { m_ipv6Enabled = enabled; }
    // Most unread bytes held for one connection. Reading pauses at the limit; a read request
    // that needs more fails the connection with ReadLimitError. What a peer merely announces
    // costs nothing.
    void setMaxBufferedBytes(std::int64_t limit) { m_maxBuffered = std::max<std::int64_t>(1, limit); }

    // Listens on the wildcard address of IPv4 and then IPv6; with port 0 IPv6 takes the port
    // IPv4 was given. False with `error` set on failure, nothing left open.
    bool acceptOnPort(std::uint16_t port, NQErrorOpt *error);
    // Listening port (IPv4 if open, else IPv6); 0 when not listening.
    std::uint16_t localPort() const { return m_port4 ? m_port4 : m_port6; }
    std::uint16_t localPortIPv6() const { return m_port6; }

    // Completes with everything available (at least one byte).
    void readDataWithTimeout(double timeout, long tag);
    // Completes with exactly `length` bytes.
    void readDataToLength(std::uint64_t length, double timeout, long tag);
    void writeData(const QByteArray &data, double timeout, long tag);
    // Closes at once, dropping queued reads and writes; the disconnection is still reported.
    void disconnect();

    // Unique in the process, fixed at creation: how other threads name a connection.
    std::uint64_t connectionId() const { return m_id; }
    // "<peer address>:<port>" of an accepted connection, for logs; fixed at accept.
    QString description() const { return m_peer; }

private:
    friend class SocketLoop;
    struct Read {
        std::int64_t length; // -1: whatever is available
        long tag;
    };
    struct Write {
        QByteArray data;
        long tag;
    };

    AsyncSocket();
    template <typename Task> void onLoop(Task task);
    void queueRead(std::int64_t length, long tag);
    void handleReady(std::uint32_t events);
    void acceptPending(int listenFd);
    bool openListener(int family, std::uint16_t port, NQErrorOpt *error);
    void readKernel();
    void writeKernel();
    void pump();
    bool deliverOne(AsyncSocketDelegate &delegate, const AsyncSocketPtr &self);
    void updateInterest();
    void close(NQErrorOpt error);
    void closeListeners();

    std::weak_ptr<AsyncSocketDelegate> m_delegate;
    SocketLoop *m_loop = nullptr;
    bool m_ipv4Enabled = true, m_ipv6Enabled = true;
    std::int64_t m_maxBuffered = kDefaultMaxBufferedBytes;
    const std::uint64_t m_id;

    // Listener.
    int m_fd4 = -1, m_fd6 = -1;
    std::uint64_t m_token4 = 0, m_token6 = 0;
    std::uint16_t m_port4 = 0, m_port6 = 0;

    // Connection; from here on, loop thread only.
    int m_fd = -1;
    std::uint64_t m_token = 0;
    std::uint32_t m_interest = 0;
    QString m_peer;
    QByteArray m_in; // read from the kernel; unread from m_inPos on
    qsizetype m_inPos = 0;
    bool m_eof = false;        // the peer's end of stream has been read
    std::vector<Read> m_reads; // rarely more than one: a vector beats a deque here
    std::deque<Write> m_writes;
    qsizetype m_written = 0;      // of the front write
    std::deque<long> m_wroteTags; // completed writes not yet reported
    bool m_pumping = false;       // a callback of this socket is running
    bool m_reported = true;       // the end was reported, or there is nothing to report
    NQErrorOpt m_closeError;
};
