#include "extension/AsyncSocket.h"
#include "extension/SocketLoop.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {
// Bytes taken from the kernel per read() call, and read() calls per readiness report, so one
// busy client cannot hold the I/O thread for long.
constexpr qsizetype kReadChunk = 64 * 1024;
constexpr int kReadsPerWakeup = 4;
// Capacity an emptied input buffer keeps for the next bytes: room for one wake-up's reads
// after a partial message, so a busy connection reuses its two buffers instead of growing
// and freeing them.
constexpr qsizetype kKeptBufferBytes = 2 * kReadsPerWakeup * kReadChunk;

// Empties a buffer, keeping a normal-sized one for the next bytes and giving back what a big
// message took.
void recycle(QByteArray &buffer)
{
    if (buffer.capacity() > kKeptBufferBytes)
        buffer.clear();
    else
        buffer.resize(0);
}

// The socket whose drain runs on this thread: its callbacks' read requests skip the lock.
thread_local const AsyncSocket *t_draining = nullptr;

NQError osError(int err)
{
    return NQError(NQError::kPosixDomain, err,
                   {{NQError::kLocalizedDescriptionKey, QString::fromLocal8Bit(std::strerror(err))}});
}
} // namespace

AsyncSocketPtr AsyncSocket::create(std::weak_ptr<AsyncSocketDelegate> delegate,
                                   std::shared_ptr<WorkerPool> delegateQueue)
{
    AsyncSocketPtr socket(new AsyncSocket);
    socket->m_delegate = std::move(delegate);
    socket->m_delegateQueue = std::move(delegateQueue);
    return socket;
}

AsyncSocket::~AsyncSocket()
{
    std::lock_guard lock(m_mutex);
    closeLocked({}, false);
}

void AsyncSocket::setDelegate(std::weak_ptr<AsyncSocketDelegate> delegate)
{
    std::lock_guard lock(m_mutex);
    m_delegate = std::move(delegate);
}

void AsyncSocket::setDelegateQueue(std::shared_ptr<WorkerPool> queue)
{
    std::lock_guard lock(m_mutex);
    m_delegateQueue = std::move(queue);
}

void AsyncSocket::setIPv4Enabled(bool enabled)
{
    std::lock_guard lock(m_mutex);
    m_ipv4Enabled = enabled;
}

void AsyncSocket::setIPv6Enabled(bool enabled)
{
    std::lock_guard lock(m_mutex);
    m_ipv6Enabled = enabled;
}

void AsyncSocket::setMaxBufferedBytes(std::int64_t limit)
{
    std::lock_guard lock(m_mutex);
    m_maxBuffered = std::max<std::int64_t>(1, limit);
}

bool AsyncSocket::isConnected() const
{
    std::lock_guard lock(m_mutex);
    return m_state == State::Connected;
}

bool AsyncSocket::isDisconnected() const
{
    std::lock_guard lock(m_mutex);
    return m_state == State::Disconnected;
}

std::uint16_t AsyncSocket::localPort() const
{
    std::lock_guard lock(m_mutex);
    return m_fd4 >= 0 ? m_port4 : m_port6;
}

std::uint16_t AsyncSocket::localPortIPv6() const
{
    std::lock_guard lock(m_mutex);
    return m_port6;
}

QString AsyncSocket::description() const
{
    std::lock_guard lock(m_mutex);
    return m_peer;
}

void AsyncSocket::readDataWithTimeout(double, long tag)
{
    queueRead(-1, tag);
}

void AsyncSocket::readDataToLength(std::uint64_t length, double, long tag)
{
    // Lengths past what a signed count holds can never be met; they wait like any other.
    queueRead(static_cast<std::int64_t>(std::min<std::uint64_t>(length, INT64_MAX)), tag);
}

