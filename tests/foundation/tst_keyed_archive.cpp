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

// A record with every kind of field, including nested records. `extra` is also read back with
// every number decoder.
struct Server {
    QString name;
    std::int32_t port = 0;
    double load = 0;
    QVariant extra;
    std::optional<LabelConfigModel> label;
    QList<LabelConfigModel> mirrors;
    std::int32_t extraAs32 = 0;
    std::int64_t extraAs64 = 0;
    bool extraAsBool = false;
    bool hasExtra = false;

    static QString archiveClassName() { return QStringLiteral("NQVPNServer"); }
    void encodeWithCoder(KeyedArchiver &coder) const
    {
        coder.encodeString(name, QStringLiteral("name"));
        coder.encodeInt32(port, QStringLiteral("port"));
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
        s.port = coder.decodeInt32ForKey(QStringLiteral("port"));
        s.load = coder.decodeDoubleForKey(QStringLiteral("load"));
        s.extra = coder.decodeObjectForKey(QStringLiteral("extra"));
        s.label = coder.decodeObjectOfClass<LabelConfigModel>(QStringLiteral("label"));
        s.mirrors =
            coder.decodeArrayOfClass<LabelConfigModel>(QStringLiteral("mirrors")).value_or(QList<LabelConfigModel>());
        s.extraAs32 = coder.decodeInt32ForKey(QStringLiteral("extra"));
        s.extraAs64 = coder.decodeInt64ForKey(QStringLiteral("extra"));
        s.extraAsBool = coder.decodeBoolForKey(QStringLiteral("extra"));
        s.hasExtra = coder.containsValueForKey(QStringLiteral("extra"));
        return s;
    }
};

Server withExtra(const QVariant &extra)
{
    Server s;
    s.extra = extra;
    return s;
}

LabelConfigModel label(const QString &support)
{
    LabelConfigModel model;
    model.setLinkSupport(support);
    return model;
}

QCborValue record(const QString &className, const QCborMap &values)
{
    return QCborValue(QCborTag(27), QCborArray{className, values});
}

QByteArray envelope(const QCborValue &root, const QString &marker = QString::fromLatin1(KeyedArchive::kFormatMarker),
                    const QCborValue &version = KeyedArchive::kFormatVersion)
{
    return QCborValue(QCborMap{{QStringLiteral("format"), marker},
                               {QStringLiteral("version"), version},
                               {QStringLiteral("root"), root}})
        .toCbor();
}

bool isCorrupt(const NQErrorOpt &error)
{
    return error && error->domain() == QStringLiteral("NSCocoaErrorDomain") && error->code() == 4864;
}

} // namespace

class TstKeyedArchive : public QObject {
    Q_OBJECT

private slots:
    void roundTripKeepsEveryKindOfValue()
    {
        const QDateTime since(QDate(2024, 2, 29), QTime(12, 0), Qt::UTC);
        const QVariantMap extra{{QStringLiteral("ports"), QVariantList{1194, 443}},
                                {QStringLiteral("raw"), QByteArray("\x00\xff", 2)},
                                {QStringLiteral("since"), since}};
        const Server in{QStringLiteral("Zürich #1"),
                        1194,
                        0.75,
                        extra,
                        label(QStringLiteral("https://example.test/help")),
                        {label(QStringLiteral("a")), label(QStringLiteral("b"))}};
        NQErrorOpt error;
        const std::optional<Server> out =
            KeyedArchive::unarchivedObject<Server>(KeyedArchive::archivedData(in, &error), &error);
        QVERIFY(!error && out);
        QCOMPARE(out->port, 1194);
        QCOMPARE(out->load, 0.75);
        QCOMPARE(out->extra.toMap(), extra);
        QCOMPARE(out->label->linkSupport(), QStringLiteral("https://example.test/help"));
        QCOMPARE(out->mirrors.size(), 2);
        QCOMPARE(out->mirrors.at(1).linkSupport(), QStringLiteral("b"));

        const auto empty = KeyedArchive::unarchivedObject<Server>(KeyedArchive::archivedData(Server{}));
        QVERIFY(empty && empty->name.isNull() && !empty->extra.isValid() && !empty->label);
    }

    void integerWidthsBetweenWriteAndRead()
    {
        constexpr qint64 kMax = std::numeric_limits<qint64>::max();
        // written, as 64 bits, as 32 bits (a C cast keeps the low 32 bits), as a flag
        const QList<std::tuple<QVariant, qint64, int, bool>> cases{
            {qint64(-7), -7, -7, true},
            {qint64(2147483648LL), 2147483648LL, int(-2147483647 - 1), true},
            {qint64(4294967301LL), 4294967301LL, 5, true},
            {-2.9, -2, -2, false},
            {1e300, kMax, -1, false},
            {true, 1, 1, true},
            {QStringLiteral("12"), 0, 0, false},
            {QVariant(), 0, 0, false},
        };
        for (const auto &[written, as64, as32, asBool] : cases) {
            const auto out = KeyedArchive::unarchivedObject<Server>(KeyedArchive::archivedData(withExtra(written)));
            QVERIFY(out);
            QCOMPARE(out->hasExtra, written.isValid());
            QCOMPARE(out->extraAs64, as64);
            QCOMPARE(out->extraAs32, as32);
            QCOMPARE(out->extraAsBool, asBool);
        }
    }

