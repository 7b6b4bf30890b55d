#pragma once

#include <QHostAddress>
#include <QTcpSocket>
#include <QtTest>

// A byte-exact WebSocket client over QTcpSocket: what goes out is exactly what the test
// wrote, so the server's answers to odd input can be checked byte by byte.
class RawClient {
public:
    QTcpSocket socket;
    QByteArray received;

    bool connectTo(quint16 port)
    {
        socket.connectToHost(QHostAddress::LocalHost, port);
        return socket.waitForConnected(5000);
    }
    void write(const QByteArray &bytes)
    {
        socket.write(bytes);
        socket.flush();
    }
    // Connects, sends the standard handshake and waits for the 101 response.
    bool handshake(quint16 port) { return connectTo(port) && upgrade(); }
    bool upgrade()
    {
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

    // A masked client frame.
    static QByteArray frame(unsigned char b0, const QByteArray &payload, const QByteArray &key = "\x37\xfa\x21\x3d")
    {
        QByteArray out;
        out.append(static_cast<char>(b0));
        const auto n = static_cast<quint64>(payload.size());
        if (n < 126) {
            out.append(static_cast<char>(0x80 | n));
        } else if (n < 65536) {
            out.append(static_cast<char>(0x80 | 126)).append(static_cast<char>(n >> 8)).append(static_cast<char>(n));
        } else {
            out.append(static_cast<char>(0x80 | 127));
            for (int i = 7; i >= 0; --i)
                out.append(static_cast<char>(n >> (8 * i)));
        }
        out.append(key);
        const qsizetype start = out.size();
        out.append(payload);
        char *p = out.data() + start;
        for (qsizetype i = 0; i < payload.size(); ++i)
            p[i] = static_cast<char>(p[i] ^ key[i % 4]);
        return out;
    }
};
