#pragma once

#include "extension/AsyncSocket.h"
#include "foundation/MainQueue.h"

#include <QList>

#include <atomic>
#include <mutex>
#include <vector>

// An AsyncSocketDelegate that records every callback, for tests that wait on them from the
// main thread. `onAccept` / `onRead` let a test answer from the socket's thread.
class SocketRecorder : public AsyncSocketDelegate {
public:
    struct Read {
        AsyncSocketPtr sock;
        QByteArray data;
        long tag;
    };
    std::function<void(const AsyncSocketPtr &)> onAccept;
    std::function<void(const Read &)> onRead;
    std::atomic<bool> onMainThread{false}; // a callback ran on the main thread

    void socketDidAcceptNewSocket(const AsyncSocketPtr &, const AsyncSocketPtr &newSocket) override
    {
        check();
        {
            std::lock_guard lock(m_mutex);
            m_accepted.push_back(newSocket);
        }
        if (onAccept)
            onAccept(newSocket);
    }
    void socketDidReadData(const AsyncSocketPtr &sock, QByteArray data, long tag) override
    {
        check();
        {
            std::lock_guard lock(m_mutex);
            m_reads.push_back({sock, data, tag});
        }
        if (onRead)
            onRead({sock, data, tag});
    }
    void socketDidWriteDataWithTag(const AsyncSocketPtr &, long tag) override
    {
        check();
        std::lock_guard lock(m_mutex);
        m_writes << tag;
    }
    void socketDidDisconnect(const AsyncSocketPtr &sock, const NQErrorOpt &error) override
    {
        check();
        std::lock_guard lock(m_mutex);
        m_disconnects.push_back({sock, error});
    }

    std::vector<AsyncSocketPtr> accepted() const
    {
        std::lock_guard lock(m_mutex);
        return m_accepted;
    }
    std::vector<Read> reads() const
    {
        std::lock_guard lock(m_mutex);
        return m_reads;
    }
    QList<long> writes() const
    {
        std::lock_guard lock(m_mutex);
        return m_writes;
    }
    std::vector<std::pair<AsyncSocketPtr, NQErrorOpt>> disconnects() const
    {
        std::lock_guard lock(m_mutex);
        return m_disconnects;
    }

private:
    void check()
    {
        if (MainQueue::isMainThread())
            onMainThread = true;
    }

    mutable std::mutex m_mutex;
    std::vector<AsyncSocketPtr> m_accepted;
    std::vector<Read> m_reads;
    QList<long> m_writes;
    std::vector<std::pair<AsyncSocketPtr, NQErrorOpt>> m_disconnects;
};
