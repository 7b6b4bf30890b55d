// The settings screen through the window: each switch and Apply, a language chosen and taken
// back (no restart), and a language change while disconnected and while connected (restart).
#include "Journey.h"

#include "foundation/LocalString.h"

using journey::Journey;

namespace {
const QString kApply = QStringLiteral("Apply");

bool openSettings(Journey &j)
{
    return Journey::click(QStringLiteral("Settings")) &&
           j.runUntil([] { return Journey::button(QStringLiteral("Data compression")) != nullptr; });
}

bool chooseLanguage(Journey &j, const QString &name)
{
    if (!Journey::click(QStringLiteral("Language")) ||
        !j.runUntil([] { return Journey::find<QListWidget>(QStringLiteral("Languages")) != nullptr; }))
        return false;
    QListWidget *list = Journey::find<QListWidget>(QStringLiteral("Languages"));
    const QList<QListWidgetItem *> items = list->findItems(name, Qt::MatchExactly);
    if (items.isEmpty())
        return false;
    // The whole list fits inside the window: nothing is cut off at its edge.
    const QRect inWindow(list->mapTo(j.window(), QPoint(0, 0)), list->size());
    if (!j.window()->rect().contains(inWindow))
        return false;
    list->scrollToItem(items.first());
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(items.first()).center());
    return j.runUntil([] { return Journey::find<QListWidget>(QStringLiteral("Languages")) == nullptr; });
}

// The language changes and the window is rebuilt; true once the new home screen is up.
bool restartedInto(Journey &j, const HomeWidget *old, const QString &language)
{
    return j.runUntil([&j, old] { return j.host().homeWidget() && j.host().homeWidget() != old; }) &&
           LocalString::appLanguageCode() == language &&
           j.runUntil([] { return Journey::button(LocalString::forKey(QStringLiteral("Connect"))) != nullptr; });
}
} // namespace

class TestJourneySettings : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(!Journey::backend().baseUrl().isEmpty()); }

    void eachSwitchThenApply()
    {
        Journey j;
        j.launch();
        QVERIFY(j.waitForHome());
        const QWidget *window = j.window();
        QVERIFY(openSettings(j));
        QVERIFY(!Journey::button(kApply)->isEnabled());

        // Connecting automatically takes no part in Apply.
        QVERIFY(Journey::click(QStringLiteral("Connect automatically")));
        Journey::settle();
        QVERIFY(!Journey::button(kApply)->isEnabled());

        const QList<std::pair<QString, std::function<bool()>>> switches{
            {QStringLiteral("Data compression"), [&j] { return j.storage().vpnDataCompressionEnabled(); }},
            {QStringLiteral("Start at login"), [&j] { return j.storage().appAutorunEnabled(); }},
            {QStringLiteral("Quit when window closes"), [&j] { return j.storage().appExitOnClose(); }},
            {QStringLiteral("Update automatically"), [&j] { return j.storage().autoupdate(); }},
        };
        for (const auto &[name, stored] : switches) {
            const bool before = stored();
            QVERIFY2(Journey::click(name), qPrintable(name));
            QVERIFY2(j.runUntil([] { return Journey::button(kApply)->isEnabled(); }), qPrintable(name));
            QCOMPARE(stored(), before);
            QVERIFY(Journey::click(kApply));
            QVERIFY2(j.runUntil([] { return !Journey::button(kApply)->isEnabled(); }), qPrintable(name));
            QCOMPARE(stored(), !before);
            QCOMPARE(Journey::button(name)->isChecked(), !before);
        }
        QVERIFY(QFile::exists(j.root() + QStringLiteral("/autostart/PelorinVPN.desktop")) ==
                j.storage().appAutorunEnabled());
        j.clock().advance(5000);
        Journey::settle();
        QCOMPARE(j.window(), window); // not rebuilt
    }

    // Another language chosen and the old one again: Apply of another switch restarts nothing.
    void languageTakenBackNeedsNoRestart()
    {
        Journey j;
        j.launch();
        QVERIFY(j.waitForHome());
        const QWidget *window = j.window();
        QVERIFY(openSettings(j));
        QVERIFY(chooseLanguage(j, QStringLiteral("Deutsch")));
        QVERIFY(Journey::button(kApply)->isEnabled());
        QVERIFY(chooseLanguage(j, LocalString::appLanguageName()));
        QVERIFY(!Journey::button(kApply)->isEnabled());
        QVERIFY(Journey::click(QStringLiteral("Data compression")));
        QVERIFY(Journey::click(kApply));
        j.clock().advance(5000);
        Journey::settle();
        QCOMPARE(j.window(), window); // not rebuilt
        QCOMPARE(LocalString::appLanguageCode(), QStringLiteral("en"));
    }

    void languageChangeWhileDisconnectedRestarts()
    {
        Journey j;
        j.launch();
        QVERIFY(j.waitForHome());
        const HomeWidget *home = j.host().homeWidget();
        QVERIFY(openSettings(j));
        QVERIFY(chooseLanguage(j, QStringLiteral("Deutsch")));
        QVERIFY(Journey::click(kApply));
        QVERIFY(restartedInto(j, home, QStringLiteral("de")));
    }

    // The tunnel is stopped first, then the window is rebuilt in the new language.
    void languageChangeWhileConnectedRestarts()
    {
        Journey j;
        j.launch();
        QVERIFY(j.waitForHome());
        j.letTunnelComeUp();
        QVERIFY(Journey::click(QStringLiteral("Connect")));
        QVERIFY(j.runUntil([] { return Journey::button(QStringLiteral("Disconnect")) != nullptr; }));
        const HomeWidget *home = j.host().homeWidget();
        QVERIFY(openSettings(j));
        QVERIFY(chooseLanguage(j, QStringLiteral("Deutsch")));
        QVERIFY(Journey::click(kApply));
        QVERIFY(restartedInto(j, home, QStringLiteral("de")));
        QVERIFY(!j.clientRunning());
        QCOMPARE(j.storedState(), int(VpnStateDisconnected));
        QVERIFY(
            j.runUntil([] { return Journey::button(LocalString::forKey(QStringLiteral("Connect")))->isEnabled(); }));
    }
};

QTEST_MAIN(TestJourneySettings)
#include "tst_journey_settings.moc"
