#include "foundation/AppStorageManager.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/LabelConfigModel.h"
#include "foundation/MainQueue.h"
#include "foundation/SecretQueue.h"
#include "support/LogCapture.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

using BoolGet = bool (AppStorageManager::*)() const;
using StringGet = QString (AppStorageManager::*)() const;
using StringSet = void (AppStorageManager::*)(const QString &);

struct StringKey {
    const char *key;
    StringGet get;
    StringSet set;
};

const QList<StringKey> kStringKeys = {
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

const QList<QPair<const char *, BoolGet>> kBoolKeys = {
    {"NotFirstRun", &AppStorageManager::notFirstRun},
    {"eulaConfirmed", &AppStorageManager::eulaConfirmed},
    {"EXIT_ON_CLOSE", &AppStorageManager::appExitOnClose},
    {"RUN_AT_STARTUP", &AppStorageManager::appAutorunEnabled},
    {"UDAutoUpdate", &AppStorageManager::autoupdate},
    {"UDAutoCheckUdate", &AppStorageManager::autoCheckUpdate},
    {"nq.vpn.disabled", &AppStorageManager::vpnDisabled},
    {"vpnDataCompressionEnabled", &AppStorageManager::vpnDataCompressionEnabled},
    {"AdsBlocker", &AppStorageManager::adsBlockerEnabled},
    {"nq.keyFromStore", &AppStorageManager::keyFromStoreFlag},
};

QByteArray fileContents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString &path, const QByteArray &contents)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(contents);
}

} // namespace

class TstAppStorageManager : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    QString settingsPath() const { return m_dir->filePath(QStringLiteral("com.pelorin.vpn.mac.conf")); }
    std::unique_ptr<AppStorageManager> makeManager() const
    {
        auto backend = std::make_shared<FileSecretBackend>(m_dir->filePath(QStringLiteral("secrets.json")));
        return std::make_unique<AppStorageManager>(settingsPath(),
                                                   KeychainStore(QStringLiteral("com.pelorin.vpn.mac"), backend));
    }

