// Runs under a Brazilian Portuguese session (see the test's environment) with no stand-ins:
// the device language comes from the process locale and the shipped languages from the
// resource configuration.
#include "foundation/AppStorageManager.h"
#include "foundation/KeychainStore.h"
#include "foundation/LanguagesTableSource.h"
#include "foundation/LocalString.h"
#include "platform/linux/LinuxPlatform.h"

#include <QTemporaryDir>
#include <QtTest>

class TestLocalStringDevice : public QObject {
    Q_OBJECT
private slots:
    void sessionLanguageChoosesShippedPortuguese()
    {
        const QString source = qEnvironmentVariable("PELORIN_SOURCE_DIR");
        if (source.isEmpty())
            QSKIP("PELORIN_SOURCE_DIR is not set; run through ctest");
        QTemporaryDir dir;
        Platform::setInstance(
            std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{.resourcesDirectory = source + "/resources"}));
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            dir.filePath("settings.conf"), KeychainStore(QStringLiteral("com.pelorin.vpn.mac"))));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("pt"));
        QCOMPARE(AppStorageManager::sharedManager().appLanguageCode(), QStringLiteral("pt"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Quit_software_name")), QStringLiteral("Sair do PelorinVPN"));
        // The Portuguese locale names the others in Portuguese.
        const LanguagesTableSource table;
        QCOMPARE(table.numberOfRows(), 10);
        QCOMPARE(table.tableData().value("de"), QStringLiteral("alemão"));
        QCOMPARE(table.tableData().value("pt"), QStringLiteral("Português"));
        AppStorageManager::setSharedManagerForTesting(nullptr);
        Platform::setInstance(nullptr);
    }
};

QTEST_GUILESS_MAIN(TestLocalStringDevice)
#include "tst_localstring_device.moc"