    void dataThatIsNotAnArchiveGivesNilAndAnError_data()
    {
        QTest::addColumn<QByteArray>("data");
        // A record that would decode, so only the envelope can refuse it.
        const QCborValue valid = record(QStringLiteral("LabelConfigModel"), {});
        QTest::newRow("wrong marker") << envelope(valid, QStringLiteral("SomethingElse"));
        QTest::newRow("future version") << envelope(valid, QString::fromLatin1(KeyedArchive::kFormatMarker), 2);
        QTest::newRow("root is no record") << envelope(QCborValue(QStringLiteral("LabelConfigModel")));
        QTest::newRow("record without values")
            << envelope(QCborValue(QCborTag(27), QCborArray{QStringLiteral("LabelConfigModel")}));
        QTest::newRow("string field holds a number")
            << envelope(record(QStringLiteral("LabelConfigModel"), {{QStringLiteral("linkSupport"), 5}}));
        QTest::newRow("another class") << KeyedArchive::archivedData(Server{});
        QTest::newRow("array of another class") << KeyedArchive::archivedArray(QList<Server>{Server{}});
    }
    void dataThatIsNotAnArchiveGivesNilAndAnError()
    {
        QFETCH(QByteArray, data);
        NQErrorOpt error;
        QVERIFY(!KeyedArchive::unarchivedObject<LabelConfigModel>(data, &error));
        QVERIFY(isCorrupt(error));
        QVERIFY(!KeyedArchive::unarchivedArray<LabelConfigModel>(data, &error));
        QVERIFY(isCorrupt(error));
    }

    void objectsArraysAndWhatCannotBeArchived()
    {
        NQErrorOpt error;
        QVERIFY(!KeyedArchive::unarchivedObject<Server>(KeyedArchive::archivedData(label("x")), &error));
        QVERIFY(error->userInfo().value("NSDebugDescription").toString().contains("LabelConfigModel"));
        // A nested record of the wrong class fails the whole archive, not just the field.
        const QCborMap foreignLabel{{QStringLiteral("label"), record(QStringLiteral("Other"), {})}};
        QVERIFY(!KeyedArchive::unarchivedObject<Server>(envelope(record("NQVPNServer", foreignLabel)), &error));
        QVERIFY(isCorrupt(error));
        const QByteArray array = KeyedArchive::archivedArray(QList<LabelConfigModel>{label("a"), label("b")});
        QCOMPARE(KeyedArchive::unarchivedArray<LabelConfigModel>(array)->at(1).linkSupport(), QStringLiteral("b"));
        QVERIFY(!KeyedArchive::unarchivedObject<LabelConfigModel>(array, &error)); // an array is not an object
        QVERIFY(isCorrupt(error));

        for (const QVariant &extra : {QVariant(QVariantList{QStringLiteral("ok"), QVariant::fromValue(QPoint(1, 2))}),
                                      QVariant(QUrl(QStringLiteral("https://example.test")))}) {
            QVERIFY(KeyedArchive::archivedData(withExtra(extra), &error).isEmpty());
            QCOMPARE(error->code(), 4866);
        }
    }

    void sizeAndNestingLimits()
    {
        // An archive of exactly the limit by tuning one data field, then one byte more.
        auto sized = [](qsizetype payload) { return KeyedArchive::archivedData(withExtra(QByteArray(payload, 'x'))); };
        const qsizetype overhead = sized(100000).size() - 100000;
        const QByteArray atLimit = sized(KeyedArchive::kMaxArchiveBytes - overhead);
        QCOMPARE(atLimit.size(), KeyedArchive::kMaxArchiveBytes);
        NQErrorOpt error;
        QVERIFY(KeyedArchive::unarchivedObject<Server>(atLimit, &error) && !error);
        QVERIFY(!KeyedArchive::unarchivedObject<Server>(sized(KeyedArchive::kMaxArchiveBytes - overhead + 1), &error));
        QVERIFY(isCorrupt(error));

        auto nested = [](int depth) {
            QCborValue value(1);
            for (int i = 0; i < depth; ++i)
                value = QCborArray{value};
            return envelope(record(QStringLiteral("NQVPNServer"), {{QStringLiteral("extra"), value}}));
        };
        QVERIFY(KeyedArchive::unarchivedObject<Server>(nested(KeyedUnarchiver::kMaxNestingDepth), &error) && !error);
        QVERIFY(!KeyedArchive::unarchivedObject<Server>(nested(KeyedUnarchiver::kMaxNestingDepth + 1), &error));
        QVERIFY(isCorrupt(error));
    }
};

QTEST_GUILESS_MAIN(TstKeyedArchive)
#include "tst_keyed_archive.moc"
