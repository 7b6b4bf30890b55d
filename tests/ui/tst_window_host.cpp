// The real windows and the VPN adapter: the start-up window turns into the home window, the
// tray menu follows the shell's restarts, tunnel states reach the screens on the main thread.
#include "UiFakes.h"
#include "support/ClockGuard.h"

#include "app/SingleInstance.h"
#include "foundation/AppConfig.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/LocalString.h"
#include "shell/AppDelegate.h"
#include "shell/DefaultShellEngine.h"
#include "shell/NQApplication.h"
#include "shell/SplashVC.h"
#include "ui/HomeVC.h"
#include "ui/NameAndVersionLabel.h"
#include "ui/UiText.h"
#include "ui/app/MainWindowHost.h"
#include "ui/app/ManagerVpnEngine.h"
#include "ui/widgets/HomeWidget.h"
#include "ui/widgets/InfoPopupWidget.h"
#include "ui/widgets/SplashWidget.h"
#include "vpn/NQVPNManager.h"

#include <QApplication>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QThread>
#include <QtTest>

#include <thread>

namespace {
QStringList menuTitles(const QMenu *menu)
{
    QStringList titles;
    for (const QAction *action : menu->actions())
        titles << (action->isSeparator() ? QStringLiteral("-") : action->text());
    return titles;
}

// The visible label or button showing `text`, if any.
QWidget *shownWith(const QWidget *window, const QString &text)
{
    for (QWidget *w : window->findChildren<QWidget *>()) {
        const auto *label = qobject_cast<QLabel *>(w);
        const auto *button = qobject_cast<QAbstractButton *>(w);
        if (w->isVisible() && ((label && label->text() == text) || (button && button->text() == text)))
            return w;
    }
    return nullptr;
}
} // namespace

