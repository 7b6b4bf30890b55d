#pragma once

#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/KeychainStore.h"
#include "foundation/MainQueue.h"
#include "platform/Platform.h"
#include "platform/linux/LinuxPlatform.h"
#include "support/Files.h"
#include "vpn/NQVPNManager.h"
#include "vpn/TunnelClientEnd.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <mutex>

#include <signal.h>

inline constexpr int kVpnWaitMs = 15000;

inline bool processAlive(qint64 pid)
{
    return pid > 0 && ::kill(static_cast<pid_t>(pid), 0) == 0;
}

// What the manager reported, from whichever thread it did.
struct VpnReports {
    mutable std::mutex mutex;
    QList<int> states;
    QList<TunnelClientEnd> ends;
    QList<int> snapshot() const
    {
        std::lock_guard lock(mutex);
        return states;
    }
    QList<TunnelClientEnd> endsSnapshot() const
    {
        std::lock_guard lock(mutex);
        return ends;
    }
};

// A fresh world for one VPN test: its own platform folders (temporary, resources, helpers,
// stand-in sudo), settings store, event bus and manager. Undone on destruction.
class VpnTestEnvironment {
public:
    // Stand-in sudo: runs the program it is given, or a kill by name limited to this
    // environment's own helpers, so parallel tests never stop each other's clients. It records
    // its session, to show that it never shares ours (where sudo could find a terminal to ask
    // for a password on); "sudo-refuses" or "sudo-hangs" in the root make it do just that.
    static inline const QByteArray kStandInSudo = R"SH(#!/bin/bash
here="$(dirname "$0")"
printf '%s\n' "$*" >> "$here/sudo-calls"
ps -o sid= -p $$ | tr -d ' ' >> "$here/sudo-sessions"
if [ -e "$here/sudo-refuses" ]; then
  printf 'sudo: a terminal is required to read the password; either use the -S option to read from standard input or configure an askpass helper\nsudo: a password is required\n'
  exit 1
fi
if [ -e "$here/sudo-hangs" ]; then exec sleep 30; fi
if [ "$1" = pkill ]; then exec pkill -f "$here/helpers/$2"; fi
exec "$@"
)SH";

    // Stand-in client (helpers/ovpncli): records its pid, then does what the test put in
    // "helpers/behaviour"; `step N` waits for the file "helpers/goN".
    static inline const QByteArray kStandInClient = R"SH(#!/bin/bash
here="$(dirname "$0")"
echo $$ > "$here/pid"
step() { while [ ! -e "$here/go$1" ]; do sleep 0.02; done; }
source "$here/behaviour"
)SH";

    static inline const QByteArray kConnectThenWait = R"SH(
trap 'printf "ovpncli: Exiting due to signal 15\n"; exit 143' TERM
printf 'ovpncli: state CONNECTED\n'
while :; do sleep 1 & wait $!; done
)SH";

    // Folders left empty are made under the environment's own root.
    struct Places {
        QString helpersDirectory;
        QString sudoPath;
        QString temporaryDirectory;
    };

    explicit VpnTestEnvironment(const QString &hostUrl = QStringLiteral("http://127.0.0.1:9"), Places places = {})
        : m_places(std::move(places))
    {
        QDir(root()).mkpath(QStringLiteral("resources"));
        QDir(root()).mkpath(QStringLiteral("helpers"));
        writeFile(QStringLiteral("resources/CommonConfig.plist"),
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                  "<key>Host URL</key><string>" +
                      hostUrl.toUtf8() + "</string></dict></plist>\n");
        LinuxPlatform::Overrides overrides;
        overrides.temporaryDirectory = temporaryDirectory();
        overrides.resourcesDirectory = root() + QStringLiteral("/resources");
        overrides.helpersDirectory = helpersDirectory();
        overrides.sudoPath = m_places.sudoPath.isEmpty() ? root() + QStringLiteral("/sudo") : m_places.sudoPath;
        overrides.applicationSupportDirectory = root() + QStringLiteral("/data");
        Platform::setInstance(std::make_unique<LinuxPlatform>(overrides));
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            root() + QStringLiteral("/settings.conf"), KeychainStore(QStringLiteral("com.pelorin.vpn.test"))));
        EventBus::defaultCenter().reset();
        NQVPNManager::setSharedManagerForTesting(std::make_unique<NQVPNManager>());
    }
    ~VpnTestEnvironment()
    {
        NQVPNManager::setSharedManagerForTesting(nullptr);
        EventBus::defaultCenter().reset();
        AppStorageManager::setSharedManagerForTesting(nullptr);
        Platform::setInstance(nullptr);
    }
    VpnTestEnvironment(const VpnTestEnvironment &) = delete;
    VpnTestEnvironment &operator=(const VpnTestEnvironment &) = delete;

    QString root() const { return m_dir.path(); }
    QString temporaryDirectory() const
    {
        return m_places.temporaryDirectory.isEmpty() ? root() + QStringLiteral("/run/tmp")
                                                     : m_places.temporaryDirectory;
    }
    QString helpersDirectory() const
    {
        return m_places.helpersDirectory.isEmpty() ? root() + QStringLiteral("/helpers") : m_places.helpersDirectory;
    }
    NQVPNManager &manager() const { return NQVPNManager::sharedManager(); }
    AppStorageManager &storage() const { return AppStorageManager::sharedManager(); }

    std::shared_ptr<VpnReports> recordReports() const
    {
        auto reports = std::make_shared<VpnReports>();
        manager().setOnConnectionStateChange([reports](int state) {
            std::lock_guard lock(reports->mutex);
            reports->states << state;
        });
        manager().setOnClientEnded([reports](const TunnelClientEnd &end) {
            std::lock_guard lock(reports->mutex);
            reports->ends << end;
        });
        return reports;
    }

    // Writes `content` to `relativePath` under the root; executable when asked.
    QString writeFile(const QString &relativePath, const QByteArray &content, bool executable = false) const
    {
        const QString path = root() + QLatin1Char('/') + relativePath;
        ::writeFile(path, content);
        if (executable)
            QFile::setPermissions(path, QFile::permissions(path) | QFileDevice::ExeOwner);
        return path;
    }

private:
    QTemporaryDir m_dir;
    Places m_places;
};
