#pragma once

#include "foundation/NQError.h"

#include <QByteArray>

#include <memory>

class AsyncSocket;
using AsyncSocketPtr = std::shared_ptr<AsyncSocket>;

// Callbacks of AsyncSocket, all run on the socket loop's thread, one at a time.
class AsyncSocketDelegate {
public:
    virtual ~AsyncSocketDelegate() = default;
    // A client connected to the listener `sock`; keep `newSocket` or it closes.
    virtual void socketDidAcceptNewSocket(const AsyncSocketPtr &sock, const AsyncSocketPtr &newSocket) {}
    // A read request completed with `data`, the delegate's own.
    virtual void socketDidReadData(const AsyncSocketPtr &sock, QByteArray data, long tag) {}
    // Every byte of a write request has been handed to the kernel.
    virtual void socketDidWriteDataWithTag(const AsyncSocketPtr &sock, long tag) {}
    // Reported once. `error` says why: empty after disconnect(), else PeerClosedError,
    // ReadLimitError or an operating-system error.
    virtual void socketDidDisconnect(const AsyncSocketPtr &sock, const NQErrorOpt &error) {}
};
