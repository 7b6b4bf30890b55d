// The parts of LinuxPlatform that talk to the desktop session: autostart entries (listed and
// removed through one reader), and notifications through the freedesktop notification service.
#include "platform/linux/LinuxPlatform.h"

#include "platform/linux/LinuxSystemEvents.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLibrary>
#include <QTextStream>

namespace {
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
// The folder's *.desktop files. Matched by hand rather than with a name filter, which QDir
// turns into a regular expression: that would map and JIT-compile PCRE in every process.
QStringList desktopEntries(const QDir &dir, QDir::SortFlags sort)
{
    QStringList entries = dir.entryList(QDir::Files, sort);
    entries.removeIf(
        [](const QString &name) { return !name.endsWith(QLatin1String(".desktop"), Qt::CaseInsensitive); });
    return entries;
}
} // namespace

QList<Platform::LoginItem> LinuxPlatform::loginItems()
{
    QList<LoginItem> items;
    const QDir dir(autostartDirectory());
    const QStringList entries = desktopEntries(dir, QDir::Name);
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
    const QStringList entries = desktopEntries(dir, QDir::NoSort);
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
    // The D-Bus client is a module loaded on first use (see NotifyModule.cpp); it stays loaded.
    using Show = bool (*)(const QString &, const QString &, quint32 *, QString *);
    QLibrary module(helperPath(QStringLiteral("pelorin-notify")));
    const auto show = reinterpret_cast<Show>(module.resolve("pelorin_notify_show"));
    if (!show) {
        if (error)
            *error = module.errorString();
        return false;
    }
    return show(title, body, id, error);
}

std::unique_ptr<SystemEvents> LinuxPlatform::createSystemEvents()
{
    return std::make_unique<LinuxSystemEvents>(helperPath(QStringLiteral("pelorin-sleepwatch")));
}
