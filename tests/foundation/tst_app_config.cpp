#include "foundation/AppConfig.h"
#include "foundation/BundleExtended.h"
#include "foundation/NQConfig.h"
#include "foundation/PropertyList.h"
#include "platform/linux/LinuxPlatform.h"

#include <QTemporaryDir>
#include <QtTest>

#include <plist/plist.h>

#include <cstdlib>

namespace {

QByteArray xmlPlist(const QByteArray &body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body + "\n</plist>\n";
}

// The same property list in the binary format, written by libplist itself.
QByteArray binaryPlist(const QByteArray &body)
{
    const QByteArray xml = xmlPlist(body);
    plist_t root = nullptr;
    plist_from_xml(xml.constData(), static_cast<uint32_t>(xml.size()), &root);
    if (!root)
        return {};
    char *bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bin, &length);
    plist_free(root);
    const QByteArray out(bin, static_cast<qsizetype>(length));
    std::free(bin);
    return out;
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

const QByteArray kCommon = R"(<dict>
  <key>Host URL</key><string>http://common.example</string>
  <key>Support Url</key><string>https://common.example/support</string>
  <key>Localizations</key><array><string>en</string><string>de</string></array>
  <key>Nested</key><dict>
    <key>a</key><string>common-a</string>
    <key>b</key><string>common-b</string>
    <key>deep</key><dict><key>x</key><integer>1</integer></dict>
  </dict>
  <key>EULA Url</key><integer>5</integer>
</dict>)";

const QByteArray kRelease = R"(<dict>
  <key>Host URL</key><string>http://release.example</string>
  <key>Update Url Direct</key><string>http://release.example/pkg</string>
  <key>Nested</key><dict>
    <key>b</key><string>release-b</string>
    <key>deep</key><dict><key>y</key><integer>2</integer></dict>
  </dict>
</dict>)";

} // namespace

class TestAppConfig : public QObject {
    Q_OBJECT
private:
    QTemporaryDir m_dir;
    QString common() const { return m_dir.filePath("CommonConfig.plist"); }
    QString release() const { return m_dir.filePath("ReleaseConfig.plist"); }

private slots:
    void init()
    {
        QFile::remove(common());
        QFile::remove(release());
        LinuxPlatform::Overrides overrides;
        overrides.resourcesDirectory = m_dir.path();
        overrides.applicationSupportDirectory = m_dir.filePath("support");
        Platform::setInstance(std::make_unique<LinuxPlatform>(overrides));
    }
    void cleanup()
    {
        Platform::setInstance(nullptr);
        BundleExtended::setInfoDictionaryForTesting(std::nullopt);
    }

    void releaseExtendsCommonDeeply_data()
    {
        QTest::addColumn<bool>("binaryCommon");
        QTest::addColumn<bool>("binaryRelease");
        QTest::newRow("xml + xml") << false << false;
        QTest::newRow("xml + binary") << false << true;
        QTest::newRow("binary + xml") << true << false;
    }
    void releaseExtendsCommonDeeply()
    {
        QFETCH(bool, binaryCommon);
        QFETCH(bool, binaryRelease);
        QVERIFY(writeFile(common(), binaryCommon ? binaryPlist(kCommon) : xmlPlist(kCommon)));
        QVERIFY(writeFile(release(), binaryRelease ? binaryPlist(kRelease) : xmlPlist(kRelease)));
        if (binaryRelease) {
            QFile f(release());
            QVERIFY(f.open(QIODevice::ReadOnly));
            QVERIFY(f.read(8) == "bplist00");
        }

        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://release.example"));
        QCOMPARE(AppConfig::supportUrl(), QStringLiteral("https://common.example/support"));
        QCOMPARE(AppConfig::updateUrlDirect(), QStringLiteral("http://release.example/pkg"));
        QCOMPARE(AppConfig::appLocalizations(), (QStringList{"en", "de"}));
        const QVariantMap nested{
            {"a", "common-a"}, {"b", "release-b"}, {"deep", QVariantMap{{"x", qint64(1)}, {"y", qint64(2)}}}};
        QCOMPARE(AppConfig::configs().value("Nested").toMap(), nested);
        // Present in neither file, or not a string.
        QVERIFY(AppConfig::privacyPolicyUrl().isNull());
        QVERIFY(AppConfig::eulaUrl().isNull());
    }

    void filesAreReadAgainOnEveryCall()
    {
        QVERIFY(writeFile(common(), xmlPlist(kCommon)));
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://common.example"));
        QVERIFY(writeFile(release(), xmlPlist(kRelease)));
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://release.example"));
        QFile::remove(release());
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://common.example"));
    }

