#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>

// A loopback HTTP server that answers every request with the next canned reply (the last one
// repeats) and remembers the request targets. Enough for a client's GET; no keep-alive.
class CannedHttpServer : public QObject {
public:
    struct Reply {
        int status = 200;
        QByteArray body;
    };

    CannedHttpServer()
    {
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection())
                serve(socket);
        });
        m_server.listen(QHostAddress::LocalHost, 0);
    }

    QString baseUrl() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort()); }
    void setReplies(QList<Reply> replies) { m_replies = std::move(replies); }
    const QStringList &targets() const { return m_targets; }

private:
    void serve(QTcpSocket *socket)
    {
        auto buffer = std::make_shared<QByteArray>();
        connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer] {
            buffer->append(socket->readAll());
            if (!buffer->contains("\r\n\r\n"))
                return;
            m_targets << QString::fromUtf8(buffer->split(' ').value(1));
            const Reply reply = m_replies.isEmpty() ? Reply{404, {}} : m_replies.first();
            if (m_replies.size() > 1)
                m_replies.removeFirst();
            socket->write("HTTP/1.1 " + QByteArray::number(reply.status) + " X\r\nContent-Type: application/json\r\n" +
                          "Connection: close\r\nContent-Length: " + QByteArray::number(reply.body.size()) + "\r\n\r\n" +
                          reply.body);
            socket->disconnectFromHost();
        });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }

    QTcpServer m_server;
    QList<Reply> m_replies;
    QStringList m_targets;
};
