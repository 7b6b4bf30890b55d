#include "foundation/ApplicationExtended.h"
#include "foundation/ArrayFiltering.h"
#include "foundation/BundleExtended.h"
#include "foundation/DataExtended.h"
#include "foundation/DictionaryMerge.h"
#include "foundation/ErrorIdentity.h"
#include "foundation/NQDevice.h"
#include "platform/linux/LinuxPlatform.h"
#include "support/LogCapture.h"

#include <QTemporaryDir>
#include <QtTest>

class TestValueCategories : public QObject {
    Q_OBJECT
private slots:
    void cleanup()
    {
        BundleExtended::setInfoDictionaryForTesting(std::nullopt);
        Platform::setInstance(nullptr);
    }

    void hexStrings()
    {
        const QByteArray bytes("\x00\xab\x0f\xff", 4);
        QCOMPARE(DataExtended::hexString(bytes), QStringLiteral("00ab0fff"));
        QCOMPARE(DataExtended::hexStringWithSeparator(bytes, QStringLiteral(":")), QStringLiteral("00:ab:0f:ff"));
        QCOMPARE(DataExtended::hexStringWithSeparator(bytes, QStringLiteral(" - ")),
                 QStringLiteral("00 - ab - 0f - ff"));
        QCOMPARE(DataExtended::hexStringWithSeparator(QByteArray("\x7f", 1), QStringLiteral(":")),
                 QStringLiteral("7f"));
        QCOMPARE(DataExtended::hexStringWithSeparator({}, QStringLiteral(":")), QLatin1String(""));
        QVERIFY(!DataExtended::hexString({}).isNull());
    }

    void dictionaryMergeIsDeep()
    {
        const QVariantMap base{{"keep", 1},
                               {"replace", 1},
                               {"nested", QVariantMap{{"x", 1}, {"y", 1}, {"deeper", QVariantMap{{"p", 1}}}}},
                               {"mapBecomesText", QVariantMap{{"k", 1}}},
                               {"textBecomesMap", "text"}};
        const QVariantMap extension{{"replace", 2},
                                    {"added", 2},
                                    {"nested", QVariantMap{{"y", 2}, {"deeper", QVariantMap{{"q", 2}}}}},
                                    {"mapBecomesText", "text"},
                                    {"textBecomesMap", QVariantMap{{"z", 2}}}};
        const QVariantMap expected{
            {"keep", 1},
            {"replace", 2},
            {"added", 2},
            {"nested", QVariantMap{{"x", 1}, {"y", 2}, {"deeper", QVariantMap{{"p", 1}, {"q", 2}}}}},
            {"mapBecomesText", "text"},
            {"textBecomesMap", QVariantMap{{"z", 2}}}};
        QCOMPARE(DictionaryMerge::dictionaryByExtending(base, extension), expected);
        QCOMPARE(DictionaryMerge::dictionaryByExtendingWithDictionary(base, extension), expected);
        QCOMPARE(DictionaryMerge::dictionaryByExtending(base, {}), base);
        QCOMPARE(DictionaryMerge::dictionaryByExtending({}, extension), extension);
    }

    void filterKeepsFirstOfEachValue()
    {
        const QVariantList objects{QVariantMap{{"id", 1}, {"n", "a"}},
                                   QVariantMap{{"id", 2}, {"n", "b"}},
                                   QVariantMap{{"id", 1}, {"n", "c"}},
                                   QVariantMap{{"n", "d"}},
                                   QVariantMap{{"n", "e"}},
                                   QVariantMap{{"id", 2.0}, {"n", "f"}},
                                   QVariantMap{{"id", "1"}, {"n", "g"}}};
        QStringList kept;
        for (const QVariant &o : ArrayFiltering::filterObjectsByKey(objects, QStringLiteral("id")))
            kept << o.toMap().value("n").toString();
        // 2.0 is the same number as 2; the text "1" is a value of its own.
        QCOMPARE(kept, (QStringList{"a", "b", "d", "g"}));
        QVERIFY(ArrayFiltering::filterObjectsByKey({}, QStringLiteral("id")).isEmpty());
    }

    void applicationErrors()
    {
        const NQError plain = ErrorIdentity::errorWithCode(7);
        QCOMPARE(plain.domain(), QStringLiteral("com.pelorin.vpn"));
        QCOMPARE(plain.code(), 7);
        QVERIFY(plain.userInfo().isEmpty());
        QVERIFY(ErrorIdentity::errorWithCode(7, QString()).userInfo().isEmpty());
        QCOMPARE(ErrorIdentity::errorWithCode(7, QStringLiteral("boom")).userInfo(),
                 (QVariantMap{{"kNQErrorMessage", "boom"}}));
        // An empty message is still a message.
        QCOMPARE(ErrorIdentity::errorWithCode(7, QLatin1String("")).userInfo().size(), 1);
    }

