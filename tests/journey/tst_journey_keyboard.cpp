// From start to connected and back with the keyboard only: Tab, arrows, Space, Enter, Escape.
#include "Journey.h"

using journey::Journey;

namespace {
constexpr int kMostTabs = 40;

class Keyboard {
public:
    explicit Keyboard(Journey &j) : m_j(j) {}
    QWidget *focused() const { return m_j.window()->focusWidget(); }
    void press(Qt::Key key)
    {
        QWidget *target = focused() ? focused() : m_j.window();
        QTest::keyClick(target, key);
        Journey::settle();
        // To look at the journey: PELORIN_SCREENSHOT_DIR=DIR, ideally on a real display.
        const QString shots = qEnvironmentVariable("PELORIN_SCREENSHOT_DIR");
        if (!shots.isEmpty() && QDir().mkpath(shots))
            m_j.window()->grab().save(
                QStringLiteral("%1/keyboard-%2.png").arg(shots).arg(++m_shot, 3, 10, QLatin1Char('0')));
    }
    // Tabs forward until the control named `name` has the focus.
    bool tabTo(const QString &name)
    {
        for (int i = 0; i < kMostTabs; ++i) {
            if (focused() && focused()->accessibleName() == name)
                return true;
            press(Qt::Key_Tab);
        }
        return false;
    }

private:
    Journey &m_j;
    int m_shot = 0;
};

// The row is inside the visible part of the list.
bool rowOnScreen(const QString &name)
{
    QListWidget *list = Journey::serverList();
    const int row = Journey::rowNamed(name);
    return row >= 0 && list->viewport()->rect().contains(list->visualItemRect(list->item(row)));
}
} // namespace

class TestJourneyKeyboard : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(!Journey::backend().baseUrl().isEmpty()); }

    void startToConnectedAndBack()
    {
        Journey j;
        j.launch();
        QVERIFY(j.waitForHome());
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == QStringLiteral("United States"); }));
        Keyboard keys(j);
        // As a window manager would on a click: the keyboard goes to this window.
        QApplication::setActiveWindow(j.window());

        // The list is one stop; arrows choose, down to the last row below the fold.
        QVERIFY(keys.tabTo(QStringLiteral("Servers")));
        keys.press(Qt::Key_Down);
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == QStringLiteral("Canada"); }));
        for (int i = 0; i < Journey::serverList()->count(); ++i)
            keys.press(Qt::Key_Down);
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == QStringLiteral("India"); }));
        QVERIFY(rowOnScreen(QStringLiteral("India")));
        QCOMPARE(keys.focused(), Journey::serverList());
        keys.press(Qt::Key_Space);
        QVERIFY(j.runUntil([] { return Journey::button(QStringLiteral("Favourite India"))->isChecked(); }));
        QVERIFY(rowOnScreen(QStringLiteral("India")));

        // Connect with Space, disconnect with Enter.
        j.letTunnelComeUp();
        QVERIFY(keys.tabTo(QStringLiteral("Connect")));
        keys.press(Qt::Key_Space);
        QVERIFY(j.runUntil([] { return Journey::button(QStringLiteral("Disconnect")) != nullptr; }));
        QCOMPARE(Journey::text(QStringLiteral("Virtual location")), QStringLiteral("India"));
        QVERIFY(keys.tabTo(QStringLiteral("Disconnect")));
        keys.press(Qt::Key_Return);
        QVERIFY(j.runUntil([&j] { return Journey::button(QStringLiteral("Connect")) && !j.clientRunning(); }));

        // The menu and the language list open from the keyboard and close with Escape.
        QVERIFY(keys.tabTo(QStringLiteral("Menu")));
        keys.press(Qt::Key_Space);
        QVERIFY(j.runUntil([] { return Journey::button(QStringLiteral("About")) != nullptr; }));
        keys.press(Qt::Key_Escape);
        QVERIFY(j.runUntil([] { return Journey::button(QStringLiteral("About")) == nullptr; }));

        QVERIFY(keys.tabTo(QStringLiteral("Settings")));
        keys.press(Qt::Key_Space);
        QVERIFY(keys.tabTo(QStringLiteral("Language")));
        keys.press(Qt::Key_Space);
        QVERIFY(j.runUntil([] { return Journey::find<QListWidget>(QStringLiteral("Languages")) != nullptr; }));
        QCOMPARE(keys.focused()->accessibleName(), QStringLiteral("Languages"));
        keys.press(Qt::Key_Escape);
        QVERIFY(j.runUntil([] { return Journey::find<QListWidget>(QStringLiteral("Languages")) == nullptr; }));
        QVERIFY(keys.tabTo(QStringLiteral("Close")));
        keys.press(Qt::Key_Space);
        QVERIFY(j.runUntil([] { return Journey::button(QStringLiteral("Connect")) != nullptr; }));
    }
};

QTEST_MAIN(TestJourneyKeyboard)
#include "tst_journey_keyboard.moc"
