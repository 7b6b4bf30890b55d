#include "foundation/AppStorageManager.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/LabelConfigModel.h"
#include "support/ClockGuard.h"
#include "support/Files.h"
#include "support/LogCapture.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

using BoolGet = bool (AppStorageManager::*)() const;
using BoolSet = void (AppStorageManager::*)(bool);
using StringGet = QString (AppStorageManager::*)() const;
using StringSet = void (AppStorageManager::*)(const QString &);

const QList<std::tuple<const char *, StringGet, StringSet>> kStringKeys = {
    {"UDSkipVersion", &AppStorageManager::getVersionToSkip, &AppStorageManager::storeVersionToSkip},
    {"LanguageCode", &AppStorageManager::appLanguageCode, &AppStorageManager::storeAppLanguageCode},
    {"SUPPORT_LINK", &AppStorageManager::supportLink, &AppStorageManager::storeSupportLink},
    {"POSTINSTALL_LINK", &AppStorageManager::postInstallLink, &AppStorageManager::storePostInstallLink},
    {"POSTUNINSTALL_LINK", &AppStorageManager::postUninstallLink, &AppStorageManager::storePostUninstallLink},
    {"nq.eulaUrl", &AppStorageManager::eulaUrl, &AppStorageManager::setEulaUrl},
    {"nq.privacyUrl", &AppStorageManager::privacyUrl, &AppStorageManager::setPrivacyUrl},
    {"UDRealIpAddress", &AppStorageManager::getRealIp, &AppStorageManager::storeRealIp},
    {"UDRealCountry", &AppStorageManager::getCountry, &AppStorageManager::storeCountry},
    {"UDVirtualIpAddress", &AppStorageManager::getVirtualIP, &AppStorageManager::storeVirtualIP},
    {"UDVirtualCountry", &AppStorageManager::getVirtualCountry, &AppStorageManager::storeVirtualCountry},
    {"UDVirtualCountryCode", &AppStorageManager::getVirtualCountryCode, &AppStorageManager::storeVirtualCountryCode},
    {"AppData.BrowserChromeLink", &AppStorageManager::labelConfigBrowserChromeLink,
     &AppStorageManager::setLabelConfigBrowserChromeLink},
    {"nq.accountKey", &AppStorageManager::accountKey, &AppStorageManager::storeAccountKey},
};

// "Udate" is the stored spelling.
const QList<std::tuple<const char *, BoolGet, BoolSet>> kBoolKeys = {
    {"NotFirstRun", &AppStorageManager::notFirstRun, &AppStorageManager::storeNotFirstRun},
    {"EXIT_ON_CLOSE", &AppStorageManager::appExitOnClose, &AppStorageManager::storeAppExitOnClose},
    {"RUN_AT_STARTUP", &AppStorageManager::appAutorunEnabled, &AppStorageManager::storeAppAutorunEnabled},
    {"UDAutoUpdate", &AppStorageManager::autoupdate, &AppStorageManager::storeAutoupdate},
    {"UDAutoCheckUdate", &AppStorageManager::autoCheckUpdate, &AppStorageManager::storeAutoCheckUpdate},
    {"nq.vpn.disabled", &AppStorageManager::vpnDisabled, &AppStorageManager::setVpnDisabled},
    {"AdsBlocker", &AppStorageManager::adsBlockerEnabled, &AppStorageManager::storeAdsBlockerEnabled},
    {"nq.keyFromStore", &AppStorageManager::keyFromStoreFlag, &AppStorageManager::storeKeyFromStoreFlag},
};

} // namespace

class TstAppStorageManager : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    QString settingsPath() const { return m_dir->filePath(QStringLiteral("com.pelorin.vpn.mac.conf")); }
    QByteArray onDisk() const { return contentOf(settingsPath()); }
    std::unique_ptr<AppStorageManager> makeManager() const
    {
        auto backend = std::make_shared<FileSecretBackend>(m_dir->filePath(QStringLiteral("secrets.json")));
        return std::make_unique<AppStorageManager>(settingsPath(),
                                                   KeychainStore(QStringLiteral("com.pelorin.vpn.mac"), backend));
    }

