#include "platform/linux/LinuxSystemEvents.h"

#include "platform/linux/RouteMessages.h"

#include <QByteArray>
#include <QLibrary>
#include <QObject>
#include <QSocketNotifier>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

void LinuxSystemEvents::log(const QString &text) const
{
    if (m_log)
        m_log(text);
}

LinuxSystemEvents::LinuxSystemEvents(QString sleepWatchModulePath) : m_modulePath(std::move(sleepWatchModulePath)) {}

LinuxSystemEvents::~LinuxSystemEvents()
{
    m_routeNotifier.reset();
    if (m_routeSocket >= 0)
        ::close(m_routeSocket);
}

void LinuxSystemEvents::start(Callback callback, LogLine log)
{
    if (m_callback)
        return;
    m_callback = std::move(callback);
    m_log = std::move(log);
    openRouteSocket();
    watchSleep();
}

void LinuxSystemEvents::openRouteSocket()
{
    m_routeSocket = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    if (m_routeSocket < 0 || ::bind(m_routeSocket, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        log(QStringLiteral("no route socket (%1): network changes are not followed")
                .arg(QString::fromLocal8Bit(std::strerror(errno))));
        if (m_routeSocket >= 0)
            ::close(m_routeSocket);
        m_routeSocket = -1;
        return;
    }
    m_routeNotifier = std::make_unique<QSocketNotifier>(m_routeSocket, QSocketNotifier::Read);
    QObject::connect(m_routeNotifier.get(), &QSocketNotifier::activated, m_routeNotifier.get(),
                     [this] { readRoutes(); });
}

void LinuxSystemEvents::readRoutes()
{
    bool changed = false;
    QByteArray buffer(kRouteBufferBytes, Qt::Uninitialized);
    for (;;) {
        const ssize_t got = ::recv(m_routeSocket, buffer.data(), buffer.size(), MSG_TRUNC);
        if (got < 0) {
            // ENOBUFS: the kernel dropped messages for us, so something changed.
            changed = changed || errno == ENOBUFS;
            if (errno == EINTR || errno == ENOBUFS)
                continue;
            break;
        }
        if (got > buffer.size())
            changed = true;
        else
            changed = changed || RouteMessages::touchesDefaultRoute(QByteArray::fromRawData(buffer.constData(), got));
    }
    if (changed) {
        log(QStringLiteral("the default route changed"));
        m_callback(Kind::NetworkChanged);
    }
}

void LinuxSystemEvents::watchSleep()
{
    using Start = QObject *(*)(const std::function<void(bool)> &onPrepareForSleep, QString *error);
    QLibrary module(m_modulePath);
    const auto startWatch = reinterpret_cast<Start>(module.resolve("pelorin_sleepwatch_start"));
    QString error;
    if (startWatch)
        m_sleepWatch.reset(startWatch(
            [this](bool sleeping) {
                log(sleeping ? QStringLiteral("going to sleep") : QStringLiteral("woke up"));
                m_callback(sleeping ? Kind::Sleeping : Kind::Resumed);
            },
            &error));
    else
        error = module.errorString();
    if (m_sleepWatch)
        log(QStringLiteral("watching sleep and wake (logind)"));
    else
        log(QStringLiteral("sleep and wake are not followed: %1").arg(error));
}