class TestWindowHost : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        EventBus::defaultCenter().reset();
        m_clock = std::make_unique<ClockGuard>();
        m_fx = std::make_unique<UiFixture>();
    }
    void cleanup()
    {
        m_fx.reset();
        m_clock.reset();
    }

    void splashWindowBecomesTitledHomeWindow()
    {
        MainWindowHost host(m_fx->services);
        DefaultShellEngine engine;
        m_fx->alerts.hold = true;
        SplashVC splash(engine, m_fx->alerts, host);
        host.createMainWindow(splash);
        QWidget *window = host.mainWindow();
        QVERIFY(window);
        QCOMPARE(window->size(), QSize(WindowHost::kMainWindowWidth, WindowHost::kMainWindowHeight));
        QVERIFY(window->windowFlags().testFlag(Qt::FramelessWindowHint));
        auto *splashView = window->findChild<SplashWidget *>();
        QVERIFY(splashView && splashView->isBusy());

        // The ring stops while an alert waits and turns again once it is answered.
        splash.showErrorMessage(QStringLiteral("m"), QStringLiteral("t"), [] {});
        m_clock->advance(0);
        QVERIFY(m_fx->alerts.pending);
        QCOMPARE(splash.state(), SplashVC::State::AlertShown);
        QVERIFY(!splashView->isBusy());

        int closeAsked = 0;
        host.setShouldClose([&closeAsked] { return ++closeAsked < 0; });
        host.showMainWindow();
        host.openHome(QStringLiteral("PelorinVPN"));
        QCOMPARE(host.mainWindow(), window);
        QVERIFY(!window->windowFlags().testFlag(Qt::FramelessWindowHint));
        QVERIFY(window->windowFlags().testFlag(Qt::WindowTitleHint));
        QVERIFY(window->windowFlags().testFlag(Qt::WindowCloseButtonHint));
        QCOMPARE(window->windowTitle(), QStringLiteral("PelorinVPN"));
        QVERIFY(host.homeWidget());
        QCOMPARE(window->size(), QSize(HomeWidget::kWidth, HomeWidget::kHeight));
        QVERIFY(window->isVisible());
        QTRY_VERIFY(!window->findChild<SplashWidget *>());

        // The window follows its screens: the About overlay, closed by its own button; the
        // connection panel's lines as the engine reports.
        const QString close = UiText::forKey(QStringLiteral("Close"));
        QVERIFY(shownWith(window, UiText::forKey(QStringLiteral("Your location"))));
        QVERIFY(!shownWith(window, close));
        EventBus::defaultCenter().post(Events::NT_TOGGLE_ABOUT);
        QVERIFY(shownWith(window, NameAndVersionLabel::text()));
        auto *agreement =
            qobject_cast<QPushButton *>(shownWith(window, UiText::forKey(QStringLiteral("License agreement"))));
        QVERIFY(agreement);
        agreement->click();
        QCOMPARE(m_fx->urls.opened, QStringList{AppConfig::eulaUrl()});
        auto *closeButton = qobject_cast<QPushButton *>(shownWith(window, close));
        QVERIFY(closeButton);
        closeButton->click();
        QVERIFY(!shownWith(window, close));
        m_fx->vpn.blockedCallback(true);
        m_clock->advance(0);
        QVERIFY(shownWith(window, UiText::forKey(QStringLiteral("Traffic outside the VPN is blocked"))));

        // The home screen's close button asks the controller, who keeps the window here.
        emit host.homeWidget()->home().closeRequested();
        QCOMPARE(closeAsked, 1);
        QVERIFY(window->isVisible());

        QPointer<QWidget> dropped(window);
        host.dropMainWindow();
        QVERIFY(!host.mainWindow());
        QCOMPARE(closeAsked, 1);
        QTRY_VERIFY(!dropped);
    }

    void trayMenuIsRebuiltLocalisedOnRestart()
    {
        LocalString::setOverridesForTesting({QStringList{QStringLiteral("fi")}, std::nullopt, std::nullopt});
        m_fx->storage.storeAppLanguageCode(QStringLiteral("fi"));
        MainWindowHost host(m_fx->services);
        DefaultShellEngine engine;
        NQApplication app({QStringLiteral("pelorin-vpn")}, [] {});
        AppDelegate delegate(app, engine, host, m_fx->alerts, m_fx->urls);
        delegate.setupMenuBar();
        const QStringList expected{QStringLiteral("-"), QStringLiteral("Avaa"), QStringLiteral("Asetukset"),
                                   QStringLiteral("-"),
                                   LocalString::forKeyInLanguage(QStringLiteral("Quit_software_name"), "fi")};
        QCOMPARE(menuTitles(host.statusMenu()), expected);

        delegate.listenNotifications();
        QPointer<QMenu> before(host.statusMenu());
        EventBus::defaultCenter().post(Events::APP_RESTART);
        m_clock->advance(0);
        QVERIFY(!before);
        QVERIFY(host.statusMenu());
        QVERIFY(!host.statusItem()->icon().isNull());
        QCOMPARE(menuTitles(host.statusMenu()), expected);
        QVERIFY(host.mainWindow());
        QVERIFY(host.mainWindow()->windowFlags().testFlag(Qt::FramelessWindowHint));

        // Quit goes to the application object.
        host.statusMenu()->actions().last()->trigger();
        QVERIFY(app.isTerminated());
        LocalString::setOverridesForTesting({});
    }

    void tunnelStatesArriveOnMainThreadInOrder()
    {
        NQVPNManager manager;
        QList<int> states;
        bool offMain = false;
        {
            ManagerVpnEngine vpn(manager);
            vpn.setOnConnectionStateChange([&](int state) {
                offMain |= QThread::currentThread() != qApp->thread();
                states << state;
            });
            QVERIFY(vpn.hasConnectionStateCallback());
            std::thread tunnel([report = manager.onConnectionStateChange()] {
                report(3);
                report(0);
            });
            tunnel.join();
            manager.onConnectionStateChange()(5);
            QVERIFY(states.isEmpty());
            m_clock->advance(0);
            QCOMPARE(states, (QList<int>{3, 0, 5}));
            QVERIFY(!offMain);

            // A state still queued for a cleared callback is dropped.
            const auto report = manager.onConnectionStateChange();
            report(1);
            vpn.setOnConnectionStateChange({});
            QVERIFY(!vpn.hasConnectionStateCallback());
            m_clock->advance(0);
            QCOMPARE(states.size(), 3);
        }
        QVERIFY(!manager.onConnectionStateChange());
    }

    void infoPopupShowsItsTextsAndClosesThroughTheBus()
    {
        InfoPopupVC popup;
        popup.titleLabel = QStringLiteral("Title");
        popup.messageLabel = QStringLiteral("Message");
        InfoPopupWidget view(popup);
        view.show();
        QStringList texts;
        for (const QLabel *label : view.findChildren<QLabel *>())
            texts << label->text();
        QCOMPARE(texts, (QStringList{QStringLiteral("Title"), QStringLiteral("Message")}));
        view.findChild<QPushButton *>()->click();
        QVERIFY(view.isHidden());
    }

    // Nobody listening, or what a dead instance left on the socket's path, is no running instance
    // (a running one answering is the second-launch journey).
    void noRunningInstanceToAsk()
    {
        QTemporaryDir dir;
        SingleInstance later(dir.path());
        QVERIFY(!later.askRunningInstanceToShow());
        QFile stale(later.socketPath());
        QVERIFY(stale.open(QIODevice::WriteOnly));
        stale.close();
        QVERIFY(!later.askRunningInstanceToShow());
    }

private:
    std::unique_ptr<ClockGuard> m_clock;
    std::unique_ptr<UiFixture> m_fx;
};

QTEST_MAIN(TestWindowHost)
#include "tst_window_host.moc"
