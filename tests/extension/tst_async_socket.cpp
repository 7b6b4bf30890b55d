#include "SocketRecorder.h"

#include "extension/SocketLoop.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

class TestAsyncSocket : public QObject {
    Q_OBJECT

    std::shared_ptr<SocketRecorder> recorder;
    AsyncSocketPtr listener;

    // A listener on a free port and one connected client; returns the accepted socket.
    AsyncSocketPtr connectClient(QTcpSocket &client)
    {
        const auto before = recorder->accepted().size();
        client.connectToHost(QHostAddress::LocalHost, listener->localPort());
        if (!client.waitForConnected(5000))
            return nullptr;
        if (!QTest::qWaitFor([&] { return recorder->accepted().size() > before; }, 5000))
            return nullptr;
        return recorder->accepted().back();
    }

private slots:
    void init()
    {
        recorder = std::make_shared<SocketRecorder>();
        listener = std::make_shared<AsyncSocket>(recorder, &SocketLoop::shared());
        NQErrorOpt error;
        QVERIFY(listener->acceptOnPort(0, &error));
    }
    void cleanup()
    {
        listener->disconnect();
        for (const auto &s : recorder->accepted())
            s->disconnect();
        listener.reset();
        QVERIFY(!recorder->onMainThread);
        recorder.reset();
    }

    void configurationErrorsInOrder()
    {
        auto delegate = std::make_shared<SocketRecorder>();
        auto check = [](const AsyncSocketPtr &s, const char *text, bool listening = false) {
            NQErrorOpt error;
            QVERIFY(!s->acceptOnPort(0, &error));
            QVERIFY(error);
            QCOMPARE(error->domain(), QStringLiteral("AsyncSocketErrorDomain"));
            QCOMPARE(error->localizedDescription(), QString::fromLatin1(text));
            QCOMPARE(s->localPort() != 0, listening);
        };
        // Every fault at once: the delegate is reported first, then the queue, then protocols.
        auto withoutProtocols = [](const std::shared_ptr<SocketRecorder> &d, SocketLoop *queue) {
            auto socket = std::make_shared<AsyncSocket>(d, queue);
            socket->setIPv4Enabled(false);
            socket->setIPv6Enabled(false);
            return socket;
        };
        check(withoutProtocols({}, nullptr), "Attempting to accept without a delegate. Set a delegate first.");
        check(withoutProtocols(delegate, nullptr),
              "Attempting to accept without a delegate queue. Set a delegate queue first.");
        auto s = withoutProtocols(delegate, &SocketLoop::shared());
        check(s, "Both IPv4 and IPv6 have been disabled. Must enable at least one protocol first.");
        s->setIPv4Enabled(true);
        QVERIFY(s->acceptOnPort(0, nullptr));
        const quint16 port = s->localPort();
        check(s, "Attempting to accept while connected or accepting connections. Disconnect first.", true);
        QCOMPARE(s->localPort(), port); // the refused call left the listener as it was
        s->disconnect();
    }

    void listensOnBothFamiliesWithOnePort()
    {
        QVERIFY(listener->localPort() != 0);
        QTcpSocket v6;
        v6.connectToHost(QHostAddress::LocalHostIPv6, listener->localPort());
        QVERIFY(v6.waitForConnected(5000));
        QTRY_COMPARE(recorder->accepted().size(), size_t(1));
        QVERIFY(recorder->accepted()[0]->description().startsWith(QLatin1String("[::1]:")));
    }

    void portHeldElsewhereFailsBindAndLeavesNothingOpen()
    {
        QTcpServer holder;
        QVERIFY(holder.listen(QHostAddress::AnyIPv4, 0));
        auto s = std::make_shared<AsyncSocket>(recorder, &SocketLoop::shared());
        NQErrorOpt error;
        QVERIFY(!s->acceptOnPort(holder.serverPort(), &error));
        QCOMPARE(error->domain(), QString::fromLatin1(NQError::kPosixDomain));
        QCOMPARE(error->code(), EADDRINUSE);
        QCOMPARE(error->localizedDescription(), QStringLiteral("Error in bind() function"));
        QCOMPARE(s->localPort(), 0);
        // Nothing half-open: the same object can listen again once the port is free.
        const quint16 port = holder.serverPort();
        holder.close();
        QVERIFY(s->acceptOnPort(port, &error));
        QCOMPARE(s->localPort(), port);
        s->disconnect();
    }