    void missingKeyErrors()
    {
        const NQError error = ErrorIdentity::errorForMissingKey(QStringLiteral("token"));
        QCOMPARE(error.domain(), QStringLiteral("com.pelorin.vpn.mac.identity.error"));
        QCOMPARE(error.code(), -32);
        QCOMPARE(error.localizedDescription(), QStringLiteral("Missing key ('token')"));
        QCOMPARE(error.userInfo().size(), 1);
        QCOMPARE(ErrorIdentity::errorForMissingKey(QStringLiteral("token"), {ErrorIdentity::errorWithCode(1)}), error);
    }

    void descriptionsAndLog()
    {
        QCOMPARE(
            ErrorIdentity::localizedDescriptions(ErrorIdentity::errorWithCode(3)),
            (QVariantMap{{NQError::kLocalizedDescriptionKey,
                          QStringLiteral("The operation couldn\u2019t be completed. (com.pelorin.vpn error 3.)")}}));
        const NQError full(QStringLiteral("d"), 1,
                           {{NQError::kLocalizedDescriptionKey, "what"},
                            {NQError::kLocalizedFailureReasonKey, "why"},
                            {NQError::kLocalizedRecoverySuggestionKey, "retry"},
                            {"other", "ignored"}});
        QCOMPARE(ErrorIdentity::localizedDescriptions(full),
                 (QVariantMap{{NQError::kLocalizedDescriptionKey, "what"},
                              {NQError::kLocalizedFailureReasonKey, "why"},
                              {NQError::kLocalizedRecoverySuggestionKey, "retry"}}));

        LogCapture capture;
        ErrorIdentity::logObject(full);
        QCOMPARE(capture.lines().size(), 1);
        const QString line = capture.lines().first();
        QVERIFY(line.contains(full.debugDescription()));
        QVERIFY(line.contains(QStringLiteral("NSLocalizedFailureReason = \"why\"")));
        QVERIFY(line.contains(QStringLiteral("NSLocalizedRecoverySuggestion = \"retry\"")));
    }

    void bundleVersionAndName()
    {
        const QString built = BundleExtended::appVersionString();
        QVERIFY2(QRegularExpression(QStringLiteral(R"(^\d+\.\d+\.\d+\.\S+$)")).match(built).hasMatch(),
                 qPrintable(built));
        QCOMPARE(ApplicationExtended::appName(), QStringLiteral("PelorinVPN"));
        QCOMPARE(BundleExtended::stringForKey(BundleExtended::kIdentifierKey), QStringLiteral("com.pelorin.vpn.mac"));
        QVERIFY(BundleExtended::stringForKey(BundleExtended::kCopyrightKey).contains(QStringLiteral("Pelorin")));

        BundleExtended::setInfoDictionaryForTesting(
            QVariantMap{{BundleExtended::kShortVersionKey, "2.3.1"}, {BundleExtended::kVersionKey, "45"}});
        QCOMPARE(BundleExtended::appVersionString(), QStringLiteral("2.3.1.45"));
        QCOMPARE(ApplicationExtended::appName(), QStringLiteral("<ERROR>='Cannot retrieve app name'"));
        BundleExtended::setInfoDictionaryForTesting(QVariantMap{{BundleExtended::kNameKey, ""}});
        QCOMPARE(ApplicationExtended::appName(), QStringLiteral("<ERROR>='Cannot retrieve app name'"));
    }

    void deviceModel()
    {
        QTemporaryDir dir;
        QFile model(dir.filePath("product_name"));
        QVERIFY(model.open(QIODevice::WriteOnly));
        model.write("Pelorin Test Machine\n");
        model.close();
        LinuxPlatform::Overrides overrides;
        overrides.dmiProductNameFile = model.fileName();
        Platform::setInstance(std::make_unique<LinuxPlatform>(overrides));
        NQErrorOpt error = ErrorIdentity::errorWithCode(1);
        QCOMPARE(NQDevice::modelIdentifierWithError(&error), QStringLiteral("Pelorin Test Machine"));
        QVERIFY(!error);

        overrides.dmiProductNameFile = dir.filePath("missing");
        Platform::setInstance(std::make_unique<LinuxPlatform>(overrides));
        QCOMPARE(NQDevice::modelIdentifierWithError(&error), std::nullopt);
        QVERIFY(error.has_value());
        QVERIFY(!error->localizedDescription().isEmpty());
        QCOMPARE(NQDevice::modelIdentifierWithError(), std::nullopt);
    }
};

QTEST_GUILESS_MAIN(TestValueCategories)
#include "tst_value_categories.moc"
