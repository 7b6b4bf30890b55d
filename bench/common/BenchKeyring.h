#pragma once

#include "BenchProcess.h"

#include <QProcessEnvironment>
#include <QString>

// A private session bus with a GNOME keyring on it, created unlocked (password "test") in the
// keyring folder of the given environment's XDG_DATA_HOME, so a program started with
// environment() keeps its secrets in a real Secret Service and never in the user's own.
class BenchKeyring {
public:
    static constexpr int kStartTimeoutMs = 10000;

    // False (with error()) when dbus-daemon, gnome-keyring-daemon or secret-tool is missing
    // or the keyring does not come up.
    bool start(const QProcessEnvironment &base);
    const QString &error() const { return m_error; }
    // `base` on the private bus, with the Secret Service chosen (PELORIN_SECRET_STORE unset).
    QProcessEnvironment environment() const { return m_env; }
    // Items stored under `service` (all, locked or not); -1 when secret-tool fails.
    int itemCount(const QString &service) const;

private:
    bool serviceAnswers() const;

    QString m_error;
    QProcessEnvironment m_env;
    BenchProcess m_bus;
    BenchProcess m_daemon;
};
