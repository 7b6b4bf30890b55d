#pragma once

#include "platform/Platform.h"

#include <QHash>

// Linux: XDG folders, a private runtime folder for the tunnel files, XDG autostart entries as
// login items, and the Debian package installer (the helpers folder's "install-update" when
// it is there, else apt-get through pkexec).
//
// Every location can be replaced, first by the Overrides given to the constructor (tests),
// then by an environment variable (the demo and packaged runs), then the default applies:
//   PELORIN_TMPDIR, PELORIN_DATA_HOME, PELORIN_DOWNLOADS_DIR, PELORIN_RESOURCES_DIR,
//   PELORIN_HELPERS_DIR, PELORIN_SUDO, PELORIN_AUTOSTART_DIR, PELORIN_INSTALLER.
class LinuxPlatform : public Platform {
public:
    struct Overrides {
        QString temporaryDirectory{};
        QString applicationSupportDirectory{};
        QString downloadsDirectory{};
        QString resourcesDirectory{};
        QString helpersDirectory{};
        QString sudoPath{};
        QString autostartDirectory{};
        QString installer{}; // program run as "<installer> <package>"
        QString dmiProductNameFile{};
        QStringList browserSearchPath{}; // folders searched for browser programs
        QString seatsDirectory{};        // logind's seat state files ("/run/systemd/seats")
    };

    // Two constructors rather than a defaulted argument: GCC 12 cannot use the members'
    // default initialisers before the enclosing class is complete.
    LinuxPlatform();
    explicit LinuxPlatform(Overrides overrides);

    QString temporaryDirectory() override;
    QString applicationSupportDirectory() override;
    QString downloadsDirectory() override;
    QString resourcesDirectory() override;
    QString helperPath(const QString &name) override;
    QString sudoPath() override;
    std::optional<QString> deviceModel() override;
    ConsoleUser consoleUser() override;

    bool isChromeInstalled() override;
    bool isFirefoxInstalled() override;
    QStringList chromeUserDataDirectories(const QString &home) override;
    QStringList openInChromeCommand(const QString &url) override;

    QStringList loginItemNames() override;
    bool addLoginItem(const QString &applicationPath) override;
    bool deleteLoginItem(const QString &name) override;
    QString loginItemArgument() override;
    // The running program (an autostart entry must start something that exists).
    QString loginItemPath(const QString &appName) override;
    bool addLoginItemNamed(const QString &applicationPath, const QString &name) override;
    QList<LoginItem> loginItems() override;
    // Through the freedesktop notification service on the session bus.
    bool showNotification(const QString &title, const QString &body, quint32 *id, QString *error) override;
    void releaseFreeMemory() override;
    std::optional<PackageIdentity> packageIdentity(const QString &packagePath) override;
    void runWithoutTerminal(QProcess &process) override;
    // The route socket and logind (see LinuxSystemEvents).
    std::unique_ptr<SystemEvents> createSystemEvents() override;

    QStringList installerCommand(const QString &packagePath) override;
    QString updatePackageName() override;

    // Creates `path` as a private folder or checks that an existing one is private:
    // a real folder (no link), owned by this user, no group or other permissions.
    // Returns an empty string when it is not, with the reason in `why`.
    static bool ensurePrivateDirectory(const QString &path, QString *why);

private:
    QString pick(const QString &overrideValue, const char *envName) const;
    QString autostartDirectory() const;
    QString findProgram(const QStringList &names) const;

    Overrides m_overrides;
};
