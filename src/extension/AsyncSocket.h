#pragma once

#include "extension/AsyncSocketDelegate.h"
#include "extension/WorkerPool.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

// Asynchronous TCP socket, used here as a server: a listener that accepts any number of
// clients, and per accepted connection a queue of tagged reads and writes completing by
// callback (AsyncSocketDelegate) on the delegate queue.
//
// Every public method may be called from any thread. Reads of one connection complete in the
// order queued; bytes past the current request wait for the next one. Writes go out and
// complete in order. Time-outs are taken for the call's shape only: a negative value (none)
// is all this product ever passes, and no time-out is enforced.
class AsyncSocket : public std::enable_shared_from_this<AsyncSocket> {
public:
    static constexpr auto kErrorDomain = "AsyncSocketErrorDomain";
    enum ErrorCode {
        BadConfigError = 1, // accept refused before touching the network
        ReadLimitError = 2, // a read needs more than maxBufferedBytes held at once
    };
    // Unread bytes held per connection by default; see setMaxBufferedBytes().
    static constexpr std::int64_t kDefaultMaxBufferedBytes = 16 * 1024 * 1024;
    // Pending connections the kernel keeps per listening socket.
    static constexpr int kListenBacklog = 1024;

    // An idle socket. The delegate is held weakly; a null queue is refused at accept time.
    static AsyncSocketPtr create(std::weak_ptr<AsyncSocketDelegate> delegate,
                                 std::shared_ptr<WorkerPool> delegateQueue);
    ~AsyncSocket();
    AsyncSocket(const AsyncSocket &) = delete;
    AsyncSocket &operator=(const AsyncSocket &) = delete;

    void setDelegate(std::weak_ptr<AsyncSocketDelegate> delegate);
    void setDelegateQueue(std::shared_ptr<WorkerPool> queue);
    void setIPv4Enabled(bool enabled);
    void setIPv6Enabled(bool enabled);
    // Most unread bytes held for one connection (inherited by accepted sockets). Reading
    // pauses when the limit is reached; a read request that needs more fails the connection
    // with ReadLimitError. What a peer merely announces costs nothing.
    void setMaxBufferedBytes(std::int64_t limit);

    // Listens on the wildcard address of IPv4 and then IPv6; with port 0 IPv6 takes the port
    // IPv4 was given. False with `error` set on failure, nothing left open.
    bool acceptOnPort(std::uint16_t port, NQErrorOpt *error);

    // Completes with everything available (at least one byte).
    void readDataWithTimeout(double timeout, long tag);
    // Completes with exactly `length` bytes.
    void readDataToLength(std::uint64_t length, double timeout, long tag);
    void writeData(const QByteArray &data, double timeout, long tag);
    // Closes at once, dropping queued reads and writes; the disconnection is still reported.
    void disconnect();

    bool isConnected() const;
    bool isDisconnected() const;
    // Listening port (IPv4 if open, else IPv6); 0 when not listening.
    std::uint16_t localPort() const;
    std::uint16_t localPortIPv6() const;
    // "<peer address>:<port>" of an accepted connection, for logs.
    QString description() const;

private:
    friend class SocketLoop;
    enum class State { Idle, Accepting, Connected, Disconnected };
    struct ReadRequest {
        std::int64_t length; // -1: whatever is available
        long tag;
    };
    struct WriteRequest {
        QByteArray data;
        qsizetype offset;
        long tag;
    };

    AsyncSocket() = default;
    static AsyncSocketPtr adopt(int fd, const AsyncSocket &listener, const QString &peer);

    void handleReady(std::uint32_t events);
    void acceptPending(int listenFd);
    void queueRead(std::int64_t length, long tag);
    void readKernelLocked();
    qsizetype heldLocked() const;
    bool wantsDrainLocked() const;
    void writePendingLocked();
    void updateInterestLocked();
    void closeLocked(const NQErrorOpt &error, bool report);
    bool openListenerLocked(int family, std::uint16_t port, NQErrorOpt *error);
    // A callback waiting for the delegate queue. The socket drains its own queue of these on
    // the pool, one task per burst rather than one per callback.
    struct Completion {
        enum Kind { Accepted, Read, Wrote, Disconnected } kind;
        long tag = 0;
        QByteArray data;
        AsyncSocketPtr listener; // Accepted
        NQErrorOpt error;        // Disconnected
    };
    // Callbacks run per pool turn before the thread goes to other sockets.
    static constexpr int kCallbacksPerTurn = 256;
    void postLocked(Completion completion);
    void scheduleDrainLocked();
    void drainCompletions();
    // Drain side: reads are met from bytes the running drain owns, without the lock.
    static bool meets(std::int64_t length, qsizetype held);
    qsizetype takenBytes() const;
    qsizetype takeableLength() const;
    bool takeRead(Completion &next);
    void refillLocked();
    void dropTaken();
    void endTurnLocked(bool more);

    mutable std::mutex m_mutex;
    State m_state = State::Idle;
    std::weak_ptr<AsyncSocketDelegate> m_delegate;
    std::shared_ptr<WorkerPool> m_delegateQueue;
    bool m_ipv4Enabled = true;
    bool m_ipv6Enabled = true;
    std::int64_t m_maxBuffered = kDefaultMaxBufferedBytes;

    int m_fd4 = -1, m_fd6 = -1; // listener
    std::uint64_t m_token4 = 0, m_token6 = 0;
    std::uint16_t m_port4 = 0, m_port6 = 0;

    int m_fd = -1; // connection
    std::uint64_t m_token = 0;
    std::uint32_t m_interest = 0;
    QString m_peer;
    QByteArray m_in;                 // read from the kernel, not yet handed to the drain
    qsizetype m_takeHeld = 0;        // unread bytes the drain kept when it last took the lock
    bool m_eof = false;              // the peer's end of stream has been read
    bool m_hangUp = false;           // no longer watched: the peer hung up while reading was paused
    std::deque<ReadRequest> m_reads; // queued from outside the drain, or given back by it
    std::deque<WriteRequest> m_writes;
    std::deque<Completion> m_completions; // everything but reads
    bool m_drainScheduled = false;
    bool m_reports = false; // opened (listening or adopted), so its end is reported
    // Cleared by closeLocked; the drain checks it before each read it meets without the lock.
    std::atomic<bool> m_open{false};

    // Owned by the running drain (one at a time per socket; hand-over through the lock).
    QByteArray m_carry; // unread end of an earlier buffer, older than m_take
    QByteArray m_take;
    qsizetype m_takePos = 0;
    std::deque<ReadRequest> m_takeReads;
};
