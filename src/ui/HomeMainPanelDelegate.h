#pragma once

// The container of the connection panel: receives its close, info and settings clicks.
class HomeMainPanelDelegate {
public:
    virtual ~HomeMainPanelDelegate() = default;
    virtual void clickMainPanelClose() = 0;
    virtual void clickMainPanelInfo() = 0;
    virtual void clickMainPanelSettings() = 0;
};
