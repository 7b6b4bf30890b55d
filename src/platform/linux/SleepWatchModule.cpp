// logind's PrepareForSleep, in a module of its own (libpelorin-sleepwatch.so, next to the
// helpers): Qt D-Bus, libdbus and libsystemd are loaded only once a tunnel is wanted.
#include <QDBusConnection>
#include <QDBusError>
#include <QObject>
#include <QString>

#include <functional>

namespace {
constexpr auto kLogindService = "org.freedesktop.login1";
constexpr auto kLogindPath = "/org/freedesktop/login1";
constexpr auto kLogindManager = "org.freedesktop.login1.Manager";

class SleepWatch : public QObject {
    Q_OBJECT
public:
    std::function<void(bool)> onPrepareForSleep;

public slots:
    void prepareForSleep(bool sleeping)
    {
        if (onPrepareForSleep)
            onPrepareForSleep(sleeping);
    }
};
} // namespace

// Watches PrepareForSleep(true: about to sleep, false: awake) from logind on the system bus;
// the callback runs on the calling thread's event loop. Deleting the object ends the watch.
// Null, with the reason in `error`, when there is no system bus.
extern "C" Q_DECL_EXPORT QObject *pelorin_sleepwatch_start(const std::function<void(bool)> &onPrepareForSleep,
                                                           QString *error)
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        *error = QStringLiteral("no system bus: %1").arg(bus.lastError().message());
        return nullptr;
    }
    auto *watch = new SleepWatch;
    watch->onPrepareForSleep = onPrepareForSleep;
    if (!bus.connect(QLatin1String(kLogindService), QLatin1String(kLogindPath), QLatin1String(kLogindManager),
                     QStringLiteral("PrepareForSleep"), watch, SLOT(prepareForSleep(bool)))) {
        *error = bus.lastError().message();
        delete watch;
        return nullptr;
    }
    return watch;
}

#include "SleepWatchModule.moc"
