#pragma once

// One switch of the settings screen. A switch that is not present counts as off in every rule
// and is neither loaded nor stored.
struct SettingsSwitch {
    bool present = true;
    bool on = false;

    bool value() const { return present && on; }
};
