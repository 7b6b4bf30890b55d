#pragma once

#include "extension/AsyncSocket.h"

#include <QList>

#include <mutex>
#include <vector>

// An AsyncSocketDelegate that records every callback, for tests that wait on them from the
// main thread. `onAccept` / `onRead` / `onWrite` let a test answer from the socket's queue.
class SocketRecorder : public AsyncSocketDelegate {
public:
    struct Read {
        AsyncSocketPtr sock;
        QByteArray data;
        long tag;
    };
    std::function<void(const AsyncSocketPtr &)> onAccept;
    std::function<void(const Read &)> onRead;

    void socketDidAcceptNewSocket(const AsyncSocketPtr &, const AsyncSocketPtr &newSocket) override
    {
        {
            std::lock_guard lock(m_mutex);
            m_accepted.push_back(newSocket);
        }
        if (onAccept)
            onAccept(newSocket);
    }
    void socketDidReadData(const AsyncSocketPtr &sock, QByteArray data, long tag) override
    {
        {
            std::lock_guard lock(m_mutex);
            m_reads.push_back({sock, data, tag});
        }
        if (onRead)
            onRead({sock, data, tag});
    }
    void socketDidWriteDataWithTag(const AsyncSocketPtr &, long tag) override
    {
        std::lock_guard lock(m_mutex);
        m_writes << tag;
    }
    void socketDidDisconnect(const AsyncSocketPtr &sock, const NQErrorOpt &error) override
    {
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
    mutable std::mutex m_mutex;
    std::vector<AsyncSocketPtr> m_accepted;
    std::vector<Read> m_reads;
    QList<long> m_writes;
    std::vector<std::pair<AsyncSocketPtr, NQErrorOpt>> m_disconnects;
};
