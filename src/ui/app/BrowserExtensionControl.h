#pragma once

#include "extension/BrowserExtensionApi.h"
#include "ui/ExtensionControl.h"

// The screens' ad-blocker switch over the extension bridge and its presence checks.
class BrowserExtensionControl : public ExtensionControl {
public:
    bool isChromeInstalled() override { return BrowserExtensionApi::defaultInstance().isChromeInstalled(); }
    bool isChromeExtensionInstalled() override
    {
        return BrowserExtensionApi::defaultInstance().isChromeExtensionInstalled();
    }
    void sendEnableAdsBlocker() override { BrowserExtensionApi::defaultInstance().sendEnableAdsBlocker(); }
    void sendDisableAdsBlocker() override { BrowserExtensionApi::defaultInstance().sendDisableAdsBlocker(); }
};
