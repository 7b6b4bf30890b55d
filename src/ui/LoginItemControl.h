#pragma once

// The application's entry among the session's login items.
class LoginItemControl {
public:
    virtual ~LoginItemControl() = default;
    virtual bool appIsInLoginItems() = 0;
    virtual void setLaunchAtLogin(bool enabled) = 0;
};
