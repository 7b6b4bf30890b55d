#pragma once

#include "shell/AppUpdateManager.h"
#include "ui/UpdateService.h"

// The update panel's updater: the application's update manager.
class AppUpdateService : public UpdateService {
public:
    void checkForUpdateWithCompletion(std::function<void(bool updateAvailable)> completion) override
    {
        AppUpdateManager::sharedManager().checkForUpdateWithCompletion(std::move(completion));
    }
    void downloadAndInstallPKG() override { AppUpdateManager::sharedManager().downloadAndInstallPKG(); }
};
