#pragma once

// The container of the settings panel.
class SettingsDelegate {
public:
    virtual ~SettingsDelegate() = default;
    virtual void clickSettingsPanelClose() = 0;
};
