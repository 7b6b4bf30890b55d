#include "SingleInstance.h"

#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>

namespace {
constexpr char kShowCommand[] = "show\n";
}

SingleInstance::SingleInstance(const QString &folder, QObject *parent) : QObject(parent)
{
    QString dir = folder;
    if (dir.isEmpty())
        dir = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (dir.isEmpty())
        dir = QDir::tempPath();
    m_path = dir + QLatin1Char('/') + QLatin1String(kSocketName);
}

SingleInstance::~SingleInstance()
{
    if (m_server)
        m_server->close();
}

bool SingleInstance::askRunningInstanceToShow()
{
    QLocalSocket socket;
    socket.connectToServer(m_path);
    if (!socket.waitForConnected(kAskTimeoutMs))
        return false;
    socket.write(kShowCommand);
    if (!socket.waitForBytesWritten(kAskTimeoutMs))
        return false;
    // The answer says the request was read, so the running instance really is alive.
    return socket.waitForReadyRead(kAskTimeoutMs) && socket.readAll().startsWith("ok");
}

bool SingleInstance::listen()
{
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    // Nobody answered on the path: what is left there is a dead instance's socket.
    QLocalServer::removeServer(m_path);
    if (!m_server->listen(m_path))
        return false;
    connect(m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *client = m_server->nextPendingConnection()) {
            connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
            connect(client, &QLocalSocket::readyRead, this, [this, client] {
                if (!client->canReadLine())
                    return;
                const QByteArray line = client->readLine();
                client->write("ok\n");
                client->flush();
                if (line == kShowCommand)
                    emit showRequested();
            });
        }
    });
    return true;
}