void AsyncSocket::queueRead(std::int64_t length, long tag)
{
    if (t_draining == this) {
        // From one of this socket's own callbacks, the usual case: the running drain owns the
        // queue it goes to (and drops it if the socket has closed meanwhile).
        m_takeReads.push_back({length, tag});
        return;
    }
    std::lock_guard lock(m_mutex);
    if (m_state != State::Connected)
        return;
    m_reads.push_back({length, tag});
    scheduleDrainLocked();
}

void AsyncSocket::writeData(const QByteArray &data, double, long tag)
{
    std::lock_guard lock(m_mutex);
    if (m_state != State::Connected)
        return;
    m_writes.push_back({data, 0, tag});
    if (m_writes.size() == 1)
        writePendingLocked();
    updateInterestLocked();
}

void AsyncSocket::disconnect()
{
    std::lock_guard lock(m_mutex);
    closeLocked({}, true);
}

void AsyncSocket::handleReady(std::uint32_t events)
{
    std::lock_guard lock(m_mutex);
    if (m_state == State::Accepting) {
        // Which listener fired does not matter: both are drained until empty.
        const int fd4 = m_fd4, fd6 = m_fd6;
        m_mutex.unlock();
        if (fd4 >= 0)
            acceptPending(fd4);
        if (fd6 >= 0)
            acceptPending(fd6);
        m_mutex.lock();
        return;
    }
    if (m_state != State::Connected)
        return;
    if (events & EventPoller::Writable)
        writePendingLocked();
    if (m_state != State::Connected)
        return;
    if ((events & EventPoller::HangUp) && !(m_interest & EventPoller::Readable)) {
        // The peer is gone while reading is paused. The poller would report that without
        // end, so stop watching; what is still in the kernel is read when a request needs it.
        SocketLoop::shared().remove(m_fd, m_token);
        m_token = 0;
        m_hangUp = true;
    } else if (events & (EventPoller::Readable | EventPoller::HangUp)) {
        readKernelLocked();
    }
    if (m_state != State::Connected)
        return;
    if (wantsDrainLocked() || (m_hangUp && !m_reads.empty()))
        scheduleDrainLocked();
    updateInterestLocked();
}

void AsyncSocket::readKernelLocked()
{
    for (int i = 0; i < kReadsPerWakeup && !m_eof; ++i) {
        const qsizetype room = static_cast<qsizetype>(m_maxBuffered) - heldLocked();
        if (room <= 0)
            break;
        // Straight into the buffer's free end: no second copy.
        const qsizetype want = std::min(room, kReadChunk);
        const qsizetype held = m_in.size();
        m_in.resize(held + want);
        const ssize_t n = ::read(m_fd, m_in.data() + held, static_cast<size_t>(want));
        m_in.resize(held + std::max<qsizetype>(n, 0));
        if (n > 0) {
            if (n < want)
                break; // drained
        } else if (n == 0) {
            m_eof = true;
        } else if (errno == EINTR) {
            continue;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            break;
        } else {
            closeLocked(osError(errno), true);
            return;
        }
    }
}

qsizetype AsyncSocket::heldLocked() const
{
    return m_takeHeld + m_in.size();
}

// Whether the drain has something to do about reads: meet the oldest request, fail it for
// the buffer limit, or end the connection.
bool AsyncSocket::wantsDrainLocked() const
{
    if (m_eof)
        return true;
    if (m_reads.empty())
        return false;
    const qsizetype held = heldLocked();
    return meets(m_reads.front().length, held) || held >= m_maxBuffered;
}

// Whether `held` bytes meet a request of `length` (-1: whatever is there, at least a byte).
bool AsyncSocket::meets(std::int64_t length, qsizetype held)
{
    return length < 0 ? held > 0 : length <= held;
}

// What the drain held goes with the connection.
void AsyncSocket::dropTaken()
{
    m_takeReads.clear();
    m_take.clear();
    m_carry.clear();
    m_takePos = 0;
}

