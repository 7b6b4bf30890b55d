#pragma once

#include <QByteArray>
#include <QString>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <vector>

// Runs the current test program again inside a private session bus with a fresh unlocked
// GNOME keyring (tests/support/run-with-keyring.sh), so keychain tests talk to a real Secret
// Service and never to the developer's own keyring.
//
//   int main(int argc, char **argv) { KeyringSession::enter(argc, argv); ... }
//
// Inside the session PELORIN_KEYRING_SESSION=1 is set; when the tools are missing the program
// continues outside, and the test should skip (see isActive()).
namespace KeyringSession {

inline bool isActive()
{
    return qgetenv("PELORIN_KEYRING_SESSION") == "1";
}

inline void enter(int argc, char **argv)
{
    if (isActive() || qEnvironmentVariableIsSet("PELORIN_KEYRING_SESSION"))
        return;
    const QByteArray script = qgetenv("PELORIN_SOURCE_DIR") + "/tests/support/run-with-keyring.sh";
    if (qgetenv("PELORIN_SOURCE_DIR").isEmpty() || access(script.constData(), X_OK) != 0) {
        std::fprintf(stderr, "KeyringSession: %s not found; keyring tests will be skipped\n", script.constData());
        qputenv("PELORIN_KEYRING_SESSION", "unavailable");
        return;
    }
    qputenv("PELORIN_KEYRING_SESSION", "1");
    // The suite keeps secrets in files by default; inside the private keyring we want the real thing.
    qunsetenv("PELORIN_SECRET_STORE");
    std::vector<char *> args{const_cast<char *>("dbus-run-session"), const_cast<char *>("--"),
                             const_cast<char *>(script.constData())};
    for (int i = 0; i < argc; ++i)
        args.push_back(argv[i]);
    args.push_back(nullptr);
    execvp("dbus-run-session", args.data());
    // Only reached when dbus-run-session is not installed.
    std::fprintf(stderr, "KeyringSession: cannot run dbus-run-session: %s\n", std::strerror(errno));
    qputenv("PELORIN_KEYRING_SESSION", "unavailable");
}

} // namespace KeyringSession
