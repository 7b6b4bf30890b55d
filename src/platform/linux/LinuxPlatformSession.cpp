// The parts of LinuxPlatform that talk to the desktop session: autostart entries (listed and
// removed through one reader), and notifications through the freedesktop notification service.
#include "platform/linux/LinuxPlatform.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>
#include <QVariantMap>

namespace {
constexpr auto kNotificationsService = "org.freedesktop.Notifications";
constexpr auto kNotificationsPath = "/org/freedesktop/Notifications";
// Let the service choose how long a notification stays.
constexpr int kServerDefaultTimeout = -1;
// A missing or hung service must not hold up the caller for long.
constexpr int kNotifyCallTimeoutMs = 3000;

// The keys of a desktop entry's main group.
QHash<QString, QString> readDesktopEntry(const QString &path)
{
    QHash<QString, QString> values;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return values;
    QTextStream in(&file);
    bool mainGroup = false;
    while (!in.atEnd()) {
        const QString line = in.readLine().trimmed();
        if (line.startsWith(QLatin1Char('['))) {
            mainGroup = line == QLatin1String("[Desktop Entry]");
            continue;
        }
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (mainGroup && equals > 0 && !line.startsWith(QLatin1Char('#')))
            values.insert(line.left(equals).trimmed(), line.mid(equals + 1).trimmed());
    }
    return values;
}

// The program of an Exec line: its first word, quotes removed.
QString programOf(const QString &exec)
{
    if (exec.startsWith(QLatin1Char('"'))) {
        const qsizetype end = exec.indexOf(QLatin1Char('"'), 1);
        return end < 0 ? exec.mid(1) : exec.mid(1, end - 1);
    }
    return exec.section(QLatin1Char(' '), 0, 0);
}
} // namespace

QList<Platform::LoginItem> LinuxPlatform::loginItems()
{
    QList<LoginItem> items;
    const QDir dir(autostartDirectory());
    const QStringList entries = dir.entryList({QStringLiteral("*.desktop")}, QDir::Files, QDir::Name);
    for (const QString &entry : entries) {
        const QHash<QString, QString> values = readDesktopEntry(dir.filePath(entry));
        if (values.value(QStringLiteral("Hidden")) == QLatin1String("true"))
            continue;
        QString name = values.value(QStringLiteral("Name"));
        if (name.isEmpty())
            name = QFileInfo(entry).completeBaseName();
        items.append({name, programOf(values.value(QStringLiteral("Exec")))});
    }
    return items;
}

bool LinuxPlatform::deleteLoginItem(const QString &name)
{
    const QDir dir(autostartDirectory());
    bool removed = false;
    const QStringList entries = dir.entryList({QStringLiteral("*.desktop")}, QDir::Files);
    for (const QString &entry : entries) {
        const QString path = dir.filePath(entry);
        const QString entryName = readDesktopEntry(path).value(QStringLiteral("Name"));
        if (entryName == name || (entryName.isEmpty() && QFileInfo(entry).completeBaseName() == name))
            removed = QFile::remove(path) || removed;
    }
    return removed;
}

bool LinuxPlatform::showNotification(const QString &title, const QString &body, quint32 *id, QString *error)
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