void AsyncSocket::writePendingLocked()
{
    while (!m_writes.empty()) {
        WriteRequest &w = m_writes.front();
        const ssize_t n =
            ::send(m_fd, w.data.constData() + w.offset, static_cast<size_t>(w.data.size() - w.offset), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                return;
            closeLocked(osError(errno), true);
            return;
        }
        w.offset += n;
        if (w.offset < w.data.size())
            continue;
        const long tag = w.tag;
        m_writes.pop_front();
        postLocked({Completion::Wrote, tag, {}, {}, {}});
    }
}

void AsyncSocket::updateInterestLocked()
{
    if (m_state != State::Connected || m_hangUp)
        return;
    std::uint32_t wanted = 0;
    if (!m_eof && heldLocked() < m_maxBuffered)
        wanted |= EventPoller::Readable;
    if (!m_writes.empty())
        wanted |= EventPoller::Writable;
    if (wanted != m_interest) {
        m_interest = wanted;
        SocketLoop::shared().modify(m_fd, m_token, wanted);
    }
}

void AsyncSocket::closeLocked(const NQErrorOpt &error, bool report)
{
    const bool wasOpen = m_state == State::Connected || m_state == State::Accepting;
    if (m_fd >= 0) {
        if (m_token)
            SocketLoop::shared().remove(m_fd, m_token);
        ::close(m_fd);
        m_fd = -1;
    }
    for (auto [fd, token] : {std::pair{&m_fd4, m_token4}, std::pair{&m_fd6, m_token6}}) {
        if (*fd >= 0) {
            SocketLoop::shared().remove(*fd, token);
            ::close(*fd);
            *fd = -1;
        }
    }
    m_reads.clear();
    m_writes.clear();
    m_in.clear();
    m_takeHeld = 0;
    m_open = false; // what the drain holds goes at its next look under the lock
    if (m_state != State::Idle)
        m_state = State::Disconnected;
    if (wasOpen && report && m_reports)
        postLocked({Completion::Disconnected, 0, {}, {}, error});
}

void AsyncSocket::postLocked(Completion completion)
{
    m_completions.push_back(std::move(completion));
    scheduleDrainLocked();
}

void AsyncSocket::scheduleDrainLocked()
{
    if (m_drainScheduled || !m_delegateQueue)
        return;
    m_drainScheduled = true;
    m_delegateQueue->async([self = shared_from_this()] { self->drainCompletions(); });
}

void AsyncSocket::drainCompletions()
{
    const AsyncSocketPtr self = shared_from_this();
    const AsyncSocket *const outer = std::exchange(t_draining, this);
    std::shared_ptr<AsyncSocketDelegate> delegate;
    bool more = true;
    for (int i = 0; i < kCallbacksPerTurn; ++i) {
        Completion next;
        // While the drain's own bytes meet its own requests, no lock is taken.
        if (!(delegate && m_open.load(std::memory_order_acquire) && takeRead(next))) {
            std::lock_guard lock(m_mutex);
            delegate = m_delegate.lock();
            refillLocked();
            if (!(m_state == State::Connected && takeRead(next))) {
                // Nothing left to read for a peer that has ended: the connection ends too.
                if (m_completions.empty() && m_eof && m_state == State::Connected)
                    closeLocked({}, true);
                if (m_completions.empty()) {
                    more = false;
                    endTurnLocked(false);
                    break;
                }
                next = std::move(m_completions.front());
                m_completions.pop_front();
            }
        }
        if (!delegate)
            continue;
        switch (next.kind) {
        case Completion::Accepted:
            delegate->socketDidAcceptNewSocket(next.listener, self);
            break;
        case Completion::Read:
            delegate->socketDidReadData(self, std::move(next.data), next.tag);
            break;
        case Completion::Wrote:
            delegate->socketDidWriteDataWithTag(self, next.tag);
            break;
        case Completion::Disconnected:
            delegate->socketDidDisconnect(self, next.error);
            break;
        }
    }
    if (more) {
        std::lock_guard lock(m_mutex);
        endTurnLocked(true); // a turn for other sockets first
    }
    t_draining = outer;
}