    // Reads complete in order, an exact read only once all its bytes are there, and bytes
    // past a request (or before any) wait for the next one.
    void readsWaitForTheirBytesAndKeepTheSurplus()
    {
        QTcpSocket client;
        auto sock = connectClient(client);
        QVERIFY(sock);
        sock->readDataWithTimeout(-1, 7);
        client.write("first");
        client.flush();
        QTRY_COMPARE(recorder->reads().size(), size_t(1));
        QCOMPARE(recorder->reads()[0].data, QByteArray("first"));
        QCOMPARE(recorder->reads()[0].tag, 7L);
        client.write("abc");
        client.flush();
        QTest::qWait(50); // bytes arrive before the next request: they must be kept
        sock->readDataToLength(6, -1, 1);
        sock->readDataToLength(3, -1, 2);
        QTest::qWait(50);
        QCOMPARE(recorder->reads().size(), size_t(1));
        client.write("defghijk");
        client.flush();
        QTRY_COMPARE(recorder->reads().size(), size_t(3));
        QCOMPARE(recorder->reads()[1].data, QByteArray("abcdef"));
        QCOMPARE(recorder->reads()[2].data, QByteArray("ghi"));
        QCOMPARE(recorder->reads()[2].tag, 2L);
        sock->readDataWithTimeout(-1, 3);
        QTRY_COMPARE(recorder->reads().size(), size_t(4));
        QCOMPARE(recorder->reads()[3].data, QByteArray("jk"));
    }

    void exactReadsReassembleAStreamCutAnywhere()
    {
        // Read lengths from one byte to past a kernel read, against writes of other sizes,
        // so requests straddle every boundary between what the kernel hands over.
        const std::array<int, 8> lengths = {1, 70, 3, 65537, 2, 300000, 4095, 1 << 20};
        QByteArray stream(6 * 1024 * 1024, Qt::Uninitialized);
        for (int i = 0; i < stream.size(); ++i)
            stream[i] = char((quint64(i) * 7919) >> 5);
        std::atomic<qsizetype> queued{0};
        auto queueNext = [&](const AsyncSocketPtr &sock, long tag) {
            const qsizetype length = std::min<qsizetype>(lengths[tag % lengths.size()], stream.size() - queued);
            queued += length;
            if (length > 0)
                sock->readDataToLength(length, -1, tag);
        };
        recorder->onRead = [&](const SocketRecorder::Read &r) { queueNext(r.sock, r.tag + 1); };
        QTcpSocket client;
        auto sock = connectClient(client);
        queueNext(sock, 0);
        for (qsizetype at = 0, piece = 1; at < stream.size(); at += piece, piece = piece * 3 % 99991 + 1) {
            client.write(stream.mid(at, piece));
            client.waitForBytesWritten(1000);
        }
        QByteArray received;
        QTRY_VERIFY_WITH_TIMEOUT(
            queued == stream.size() && recorder->reads().size() > 0 &&
                recorder->reads().back().tag == long(recorder->reads().size() - 1) &&
                [&] {
                    qsizetype total = 0;
                    for (const auto &r : recorder->reads())
                        total += r.data.size();
                    return total == stream.size();
                }(),
            20000);
        recorder->onRead = nullptr;
        const auto reads = recorder->reads();
        for (const auto &r : reads) {
            if (&r != &reads.back())
                QCOMPARE(r.data.size(), qsizetype(lengths[r.tag % lengths.size()]));
            received += r.data;
        }
        QVERIFY(received == stream);
    }

