#include "platform/linux/LinuxPlatform.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSaveFile>
#include <QStandardPaths>
#include <QTextStream>

#include <pwd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace {
constexpr auto kBundleId = "com.pelorin.vpn.mac";
// Marks an autostart entry as ours and tells a start at login from a start by hand.
constexpr auto kLoginItemArgument = "--login-item";
// How long the session manager may take to name the console user before we fall back.
constexpr int kLoginctlTimeoutMs = 2000;

void logPlatformWarning(const QString &text)
{
    syslog(LOG_WARNING, "[Platform] %s", qPrintable(text));
}

QString homeOf(uid_t uid)
{
    if (const passwd *pw = getpwuid(uid))
        return QString::fromLocal8Bit(pw->pw_dir);
    return {};
}

QString nameOf(uid_t uid)
{
    if (const passwd *pw = getpwuid(uid))
        return QString::fromLocal8Bit(pw->pw_name);
    return {};
}

} // namespace

LinuxPlatform::LinuxPlatform() : LinuxPlatform(Overrides()) {}

LinuxPlatform::LinuxPlatform(Overrides overrides) : m_overrides(std::move(overrides)) {}

QString LinuxPlatform::pick(const QString &overrideValue, const char *envName) const
{
    if (!overrideValue.isEmpty())
        return overrideValue;
    return qEnvironmentVariable(envName);
}

bool LinuxPlatform::ensurePrivateDirectory(const QString &path, QString *why)
{
    const QByteArray native = QFile::encodeName(path);
    struct stat st {};
    if (lstat(native.constData(), &st) != 0) {
        if (!QDir().mkpath(QFileInfo(path).absolutePath())) {
            *why = QStringLiteral("cannot create parent of '%1'").arg(path);
            return false;
        }
        if (mkdir(native.constData(), 0700) != 0 && errno != EEXIST) {
            *why = QStringLiteral("cannot create '%1': %2").arg(path, QString::fromLocal8Bit(strerror(errno)));
            return false;
        }
        if (lstat(native.constData(), &st) != 0) {
            *why = QStringLiteral("cannot inspect '%1'").arg(path);
            return false;
        }
    }
    if (!S_ISDIR(st.st_mode)) {
        *why = QStringLiteral("'%1' is not a folder (or is a link)").arg(path);
        return false;
    }
    if (st.st_uid != geteuid()) {
        *why = QStringLiteral("'%1' belongs to another user (uid %2)").arg(path).arg(st.st_uid);
        return false;
    }
    if ((st.st_mode & 077) != 0) {
        *why = QStringLiteral("'%1' is open to other users (mode %2)")
                   .arg(path)
                   .arg(st.st_mode & 0777, 3, 8, QLatin1Char('0'));
        return false;
    }
    return true;
}

QString LinuxPlatform::temporaryDirectory()
{
    QString dir = pick(m_overrides.temporaryDirectory, "PELORIN_TMPDIR");
    if (dir.isEmpty()) {
        const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
        if (!runtime.isEmpty() && QFileInfo(runtime).isDir())
            dir = runtime + QLatin1Char('/') + QLatin1String(kBundleId);
        else
            dir = QDir::homePath() + QStringLiteral("/.cache/") + QLatin1String(kBundleId) + QStringLiteral("/tmp");
    }
    QString why;
    if (!ensurePrivateDirectory(dir, &why)) {
        logPlatformWarning(QStringLiteral("Refusing temporary folder: %1").arg(why));
        return {};
    }
    return dir;
}

QString LinuxPlatform::applicationSupportDirectory()
{
    const QString dir = pick(m_overrides.applicationSupportDirectory, "PELORIN_DATA_HOME");
    if (!dir.isEmpty())
        return dir;
    const QString xdg = qEnvironmentVariable("XDG_DATA_HOME");
    if (!xdg.isEmpty())
        return xdg;
    return QDir::homePath() + QStringLiteral("/.local/share");
}

QString LinuxPlatform::downloadsDirectory()
{
    const QString dir = pick(m_overrides.downloadsDirectory, "PELORIN_DOWNLOADS_DIR");
    if (!dir.isEmpty())
        return dir;
    const QString xdg = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    return xdg.isEmpty() ? QDir::homePath() + QStringLiteral("/Downloads") : xdg;
}

