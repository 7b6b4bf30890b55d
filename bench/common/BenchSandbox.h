#pragma once

#include "BenchProcess.h"

#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>

// A private world for one run of pelorin-vpn: a development backend on a free loopback port,
// a copy of the resources pointing at it, and HOME, XDG and PELORIN_* folders of its own.
// Sudo is /bin/true, so nothing the program does at start or quit reaches real tunnels.
class BenchSandbox {
public:
    // The backend holds every profile request for ten minutes (and the program waits that
    // long): a console client told to connect stays idle with its server list loaded.
    static constexpr const char *kHeldProfile = "/api1/vpnapi/serverovpn:delay:600000";
    static constexpr const char *kBuiltInPort = "8765";

    bool start(const QString &binaryDir);
    const QString &error() const { return m_error; }
    const QString &backendUrl() const { return m_backendUrl; }
    QString appPath() const { return m_binaryDir + QStringLiteral("/bin/pelorin-vpn"); }
    QString benchPath(const QString &name) const { return m_binaryDir + QStringLiteral("/bench/bin/") + name; }
    // The environment for the program: the caller's (DISPLAY, ...) plus the private folders.
    QProcessEnvironment environment() const { return m_env; }

private:
    QTemporaryDir m_root;
    QString m_binaryDir;
    QString m_backendUrl;
    QString m_error;
    QProcessEnvironment m_env;
    BenchProcess m_backend;
};
