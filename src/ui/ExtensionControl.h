#pragma once

// The browser side of the ad blocker: where Chrome and the companion extension are, and the
// commands that switch the ad blocker in every connected extension (they store the flag too).
class ExtensionControl {
public:
    virtual ~ExtensionControl() = default;
    virtual bool isChromeInstalled() = 0;
    virtual bool isChromeExtensionInstalled() = 0;
    virtual void sendEnableAdsBlocker() = 0;
    virtual void sendDisableAdsBlocker() = 0;
};