QString LinuxPlatform::resourcesDirectory()
{
    const QString dir = pick(m_overrides.resourcesDirectory, "PELORIN_RESOURCES_DIR");
    if (!dir.isEmpty())
        return dir;
    if (QCoreApplication::instance()) {
        const QString installed = QCoreApplication::applicationDirPath() + QStringLiteral("/../share/pelorin-vpn");
        if (QFileInfo(installed).isDir())
            return QDir::cleanPath(installed);
    }
    return QStringLiteral(PELORIN_DEV_RESOURCES_DIR);
}

QString LinuxPlatform::helperPath(const QString &name)
{
    QString dir = pick(m_overrides.helpersDirectory, "PELORIN_HELPERS_DIR");
    if (dir.isEmpty()) {
        // Also asked before the application object exists (the window module is found first).
        const QString programDir = QCoreApplication::instance()
                                       ? QCoreApplication::applicationDirPath()
                                       : QFileInfo(QStringLiteral("/proc/self/exe")).canonicalPath();
        const QString installed = programDir + QStringLiteral("/../lib/pelorin-vpn");
        if (QFileInfo(installed).isDir())
            dir = QDir::cleanPath(installed);
    }
    if (dir.isEmpty())
        dir = QStringLiteral(PELORIN_DEV_HELPERS_DIR);
    return dir + QLatin1Char('/') + name;
}

QString LinuxPlatform::sudoPath()
{
    const QString sudo = pick(m_overrides.sudoPath, "PELORIN_SUDO");
    return sudo.isEmpty() ? QStringLiteral("/usr/bin/sudo") : sudo;
}

std::optional<QString> LinuxPlatform::deviceModel()
{
    const QString path = m_overrides.dmiProductNameFile.isEmpty() ? QStringLiteral("/sys/class/dmi/id/product_name")
                                                                  : m_overrides.dmiProductNameFile;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return std::nullopt;
    return QString::fromUtf8(f.readAll()).trimmed();
}

Platform::ConsoleUser LinuxPlatform::consoleUser()
{
    // The active session on the first seat is the one in front of the screen.
    QProcess loginctl;
    loginctl.start(QStringLiteral("loginctl"),
                   {QStringLiteral("show-seat"), QStringLiteral("seat0"), QStringLiteral("-p"),
                    QStringLiteral("ActiveSession"), QStringLiteral("--value")});
    if (loginctl.waitForFinished(kLoginctlTimeoutMs) && loginctl.exitCode() == 0) {
        const QString session = QString::fromUtf8(loginctl.readAllStandardOutput()).trimmed();
        if (!session.isEmpty()) {
            QProcess show;
            show.start(QStringLiteral("loginctl"), {QStringLiteral("show-session"), session, QStringLiteral("-p"),
                                                    QStringLiteral("User"), QStringLiteral("--value")});
            bool ok = false;
            if (show.waitForFinished(kLoginctlTimeoutMs)) {
                const uid_t uid = QString::fromUtf8(show.readAllStandardOutput()).trimmed().toUInt(&ok);
                if (ok)
                    return {nameOf(uid), homeOf(uid)};
            }
        }
    }
    // No session manager (a server, a container): the user running us is the one to ask about.
    return {nameOf(getuid()), homeOf(getuid())};
}

QString LinuxPlatform::findProgram(const QStringList &names) const
{
    for (const QString &name : names) {
        const QString found = m_overrides.browserSearchPath.isEmpty()
                                  ? QStandardPaths::findExecutable(name)
                                  : QStandardPaths::findExecutable(name, m_overrides.browserSearchPath);
        if (!found.isEmpty())
            return found;
    }
    return {};
}

bool LinuxPlatform::isChromeInstalled()
{
    return !openInChromeCommand(QString()).isEmpty();
}

bool LinuxPlatform::isFirefoxInstalled()
{
    return !findProgram({QStringLiteral("firefox"), QStringLiteral("firefox-esr")}).isEmpty();
}

