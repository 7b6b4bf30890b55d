#pragma once

#include <string>

// Puts the table of KillSwitchRules in place and takes it away, through the system's nft
// (run by its full path, with an empty environment, the script on its standard input).
// Runs as root: it reads nothing but the profile text the check rebuilt and the resolver.
class KillSwitch {
public:
    // Where Debian installs nft. No PATH search: we run as root.
    static constexpr const char *kNftLocations[] = {"/usr/sbin/nft", "/sbin/nft"};
    // How long nft may take to load or remove the table.
    static constexpr int kNftTimeoutMs = 10000;

    // Resolves the profile's servers (before anything is blocked) and installs the table,
    // replacing one an earlier run left. Empty on success, else why it could not.
    static std::string install(const std::string &checkedProfile);

    // Removes our table; succeeds when there is none. Empty on success, else why not.
    static std::string clear();

    // True when nft is installed (without it no table of ours can exist).
    static bool available();
};
