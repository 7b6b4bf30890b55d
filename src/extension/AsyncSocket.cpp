#include "extension/AsyncSocket.h"
#include "extension/SocketLoop.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace {
// Bytes taken from the kernel per read() call, and read() calls per readiness report, so one
// busy client cannot hold the I/O thread for long.
constexpr qsizetype kReadChunk = 64 * 1024;
constexpr int kReadsPerWakeup = 16;
// Capacity an emptied input buffer keeps for the next bytes.
constexpr qsizetype kKeptBufferBytes = 4 * kReadChunk;

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
    std::lock_guard lock(m_mutex);
    if (m_state != State::Connected)
        return;
    m_reads.push_back({-1, tag});
    completeReadsLocked();
}

void AsyncSocket::readDataToLength(std::uint64_t length, double, long tag)
{
    std::lock_guard lock(m_mutex);
    if (m_state != State::Connected)
        return;
    // Lengths past what a signed count holds can never be met; they wait like any other.
    m_reads.push_back({static_cast<std::int64_t>(std::min<std::uint64_t>(length, INT64_MAX)), tag});
    completeReadsLocked();
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
    completeReadsLocked();
}

void AsyncSocket::readKernelLocked()
{
    for (int i = 0; i < kReadsPerWakeup && !m_eof; ++i) {
        const qsizetype room = static_cast<qsizetype>(m_maxBuffered) - (m_in.size() - m_inPos);
        if (room <= 0)
            break;
        if (m_inPos > 0 && m_inPos >= m_in.size() / 2) {
            m_in.remove(0, m_inPos);
            m_inPos = 0;
        }
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

void AsyncSocket::completeReadsLocked()
{
    while (m_state == State::Connected && !m_reads.empty()) {
        if (m_hangUp && !m_eof)
            readKernelLocked();
        if (m_state != State::Connected)
            return;
        const ReadRequest request = m_reads.front();
        const qsizetype available = m_in.size() - m_inPos;
        qsizetype take;
        if (request.length < 0)
            take = available;
        else if (request.length <= available)
            take = static_cast<qsizetype>(request.length);
        else
            take = 0;
        if (take == 0 && request.length != 0) {
            if (request.length > m_maxBuffered && available >= m_maxBuffered) {
                closeLocked(NQError(kErrorDomain, ReadLimitError,
                                    {{NQError::kLocalizedDescriptionKey,
                                      QStringLiteral("Read of %1 bytes exceeds the %2-byte buffer limit")
                                          .arg(request.length)
                                          .arg(m_maxBuffered)}}),
                            true);
                return;
            }
            break;
        }
        QByteArray data = m_in.mid(m_inPos, take);
        m_inPos += take;
        if (m_inPos == m_in.size()) {
            // Keep a normal-sized buffer for the next bytes; give back what a big message took.
            if (m_in.capacity() > kKeptBufferBytes)
                m_in.clear();
            else
                m_in.resize(0);
            m_inPos = 0;
        }
        m_reads.pop_front();
        postLocked({Completion::Read, request.tag, std::move(data), {}, {}});
    }
    finishIfDrainedLocked();
    if (m_state == State::Connected)
        updateInterestLocked();
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
    if (!m_eof && m_in.size() - m_inPos < m_maxBuffered)
        wanted |= EventPoller::Readable;
    if (!m_writes.empty())
        wanted |= EventPoller::Writable;
    if (wanted != m_interest) {
        m_interest = wanted;
        SocketLoop::shared().modify(m_fd, m_token, wanted);
    }
}

// After the peer's end of stream, the connection stays up only while a read can still be
// met from what was received, or while a callback is running that may queue one.
void AsyncSocket::finishIfDrainedLocked()
{
    if (m_state != State::Connected || !m_eof)
        return;
    if (!m_reads.empty() || m_callbacksInFlight == 0)
        closeLocked({}, true);
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
    m_inPos = 0;
    if (m_state != State::Idle)
        m_state = State::Disconnected;
    if (wasOpen && report && m_reports)
        postLocked({Completion::Disconnected, 0, {}, {}, error});
}

void AsyncSocket::postLocked(Completion completion)
{
    ++m_callbacksInFlight;
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
    bool ranOne = false;
    for (int i = 0;; ++i) {
        Completion next;
        std::shared_ptr<AsyncSocketDelegate> delegate;
        {
            std::lock_guard lock(m_mutex);
            if (ranOne) {
                --m_callbacksInFlight;
                finishIfDrainedLocked(); // may queue the disconnection
            }
            if (m_completions.empty() || i == kCallbacksPerTurn) {
                m_drainScheduled = false;
                if (!m_completions.empty())
                    scheduleDrainLocked(); // a turn for other sockets first
                return;
            }
            next = std::move(m_completions.front());
            m_completions.pop_front();
            delegate = m_delegate.lock();
        }
        ranOne = true;
        if (!delegate)
            continue;
        switch (next.kind) {
        case Completion::Accepted:
            delegate->socketDidAcceptNewSocket(next.listener, self);
            break;
        case Completion::Read:
            delegate->socketDidReadData(self, next.data, next.tag);
            break;
        case Completion::Wrote:
            delegate->socketDidWriteDataWithTag(self, next.tag);
            break;
        case Completion::Disconnected:
            delegate->socketDidDisconnect(self, next.error);
            break;
        }
    }
}