    void writesCompleteInOrder()
    {
        QTcpSocket client;
        auto sock = connectClient(client);
        QByteArray expected;
        for (long tag = 1; tag <= 20; ++tag) {
            const QByteArray chunk(static_cast<int>(tag) * 10000, static_cast<char>('a' + tag));
            expected += chunk;
            sock->writeData(chunk, -1, tag);
        }
        QByteArray received;
        QTRY_VERIFY_WITH_TIMEOUT((received += client.readAll()).size() == expected.size(), 10000);
        QCOMPARE(received, expected);
        QTRY_COMPARE(recorder->writes().size(), 20);
        for (int i = 0; i < 20; ++i)
            QCOMPARE(recorder->writes()[i], long(i + 1));
    }

    void disconnectDropsPendingWriteAndReportsOnce()
    {
        QTcpSocket client;
        client.setReadBufferSize(1);
        auto sock = connectClient(client);
        // Far more than the kernel buffers hold for a client that does not read.
        sock->writeData(QByteArray(64 * 1024 * 1024, 'x'), -1, 42);
        sock->readDataToLength(10, -1, 5);
        sock->disconnect();
        sock->disconnect();
        QTRY_COMPARE(recorder->disconnects().size(), size_t(1));
        QTest::qWait(100);
        QCOMPARE(recorder->disconnects().size(), size_t(1));
        QVERIFY(!recorder->disconnects()[0].second);
        QVERIFY(!recorder->writes().contains(42));
        QCOMPARE(recorder->reads().size(), size_t(0));
        sock->writeData("late", -1, 43); // ignored, no crash, no callback
        QTest::qWait(50);
        QVERIFY(recorder->writes().isEmpty());
    }

    void peerCloseReportsOnceAfterDeliveringWhatArrived()
    {
        QTcpSocket client;
        auto sock = connectClient(client);
        // The next request is queued only from the read callback: a client that writes and
        // closes at once must still have its bytes delivered.
        recorder->onRead = [](const SocketRecorder::Read &r) {
            if (r.tag == 1)
                r.sock->readDataToLength(4, -1, 2);
        };
        client.write("ab1234");
        client.disconnectFromHost();
        sock->readDataToLength(2, -1, 1);
        QTRY_COMPARE(recorder->disconnects().size(), size_t(1));
        QCOMPARE(recorder->reads().size(), size_t(2));
        QCOMPARE(recorder->reads()[1].data, QByteArray("1234"));
        QTest::qWait(50);
        QCOMPARE(recorder->disconnects().size(), size_t(1));
    }

    void bufferedBytesAreCappedNotDeclaredOnes()
    {
        const int cap = 4096;
        listener->setMaxBufferedBytes(cap);
        QTcpSocket a, b;
        auto exact = connectClient(a);
        auto over = connectClient(b);
        exact->readDataToLength(cap, -1, 1);
        over->readDataToLength(cap + 1, -1, 1);
        a.write(QByteArray(cap, 'a'));
        b.write(QByteArray(cap + 1, 'b'));
        QTRY_COMPARE(recorder->reads().size(), size_t(1));
        QCOMPARE(recorder->reads()[0].data.size(), cap);
        QTRY_COMPARE(recorder->disconnects().size(), size_t(1));
        const auto disconnects = recorder->disconnects();
        const auto &[sock, error] = disconnects[0];
        QCOMPARE(sock, over);
        QCOMPARE(error->domain(), QStringLiteral("AsyncSocketErrorDomain"));
        QCOMPARE(error->code(), int(AsyncSocket::ReadLimitError));

        a.disconnectFromHost();
        QTRY_COMPARE(recorder->disconnects().size(), size_t(2));
        QCOMPARE(recorder->disconnects()[1].second->code(), int(AsyncSocket::PeerClosedError));
    }
};

QTEST_GUILESS_MAIN(TestAsyncSocket)
#include "tst_async_socket.moc"
