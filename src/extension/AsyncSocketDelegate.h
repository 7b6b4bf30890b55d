#pragma once

#include "foundation/NQError.h"

#include <QByteArray>

#include <memory>

class AsyncSocket;
using AsyncSocketPtr = std::shared_ptr<AsyncSocket>;

// Callbacks of AsyncSocket. They run on the socket's delegate queue (a worker pool), never
// two at once for the same socket; callbacks of different sockets may run in parallel.
class AsyncSocketDelegate {
public:
    virtual ~AsyncSocketDelegate() = default;

    // A client connected to the listening socket `sock`; `newSocket` inherits its delegate and
    // delegate queue. Keep `newSocket` or it closes.
    virtual void socketDidAcceptNewSocket(const AsyncSocketPtr &sock, const AsyncSocketPtr &newSocket) {}
    // A read request completed with `data`, the delegate's own; `tag` is the request's tag.
    virtual void socketDidReadData(const AsyncSocketPtr &sock, QByteArray data, long tag) {}
    // Every byte of a write request has been handed to the kernel.
    virtual void socketDidWriteDataWithTag(const AsyncSocketPtr &sock, long tag) {}
    // The socket closed, by either side or by disconnect(); reported exactly once. `error` is
    // empty for an orderly close.
    virtual void socketDidDisconnect(const AsyncSocketPtr &sock, const NQErrorOpt &error) {}
};
