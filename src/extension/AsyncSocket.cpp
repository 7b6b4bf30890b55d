#include "extension/AsyncSocket.h"
#include "extension/SocketLoop.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace {
// Bytes taken from the kernel per read() call, and read() calls per readiness report, so one
// busy client cannot hold the I/O thread for long.
constexpr qsizetype kReadChunk = 64 * 1024;
constexpr int kReadsPerWakeup = 4;
// An emptied input buffer bigger than this is given back rather than kept for the next bytes.
constexpr qsizetype kKeptBufferBytes = 2 * kReadsPerWakeup * kReadChunk;

std::atomic<std::uint64_t> g_nextId{1};

NQError osError(int err)
{
    return NQError(NQError::kPosixDomain, err,
                   {{NQError::kLocalizedDescriptionKey, QString::fromLocal8Bit(std::strerror(err))}});
}

NQError ownError(int code, const QString &text)
{
    return NQError(AsyncSocket::kErrorDomain, code, {{NQError::kLocalizedDescriptionKey, text}});
}
} // namespace

AsyncSocket::AsyncSocket() : m_id(g_nextId++) {}

AsyncSocketPtr AsyncSocket::create(std::weak_ptr<AsyncSocketDelegate> delegate, SocketLoop *delegateQueue)
{
    AsyncSocketPtr socket(new AsyncSocket);
    socket->m_delegate = std::move(delegate);
    socket->m_loop = delegateQueue;
    return socket;
}

AsyncSocket::~AsyncSocket()
{
    // The last owner may be another thread: descriptors are closed where they are watched.
    if (m_loop)
        m_loop->call([this] { close({}); });
}

// Runs `task` now on the loop thread, else queues it there behind earlier calls.
template <typename Task> void AsyncSocket::onLoop(Task task)
{
    if (!m_loop || m_loop->isLoopThread())
        return task();
    m_loop->post([self = shared_from_this(), task] { task(); });
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
    onLoop([this, length, tag] {
        if (m_fd < 0)
            return;
        m_reads.push_back({length, tag});
        pump();
    });
}

void AsyncSocket::writeData(const QByteArray &data, double, long tag)
{
    onLoop([this, data, tag] {
        if (m_fd < 0)
            return;
        m_writes.push_back({data, tag});
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
    if (m_fd < 0) {
        // A listener: whichever family fired, both backlogs are emptied.
        acceptPending(m_fd4);
        acceptPending(m_fd6);
        return;
    }
    if (events & EventPoller::Writable)
        writeKernel();
    if (m_fd >= 0 && (events & (EventPoller::Readable | EventPoller::HangUp))) {
        if (m_interest & EventPoller::Readable) {
            readKernel();
        } else {
            // Hung up while reading is paused: the poller would say so without end.
            int err = 0;
            socklen_t len = sizeof err;
            getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &err, &len);
            close(err ? osError(err) : ownError(PeerClosedError, QStringLiteral("Connection closed by the peer")));
        }
    }
    pump();
}

void AsyncSocket::readKernel()
{
    if (m_inPos) {
        m_in.remove(0, m_inPos); // moves where the bytes start, not the bytes
        m_inPos = 0;
    }
    for (int i = 0; i < kReadsPerWakeup && !m_eof; ++i) {
        const qsizetype want = std::min<qsizetype>(m_maxBuffered - m_in.size(), kReadChunk);
        if (want <= 0)
            return;
        // Straight into the buffer's free end: no second copy.
        const qsizetype held = m_in.size();
        m_in.resize(held + want);
        const ssize_t n = ::read(m_fd, m_in.data() + held, static_cast<size_t>(want));
        m_in.resize(held + std::max<qsizetype>(n, 0));
        if (n == 0) {
            m_eof = true;
        } else if (n < 0 && errno != EINTR) {
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                close(osError(errno));
            return;
        } else if (n > 0 && n < want) {
            return; // drained
        }
    }
}

void AsyncSocket::writeKernel()
{
    while (!m_writes.empty()) {
        const QByteArray &data = m_writes.front().data;
        const ssize_t n =
            ::send(m_fd, data.constData() + m_written, static_cast<size_t>(data.size() - m_written), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                close(osError(errno));
            return;
        }
        if ((m_written += n) < data.size())
            continue;
        m_wroteTags.push_back(m_writes.front().tag);
        m_writes.pop_front();
        m_written = 0;
    }
}

// Runs every callback that is due, one at a time. A call made from inside a callback only
// queues its work: the running pump picks it up, so callbacks never nest.
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
    if (m_fd >= 0 || m_fd4 >= 0 || m_fd6 >= 0)
        return updateInterest();
    if (!std::exchange(m_reported, true))
        delegate->socketDidDisconnect(self, m_closeError);
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
            close(ownError(PeerClosedError, QStringLiteral("Connection closed by the peer")));
        else if (wanted > m_maxBuffered && held >= m_maxBuffered)
            close(ownError(
                ReadLimitError,
                QStringLiteral("Read of %1 bytes exceeds the %2-byte buffer limit").arg(wanted).arg(m_maxBuffered)));
        return false;
    }
    const qsizetype n = wanted < 0 ? held : static_cast<qsizetype>(wanted);
    QByteArray data;
    if (m_inPos == 0 && n == m_in.size()) {
        data = std::exchange(m_in, {}); // the whole buffer: handed over, not copied
    } else {
        data = QByteArray(m_in.constData() + m_inPos, n);
        m_inPos += n;
    }
    if (m_inPos == m_in.size()) {
        m_inPos = 0;
        m_in.capacity() > kKeptBufferBytes ? m_in.clear() : m_in.resize(0);
    }
    const long tag = m_reads.front().tag;
    m_reads.erase(m_reads.begin());
    delegate.socketDidReadData(self, std::move(data), tag);
    return true;
}

void AsyncSocket::updateInterest()
{
    if (m_fd < 0)
        return;
    std::uint32_t wanted = 0;
    if (!m_eof && m_in.size() - m_inPos < m_maxBuffered)
        wanted |= EventPoller::Readable;
    if (!m_writes.empty())
        wanted |= EventPoller::Writable;
    if (wanted != m_interest)
        m_loop->modify(m_fd, m_token, m_interest = wanted);
}

// Closes whatever is open and drops what was queued; the next pump reports it.
void AsyncSocket::close(NQErrorOpt error)
{
    bool wasOpen = false;
    for (auto [fd, token] : {std::pair{&m_fd, m_token}, std::pair{&m_fd4, m_token4}, std::pair{&m_fd6, m_token6}}) {
        if (*fd < 0)
            continue;
        m_loop->unwatch(*fd, token);
        ::close(*fd);
        *fd = -1;
        wasOpen = true;
    }
    if (!wasOpen)
        return;
    m_reads.clear();
    m_writes.clear();
    m_wroteTags.clear();
    m_in.clear();
    m_inPos = 0;
    m_closeError = std::move(error);
    m_reported = false;
}