QStringList LinuxPlatform::chromeProfileDirectories(const QString &home)
{
    QStringList dirs;
    for (const QString &root : {QStringLiteral("/.config/google-chrome/"), QStringLiteral("/.config/chromium/")}) {
        for (const QString &profile : {QStringLiteral("Default"), QStringLiteral("Profile 1"),
                                       QStringLiteral("Profile 2"), QStringLiteral("Profile 3")})
            dirs << home + root + profile;
    }
    return dirs;
}

QStringList LinuxPlatform::openInChromeCommand(const QString &url)
{
    QString chrome = findProgram({QStringLiteral("google-chrome-stable"), QStringLiteral("google-chrome"),
                                  QStringLiteral("chromium"), QStringLiteral("chromium-browser")});
    if (chrome.isEmpty() && m_overrides.browserSearchPath.isEmpty() &&
        QFileInfo(QStringLiteral("/opt/google/chrome/chrome")).isExecutable())
        chrome = QStringLiteral("/opt/google/chrome/chrome");
    if (chrome.isEmpty())
        return {};
    return {chrome, url};
}

QString LinuxPlatform::autostartDirectory() const
{
    const QString dir = pick(m_overrides.autostartDirectory, "PELORIN_AUTOSTART_DIR");
    if (!dir.isEmpty())
        return dir;
    QString config = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (config.isEmpty())
        config = QDir::homePath() + QStringLiteral("/.config");
    return config + QStringLiteral("/autostart");
}

QStringList LinuxPlatform::loginItemNames()
{
    QStringList names;
    for (const LoginItem &item : loginItems())
        names << item.name;
    return names;
}

bool LinuxPlatform::addLoginItem(const QString &applicationPath)
{
    return addLoginItemNamed(applicationPath, QFileInfo(applicationPath).completeBaseName());
}

bool LinuxPlatform::addLoginItemNamed(const QString &applicationPath, const QString &name)
{
    const QString dir = autostartDirectory();
    if (name.isEmpty() || name.contains(QLatin1Char('/')) || !QDir().mkpath(dir))
        return false;
    QSaveFile file(dir + QLatin1Char('/') + name + QStringLiteral(".desktop"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
        return false;
    QTextStream out(&file);
    out << "[Desktop Entry]\n"
        << "Type=Application\n"
        << "Name=" << name << '\n'
        << "Exec=\"" << applicationPath << "\" " << kLoginItemArgument << '\n'
        << "Hidden=false\n"
        << "X-GNOME-Autostart-enabled=true\n";
    out.flush();
    return file.commit();
}

QString LinuxPlatform::loginItemPath(const QString &appName)
{
    if (QCoreApplication::instance())
        return QCoreApplication::applicationFilePath();
    return Platform::loginItemPath(appName);
}

QString LinuxPlatform::loginItemArgument()
{
    return QLatin1String(kLoginItemArgument);
}

QStringList LinuxPlatform::installerCommand(const QString &packagePath)
{
    const QString installer = pick(m_overrides.installer, "PELORIN_INSTALLER");
    if (!installer.isEmpty())
        return {installer, packagePath};
    // The packaged program ships an installer that also starts the new version afterwards.
    const QString shipped = helperPath(QStringLiteral("install-update"));
    if (QFileInfo(shipped).isExecutable())
        return {shipped, packagePath};
    const QStringList apt = {QStringLiteral("/usr/bin/apt-get"), QStringLiteral("install"), QStringLiteral("-y"),
                             QStringLiteral("--allow-downgrades"), packagePath};
    if (geteuid() == 0)
        return apt;
    return QStringList{QStringLiteral("/usr/bin/pkexec")} + apt;
}

QString LinuxPlatform::updatePackageName()
{
    return QStringLiteral("PelorinVPN.deb");
}

std::unique_ptr<Platform> Platform::createDefault()
{
    return std::make_unique<LinuxPlatform>();
}

void LinuxPlatform::runWithoutTerminal(QProcess &process)
{
    // sudo reads a password from /dev/tty even when standard input is closed; in a new
    // session there is no /dev/tty, so it refuses at once instead of waiting for a user.
    process.setChildProcessModifier([] { ::setsid(); });
}

void LinuxPlatform::releaseFreeMemory()
{
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}
