#include "foundation/KeyedArchive.h"
#include "foundation/LabelConfigModel.h"

#include <QCborArray>
#include <QCborMap>
#include <QDateTime>
#include <QPoint>
#include <QTest>
#include <QUrl>

#include <limits>

namespace {

// A record with every kind of field, including nested records.
struct Server {
    QString name;
    std::int64_t countryId = 0;
    bool premium = false;
    double load = 0;
    QVariant extra;
    std::optional<LabelConfigModel> label;
    QList<LabelConfigModel> mirrors;

    static QString archiveClassName() { return QStringLiteral("NQVPNServer"); }
    void encodeWithCoder(KeyedArchiver &coder) const
    {
        coder.encodeString(name, QStringLiteral("name"));
        coder.encodeInt64(countryId, QStringLiteral("countryId"));
        coder.encodeBool(premium, QStringLiteral("premium"));
        coder.encodeDouble(load, QStringLiteral("load"));
        coder.encodeObject(extra, QStringLiteral("extra"));
        if (label)
            coder.encodeObject(*label, QStringLiteral("label"));
        coder.encodeArray(mirrors, QStringLiteral("mirrors"));
    }
    static std::optional<Server> initWithCoder(const KeyedUnarchiver &coder)
    {
        Server s;
        s.name = coder.decodeStringForKey(QStringLiteral("name"));
        s.countryId = coder.decodeInt64ForKey(QStringLiteral("countryId"));
        s.premium = coder.decodeBoolForKey(QStringLiteral("premium"));
        s.load = coder.decodeDoubleForKey(QStringLiteral("load"));
        s.extra = coder.decodeObjectForKey(QStringLiteral("extra"));
        s.label = coder.decodeObjectOfClass<LabelConfigModel>(QStringLiteral("label"));
        s.mirrors =
            coder.decodeArrayOfClass<LabelConfigModel>(QStringLiteral("mirrors")).value_or(QList<LabelConfigModel>());
        return s;
    }
};

// Reads whatever was written under "v" with every decoder.
struct Probe {
    QVariant written;
    std::int32_t i32 = 0;
    std::int64_t i64 = 0;
    bool flag = false;
    double real = 0;
    QString text;
    bool present = false;

    static QString archiveClassName() { return QStringLiteral("Probe"); }
    void encodeWithCoder(KeyedArchiver &coder) const
    {
        if (written.typeId() == QMetaType::LongLong)
            coder.encodeInt64(written.toLongLong(), QStringLiteral("v"));
        else
            coder.encodeObject(written, QStringLiteral("v"));
    }
    static std::optional<Probe> initWithCoder(const KeyedUnarchiver &coder)
    {
        Probe p;
        p.present = coder.containsValueForKey(QStringLiteral("v"));
        p.i32 = coder.decodeInt32ForKey(QStringLiteral("v"));
        p.i64 = coder.decodeInt64ForKey(QStringLiteral("v"));
        p.flag = coder.decodeBoolForKey(QStringLiteral("v"));
        p.real = coder.decodeDoubleForKey(QStringLiteral("v"));
        return p;
    }
};

LabelConfigModel label(const QString &support)
{
    LabelConfigModel model;
    model.setInstanceID(QStringLiteral("20014"));
    model.setLinkSupport(support);
    model.setLinkAfterInstall(QStringLiteral("https://example.test/welcome"));
    return model;
}

QByteArray envelope(const QCborValue &root, const QString &marker = QString::fromLatin1(KeyedArchive::kFormatMarker),
                    int version = KeyedArchive::kFormatVersion)
{
    QCborMap map;
    map.insert(QStringLiteral("format"), marker);
    map.insert(QStringLiteral("version"), version);
    map.insert(QStringLiteral("root"), root);
    return QCborValue(map).toCbor();
}

void expectCorrupt(const NQErrorOpt &error)
{
    QVERIFY(error);
    QCOMPARE(error->domain(), QStringLiteral("NSCocoaErrorDomain"));
    QCOMPARE(error->code(), 4864);
}

} // namespace

