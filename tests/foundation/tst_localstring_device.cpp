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
private:
    QTemporaryDir m_dir;

private slots:
    void initTestCase()
    {
        const QString source = qEnvironmentVariable("PELORIN_SOURCE_DIR");
        if (source.isEmpty())
            QSKIP("PELORIN_SOURCE_DIR is not set; run through ctest");
        LinuxPlatform::Overrides overrides;
        overrides.resourcesDirectory = source + "/resources";
        Platform::setInstance(std::make_unique<LinuxPlatform>(overrides));
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            m_dir.filePath("settings.conf"), KeychainStore(QStringLiteral("com.pelorin.vpn.mac"))));
    }
    void cleanupTestCase()
    {
        AppStorageManager::setSharedManagerForTesting(nullptr);
        Platform::setInstance(nullptr);
    }

    void sessionLanguageChoosesShippedPortuguese()
    {
        QCOMPARE(LocalString::supportedLanguageCodes().size(), 10);
        QCOMPARE(LocalString::deviceLanguageCode(), QStringLiteral("pt"));
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("pt"));
        QCOMPARE(AppStorageManager::sharedManager().appLanguageCode(), QStringLiteral("pt"));
        QCOMPARE(LocalString::forKey(QStringLiteral("Quit_software_name")), QStringLiteral("Sair do PelorinVPN"));
    }

    void portugueseLocaleNamesLanguagesInPortuguese()
    {
        QCOMPARE(LocalString::appLanguageName(), QStringLiteral("Português"));
        const LanguagesTableSource source;
        QCOMPARE(source.numberOfRows(), 10);
        QCOMPARE(source.tableData().value("de"), QStringLiteral("alemão"));
        QCOMPARE(source.tableData().value("en"), QStringLiteral("inglês"));
        QCOMPARE(source.tableData().value("pt"), QStringLiteral("Português"));
    }
};

QTEST_GUILESS_MAIN(TestLocalStringDevice)
#include "tst_localstring_device.moc"
