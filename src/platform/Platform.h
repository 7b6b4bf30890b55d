#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

class QProcess;
class SystemEvents;

// Everything that differs between macOS and Linux is reached through this one interface.
// Code outside src/platform never tests the operating system itself.
//
// Every method is safe to call from any thread. Locations are absolute paths without a
// trailing slash; an empty string means "not available" and the reason has been logged.
class Platform {
public:
    struct ConsoleUser {
        QString name; // login name of the user at the graphical console
        QString home; // that user's home folder
    };

    struct LoginItem {
        QString name; // display name
        QString path; // the program it starts
    };

    virtual ~Platform() = default;

    // Private per-user scratch folder for the tunnel profile and credentials. It is emptied by
    // the tunnel code, so it is never a shared folder: created 0700, owned by this user, and
    // refused (empty result, logged) when it exists with another owner or looser permissions.
    virtual QString temporaryDirectory() = 0;
    // The user's application-data root ("Application Support" on macOS, XDG data home on
    // Linux). The bundle identifier folder below it is the caller's business.
    virtual QString applicationSupportDirectory() = 0;
    virtual QString downloadsDirectory() = 0;
    // Read-only resources shipped with the program (configuration property lists, flags, ...).
    virtual QString resourcesDirectory() = 0;
    // Full path of a helper program shipped with the program ("ovpncli", "vpnctrl_launcher").
    virtual QString helperPath(const QString &name) = 0;
    // Privilege-raising command the tunnel client is started through ("/usr/bin/sudo").
    virtual QString sudoPath() = 0;
    // Hardware model text ("hw.model" on macOS, the DMI product name on Linux).
    virtual std::optional<QString> deviceModel() = 0;
    // The user of the active graphical session; empty fields when nobody is at the console.
    // Cheap enough for the main thread: no process is started and nothing is waited for.
    virtual ConsoleUser consoleUser() = 0;

    // Browsers, for the extension presence checks.
    virtual bool isChromeInstalled() = 0;
    virtual bool isFirefoxInstalled() = 0;
    // Chrome's user-data folders (each holds "Default", "Profile 1", ...) searched for the
    // extension, given the console user's home; every channel and packaging the platform knows.
    virtual QStringList chromeUserDataDirectories(const QString &home) = 0;
    // Command that opens Chrome on a URL; empty when Chrome is not installed.
    virtual QStringList openInChromeCommand(const QString &url) = 0;

    // Login items. Names are the entries' display names; add takes the program's path.
    virtual QStringList loginItemNames() = 0;
    virtual bool addLoginItem(const QString &applicationPath) = 0;
    virtual bool deleteLoginItem(const QString &name) = 0;
    // Argument the login item passes so a start at login can be told from a start by hand.
    virtual QString loginItemArgument() = 0;
    // The path this program is registered under as a login item, given its name
    // ("/Applications/<name>.app" unless the platform knows better).
    virtual QString loginItemPath(const QString &appName);
    // Adds a login item shown as `name` that starts `applicationPath`; where the platform
    // derives the name from the path, the same as addLoginItem.
    virtual bool addLoginItemNamed(const QString &applicationPath, const QString &name);
    // The visible login items with the program each starts (paths empty where unknown).
    virtual QList<LoginItem> loginItems();

    // A desktop notification. False, with the reason in `error`, when no notification
    // service took it; on success `id` is the service's identifier for it.
    virtual bool showNotification(const QString &title, const QString &body, quint32 *id, QString *error);

    // Hands pages of freed heap memory back to the system where the allocator keeps them;
    // blocks in use are never touched. Does nothing where there is no such call.
    virtual void releaseFreeMemory();

    // Makes `process`, when started, run with no controlling terminal (a session of its own),
    // so a privilege command it runs can never ask for a password there: it fails at once.
    virtual void runWithoutTerminal(QProcess &process);

    // A watcher of sleep, wake and network changes; the default watches nothing.
    virtual std::unique_ptr<SystemEvents> createSystemEvents();

    // Program and arguments that install a downloaded update package with administrator
    // rights; the exit status tells success.
    virtual QStringList installerCommand(const QString &packagePath) = 0;
    // File name of the update package in the downloads folder ("PelorinVPN.pkg" on macOS).
    virtual QString updatePackageName() = 0;
    // Name and version an update package declares about itself; nullopt when it cannot be read.
    struct PackageIdentity {
        QString name;
        QString version;
    };
    virtual std::optional<PackageIdentity> packageIdentity(const QString &packagePath);

    // The process-wide instance: the build's own platform unless a test installed another.
    static Platform &instance();
    // Replaces the process-wide instance (tests, the demo). Passing nullptr restores the default.
    static void setInstance(std::unique_ptr<Platform> platform);

    // The build's own platform, freshly made.
    static std::unique_ptr<Platform> createDefault();
};
