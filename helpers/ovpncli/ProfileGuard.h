#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Decides whether ovpncli, running as root, may hand a profile to openvpn. A profile is taken
// only when it lies in a private folder of the user who asked (folder and file owned by that
// user, no access for anyone else, no links) and holds nothing but what a VPN client profile
// needs: no scripts, plugins, management sockets, files written or read as root, `config`,
// `cd`, `daemon` or `chroot`. Anything not on the allowlist is refused.
//
// The accepted profile is not handed on as it was written: openvpn gets a text rebuilt from
// the parsed directives (every argument quoted), so openvpn reads exactly what was checked.
// Pure: bytes and facts in, verdict out; no I/O.
class ProfileGuard {
public:
    // Larger profiles are refused; a client profile with its certificates is a few kilobytes.
    static constexpr std::size_t kMaxProfileBytes = 256 * 1024;
    // openvpn's own limit for one argument is 255 bytes.
    static constexpr std::size_t kMaxArgumentBytes = 255;
    static constexpr std::size_t kMaxArguments = 8;

    // What the caller found out about a file or folder through the descriptor it will read.
    struct FileFacts {
        unsigned owner = 0;
        unsigned mode = 0;  // permission bits (07777)
        unsigned links = 0; // hard links to it
        bool regular = false;
        bool directory = false;
    };

    struct Facts {
        unsigned requester = 0; // the user who asked (sudo's SUDO_UID, else the real user)
        std::string folderPath; // the profile's folder as given, without a trailing slash
        FileFacts folder;
        FileFacts file;
    };

    struct Verdict {
        bool accepted = false;
        std::string reason; // why it was refused; safe to print (never echoes marker words)
        // Name of the credentials file beside the profile that auth-user-pass names; empty
        // when the profile names none.
        std::string credentialsName;
        // The text to hand openvpn, with auth-user-pass pointing at `handOverFolder`.
        std::string openVpnText;
    };

    // `handOverFolder` is where the caller puts its own copy of the credentials file.
    static Verdict check(std::string_view profile, const Facts &facts, std::string_view handOverFolder);

    // Facts about the credentials file beside the profile; empty reason when it may be copied.
    static std::string credentialsProblem(unsigned requester, const FileFacts &file);
};
