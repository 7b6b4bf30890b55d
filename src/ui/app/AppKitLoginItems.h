#pragma once

#include "shell/NQAppKit.h"
#include "ui/LoginItemControl.h"

// The screens' launch-at-login switch over the session's autostart entries.
class AppKitLoginItems : public LoginItemControl {
public:
    bool appIsInLoginItems() override { return NQAppKit::appIsInLoginItems(); }
    void setLaunchAtLogin(bool enabled) override { NQAppKit::setLaunchAtLogin(enabled); }
};