class TstKeyedArchive : public QObject {
    Q_OBJECT

private slots:
    void roundTripKeepsEveryKindOfValue()
    {
        Server in;
        in.name = QStringLiteral("Zürich #1");
        in.countryId = 41;
        in.premium = true;
        in.load = 0.75;
        in.extra = QVariantMap{{QStringLiteral("ports"), QVariantList{1194, 443}},
                               {QStringLiteral("raw"), QByteArray("\x00\xff", 2)},
                               {QStringLiteral("since"), QDateTime(QDate(2024, 2, 29), QTime(12, 0), Qt::UTC)}};
        in.label = label(QStringLiteral("https://example.test/help"));
        in.mirrors = {label(QStringLiteral("a")), label(QStringLiteral("b"))};

        NQErrorOpt error;
        const QByteArray data = KeyedArchive::archivedData(in, &error);
        QVERIFY(!error);
        const std::optional<Server> out = KeyedArchive::unarchivedObject<Server>(data, &error);
        QVERIFY(!error);
        QVERIFY(out);
        QCOMPARE(out->name, in.name);
        QCOMPARE(out->countryId, 41);
        QCOMPARE(out->premium, true);
        QCOMPARE(out->load, 0.75);
        const QVariantMap extra = out->extra.toMap();
        QCOMPARE(extra.value(QStringLiteral("ports")).toList(), (QVariantList{1194, 443}));
        QCOMPARE(extra.value(QStringLiteral("raw")).toByteArray(), QByteArray("\x00\xff", 2));
        QCOMPARE(extra.value(QStringLiteral("since")).toDateTime(),
                 QDateTime(QDate(2024, 2, 29), QTime(12, 0), Qt::UTC));
        // instanceID is not part of the archive.
        QVERIFY(out->label);
        QCOMPARE(out->label->linkSupport(), QStringLiteral("https://example.test/help"));
        QVERIFY(out->label->instanceID().isNull());
        QVERIFY(out->label->linkAfterUninstall().isNull());
        QCOMPARE(out->mirrors.size(), 2);
        QCOMPARE(out->mirrors.at(1).linkSupport(), QStringLiteral("b"));
    }

    void missingKeysDecodeAsZeroNoAndNil()
    {
        const auto out = KeyedArchive::unarchivedObject<Server>(KeyedArchive::archivedData(Server{}));
        QVERIFY(out);
        QVERIFY(out->name.isNull());
        QCOMPARE(out->countryId, 0);
        QCOMPARE(out->premium, false);
        QVERIFY(!out->extra.isValid());
        QVERIFY(!out->label);
        const auto probe = KeyedArchive::unarchivedObject<Probe>(KeyedArchive::archivedData(Probe{}));
        QVERIFY(probe);
        QVERIFY(!probe->present);
        QCOMPARE(probe->i32, 0);
        QCOMPARE(probe->real, 0.0);
    }

