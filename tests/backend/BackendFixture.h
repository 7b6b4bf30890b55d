#pragma once

#include "foundation/AppStorageManager.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/KeychainStore.h"
#include "foundation/NQConfig.h"
#include "platform/linux/LinuxPlatform.h"

#include <QFile>
#include <QTemporaryDir>

// Fresh state for one backend test: a resources folder whose configuration points the client
// at `hostUrl`, an empty settings store and a file keychain in a private folder.
class BackendFixture {
public:
    explicit BackendFixture(const QString &hostUrl)
    {
        QFile plist(m_dir.filePath("CommonConfig.plist"));
        plist.open(QIODevice::WriteOnly);
        plist.write("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                    "<key>Host URL</key><string>" +
                    hostUrl.toHtmlEscaped().toUtf8() + "</string>\n</dict>\n</plist>\n");
        plist.close();
        LinuxPlatform::Overrides overrides;
        overrides.resourcesDirectory = m_dir.path();
        overrides.applicationSupportDirectory = m_dir.filePath("support");
        overrides.temporaryDirectory = m_dir.filePath("tmp");
        Platform::setInstance(std::make_unique<LinuxPlatform>(overrides));
        auto secrets = std::make_shared<FileSecretBackend>(m_dir.filePath("secrets.json"));
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            m_dir.filePath("settings.conf"), KeychainStore(KeychainStore::defaultService(), secrets)));
    }
    ~BackendFixture()
    {
        AppStorageManager::setSharedManagerForTesting(nullptr);
        Platform::setInstance(nullptr);
        NQConfig::setHttpTimeoutForTesting(60);
    }

    AppStorageManager &storage() { return AppStorageManager::sharedManager(); }

private:
    QTemporaryDir m_dir;
};
