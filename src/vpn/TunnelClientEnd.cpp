#include "vpn/TunnelClientEnd.h"

std::optional<TunnelClientEnd> TunnelClientEnd::classify(bool finalMarkerSeen, bool clientSpoke, int exitStatus,
                                                         const QString &earlyOutput)
{
    if (finalMarkerSeen)
        return std::nullopt;
    TunnelClientEnd end;
    end.exitStatus = exitStatus;
    // sudo's refusals all name it ("sudo: a terminal is required ...", "... is not in the
    // sudoers file", "Sorry, user ... is not allowed to execute ... as root"), with status 1.
    if (!clientSpoke && exitStatus != 0 && earlyOutput.contains(QLatin1String("sudo"))) {
        end.kind = Kind::PrivilegeRefused;
        end.detail = earlyOutput.simplified().left(kMaxDetailChars);
    }
    return end;
}

QString TunnelClientEnd::message() const
{
    if (kind == Kind::PrivilegeRefused)
        return QStringLiteral("PelorinVPN may not start its tunnel helper with administrator rights (sudo said: "
                              "\"%1\"). Your user must be a member of the group \"%2\", which the rule %3 lets run "
                              "the helper without a password: sudo gpasswd -a $USER %2, or reinstall the package. "
                              "After being added to the group, log out and in again, then connect.")
            .arg(detail, QLatin1String(kSudoGroup), QLatin1String(kSudoRulePath));
    return QStringLiteral("The tunnel helper ended without reporting the end of the tunnel (exit status %1). "
                          "The tunnel is down; connect again.")
        .arg(exitStatus);
}
