#pragma once

#include <functional>

// The application updater as the update panel sees it.
class UpdateService {
public:
    virtual ~UpdateService() = default;
    // Completes exactly once, on the main thread.
    virtual void checkForUpdateWithCompletion(std::function<void(bool updateAvailable)> completion) = 0;
    virtual void downloadAndInstallPKG() = 0;
};
