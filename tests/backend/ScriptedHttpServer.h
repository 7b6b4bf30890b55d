#pragma once

#include <QByteArray>
#include <QTcpServer>
#include <QTcpSocket>

// A loopback server that answers every request with fixed bytes, or drops or ignores it,
// and keeps the raw request bytes: for cases that need exact control of the wire.
class ScriptedHttpServer : public QObject {
public:
    enum class Action { Answer, Close, Ignore };

    ScriptedHttpServer()
    {
        m_server.listen(QHostAddress::LocalHost, 0);
        QObject::connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                socket->setParent(this);
                QObject::connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onData(socket); });
            }
        });
    }

    QString baseUrl() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort()); }
    void setAction(Action action, const QByteArray &reply = {})
    {
        m_action = action;
        m_reply = reply;
    }
    // "HTTP/1.1 <status>" with the body and its length.
    static QByteArray response(int status, const QByteArray &type, const QByteArray &body)
    {
        return "HTTP/1.1 " + QByteArray::number(status) + " X\r\nContent-Type: " + type +
               "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
    }
    // Complete requests received (head and body).
    const QList<QByteArray> &requests() const { return m_requests; }

private:
    void onData(QTcpSocket *socket)
    {
        m_pending += socket->readAll();
        const qsizetype end = m_pending.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        qsizetype length = 0;
        for (const QByteArray &line : m_pending.left(end).split('\n'))
            if (line.toLower().startsWith("content-length:"))
                length = line.mid(15).trimmed().toLongLong();
        if (m_pending.size() < end + 4 + length)
            return;
        m_requests.append(m_pending.left(end + 4 + length));
        m_pending.remove(0, end + 4 + length);
        if (m_action == Action::Answer)
            socket->write(m_reply);
        else if (m_action == Action::Close)
            socket->abort();
    }

    QTcpServer m_server;
    Action m_action = Action::Answer;
    QByteArray m_reply;
    QByteArray m_pending;
    QList<QByteArray> m_requests;
};
