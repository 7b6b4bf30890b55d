#pragma once

#include "foundation/AppStorageManager.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/KeychainStore.h"
#include "foundation/NQConfig.h"
#include "platform/linux/LinuxPlatform.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

// Fresh state for one test against a backend at `host`: a configuration pointing the client
// (and its update check and download) there, an empty settings store and a file keychain, all
// in a private folder.
class BackendFixture {
public:
    explicit BackendFixture(const QString &host, const QString &packageUrl = {})
    {
        QDir().mkpath(path("res"));
        const auto plist = [this](const QString &name, const QString &body) {
            write(path("res/" + name), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" +
                                           body.toUtf8() + "</dict></plist>\n");
        };
        plist("CommonConfig.plist", "<key>Host URL</key><string>" + host.toHtmlEscaped() + "</string>");
        plist("ReleaseConfig.plist", "<key>UpdateUrlLatestVersion</key><string>" + host +
                                         "/update/latest</string><key>Update Url Direct</key><string>" +
                                         (packageUrl.isEmpty() ? host + "/update/PelorinVPN.deb" : packageUrl) +
                                         "</string>");
        Platform::setInstance(
            std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{.temporaryDirectory = path("tmp"),
                                                                     .applicationSupportDirectory = path("support"),
                                                                     .downloadsDirectory = path("Downloads"),
                                                                     .resourcesDirectory = path("res"),
                                                                     .installer = path("installer.sh")}));
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            path("settings.conf"),
            KeychainStore(KeychainStore::defaultService(), std::make_shared<FileSecretBackend>(path("secrets.json")))));
    }
    ~BackendFixture()
    {
        AppStorageManager::setSharedManagerForTesting(nullptr);
        Platform::setInstance(nullptr);
        NQConfig::setHttpTimeoutForTesting(60);
    }

    AppStorageManager &storage() { return AppStorageManager::sharedManager(); }
    QString path(const QString &name) const { return m_dir.filePath(name); }
    static void write(const QString &path, const QByteArray &content)
    {
        QFile file(path);
        if (file.open(QIODevice::WriteOnly))
            file.write(content);
    }

private:
    QTemporaryDir m_dir;
};