    void integerWidthsBetweenWriteAndRead_data()
    {
        QTest::addColumn<QVariant>("written");
        QTest::addColumn<qint64>("as64");
        QTest::addColumn<int>("as32");
        QTest::addColumn<bool>("asBool");
        QTest::newRow("small") << QVariant(qint64(250)) << qint64(250) << 250 << true;
        QTest::newRow("negative") << QVariant(qint64(-7)) << qint64(-7) << -7 << true;
        QTest::newRow("int32 max") << QVariant(qint64(2147483647)) << qint64(2147483647) << 2147483647 << true;
        // Past 32 bits the read keeps the low 32 bits, as a C cast does.
        QTest::newRow("2^31 wraps") << QVariant(qint64(2147483648LL)) << qint64(2147483648LL) << int(-2147483647 - 1)
                                    << true;
        QTest::newRow("2^32+5") << QVariant(qint64(4294967301LL)) << qint64(4294967301LL) << 5 << true;
        QTest::newRow("2^32 is zero") << QVariant(qint64(4294967296LL)) << qint64(4294967296LL) << 0 << true;
        QTest::newRow("int64 min") << QVariant(std::numeric_limits<qint64>::min()) << std::numeric_limits<qint64>::min()
                                   << 0 << true;
        QTest::newRow("double truncates") << QVariant(-2.9) << qint64(-2) << -2 << false;
        QTest::newRow("huge double clamps") << QVariant(1e300) << std::numeric_limits<qint64>::max() << -1 << false;
        QTest::newRow("bool") << QVariant(true) << qint64(1) << 1 << true;
        QTest::newRow("string is not a number") << QVariant(QStringLiteral("12")) << qint64(0) << 0 << false;
    }
    void integerWidthsBetweenWriteAndRead()
    {
        QFETCH(QVariant, written);
        QFETCH(qint64, as64);
        QFETCH(int, as32);
        QFETCH(bool, asBool);
        Probe in;
        in.written = written;
        const auto out = KeyedArchive::unarchivedObject<Probe>(KeyedArchive::archivedData(in));
        QVERIFY(out);
        QVERIFY(out->present);
        QCOMPARE(out->i64, as64);
        QCOMPARE(out->i32, as32);
        QCOMPARE(out->flag, asBool);
    }

    void dataThatIsNotAnArchiveGivesNilAndAnError_data()
    {
        QTest::addColumn<QByteArray>("data");
        const QByteArray good = KeyedArchive::archivedData(label(QStringLiteral("x")));
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("text") << QByteArray("linkSupport=https://example.test");
        QTest::newRow("json") << QByteArray(R"({"format":"PelorinKeyedArchive","version":1})");
        QTest::newRow("binary plist") << QByteArray("bplist00\xd4\x01\x02\x03\x04", 13);
        QTest::newRow("truncated") << good.left(good.size() - 3);
        QTest::newRow("cbor without marker") << QCborValue(QCborMap{{QStringLiteral("root"), 1}}).toCbor();
        QTest::newRow("wrong marker") << envelope(QCborValue(1), QStringLiteral("SomethingElse"));
        QTest::newRow("future version") << envelope(QCborValue(1), QString::fromLatin1(KeyedArchive::kFormatMarker), 2);
        QTest::newRow("version is a huge real")
            << QCborValue(QCborMap{{QStringLiteral("format"), QString::fromLatin1(KeyedArchive::kFormatMarker)},
                                   {QStringLiteral("version"), 1e19},
                                   {QStringLiteral("root"), 1}})
                   .toCbor();
        QTest::newRow("root is no record") << envelope(QCborValue(QStringLiteral("LabelConfigModel")));
        QTest::newRow("record without values")
            << envelope(QCborValue(QCborTag(27), QCborArray{QStringLiteral("LabelConfigModel")}));
        QTest::newRow("string field holds a number")
            << envelope(QCborValue(QCborTag(27), QCborArray{QStringLiteral("LabelConfigModel"),
                                                            QCborMap{{QStringLiteral("linkSupport"), 5}}}));
        QByteArray noise(4096, '\0');
        for (int i = 0; i < noise.size(); ++i)
            noise[i] = char((i * 7919 + 13) % 251);
        QTest::newRow("noise") << noise;
    }
    void dataThatIsNotAnArchiveGivesNilAndAnError()
    {
        QFETCH(QByteArray, data);
        NQErrorOpt error;
        QVERIFY(!KeyedArchive::unarchivedObject<LabelConfigModel>(data, &error));
        expectCorrupt(error);
        QVERIFY(!KeyedArchive::unarchivedArray<LabelConfigModel>(data, &error));
        expectCorrupt(error);
    }

