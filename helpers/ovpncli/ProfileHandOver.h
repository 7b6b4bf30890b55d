#pragma once

#include <string>
#include <vector>

// Takes the profile ovpncli was asked to run and, when ProfileGuard accepts it, hands openvpn
// a copy of it (and of its credentials file) in a folder only root can reach, so nothing the
// user changes after the check reaches openvpn. The profile and its folder are opened without
// following links and checked through the same descriptors they are read from.
//
// The user who asked is the one sudo names (SUDO_UID) when we run as root, else the real user.
// The copy is removed when the object goes away.
class ProfileHandOver {
public:
    // Where the copy goes, the first that exists; /run is a tmpfs only root can write.
    static constexpr const char *kCopyParents[] = {"/run", "/tmp"};
    // auth.txt holds a user name and a password.
    static constexpr std::size_t kMaxCredentialsBytes = 4096;

    explicit ProfileHandOver(const std::string &profilePath);
    ~ProfileHandOver();
    ProfileHandOver(const ProfileHandOver &) = delete;
    ProfileHandOver &operator=(const ProfileHandOver &) = delete;

    bool accepted() const { return m_accepted; }
    // Why the profile was refused; safe to print.
    const std::string &reason() const { return m_reason; }
    // openvpn's command line: the copy, and no script may run whatever the profile says.
    std::vector<std::string> command(const std::string &openvpn) const;
    // The profile as openvpn gets it: rebuilt from the checked directives.
    const std::string &checkedText() const { return m_checkedText; }

private:
    bool admit(const std::string &profilePath);
    bool refuse(std::string reason);

    bool m_accepted = false;
    std::string m_reason;
    std::string m_checkedText;
    std::string m_copyFolder;
    std::vector<std::string> m_copies;
};
