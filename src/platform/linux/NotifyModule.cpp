// The freedesktop notification call, in a module of its own (libpelorin-notify.so, next to the
// helpers): Qt D-Bus, libdbus and libsystemd are loaded only when a notification is first shown.
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QString>
#include <QStringList>
#include <QVariantMap>

namespace {
constexpr auto kNotificationsService = "org.freedesktop.Notifications";
constexpr auto kNotificationsPath = "/org/freedesktop/Notifications";
// Let the service choose how long a notification stays.
constexpr int kServerDefaultTimeout = -1;
// A missing or hung service must not hold up the caller for long.
constexpr int kNotifyCallTimeoutMs = 3000;
} // namespace

// Same contract as Platform::showNotification.
extern "C" Q_DECL_EXPORT bool pelorin_notify_show(const QString &title, const QString &body, quint32 *id,
                                                  QString *error)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        if (error)
            *error = QStringLiteral("no session bus: %1").arg(bus.lastError().message());
        return false;
    }
    QDBusMessage call =
        QDBusMessage::createMethodCall(QLatin1String(kNotificationsService), QLatin1String(kNotificationsPath),
                                       QLatin1String(kNotificationsService), QStringLiteral("Notify"));
    call << QStringLiteral("PelorinVPN") << quint32(0) << QString() << title << body << QStringList() << QVariantMap()
         << kServerDefaultTimeout;
    const QDBusReply<quint32> reply = bus.call(call, QDBus::Block, kNotifyCallTimeoutMs);
    if (!reply.isValid()) {
        if (error)
            *error = reply.error().message();
        return false;
    }
    if (id)
        *id = reply.value();
    return true;
}
