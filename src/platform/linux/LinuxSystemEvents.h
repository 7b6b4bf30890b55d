#pragma once

#include "platform/SystemEvents.h"

#include <QString>

#include <memory>

class QObject;
class QSocketNotifier;

// Linux: the default route through the kernel's route socket, sleep and wake through logind's
// PrepareForSleep on the system bus. The D-Bus side is a module of its own
// (libpelorin-sleepwatch.so in the helpers folder), loaded by start(): a program that never
// wants a tunnel does not map Qt D-Bus.
class LinuxSystemEvents : public SystemEvents {
public:
    // Bytes read from the route socket at once; a bigger datagram is a burst, read as a change.
    static constexpr int kRouteBufferBytes = 16384;

    explicit LinuxSystemEvents(QString sleepWatchModulePath);
    ~LinuxSystemEvents() override;

    void start(Callback callback, LogLine log) override;

private:
    void openRouteSocket();
    void readRoutes();
    void watchSleep();
    void log(const QString &text) const;

    QString m_modulePath;
    Callback m_callback;
    LogLine m_log;
    int m_routeSocket = -1;
    std::unique_ptr<QSocketNotifier> m_routeNotifier;
    std::unique_ptr<QObject> m_sleepWatch;
};
