#include "LauncherSession.h"

#include <csignal>
#include <cstdio>

// Started by the application once per session, without arguments; ends on the line "quit"
// or when the application's end closes our standard input.
int main()
{
    // A write to the application's closed log must not kill us before we clean up.
    std::signal(SIGPIPE, SIG_IGN);
    LauncherSession session(LauncherSession::dataDirFromEnvironment());
    return session.run(stdin, stderr);
}