private slots:
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }

    // Unwritten reads as NO/nil; each value is on disk under its own name when the call
    // returns; a null string removes it.
    void everyKeyIsWrittenThroughUnderItsOwnName()
    {
        auto manager = makeManager();
        for (const auto &[key, get, set] : kBoolKeys) {
            QVERIFY2(!((*manager).*get)(), key);
            ((*manager).*set)(true);
            QVERIFY2(onDisk().contains(QByteArray(key) + "=true") && ((*manager).*get)(), key);
        }
        QVERIFY(manager->storeEulaConfirmed(true) && onDisk().contains("eulaConfirmed=true"));
        QVERIFY(manager->storeVpnDataCompressionEnabled(true) && onDisk().contains("vpnDataCompressionEnabled=true"));
        for (const auto &[key, get, set] : kStringKeys) {
            ((*manager).*set)(QStringLiteral("v-%1").arg(QLatin1String(key)));
            QVERIFY2(onDisk().contains(QByteArray(key) + "=v-"), key);
            QCOMPARE(((*manager).*get)(), QStringLiteral("v-%1").arg(QLatin1String(key)));
            ((*manager).*set)(QString());
            QVERIFY2(!manager->contains(QLatin1String(key)) && ((*manager).*get)().isNull(), key);
        }
    }

    void deferredWritesReachTheDiskWithinTheFlushDelay()
    {
        ClockGuard clock;
        auto manager = makeManager();
        for (int i = 1; i <= 500; ++i)
            manager->setValueDeferred(QStringLiteral("ExtensionStatistics"), QVariantMap{{QStringLiteral("count"), i}});
        manager->storeLastConnectedCluster(QStringLiteral("Sweden"));
        manager->storeLastConnectedCluster(QString()); // no country: the last one stays
        manager->storeVPNStatus(3);
        QCOMPARE(manager->getVPNStatus(), 3);
        QVERIFY(!onDisk().contains("ExtensionStatistics") && !onDisk().contains("LAST_CLUSTER"));
        QCOMPARE(clock.clock.pendingCount(), 1); // one coalesced flush, not 502
        clock.advance(AppStorageManager::kDeferredFlushMs);
        QCOMPARE(QSettings(settingsPath(), QSettings::NativeFormat).value("ExtensionStatistics").toMap(),
                 (QVariantMap{{QStringLiteral("count"), 500}}));
        QVERIFY(onDisk().contains("UDVpnStatus=3") && onDisk().contains("LAST_CLUSTER=Sweden"));
        manager->removeVPNStatus();

        // A durable write carries pending deferred values with it; so does flush().
        manager->setValueDeferred(QStringLiteral("BlockedDomains"), QStringList{QStringLiteral("ads.example")});
        manager->storeAdsBlockerEnabled(true);
        QVERIFY(onDisk().contains("BlockedDomains") && !onDisk().contains("UDVpnStatus"));
        manager->setValueDeferred(QStringLiteral("Flushed"), 1);
        manager->flush();
        QVERIFY(onDisk().contains("Flushed"));
        manager->setValueDeferred(QStringLiteral("BlockerWhitelist"), QStringList{QStringLiteral("news.example")});
        manager.reset();
        clock.advance(AppStorageManager::kDeferredFlushMs); // the orphaned flush finds no manager
    }

    void resetOperations()
    {
        auto manager = makeManager();
        for (const auto &[key, get, set] : kBoolKeys)
            ((*manager).*set)(true);
        manager->storeVpnDataCompressionEnabled(true);
        manager->resetSettings();
        QVERIFY(manager->appAutorunEnabled() && manager->notFirstRun());
        QVERIFY(!manager->appExitOnClose() && !manager->autoupdate() && !manager->autoCheckUpdate());
        QVERIFY(!manager->vpnDataCompressionEnabled() && !manager->adsBlockerEnabled());
        QVERIFY(onDisk().contains("EXIT_ON_CLOSE=false")); // written NO, not removed

        for (const auto &[key, get, set] : kStringKeys.mid(7, 5))
            ((*manager).*set)(QStringLiteral("x"));
        manager->removeAppCache();
        QVERIFY(manager->getRealIp().isNull() && manager->getCountry().isNull());
        QVERIFY(manager->getVirtualIP().isNull() && manager->getVirtualCountry().isNull());
        QVERIFY(manager->notFirstRun());
        manager->removeAppData();
        QVERIFY(!manager->notFirstRun());
        QCOMPARE(manager->getVirtualCountryCode(), QStringLiteral("x"));

        manager->storeDeviceUUID(QStringLiteral("DEV-9"));
        manager->storeVPNCredentials(QStringLiteral("u"), QStringLiteral("p"));
        manager->removeAppStorage();
        QVERIFY(!onDisk().contains("EXIT_ON_CLOSE"));
        QCOMPARE(manager->deviceUUID(), QStringLiteral("DEV-9")); // secrets stay
        QCOMPARE(manager->getVpnCredentials().password, QStringLiteral("p"));
    }

    void keychainItems()
    {
        auto manager = makeManager();
        LogCapture log;
        manager->storeVPNCredentials(QStringLiteral("user-2"), QStringLiteral("s3cr3t"));
        // Read verbatim from the log by support.
        QVERIFY(log.lines().contains(
            "-[AppStorageManager storeVPNCredentials:pass:]: { username: 'user-2', password: 's3cr3t' }."));
        QVERIFY(manager->storeDeviceUUID(QStringLiteral("A-B")));
        manager->flush(); // also sends the keychain writes on their way
        QCOMPARE(makeManager()->getVpnCredentials().password, QStringLiteral("s3cr3t"));
        QCOMPARE(manager->keychain().stringForKey(QStringLiteral("username")), QStringLiteral("user-2"));
        QCOMPARE(manager->keychain().stringForKey(QStringLiteral("deviceUUID")), QStringLiteral("A-B"));
        manager->removeDeviceUUID();
        manager->removeVpnCredentials();
        QVERIFY(manager->deviceUUID().isNull() && manager->getVpnCredentials().username.isNull());
        manager->flush();
        QVERIFY(makeManager()->getVpnCredentials().username.isNull());

        // A keychain that cannot write: the run keeps its secrets in memory and says why.
        QVERIFY(writeFile(m_dir->filePath(QStringLiteral("blocker")), "x"));
        auto backend = std::make_shared<FileSecretBackend>(m_dir->filePath(QStringLiteral("blocker/secrets.json")));
        AppStorageManager stuck(m_dir->filePath(QStringLiteral("stuck.conf")),
                                KeychainStore(QStringLiteral("com.pelorin.vpn.mac"), backend));
        stuck.storeDeviceUUID(QStringLiteral("RUN-ID"));
        stuck.storeVPNCredentials(QStringLiteral("u"), QStringLiteral("p"));
        stuck.flush();
        QVERIFY(stuck.secretsNotKept());
        QCOMPARE(stuck.deviceUUID(), QStringLiteral("RUN-ID"));
        QCOMPARE(stuck.getVpnCredentials().password, QStringLiteral("p"));
    }

    void handEditedCorruptOrUnwritableSettings()
    {
        QVERIFY(writeFile(settingsPath(),
                          "[General]\nRUN_AT_STARTUP=maybe\nEXIT_ON_CLOSE=YES\nAdsBlocker=0\nNotFirstRun=true\n"
                          "UDVpnStatus=connected\nLanguageCode=en, fr\n"
                          "SUPPORT_LINK=@ByteArray(https://x)\nlabelconfig=not archived\n"));
        auto manager = makeManager();
        QVERIFY(!manager->appAutorunEnabled() && manager->appExitOnClose() && !manager->adsBlockerEnabled() &&
                manager->notFirstRun());
        QCOMPARE(manager->getVPNStatus(), 0);
        QVERIFY(manager->appLanguageCode().isNull() && manager->supportLink().isNull());
        NQErrorOpt error;
        QVERIFY(!manager->objectForKey<LabelConfigModel>(QStringLiteral("labelconfig"), &error));
        QCOMPARE(error->code(), 4864);
        manager.reset();

        const QByteArray garbage("\x00\xff[General\n=\x01\x02[[\\\n", 16);
        QVERIFY(writeFile(settingsPath(), garbage));
        LogCapture log;
        manager = makeManager();
        manager->storeAppLanguageCode(QStringLiteral("fi"));
        QVERIFY(onDisk().contains("LanguageCode=fi"));
        QCOMPARE(contentOf(settingsPath() + QStringLiteral(".corrupt")), garbage);
        QCOMPARE(log.lines().size(), 1);

        // A settings path below a regular file cannot be written, even by root.
        log.clear();
        QVERIFY(writeFile(m_dir->filePath(QStringLiteral("blocker")), "x"));
        AppStorageManager stuck(m_dir->filePath(QStringLiteral("blocker/settings.conf")), manager->keychain());
        stuck.storeAppLanguageCode(QStringLiteral("de"));
        QCOMPARE(stuck.appLanguageCode(), QStringLiteral("de")); // kept in memory
        QCOMPARE(log.lines().size(), 1);
    }

    void archivedObjectsAndTheSharedManager()
    {
        auto manager = makeManager();
        LabelConfigModel model;
        model.setLinkSupport(QStringLiteral("https://example.test/support"));
        model.setLinkAfterInstall(QStringLiteral("https://example.test/thanks"));
        model.setLinkAfterUninstall(QStringLiteral("https://example.test/bye"));
        NQErrorOpt error;
        QVERIFY(manager->setObject(model, QStringLiteral("labelconfig"), &error) && !error);
        QVERIFY(makeManager()->objectForKey<LabelConfigModel>(QStringLiteral("labelconfig")) == model);
        QVERIFY(manager->setArray(QList<LabelConfigModel>{model, LabelConfigModel()}, QStringLiteral("models")));
        QCOMPARE(makeManager()->arrayForKey<LabelConfigModel>(QStringLiteral("models"), &error)->size(), 2);
        QVERIFY(!manager->objectForKey<LabelConfigModel>(QStringLiteral("models"), &error));
        QCOMPARE(error->code(), 4864);
        QVERIFY(!manager->arrayForKey<LabelConfigModel>(QStringLiteral("absent"), &error));
        QVERIFY(!error);

        AppStorageManager::setSharedManagerForTesting(nullptr);
        // PELORIN_SECRET_STORE=file keeps this test out of any real keyring.
        const QString expected = qEnvironmentVariable("XDG_CONFIG_HOME") + QStringLiteral("/com.pelorin.vpn.mac.conf");
        AppStorageManager &shared = AppStorageManager::sharedManager();
        QCOMPARE(shared.settingsFilePath(), expected);
        LabelConfigModel::sharedInstance().setLinkAfterInstall(QStringLiteral("https://example.test/thanks"));
        QVERIFY(LabelConfigModel::sharedInstance().storeSharedInstance(&error) && !error);
        QVERIFY(contentOf(expected).contains("labelconfig="));
        QVERIFY(LabelConfigModel::removeSharedInstance());
        QVERIFY(!contentOf(expected).contains("labelconfig"));
        shared.removeAppStorage();
        AppStorageManager::setSharedManagerForTesting(nullptr);
    }
};

QTEST_GUILESS_MAIN(TstAppStorageManager)
#include "tst_app_storage_manager.moc"
