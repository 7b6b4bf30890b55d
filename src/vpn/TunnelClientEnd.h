#pragma once

#include <QString>

#include <optional>

// How a launched tunnel client ended when its output never said so. The client prints a final
// disconnect marker on every run it sees end; a run without one was refused by sudo before the
// client ran, or lost the client without a word (killed). The state is left to whoever shows
// it: the caller reads the message and stops the tunnel. Pure: no process inside.
struct TunnelClientEnd {
    enum class Kind { PrivilegeRefused, EndedUnreported };

    // The group the sudo rule lets run the client without a password, and where the rule is.
    static constexpr auto kSudoGroup = "pelorin-vpn";
    static constexpr auto kSudoRulePath = "/etc/sudoers.d/pelorin-vpn";
    // How much of sudo's own words is kept for the message.
    static constexpr int kMaxDetailChars = 300;

    Kind kind = Kind::EndedUnreported;
    int exitStatus = 0;
    QString detail; // what sudo said (PrivilegeRefused), trimmed

    // nullopt when the output ended with a disconnect marker (the normal end). `clientSpoke`:
    // the client's own lines were seen; `earlyOutput`: what came before them.
    static std::optional<TunnelClientEnd> classify(bool finalMarkerSeen, bool clientSpoke, int exitStatus,
                                                   const QString &earlyOutput);

    // What the user reads: what happened and what to do.
    QString message() const;
};
