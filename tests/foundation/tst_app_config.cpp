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
    char *bin = nullptr;
    uint32_t length = 0;
    if (root)
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
  <key>Nested</key><dict><key>a</key><string>common-a</string><key>b</key><string>common-b</string></dict>
  <key>EULA Url</key><integer>5</integer>
</dict>)";

const QByteArray kRelease = R"(<dict>
  <key>Host URL</key><string>http://release.example</string>
  <key>Update Url Direct</key><string>http://release.example/pkg</string>
  <key>Nested</key><dict><key>b</key><string>release-b</string></dict>
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
        Platform::setInstance(std::make_unique<LinuxPlatform>(LinuxPlatform::Overrides{
            .applicationSupportDirectory = m_dir.filePath("support"), .resourcesDirectory = m_dir.path()}));
    }
    void cleanup()
    {
        Platform::setInstance(nullptr);
        BundleExtended::setInfoDictionaryForTesting(std::nullopt);
    }

    // Release extends common deeply, in either format, and both are read again on every call.
    void releaseExtendsCommon()
    {
        QVERIFY(AppConfig::configs().isEmpty());
        QVERIFY(writeFile(common(), binaryPlist(kCommon)));
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://common.example"));
        QVERIFY(writeFile(release(), binaryPlist(kRelease)));
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://release.example"));
        QVERIFY(writeFile(common(), xmlPlist(kCommon)));
        QVERIFY(writeFile(release(), xmlPlist(kRelease)));
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://release.example"));
        QCOMPARE(AppConfig::supportUrl(), QStringLiteral("https://common.example/support"));
        QCOMPARE(AppConfig::updateUrlDirect(), QStringLiteral("http://release.example/pkg"));
        QCOMPARE(AppConfig::appLocalizations(), (QStringList{"en", "de"}));
        QCOMPARE(AppConfig::configs().value("Nested").toMap(), (QVariantMap{{"a", "common-a"}, {"b", "release-b"}}));
        QVERIFY(AppConfig::privacyPolicyUrl().isNull());
        QVERIFY(AppConfig::eulaUrl().isNull()); // not a string
        QFile::remove(release());
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://common.example"));
        QCOMPARE(AppConfig::appDataURL(), m_dir.filePath("support") + "/com.pelorin.vpn.mac");
        QVERIFY(!QFileInfo::exists(m_dir.filePath("support"))); // named, not created
    }

    void brokenFilesAreAbsentKeys_data()
    {
        QTest::addColumn<QByteArray>("releaseBytes");
        QTest::newRow("empty") << QByteArray("");
        QTest::newRow("text") << QByteArray("Host URL = http://evil.example\n");
        QTest::newRow("cut xml") << xmlPlist(kRelease).left(120);
        QTest::newRow("cut binary") << binaryPlist(kRelease).left(40);
        QTest::newRow("binary header, junk") << QByteArray("bplist00\xff\xff\xff\xff\xff\xff\xff\xff", 16);
        QTest::newRow("array at top") << xmlPlist("<array><string>Host URL</string></array>");
        QTest::newRow("oversized") << xmlPlist("<dict><key>Host URL</key><string>http://big.example</string></dict>")
                                          .append(QByteArray(PropertyList::kMaxFileBytes, ' '));
    }
    void brokenFilesAreAbsentKeys()
    {
        QFETCH(QByteArray, releaseBytes);
        QVERIFY(writeFile(common(), xmlPlist(kCommon)));
        QVERIFY(writeFile(release(), releaseBytes));
        QCOMPARE(AppConfig::hostUrl(), QStringLiteral("http://common.example"));
        QVERIFY(AppConfig::updateUrlDirect().isNull());
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

        // libplist's copying getters assert on a NUL in a string or key, which would end the program.
        const QByteArray nul = QByteArray("<dict><key>text</key><string>a") + '\0' + "b</string></dict>";
        QCOMPARE(PropertyList::dictionaryFromData(xmlPlist(nul)).value_or(QVariantMap()),
                 (QVariantMap{{"text", QStringLiteral("a")}}));
        QByteArray binary = binaryPlist("<dict><key>ab</key><string>x</string></dict>");
        QVERIFY(binary.contains("\x52"
                                "ab")); // ASCII text of two
        binary.replace("\x52"
                       "ab",
                       QByteArray("\x61\0\0", 3)); // UTF-16 text of one: a NUL
        QCOMPARE(PropertyList::dictionaryFromData(binary).value_or(QVariantMap()), (QVariantMap{{"", "x"}}));

        // Nesting past the depth limit is cut off, not followed down.
        QVariant deep = PropertyList::dictionaryFromData(
                            xmlPlist("<dict><key>d</key>" + QByteArray("<array>").repeated(200) +
                                     "<string>bottom</string>" + QByteArray("</array>").repeated(200) + "</dict>"))
                            .value_or(QVariantMap())
                            .value("d");
        int levels = 0;
        for (; deep.typeId() == QMetaType::QVariantList && !deep.toList().isEmpty(); ++levels)
            deep = deep.toList().first();
        QVERIFY(levels > 10 && levels < 200);
    }

    void versionAndCompiledInRecord()
    {
        const QList<std::pair<const char *, qint64>> versions{{"2.10", 2},  {"12beta", 12}, {"  7", 7},
                                                              {"-4.2", -4}, {"beta", 0},    {"", 0}};
        for (const auto &[text, number] : versions) {
            BundleExtended::setInfoDictionaryForTesting(QVariantMap{{BundleExtended::kShortVersionKey, text}});
            QCOMPARE(AppConfig::appVersionNumber(), number);
        }
        QCOMPARE(AppConfig::labelID(), QStringLiteral("20014"));

        const NQConfig c = NQConfig::makeDefault();
        QVERIFY(c.identityServiceAPI.startsWith("http"));
        QCOMPARE(c.identityServiceAPI, c.identityServiceHost);
        QCOMPARE(NQConfig::unquotedBuildValue("\"http://h:1\""), QStringLiteral("http://h:1"));
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
};

QTEST_GUILESS_MAIN(TestAppConfig)
#include "tst_app_config.moc"
