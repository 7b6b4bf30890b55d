#pragma once

#include "ui/ChromeLauncher.h"

// Starts Chrome as a detached process with the platform's command for it.
class ProcessChromeLauncher : public ChromeLauncher {
public:
    static constexpr auto kErrorDomain = "com.pelorin.vpn.mac.chrome.error";
    static constexpr int kNotInstalledCode = -1;
    static constexpr int kCannotStartCode = -2;

    // The first argument is the page to open; the rest follow the platform's command.
    NQErrorOpt openGoogleChrome(const QStringList &arguments) override;
};