    void anotherClassGivesNilAndAnError()
    {
        NQErrorOpt error;
        const QByteArray data = KeyedArchive::archivedData(label(QStringLiteral("x")));
        QVERIFY(!KeyedArchive::unarchivedObject<Server>(data, &error));
        expectCorrupt(error);
        QVERIFY(error->userInfo()
                    .value(QStringLiteral("NSDebugDescription"))
                    .toString()
                    .contains(QStringLiteral("LabelConfigModel")));

        // A nested record of the wrong class fails the whole archive, not just the field.
        const QCborValue wrongNested(
            QCborTag(27),
            QCborArray{QStringLiteral("NQVPNServer"),
                       QCborMap{{QStringLiteral("label"),
                                 QCborValue(QCborTag(27), QCborArray{QStringLiteral("Probe"), QCborMap()})}}});
        QVERIFY(!KeyedArchive::unarchivedObject<Server>(envelope(wrongNested), &error));
        expectCorrupt(error);

        // An array with one foreign element is refused whole.
        QList<LabelConfigModel> models{label(QStringLiteral("a"))};
        QByteArray array = KeyedArchive::archivedArray(models);
        QVERIFY(KeyedArchive::unarchivedArray<LabelConfigModel>(array));
        QVERIFY(!KeyedArchive::unarchivedArray<Server>(array, &error));
        expectCorrupt(error);
        // A single object is not an array, and an array is not an object.
        QVERIFY(!KeyedArchive::unarchivedObject<LabelConfigModel>(array, &error));
        expectCorrupt(error);
        QVERIFY(!KeyedArchive::unarchivedArray<LabelConfigModel>(KeyedArchive::archivedData(models.first()), &error));
        expectCorrupt(error);
    }

    void valuesThatCannotBeArchivedFailTheArchive()
    {
        Server in;
        in.name = QStringLiteral("n");
        in.extra = QVariantList{QStringLiteral("ok"), QVariant::fromValue(QPoint(1, 2))};
        NQErrorOpt error;
        QVERIFY(KeyedArchive::archivedData(in, &error).isEmpty());
        QVERIFY(error);
        QCOMPARE(error->code(), 4866);
        in.extra = QUrl(QStringLiteral("https://example.test"));
        QVERIFY(KeyedArchive::archivedData(in, &error).isEmpty());
        QCOMPARE(error->code(), 4866);
    }

    void sizeLimitIsCheckedBeforeParsing()
    {
        // Build an archive of exactly the limit by tuning one data field, then one byte more.
        auto sized = [](qsizetype payload) {
            Server s;
            s.extra = QByteArray(payload, 'x');
            return KeyedArchive::archivedData(s);
        };
        const qsizetype overhead = sized(100000).size() - 100000;
        const QByteArray atLimit = sized(KeyedArchive::kMaxArchiveBytes - overhead);
        QCOMPARE(atLimit.size(), KeyedArchive::kMaxArchiveBytes);
        NQErrorOpt error;
        QVERIFY(KeyedArchive::unarchivedObject<Server>(atLimit, &error));
        QVERIFY(!error);
        const QByteArray over = sized(KeyedArchive::kMaxArchiveBytes - overhead + 1);
        QCOMPARE(over.size(), KeyedArchive::kMaxArchiveBytes + 1);
        QVERIFY(!KeyedArchive::unarchivedObject<Server>(over, &error));
        expectCorrupt(error);
    }

    void deepNestingIsRefused()
    {
        auto nested = [](int depth) {
            QCborValue value(1);
            for (int i = 0; i < depth; ++i)
                value = QCborArray{value};
            return envelope(QCborValue(
                QCborTag(27), QCborArray{QStringLiteral("NQVPNServer"), QCborMap{{QStringLiteral("extra"), value}}}));
        };
        NQErrorOpt error;
        QVERIFY(KeyedArchive::unarchivedObject<Server>(nested(KeyedUnarchiver::kMaxNestingDepth), &error));
        QVERIFY(!error);
        QVERIFY(!KeyedArchive::unarchivedObject<Server>(nested(KeyedUnarchiver::kMaxNestingDepth + 1), &error));
        expectCorrupt(error);
    }
};

QTEST_GUILESS_MAIN(TstKeyedArchive)
#include "tst_keyed_archive.moc"