    void missingOrBrokenFilesAreAbsentKeys_data()
    {
        QTest::addColumn<QByteArray>("releaseBytes");
        QTest::newRow("missing") << QByteArray();
        QTest::newRow("empty") << QByteArray("");
        QTest::newRow("text") << QByteArray("Host URL = http://evil.example\n");
        QTest::newRow("cut xml") << xmlPlist(kRelease).left(120);
        QTest::newRow("cut binary") << binaryPlist(kRelease).left(40);
        QTest::newRow("binary header, junk") << QByteArray("bplist00\xff\xff\xff\xff\xff\xff\xff\xff", 16);
        QTest::newRow("array at top") << xmlPlist("<array><string>Host URL</string></array>");
    }
    void missingOrBrokenFilesAreAbsentKeys()
    {
        QFETCH(QByteArray, releaseBytes);
        QVERIFY(writeFile(common(), xmlPlist(kCommon)));
        if (QTest::currentDataTag() != QLatin1String("missing"))
            QVERIFY(writeFile(release(), releaseBytes));
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://common.example"));
        QVERIFY(AppConfig::updateUrlDirect().isNull());
    }

    void nothingAtAll()
    {
        QVERIFY(AppConfig::configs().isEmpty());
        QVERIFY(AppConfig::hostUrl().isNull());
        QVERIFY(AppConfig::appLocalizations().isEmpty());
        QCOMPARE(AppConfig::labelID(), QStringLiteral("20014"));
        QCOMPARE(AppConfig::chromeExtensionsID(), QStringLiteral("kembcdlbgbcnnchcnbdhbmbhbejnedjf"));
    }

