#pragma once

#include <QDir>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <vector>

// Called first in main(): runs the test program again inside a private session bus, so keychain
// tests talk to a GNOME keyring of their own (started with KeyringPrompts), never the developer's.
// Inside, PELORIN_KEYRING_SESSION=1; without dbus-run-session the program goes on outside and
// the test should skip (see isActive()).
namespace KeyringSession {

inline bool isActive()
{
    return qgetenv("PELORIN_KEYRING_SESSION") == "1";
}

inline void enter(int argc, char **argv)
{
    if (qEnvironmentVariableIsSet("PELORIN_KEYRING_SESSION"))
        return;
    qputenv("PELORIN_KEYRING_SESSION", "1");
    // The suite keeps secrets in files by default; inside the private bus we want the real thing.
    qunsetenv("PELORIN_SECRET_STORE");
    // Every run starts without keyrings (they live in the test's private home).
    if (const QString data = qEnvironmentVariable("XDG_DATA_HOME"); !data.isEmpty())
        QDir(data + QStringLiteral("/keyrings")).removeRecursively();
    std::vector<char *> args{const_cast<char *>("dbus-run-session"), const_cast<char *>("--")};
    args.insert(args.end(), argv, argv + argc);
    args.push_back(nullptr);
    execvp("dbus-run-session", args.data());
    // Only reached when dbus-run-session is not installed.
    std::fprintf(stderr, "KeyringSession: cannot run dbus-run-session: %s\n", std::strerror(errno));
    qputenv("PELORIN_KEYRING_SESSION", "unavailable");
}

} // namespace KeyringSession
