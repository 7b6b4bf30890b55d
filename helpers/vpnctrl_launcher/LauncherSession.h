#pragma once

#include <cstdio>
#include <string>

// What the launcher does for one application session.
//
// The application starts the launcher without arguments and later writes "quit" on its
// standard input. At start and at quit the launcher looks at "openvpn.last_pid" in the
// application data folder: a marker naming the last tunnel client. At quit a client that is
// still alive, belongs to this user and is one of ours is asked to end (SIGTERM); the marker
// is removed whenever the process it names is no longer ours to keep.
class LauncherSession {
public:
    // `dataDir`: the application data folder (without trailing slash).
    explicit LauncherSession(std::string dataDir);

    // The data folder as the application computes it from the environment:
    // $PELORIN_DATA_HOME, else $XDG_DATA_HOME, else $HOME/.local/share; plus the bundle id.
    static std::string dataDirFromEnvironment();

    // Removes a marker whose process is gone. Returns true when a marker was removed.
    bool removeStaleMarker();
    // Ends a leftover tunnel client of this user named by the marker, then removes the
    // marker. Returns true when a process was signalled.
    bool endLeftoverClient();

    // Reads commands until "quit" or the end of input. Returns the process exit status.
    int run(std::FILE *in, std::FILE *log);

    std::string markerPath() const { return m_dataDir + "/openvpn.last_pid"; }

private:
    // The pid in the marker, or 0 when there is none or it does not parse.
    long markerPid() const;
    void removeMarker() const;

    std::string m_dataDir;
};
