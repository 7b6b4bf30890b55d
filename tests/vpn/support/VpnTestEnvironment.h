#pragma once

#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/KeychainStore.h"
#include "platform/Platform.h"
#include "platform/linux/LinuxPlatform.h"
#include "vpn/NQVPNManager.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

// A fresh world for one VPN test: its own platform folders (temporary, resources, helpers,
// stand-in sudo), settings store, event bus and manager. Undone on destruction.
class VpnTestEnvironment {
public:
    // Folders left empty are made under the environment's own root.
    struct Places {
        QString helpersDirectory;
        QString sudoPath;
        QString temporaryDirectory;
    };

    explicit VpnTestEnvironment(const QString &hostUrl = QStringLiteral("http://127.0.0.1:9"), Places places = {})
        : m_places(std::move(places))
    {
        QDir(root()).mkpath(QStringLiteral("resources"));
        QDir(root()).mkpath(QStringLiteral("helpers"));
        writeFile(QStringLiteral("resources/CommonConfig.plist"),
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                  "<key>Host URL</key><string>" +
                      hostUrl.toUtf8() + "</string></dict></plist>\n");
        LinuxPlatform::Overrides overrides;
        overrides.temporaryDirectory = temporaryDirectory();
        overrides.resourcesDirectory = root() + QStringLiteral("/resources");
        overrides.helpersDirectory = helpersDirectory();
        overrides.sudoPath = m_places.sudoPath.isEmpty() ? root() + QStringLiteral("/sudo") : m_places.sudoPath;
        overrides.applicationSupportDirectory = root() + QStringLiteral("/data");
        Platform::setInstance(std::make_unique<LinuxPlatform>(overrides));
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            root() + QStringLiteral("/settings.conf"), KeychainStore(QStringLiteral("com.pelorin.vpn.test"))));
        EventBus::defaultCenter().reset();
        NQVPNManager::setSharedManagerForTesting(std::make_unique<NQVPNManager>());
    }
    ~VpnTestEnvironment()
    {
        NQVPNManager::setSharedManagerForTesting(nullptr);
        EventBus::defaultCenter().reset();
        AppStorageManager::setSharedManagerForTesting(nullptr);
        Platform::setInstance(nullptr);
    }
    VpnTestEnvironment(const VpnTestEnvironment &) = delete;
    VpnTestEnvironment &operator=(const VpnTestEnvironment &) = delete;

    QString root() const { return m_dir.path(); }
    QString temporaryDirectory() const
    {
        return m_places.temporaryDirectory.isEmpty() ? root() + QStringLiteral("/run/tmp")
                                                     : m_places.temporaryDirectory;
    }
    QString helpersDirectory() const
    {
        return m_places.helpersDirectory.isEmpty() ? root() + QStringLiteral("/helpers") : m_places.helpersDirectory;
    }
    NQVPNManager &manager() const { return NQVPNManager::sharedManager(); }
    AppStorageManager &storage() const { return AppStorageManager::sharedManager(); }

    QStringList temporaryEntries() const
    {
        return QDir(temporaryDirectory()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }

    // Writes `content` to `relativePath` under the root; executable when asked.
    QString writeFile(const QString &relativePath, const QByteArray &content, bool executable = false) const
    {
        const QString path = root() + QLatin1Char('/') + relativePath;
        QFile file(path);
        if (file.open(QIODevice::WriteOnly))
            file.write(content);
        file.close();
        if (executable)
            file.setPermissions(file.permissions() | QFileDevice::ExeOwner);
        return path;
    }

private:
    QTemporaryDir m_dir;
    Places m_places;
};
