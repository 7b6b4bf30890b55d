#include "foundation/StringAddition.h"

#include <QtTest>

using namespace StringAddition;

class TestStringAddition : public QObject {
    Q_OBJECT
private slots:
    void digestsAreOfTheUtf8Bytes()
    {
        QCOMPARE(sha1(QString()), QStringLiteral("da39a3ee5e6b4b0d3255bfef95601890afd80709"));
        QCOMPARE(sha1(QStringLiteral("\u00e9")), QStringLiteral("bf15be717ac1b080b4f1c456692825891ff5073d"));
        QCOMPARE(sha256(QStringLiteral("abc")),
                 QStringLiteral("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
        QCOMPARE(sha1base64(QString()), QStringLiteral("2jmj7l5rSw0yVb/vlWAYkK/YBwk="));
        // The WebSocket handshake answer for the sample key of the protocol's own documentation.
        QCOMPARE(sha1base64(QStringLiteral("dGhlIHNhbXBsZSBub25jZQ==258EAFA5-E914-47DA-95CA-C5AB0DC85B11")),
                 QStringLiteral("s3pPLMBiTxaQ9kYGzzhZRbK+xOo="));
    }

    void xorUsesTheKeyCyclicallyAndRefusesInvalidUtf8()
    {
        QCOMPARE(xor_(QStringLiteral("hello")), QString::fromLatin1("/\t\x07\x03\""));
        // Byte 34 meets key byte 0 again: 'G' ^ 'G' is 0 at both ends, 'G' ^ 'l' in between.
        const QString g = xor_(QString(35, QLatin1Char('G')));
        QCOMPARE(g.size(), 35);
        QCOMPARE(g.at(0).unicode(), 0);
        QCOMPARE(g.at(1).unicode(), 'G' ^ 'l');
        QCOMPARE(g.at(34).unicode(), 0);

        for (const QString &text : {QStringLiteral("secret password 123"), QStringLiteral("x")})
            QCOMPARE(xor_(xor_(text)), text);
        QVERIFY(!xor_(QString()).isNull());
        QVERIFY(xor_(QString()).isEmpty());
        // 0xC3 ^ 'G' is a lone continuation byte.
        QVERIFY(xor_(QStringLiteral("\u00e9")).isNull());
    }

    void maskedKeepsTheTail()
    {
        QCOMPARE(masked(QString()), QString());
        QCOMPARE(masked(QStringLiteral("abc")), QStringLiteral("abc"));
        QCOMPARE(masked(QStringLiteral("abcd")), QStringLiteral("*bcd"));
        QCOMPARE(masked(QStringLiteral("abcde")), QStringLiteral("*bcde"));
        QCOMPARE(masked(QStringLiteral("abcdef")), QStringLiteral("abcdef"));
        QCOMPARE(masked(QStringLiteral("abcdefg")), QStringLiteral("*bcdefg"));
        QCOMPARE(masked(QStringLiteral("abcdefghij")), QStringLiteral("****efghij"));
    }

    void stringBetween()
    {
        QCOMPARE(stringBetweenString(QStringLiteral("a[b]c"), "[", "]"), QStringLiteral("b"));
        QCOMPARE(stringBetweenString2(QStringLiteral("a[b]c"), "[", "]"), QStringLiteral("b"));
        QCOMPARE(stringBetweenString(QStringLiteral("a[bb]c[d]"), "[", "]"), QStringLiteral("bb"));
        QVERIFY(stringBetweenString(QStringLiteral("a]b[c"), "[", "]").isNull());
        QVERIFY(stringBetweenString(QStringLiteral("abc]"), "[", "]").isNull());
        QVERIFY(stringBetweenString(QStringLiteral("a[bc"), "[", "]").isNull());
        // The end is looked for only after the start text, never inside it.
        QVERIFY(stringBetweenString(QStringLiteral("ab"), "ab", "b").isNull());
        QCOMPARE(stringBetweenString(QStringLiteral("abb"), "ab", "b"), QLatin1String(""));
        const QString empty = stringBetweenString(QStringLiteral("x[]y"), "[", "]");
        QVERIFY(!empty.isNull());
        QVERIFY(empty.isEmpty());
    }

    void emailCheckIsLax()
    {
        QVERIFY(stringCorrectEmailFormat(QStringLiteral("a@b.cd")));
        QVERIFY(stringCorrectEmailFormat(QStringLiteral("first last@mail.example.museum")));
        QVERIFY(!stringCorrectEmailFormat(QStringLiteral("a@b.c")));
        QVERIFY(!stringCorrectEmailFormat(QStringLiteral("@b.cd")));
        QVERIFY(!stringCorrectEmailFormat(QStringLiteral("a@b.cd1")));
        QVERIFY(!stringCorrectEmailFormat(QStringLiteral("a@bcd")));
        QVERIFY(!stringCorrectEmailFormat(QString()));
    }

    void passwordStrength()
    {
        QVERIFY(isPasswordStrong(QStringLiteral("Abcdef1!")));
        QVERIFY(isPasswordStrong(QStringLiteral("!1fedcbA")));
        QVERIFY(!isPasswordStrong(QStringLiteral("Abcdefg1")));  // no symbol
        QVERIFY(!isPasswordStrong(QStringLiteral("Ab1!")));      // too short
        QVERIFY(!isPasswordStrong(QStringLiteral("Ab1!xyz")));   // 7 characters
        QVERIFY(!isPasswordStrong(QStringLiteral("abcdef1!_"))); // no upper case
        QVERIFY(!isPasswordStrong(QStringLiteral("ABCDEF1!")));  // no lower case
        QVERIFY(!isPasswordStrong(QStringLiteral("Abcdefg!?"))); // no digit
        // Only the listed symbols count; letters outside ASCII count for no class.
        QVERIFY(!isPasswordStrong(QStringLiteral("Abcdef1_~")));
        QVERIFY(!isPasswordStrong(QStringLiteral("\u00c4\u00e4bcde1!")));
        QVERIFY(isPasswordStrong(QStringLiteral("\u00c4\u00e4bCde1+")));
    }

    void regularExpressions()
    {
        const QString text = QStringLiteral("id=42; name=pelorin");
        const QString pattern = QStringLiteral(R"((\w+)=(\w+))");
        QCOMPARE(matchWithRegex(text, pattern), (QStringList{"id=42", "id", "42"}));
        QCOMPARE(matchWithRegex(text, pattern, 2), QStringLiteral("42"));
        QVERIFY(matchWithRegex(text, pattern, 3).isNull());
        QCOMPARE(firstMatchedGroupWithRegex(text, QStringLiteral(R"(name=(\w+))")), QStringLiteral("pelorin"));
        const auto match = firstMatchedResultWithRegex(text, QStringLiteral("name"));
        QVERIFY(match.has_value());
        QCOMPARE(match->capturedStart(0), 7);

        // A group that took no part in the match still has its slot.
        const QStringList optional = matchWithRegex(QStringLiteral("b"), QStringLiteral("(a)?b"));
        QCOMPARE(optional.size(), 2);
        QVERIFY(optional.at(1).isNull());

        QVERIFY(!firstMatchedResultWithRegex(text, QStringLiteral("nomatch")).has_value());
        QVERIFY(matchWithRegex(text, QStringLiteral("nomatch")).isEmpty());
        QVERIFY(!firstMatchedResultWithRegex(text, QStringLiteral("(")).has_value());
        QVERIFY(matchWithRegex(text, QStringLiteral("(")).isEmpty());
        QVERIFY(firstMatchedGroupWithRegex(text, QStringLiteral("(")).isNull());
    }

    void randomDeviceIdShapeAndAlphabet()
    {
        const QRegularExpression shape(QStringLiteral("^[0-9A-Z]{32}MAC2$"));
        QHash<QChar, int> counts;
        QSet<QString> ids;
        const int n = 400;
        for (int i = 0; i < n; ++i) {
            const QString id = randomDeviceID();
            QCOMPARE(id.size(), 36);
            QVERIFY2(shape.match(id).hasMatch(), qPrintable(id));
            ids.insert(id);
            for (int c = 0; c < 32; ++c)
                ++counts[id.at(c)];
        }
        QCOMPARE(ids.size(), n);
        // 12800 draws over 36 characters: about 356 each. A skewed draw (modulo bias on a
        // small range, a missing character) falls far outside this band.
        QCOMPARE(counts.size(), 36);
        for (auto it = counts.cbegin(); it != counts.cend(); ++it)
            QVERIFY2(it.value() > 250 && it.value() < 470, qPrintable(QString(it.key())));
    }

    void secondsAsClockText()
    {
        QCOMPARE(secondsToMMHHSS(0), QStringLiteral("0:00:00"));
        QCOMPARE(secondsToMMHHSS(59), QStringLiteral("0:00:59"));
        QCOMPARE(secondsToMMHHSS(3599), QStringLiteral("0:59:59"));
        QCOMPARE(secondsToMMHHSS(90061), QStringLiteral("25:01:01"));
    }

    void durationStringUsesSwappedHourKeys()
    {
        const auto key = [](const QString &k) { return k; };
        QCOMPARE(durationStringFromSeconds(0, key), QLatin1String(""));
        QCOMPARE(durationStringFromSeconds(59, key), QStringLiteral("59 seconds"));
        QCOMPARE(durationStringFromSeconds(61, key), QStringLiteral("1 ManageUpdates_UpdateGui_minutes 1 seconds"));
        QCOMPARE(durationStringFromSeconds(3600, key),
                 QStringLiteral("1 ManageUpdates_UpdateGui_hours 0 ManageUpdates_UpdateGui_minutes 0 seconds"));
        QCOMPARE(durationStringFromSeconds(7200, key),
                 QStringLiteral("2 ManageUpdates_UpdateGui_hour 0 ManageUpdates_UpdateGui_minutes 0 seconds"));
        QCOMPARE(durationStringFromSeconds(90061, key),
                 QStringLiteral("1 ManageUpdates_UpdateGui_day 25 ManageUpdates_UpdateGui_hour "
                                "1 ManageUpdates_UpdateGui_minutes 1 seconds"));
        QCOMPARE(durationStringFromSeconds(2 * 86400 + 5, key),
                 QStringLiteral("2 ManageUpdates_UpdateGui_days 48 ManageUpdates_UpdateGui_hour "
                                "0 ManageUpdates_UpdateGui_minutes 5 seconds"));
        // Translated labels are inserted as they are, placeholders included.
        QCOMPARE(durationStringFromSeconds(61, [](const QString &) { return QStringLiteral("%1"); }),
                 QStringLiteral("1 %1 1 %1"));
    }
};

QTEST_GUILESS_MAIN(TestStringAddition)
#include "tst_string_addition.moc"