    void valueTypesSurviveBothFormats()
    {
        const QByteArray body = R"(<dict>
  <key>negative</key><integer>-7</integer>
  <key>big</key><integer>4294967296</integer>
  <key>real</key><real>2.5</real>
  <key>yes</key><true/>
  <key>data</key><data>AAH/</data>
  <key>date</key><date>2024-01-15T12:34:56Z</date>
  <key>text</key><string>gr&#252;n &amp; blau</string>
  <key>list</key><array><integer>1</integer><dict/></array>
</dict>)";
        const QVariantMap expected{
            {"negative", qint64(-7)},
            {"big", qint64(4294967296)},
            {"real", 2.5},
            {"yes", true},
            {"data", QByteArray("\x00\x01\xff", 3)},
            {"date", QDateTime(QDate(2024, 1, 15), QTime(12, 34, 56), Qt::UTC)},
            {"text", QStringLiteral("gr\u00fcn & blau")},
            {"list", QVariantList{qint64(1), QVariantMap()}},
        };
        QCOMPARE(PropertyList::dictionaryFromData(xmlPlist(body)), expected);
        QCOMPARE(PropertyList::dictionaryFromData(binaryPlist(body)), expected);
    }

    void stringWithNulByteEndsThere()
    {
        // libplist's copying string getter asserts on these, which would end the program.
        const QByteArray body = QByteArray("<dict><key>text</key><string>a") + '\0' + "b</string></dict>";
        QCOMPARE(PropertyList::dictionaryFromData(xmlPlist(body)).value_or(QVariantMap()),
                 (QVariantMap{{"text", QStringLiteral("a")}}));
        // A binary key of one UTF-16 NUL: the key getter would assert on it.
        QByteArray binary = binaryPlist("<dict><key>ab</key><string>x</string></dict>");
        const QByteArray asciiKey = QByteArray("\x52") + "ab"; // marker: ASCII text of two
        QVERIFY(binary.contains(asciiKey));
        binary.replace(asciiKey, QByteArray("\x61\0\0", 3)); // marker: UTF-16 text of one
        QCOMPARE(PropertyList::dictionaryFromData(binary).value_or(QVariantMap()), (QVariantMap{{"", "x"}}));
    }

    void oversizedFileIsRefusedUnread()
    {
        QByteArray padded = xmlPlist("<dict><key>Host URL</key><string>http://big.example</string></dict>");
        padded.append(QByteArray(PropertyList::kMaxFileBytes, ' '));
        QVERIFY(writeFile(common(), padded));
        QVERIFY(AppConfig::hostUrl().isNull());
    }

    void shippedResourcesMerge()
    {
        const QString source = qEnvironmentVariable("PELORIN_SOURCE_DIR");
        if (source.isEmpty())
            QSKIP("PELORIN_SOURCE_DIR is not set; run through ctest");
        LinuxPlatform::Overrides overrides;
        overrides.resourcesDirectory = source + "/resources";
        Platform::setInstance(std::make_unique<LinuxPlatform>(overrides));
        QCOMPARE(AppConfig::appLocalizations(),
                 (QStringList{"en", "de", "fr", "sv", "fi", "es", "no", "da", "it", "pt"}));
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://127.0.0.1:8765"));
        QCOMPARE(AppConfig::updateUrlDirect(), QStringLiteral("https://pelorinvpn.example/download/PelorinVPN.deb"));
        QCOMPARE(AppConfig::updateUrlLatestVersion(), QStringLiteral("https://pelorinvpn.example/download/latest"));
        for (const QString &url :
             {AppConfig::privacyPolicyUrl(), AppConfig::eulaUrl(), AppConfig::supportUrl(), AppConfig::uninstallUrl()})
            QVERIFY2(url.startsWith("https://"), qPrintable(url));
        QVERIFY(AppConfig::sendLogsEmail().contains('@'));
        const QVariantMap diagnostics = AppConfig::configs().value("Diagnostics").toMap();
        QCOMPARE(diagnostics.value("Log Level").toString(), QStringLiteral("error"));
        QCOMPARE(diagnostics.value("Kept Log Files").toLongLong(), 3);
    }

    void versionNumberTakesLeadingDigits()
    {
        const auto version = [](const QString &v) {
            BundleExtended::setInfoDictionaryForTesting(QVariantMap{{BundleExtended::kShortVersionKey, v}});
            return AppConfig::appVersionNumber();
        };
        QCOMPARE(version("2.10"), 2);
        QCOMPARE(version("3.1.4"), 3);
        QCOMPARE(version("12beta"), 12);
        QCOMPARE(version("  7"), 7);
        QCOMPARE(version("-4.2"), -4);
        QCOMPARE(version("beta"), 0);
        QCOMPARE(version(""), 0);
        BundleExtended::setInfoDictionaryForTesting(std::nullopt);
        QCOMPARE(AppConfig::appVersion(), BundleExtended::stringForKey(BundleExtended::kShortVersionKey));
        QCOMPARE(QString::number(AppConfig::appVersionNumber()), AppConfig::appVersion().section('.', 0, 0));
        QVERIFY(!AppConfig::copyright().isEmpty());
    }

    void dataFolderIsNamedAfterTheBundleAndNotCreated()
    {
        const QString dataUrl = AppConfig::appDataURL();
        QCOMPARE(dataUrl, m_dir.filePath("support") + "/com.pelorin.vpn.mac");
        QVERIFY(!QFileInfo::exists(m_dir.filePath("support")));
    }

    void compiledInRecord()
    {
        const NQConfig c = NQConfig::makeDefault();
        QCOMPARE(c.labelName, QStringLiteral("PelorinVPN"));
        QCOMPARE(c.appName, c.labelName);
        QCOMPARE(c.appHttpDefaultTimeout, 60.0);
        QCOMPARE(c.identityServiceVersion, quint64(2));
        QVERIFY(!c.identityServiceAPI.startsWith('"') && !c.identityServiceAPI.endsWith('"'));
        QVERIFY(c.identityServiceAPI.startsWith("http"));
        QCOMPARE(c.identityServiceAPI, c.identityServiceHost);

        QCOMPARE(NQConfig::unquotedBuildValue("\"http://h:1\""), QStringLiteral("http://h:1"));
        QCOMPARE(NQConfig::unquotedBuildValue("\"\""), QLatin1String(""));
        QCOMPARE(NQConfig::unquotedBuildValue("x"), QLatin1String(""));

        const QString expected = "<NQConfig>={\n 'labelName': 'PelorinVPN', 'labelID': '20014',\n 'appName': "
                                 "'PelorinVPN', 'appBundleID': 'com.pelorin.vpn.mac', 'appDomainError': "
                                 "'com.pelorin.vpn.mac.ErrorDomain',\n 'appHttpDefaultTimeout': 60,\n "
                                 "'identityServiceVersion': 2, 'identityServiceHost': '" +
                                 c.identityServiceHost + "', 'identityServiceAPI': '" + c.identityServiceAPI + "'\n}.";
        QCOMPARE(c.description(), expected);

        // printf's own number forms: a zero version prints nothing, the time-out is rounded.
        NQConfig odd = c;
        odd.identityServiceVersion = 0;
        odd.appHttpDefaultTimeout = 2.7;
        QVERIFY(odd.description().contains("'appHttpDefaultTimeout': 3,\n 'identityServiceVersion': ,"));
    }

    void timeoutCanBeLoweredForTests()
    {
        const double before = NQConfig::shared().appHttpDefaultTimeout;
        NQConfig::setHttpTimeoutForTesting(1.5);
        QCOMPARE(NQConfig::shared().appHttpDefaultTimeout, 1.5);
        NQConfig::setHttpTimeoutForTesting(before);
        QCOMPARE(NQConfig::shared().labelID, QStringLiteral("20014"));
    }
};

QTEST_GUILESS_MAIN(TestAppConfig)
#include "tst_app_config.moc"