private slots:
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }

    void freshInstallReadsTheUnwrittenValues()
    {
        auto manager = makeManager();
        for (const auto &[key, get] : kBoolKeys)
            QVERIFY2(!((*manager).*get)(), key);
        for (const StringKey &k : kStringKeys)
            QVERIFY2(((*manager).*k.get)().isNull(), k.key);
        QCOMPARE(manager->getVPNStatus(), 0);
        QVERIFY(manager->deviceUUID().isNull());
        QVERIFY(manager->getVpnCredentials().username.isNull());
        QVERIFY(manager->getVpnCredentials().password.isNull());
        QVERIFY(!manager->objectForKey<LabelConfigModel>(QStringLiteral("labelconfig")));
    }

    void everyStringKeyIsStoredUnderItsOwnNameAndNullRemovesIt()
    {
        auto manager = makeManager();
        for (const StringKey &k : kStringKeys)
            ((*manager).*k.set)(QStringLiteral("value of %1").arg(QLatin1String(k.key)));
        // Read back from disk by another reader: the names in the file are the keys.
        QSettings onDisk(settingsPath(), QSettings::NativeFormat);
        for (const StringKey &k : kStringKeys)
            QCOMPARE(onDisk.value(QLatin1String(k.key)).toString(),
                     QStringLiteral("value of %1").arg(QLatin1String(k.key)));
        auto reopened = makeManager();
        for (const StringKey &k : kStringKeys) {
            QCOMPARE(((*reopened).*k.get)(), QStringLiteral("value of %1").arg(QLatin1String(k.key)));
            ((*reopened).*k.set)(QString());
            QVERIFY2(!reopened->contains(QLatin1String(k.key)), k.key);
            QVERIFY(((*reopened).*k.get)().isNull());
        }
    }

    void booleansAndStatusSurviveARestart()
    {
        {
            auto manager = makeManager();
            manager->storeNotFirstRun(true);
            QVERIFY(manager->storeEulaConfirmed(true));
            manager->storeAppExitOnClose(true);
            manager->storeAutoCheckUpdate(true);
            manager->setVpnDisabled(true);
            QVERIFY(manager->storeVpnDataCompressionEnabled(true));
            manager->storeAdsBlockerEnabled(true);
            manager->storeKeyFromStoreFlag(true);
            manager->storeVPNStatus(3);
        }
        auto manager = makeManager();
        QVERIFY(manager->notFirstRun() && manager->eulaConfirmed() && manager->appExitOnClose());
        QVERIFY(manager->autoCheckUpdate() && manager->vpnDisabled() && manager->vpnDataCompressionEnabled());
        QVERIFY(manager->adsBlockerEnabled() && manager->keyFromStoreFlag());
        QVERIFY(!manager->autoupdate() && !manager->appAutorunEnabled());
        QCOMPARE(manager->getVPNStatus(), 3);
        // "Udate" is the stored spelling.
        QVERIFY(fileContents(settingsPath()).contains("UDAutoCheckUdate=true"));
        manager->removeVPNStatus();
        QCOMPARE(manager->getVPNStatus(), 0);
    }

    void everyWriteIsOnDiskWhenTheCallReturns()
    {
        auto manager = makeManager();
        manager->storeAppAutorunEnabled(true);
        QVERIFY(fileContents(settingsPath()).contains("RUN_AT_STARTUP=true"));
        manager->storeAppLanguageCode(QStringLiteral("pt-BR"));
        QVERIFY(fileContents(settingsPath()).contains("LanguageCode=pt-BR"));
        manager->removeAppLanguageCode();
        QVERIFY(!fileContents(settingsPath()).contains("LanguageCode"));
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 20; ++i)
            manager->storeVPNStatus(i % 6);
        qDebug("durable write: %.1f ms each", double(timer.elapsed()) / 20);
    }

    void deferredWritesReachTheDiskWithinTheFlushDelay()
    {
        TestClock clock;
        MainQueue::setTestClock(&clock);
        auto manager = makeManager();
        QElapsedTimer timer;
        timer.start();
        for (int i = 1; i <= 500; ++i)
            manager->setValueDeferred(QStringLiteral("ExtensionStatistics"), QVariantMap{{QStringLiteral("count"), i}});
        qDebug("500 deferred writes: %lld ms", timer.elapsed());
        QCOMPARE(manager->value(QStringLiteral("ExtensionStatistics")).toMap().value(QStringLiteral("count")).toInt(),
                 500);
        QVERIFY(!fileContents(settingsPath()).contains("ExtensionStatistics"));
        QCOMPARE(clock.pendingCount(), 1); // one coalesced flush, not 500
        // (Qt may write earlier, when the event loop next runs; the flush is the upper bound.)
        clock.advance(AppStorageManager::kDeferredFlushMs);
        QCOMPARE(clock.pendingCount(), 0);
        QCOMPARE(
            QSettings(settingsPath(), QSettings::NativeFormat).value(QStringLiteral("ExtensionStatistics")).toMap(),
            (QVariantMap{{QStringLiteral("count"), 500}}));

        // A durable write carries pending deferred values with it; so does destruction.
        manager->setValueDeferred(QStringLiteral("BlockedDomains"), QStringList{QStringLiteral("ads.example")});
        manager->storeAdsBlockerEnabled(true);
        QVERIFY(fileContents(settingsPath()).contains("BlockedDomains"));
        manager->setValueDeferred(QStringLiteral("BlockerWhitelist"), QStringList{QStringLiteral("news.example")});
        manager.reset();
        QVERIFY(fileContents(settingsPath()).contains("BlockerWhitelist"));
        clock.advance(AppStorageManager::kDeferredFlushMs); // the orphaned flush finds no manager
        MainQueue::setTestClock(nullptr);
    }

    void resetOperations()
    {
        auto manager = makeManager();
        LogCapture log;
        manager->storeAppExitOnClose(true);
        manager->storeAutoupdate(true);
        manager->storeAutoCheckUpdate(true);
        manager->storeVpnDataCompressionEnabled(true);
        manager->storeAdsBlockerEnabled(true);
        manager->resetSettings();
        QVERIFY(manager->appAutorunEnabled());
        QVERIFY(!manager->appExitOnClose() && !manager->autoupdate() && !manager->autoCheckUpdate());
        QVERIFY(!manager->vpnDataCompressionEnabled() && !manager->adsBlockerEnabled());
        QVERIFY(manager->contains(QStringLiteral("EXIT_ON_CLOSE"))); // written NO, not removed

        manager->storeNotFirstRun(true);
        manager->storeRealIp(QStringLiteral("198.51.100.7"));
        manager->storeCountry(QStringLiteral("France"));
        manager->storeVirtualIP(QStringLiteral("203.0.113.9"));
        manager->storeVirtualCountry(QStringLiteral("Canada"));
        manager->storeVirtualCountryCode(QStringLiteral("CA"));
        manager->removeAppCache();
        QVERIFY(manager->getRealIp().isNull() && manager->getCountry().isNull());
        QVERIFY(manager->getVirtualIP().isNull() && manager->getVirtualCountry().isNull());
        QCOMPARE(manager->getVirtualCountryCode(), QStringLiteral("CA"));
        QVERIFY(manager->notFirstRun());
        manager->removeAppData();
        QVERIFY(!manager->notFirstRun());
        QCOMPARE(manager->getVirtualCountryCode(), QStringLiteral("CA"));

        manager->storeDeviceUUID(QStringLiteral("DEV-9"));
        manager->storeVPNCredentials(QStringLiteral("u"), QStringLiteral("p"));
        manager->removeAppStorage();
        QVERIFY(manager->getVirtualCountryCode().isNull());
        QVERIFY(!manager->appAutorunEnabled());
        QCOMPARE(manager->deviceUUID(), QStringLiteral("DEV-9"));
        QCOMPARE(manager->getVpnCredentials().password, QStringLiteral("p"));
        QVERIFY(!makeManager()->contains(QStringLiteral("EXIT_ON_CLOSE")));

        QCOMPARE(log.lines(),
                 (QStringList{QStringLiteral("-[AppStorageManager resetSettings]"),
                              QStringLiteral("-[AppStorageManager resetVPNSettings]"),
                              QStringLiteral("-[AppStorageManager removeAppCache]"),
                              QStringLiteral("-[AppStorageManager removeAppData]"),
                              QStringLiteral("-[AppStorageManager removeAppCache]"),
                              QStringLiteral("-[AppStorageManager storeDeviceUUID:]: 'DEV-9'."),
                              QStringLiteral(
                                  "-[AppStorageManager storeVPNCredentials:pass:]: { username: 'u', password: 'p' }."),
                              QStringLiteral("-[AppStorageManager removeAppStorage]")}));
    }

    void keychainItemsAndTheirLogLines()
    {
        auto manager = makeManager();
        LogCapture log;
        manager->storeVPNCredentials(QStringLiteral("user-1"), QString());
        QCOMPARE(manager->getVpnCredentials().username, QStringLiteral("user-1"));
        QVERIFY(manager->getVpnCredentials().password.isNull());
        manager->storeVPNCredentials(QStringLiteral("user-2"), QStringLiteral("s3cr3t"));
        QCOMPARE(manager->getVpnCredentials().password, QStringLiteral("s3cr3t"));
        QVERIFY(manager->storeDeviceUUID(QStringLiteral("A-B")));
        SecretQueue::drain(); // the writes are on their way
        QCOMPARE(manager->keychain().stringForKey(QStringLiteral("username")), QStringLiteral("user-2"));
        QCOMPARE(manager->keychain().stringForKey(QStringLiteral("deviceUUID")), QStringLiteral("A-B"));
        manager->removeDeviceUUID();
        QVERIFY(manager->deviceUUID().isNull());
        manager->removeVpnCredentials();
        QVERIFY(manager->getVpnCredentials().username.isNull());
        QVERIFY(manager->getVpnCredentials().password.isNull());
        QCOMPARE(log.lines(),
                 (QStringList{
                     QStringLiteral(
                         "-[AppStorageManager storeVPNCredentials:pass:]: { username: 'user-1', password: '(null)' }."),
                     QStringLiteral(
                         "-[AppStorageManager storeVPNCredentials:pass:]: { username: 'user-2', password: 's3cr3t' }."),
                     QStringLiteral("-[AppStorageManager storeDeviceUUID:]: 'A-B'."),
                     QStringLiteral("-[AppStorageManager removeDeviceUUID]"),
                     QStringLiteral("|AppStorageManager| removeVpnCredentials")}));
    }

    void handEditedValuesOfTheWrongTypeReadAsUnwritten()
    {
        writeFile(settingsPath(), "[General]\n"
                                  "RUN_AT_STARTUP=maybe\n"
                                  "EXIT_ON_CLOSE=YES\n"
                                  "AdsBlocker=0\n"
                                  "UDVpnStatus=connected\n"
                                  "LanguageCode=en, fr\n"
                                  "SUPPORT_LINK=@ByteArray(https://x)\n"
                                  "labelconfig=not archived\n");
        auto manager = makeManager();
        QVERIFY(!manager->appAutorunEnabled());
        QVERIFY(manager->appExitOnClose());
        QVERIFY(!manager->adsBlockerEnabled());
        QCOMPARE(manager->getVPNStatus(), 0);
        QVERIFY(manager->appLanguageCode().isNull());
        QVERIFY(manager->supportLink().isNull());
        NQErrorOpt error;
        QVERIFY(!manager->objectForKey<LabelConfigModel>(QStringLiteral("labelconfig"), &error));
        QVERIFY(error);
        QCOMPARE(error->code(), 4864);
        // Writing over them works.
        manager->storeVPNStatus(2);
        QCOMPARE(makeManager()->getVPNStatus(), 2);
    }

    void corruptOrUnwritableSettingsFile()
    {
        const QByteArray garbage("\x00\xff[General\n=\x01\x02[[\\\n", 16);
        writeFile(settingsPath(), garbage);
        LogCapture log;
        auto manager = makeManager();
        QVERIFY(!manager->appAutorunEnabled());
        QCOMPARE(manager->getVPNStatus(), 0);
        manager->storeVPNStatus(3);
        QCOMPARE(makeManager()->getVPNStatus(), 3);
        QCOMPARE(fileContents(settingsPath() + QStringLiteral(".corrupt")), garbage);
        QCOMPARE(log.lines().size(), 1);
        QVERIFY(log.lines().first().startsWith(QStringLiteral("|AppStorageManager| The settings file ")));

        // A settings path below a regular file cannot be written, even by root.
        log.clear();
        writeFile(m_dir->filePath(QStringLiteral("blocker")), "x");
        AppStorageManager stuck(m_dir->filePath(QStringLiteral("blocker/settings.conf")), manager->keychain());
        stuck.storeAppLanguageCode(QStringLiteral("de"));
        QCOMPARE(stuck.appLanguageCode(), QStringLiteral("de")); // kept in memory
        QCOMPARE(log.lines().size(), 1);
        QVERIFY(log.lines().first().startsWith(QStringLiteral("|AppStorageManager| Cannot write the settings file ")));
    }

    void archivedObjectsAndArrays()
    {
        auto manager = makeManager();
        LabelConfigModel model;
        model.setInstanceID(QStringLiteral("20014"));
        model.setLinkSupport(QStringLiteral("https://example.test/support"));
        model.setLinkAfterUninstall(QStringLiteral("https://example.test/bye"));
        NQErrorOpt error;
        QVERIFY(manager->setObject(model, QStringLiteral("labelconfig"), &error));
        QVERIFY(!error);
        const auto back = makeManager()->objectForKey<LabelConfigModel>(QStringLiteral("labelconfig"), &error);
        QVERIFY(!error);
        QVERIFY(back);
        QCOMPARE(back->linkSupport(), model.linkSupport());
        QCOMPARE(back->linkAfterUninstall(), model.linkAfterUninstall());
        QVERIFY(back->linkAfterInstall().isNull());
        QVERIFY(back->instanceID().isNull());

        QVERIFY(manager->setArray(QList<LabelConfigModel>{model, LabelConfigModel()}, QStringLiteral("models")));
        const auto list = makeManager()->arrayForKey<LabelConfigModel>(QStringLiteral("models"), &error);
        QVERIFY(list);
        QCOMPARE(list->size(), 2);
        QVERIFY(!manager->objectForKey<LabelConfigModel>(QStringLiteral("models"), &error));
        QCOMPARE(error->code(), 4864);

        manager->setValue(QStringLiteral("labelconfig"), QByteArray("\x81\x02 not cbor"));
        QVERIFY(!manager->objectForKey<LabelConfigModel>(QStringLiteral("labelconfig"), &error));
        QCOMPARE(error->domain(), QStringLiteral("NSCocoaErrorDomain"));
        QVERIFY(!manager->arrayForKey<LabelConfigModel>(QStringLiteral("absent"), &error));
        QVERIFY(!error);
    }

    void labelConfigModelGoesThroughTheSharedManager()
    {
        AppStorageManager::setSharedManagerForTesting(makeManager());
        LabelConfigModel::sharedInstance().setLinkAfterInstall(QStringLiteral("https://example.test/thanks"));
        NQErrorOpt error;
        QVERIFY(LabelConfigModel::sharedInstance().storeSharedInstance(&error));
        QVERIFY(!error);
        const auto stored = makeManager()->objectForKey<LabelConfigModel>(QStringLiteral("labelconfig"));
        QVERIFY(stored);
        QCOMPARE(stored->linkAfterInstall(), QStringLiteral("https://example.test/thanks"));
        QVERIFY(LabelConfigModel::removeSharedInstance());
        QVERIFY(!makeManager()->contains(QStringLiteral("labelconfig")));
        QVERIFY(LabelConfigModel::removeSharedInstance());
        AppStorageManager::setSharedManagerForTesting(nullptr);
    }

    void sharedManagerUsesTheUserSettingsFile()
    {
        AppStorageManager::setSharedManagerForTesting(nullptr);
        const QString expected = qEnvironmentVariable("XDG_CONFIG_HOME") + QStringLiteral("/com.pelorin.vpn.mac.conf");
        QCOMPARE(AppStorageManager::defaultSettingsFilePath(), expected);
        AppStorageManager &shared = AppStorageManager::sharedManager();
        QCOMPARE(&shared, &AppStorageManager::sharedManager());
        QCOMPARE(shared.settingsFilePath(), expected);
        QCOMPARE(shared.keychain().service(), QStringLiteral("com.pelorin.vpn.mac"));
        // PELORIN_SECRET_STORE=file keeps this test out of any real keyring.
        QCOMPARE(shared.keychain().backend()->name(), QStringLiteral("file"));
        shared.storeAppLanguageCode(QStringLiteral("es"));
        QVERIFY(fileContents(expected).contains("LanguageCode=es"));
        shared.removeAppStorage();
        AppStorageManager::setSharedManagerForTesting(nullptr);
    }
};

QTEST_GUILESS_MAIN(TstAppStorageManager)
#include "tst_app_storage_manager.moc"
