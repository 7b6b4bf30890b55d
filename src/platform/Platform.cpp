#include "platform/Platform.h"

#include "platform/SystemEvents.h"

#include <mutex>

namespace {
std::mutex g_mutex;
std::unique_ptr<Platform> g_instance;
} // namespace

Platform &Platform::instance()
{
    std::lock_guard lock(g_mutex);
    if (!g_instance)
        g_instance = createDefault();
    return *g_instance;
}

void Platform::setInstance(std::unique_ptr<Platform> platform)
{
    std::lock_guard lock(g_mutex);
    g_instance = std::move(platform);
}

QString Platform::loginItemPath(const QString &appName)
{
    return QStringLiteral("/Applications/%1.app").arg(appName);
}

bool Platform::addLoginItemNamed(const QString &applicationPath, const QString &)
{
    return addLoginItem(applicationPath);
}

QList<Platform::LoginItem> Platform::loginItems()
{
    QList<LoginItem> items;
    for (const QString &name : loginItemNames())
        items.append({name, QString()});
    return items;
}

void Platform::releaseFreeMemory() {}

std::optional<Platform::PackageIdentity> Platform::packageIdentity(const QString &)
{
    return std::nullopt;
}

void Platform::runWithoutTerminal(QProcess &) {}

bool Platform::showNotification(const QString &, const QString &, quint32 *, QString *error)
{
    if (error)
        *error = QStringLiteral("desktop notifications are not available on this platform");
    return false;
}

namespace {
class NoSystemEvents : public SystemEvents {
public:
    void start(Callback, LogLine) override {}
};
} // namespace

std::unique_ptr<SystemEvents> Platform::createSystemEvents()
{
    return std::make_unique<NoSystemEvents>();
}
