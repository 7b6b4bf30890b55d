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
// A seat state file holds a dozen short lines; more is not logind's.
constexpr qint64 kSeatFileLimit = 64 * 1024;

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
    // logind keeps the state of each seat in a small file on a memory file system; the first
    // seat's active session is the one in front of the screen. Read directly (as sd-login
    // does) rather than through loginctl, which would start two processes and wait on them.
    const QString seats =
        m_overrides.seatsDirectory.isEmpty() ? QStringLiteral("/run/systemd/seats") : m_overrides.seatsDirectory;
    if (!QFileInfo(seats).isDir()) {
        // No session manager (a server, a container): the user running us is the one to ask about.
        return {nameOf(getuid()), homeOf(getuid())};
    }
    QFile seat(seats + QStringLiteral("/seat0"));
    if (!seat.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    const QByteArray state = seat.read(kSeatFileLimit);
    for (const QByteArray &line : state.split('\n')) {
        if (!line.startsWith("ACTIVE_UID="))
            continue;
        bool ok = false;
        const uint uid = line.mid(static_cast<qsizetype>(qstrlen("ACTIVE_UID="))).trimmed().toUInt(&ok);
        if (!ok)
            return {};
        return {nameOf(uid), homeOf(uid)};
    }
    return {};
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

QStringList LinuxPlatform::chromeUserDataDirectories(const QString &home)
{
    static const QStringList channels{QStringLiteral("google-chrome"), QStringLiteral("google-chrome-beta"),
                                      QStringLiteral("google-chrome-unstable"), QStringLiteral("chromium")};
    QStringList configRoots;
    // Chrome follows $XDG_CONFIG_HOME when it is set (an absolute path, as the standard asks).
    const QString xdg = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (QDir::isAbsolutePath(xdg))
        configRoots << QDir::cleanPath(xdg);
    configRoots << home + QStringLiteral("/.config");
    configRoots.removeDuplicates();
    QStringList dirs;
    for (const QString &root : std::as_const(configRoots))
        for (const QString &channel : channels)
            dirs << root + QLatin1Char('/') + channel;
    // Snap and Flatpak keep each browser's configuration inside its own sandbox folder.
    dirs << home + QStringLiteral("/snap/chromium/common/chromium")
         << home + QStringLiteral("/.var/app/com.google.Chrome/config/google-chrome")
         << home + QStringLiteral("/.var/app/org.chromium.Chromium/config/chromium");
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
                             packagePath};
    if (geteuid() == 0)
        return apt;
    return QStringList{QStringLiteral("/usr/bin/pkexec")} + apt;
}

QString LinuxPlatform::updatePackageName()
{
    return QStringLiteral("PelorinVPN.deb");
}

std::optional<Platform::PackageIdentity> LinuxPlatform::packageIdentity(const QString &packagePath)
{
    // dpkg-deb reads the control file without unpacking anything else.
    constexpr int kReadMs = 30000;
    QProcess dpkg;
    dpkg.start(QStringLiteral("dpkg-deb"),
               {QStringLiteral("--field"), packagePath, QStringLiteral("Package"), QStringLiteral("Version")});
    if (!dpkg.waitForFinished(kReadMs) || dpkg.exitStatus() != QProcess::NormalExit || dpkg.exitCode() != 0) {
        dpkg.kill();
        return std::nullopt;
    }
    PackageIdentity identity;
    for (const QString &line : QString::fromUtf8(dpkg.readAllStandardOutput()).split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1String("Package: ")))
            identity.name = line.mid(9).trimmed();
        else if (line.startsWith(QLatin1String("Version: ")))
            identity.version = line.mid(9).trimmed();
    }
    if (identity.name.isEmpty() || identity.version.isEmpty())
        return std::nullopt;
    return identity;
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
