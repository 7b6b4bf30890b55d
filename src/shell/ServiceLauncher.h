#pragma once

#include <QString>

#include <memory>

class QProcess;

// The session helper "vpnctrl_launcher": started once at launch with a pipe on its standard
// input, told to end with the line "quit" at quit. Its output and errors are inherited, so
// they land in the application's log file.
//
// One attempt per session: the process handle is kept after a failed start, so a second
// vpnRunService only logs "Already running.". Every failure is logged and swallowed.
class ServiceLauncher {
public:
    // How long the destructor lets a helper that was told to quit finish its clean-up before
    // the process handle goes (it is never waited for anywhere else).
    static constexpr int kExitGraceMs = 2000;

    // `launcherPath`: where the helper is; null means the platform's helper location.
    // `dataDir`: the application data folder; null means AppConfig::appDataURL().
    explicit ServiceLauncher(QString launcherPath = {}, QString dataDir = {});
    ~ServiceLauncher();
    ServiceLauncher(const ServiceLauncher &) = delete;
    ServiceLauncher &operator=(const ServiceLauncher &) = delete;

    void vpnRunService();
    void vpnCloseService();
    // Removes "openvpn.last_pid" from the application data folder.
    void cleanOpenVPN();

    bool hasServiceTask() const { return m_serviceTask != nullptr; }
    bool closingService() const { return m_closingService; }
    QProcess *serviceTask() const { return m_serviceTask.get(); }

private:
    QString launcherLocation() const;
    QString dataDirectory() const;
    void writeQuitLine();

    QString m_launcherPath;
    QString m_dataDir;
    std::unique_ptr<QProcess> m_serviceTask;
    bool m_closingService = false;
};