// Unread bytes the drain owns: the carried partial message and the rest of its buffer.
qsizetype AsyncSocket::takenBytes() const
{
    return m_carry.size() + m_take.size() - m_takePos;
}

// What the drain's oldest request takes from the bytes the drain owns; -1 while it must wait.
qsizetype AsyncSocket::takeableLength() const
{
    if (m_takeReads.empty())
        return -1;
    const std::int64_t wanted = m_takeReads.front().length;
    const qsizetype available = takenBytes();
    return meets(wanted, available) ? (wanted < 0 ? available : static_cast<qsizetype>(wanted)) : -1;
}

// Meets the drain's oldest request from the bytes it owns: the carried partial message, then
// the current buffer.
bool AsyncSocket::takeRead(Completion &next)
{
    const qsizetype length = takeableLength();
    if (length < 0)
        return false;
    const ReadRequest request = m_takeReads.front();
    next.kind = Completion::Read;
    next.tag = request.tag;
    if (m_carry.isEmpty()) {
        next.data = m_take.mid(m_takePos, length);
        m_takePos += length;
    } else if (length <= m_carry.size()) {
        next.data = m_carry.left(length);
        m_carry.remove(0, length);
    } else {
        const qsizetype fromTake = length - m_carry.size();
        next.data = std::move(m_carry);
        next.data.append(m_take.constData() + m_takePos, fromTake);
        m_carry = QByteArray();
        m_takePos += fromTake;
    }
    if (m_takePos == m_take.size()) {
        recycle(m_take);
        m_takePos = 0;
    }
    m_takeReads.pop_front();
    return true;
}

// Hands the drain the requests queued from other threads and the bytes read since it last
// looked. The buffers trade places rather than copy; only the unread end of the drain's
// buffer (usually part of one message) is carried over.
void AsyncSocket::refillLocked()
{
    if (m_state != State::Connected)
        return dropTaken();
    m_takeReads.insert(m_takeReads.end(), m_reads.begin(), m_reads.end());
    m_reads.clear();
    m_takeHeld = takenBytes();
    // New bytes are taken only when the drain's own cannot meet its oldest request: taking
    // them earlier would copy the unread end of its buffer for nothing.
    if (m_takeReads.empty() || takeableLength() >= 0)
        return;
    // Nothing else will say more bytes came from a peer that hung up: read them all now.
    for (qsizetype before = -1; m_hangUp && !m_eof && m_state == State::Connected && before != m_in.size();) {
        before = m_in.size();
        readKernelLocked();
    }
    if (m_state != State::Connected || m_in.isEmpty())
        return;
    m_carry.append(m_take.constData() + m_takePos, m_take.size() - m_takePos);
    m_take.swap(m_in);
    m_takePos = 0;
    recycle(m_in);
    m_takeHeld = takenBytes();
    const std::int64_t length = m_takeReads.front().length;
    if (length > m_maxBuffered && m_takeHeld >= m_maxBuffered)
        closeLocked(
            NQError(
                kErrorDomain, ReadLimitError,
                {{NQError::kLocalizedDescriptionKey,
                  QStringLiteral("Read of %1 bytes exceeds the %2-byte buffer limit").arg(length).arg(m_maxBuffered)}}),
            true);
}

// Ends a turn under the lock: requests the drain could not meet go back where the I/O thread
// sees them, and another turn is queued if work remains.
void AsyncSocket::endTurnLocked(bool more)
{
    m_drainScheduled = false;
    if (m_state == State::Connected) {
        m_reads.insert(m_reads.begin(), m_takeReads.begin(), m_takeReads.end());
        m_takeReads.clear();
        m_takeHeld = takenBytes();
        updateInterestLocked();
        if (more || wantsDrainLocked())
            scheduleDrainLocked();
    } else {
        dropTaken();
    }
    if (!m_completions.empty())
        scheduleDrainLocked();
}
