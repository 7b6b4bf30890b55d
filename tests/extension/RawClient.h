#pragma once

#include "MaskedFrame.h"

#include <QHostAddress>
#include <QTcpSocket>
#include <QtTest>

// A byte-exact WebSocket client over QTcpSocket: what goes out is exactly what the test
// wrote, so the server's answers to odd input can be checked byte by byte.
class RawClient {
public:
    QTcpSocket socket;
    QByteArray received;

    bool connectTo(quint16 port, const QHostAddress &host = QHostAddress::LocalHost)
    {
        socket.connectToHost(host, port);
        return socket.waitForConnected(5000);
    }
    void write(const QByteArray &bytes)
    {
        socket.write(bytes);
        socket.flush();
    }
    // Connects (unless already connected), sends the standard handshake and waits for the 101.
    bool handshake(quint16 port)
    {
        if (socket.state() != QAbstractSocket::ConnectedState && !connectTo(port))
            return false;
        write("GET /Quellon/ HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
        if (!waitFor([&] { return received.contains("\r\n\r\n"); }))
            return false;
        const bool ok = received.startsWith("HTTP/1.1 101 ");
        received.remove(0, received.indexOf("\r\n\r\n") + 4);
        return ok;
    }
    bool waitFor(const std::function<bool()> &condition, int ms = 5000)
    {
        return QTest::qWaitFor(
            [&] {
                received += socket.readAll();
                return condition();
            },
            ms);
    }
    bool waitForBytes(qsizetype n, int ms = 5000)
    {
        return waitFor([&] { return received.size() >= n; }, ms);
    }
    bool waitForClose(int ms = 5000)
    {
        return waitFor([&] { return socket.state() == QAbstractSocket::UnconnectedState; }, ms);
    }
    QByteArray take(qsizetype n)
    {
        const QByteArray head = received.left(n);
        received.remove(0, n);
        return head;
    }
};
