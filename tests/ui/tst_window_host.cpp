// The shell's tray menu follows its restarts, tunnel states reach the screens on the main thread
// (the windows themselves are driven by the journeys).
#include "UiFakes.h"
#include "support/ClockGuard.h"

#include "app/SingleInstance.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/LocalString.h"
#include "shell/AppDelegate.h"
#include "shell/DefaultShellEngine.h"
#include "shell/NQApplication.h"
#include "shell/SplashVC.h"
#include "ui/app/MainWindowHost.h"
#include "ui/app/ManagerVpnEngine.h"
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

class TestWindowHost : public QObject {
    Q_OBJECT

private slots:
    void init() { EventBus::defaultCenter().reset(); }

    // The start-up window's ring turns, and stops while an alert waits; the tray menu is rebuilt,
    // localised, when the program restarts.
    void splashRingAndTrayMenuAcrossARestart()
    {
        ClockGuard clock;
        UiFixture fx;
        LocalString::setOverridesForTesting({QStringList{QStringLiteral("fi")}, std::nullopt, std::nullopt});
        fx.storage.storeAppLanguageCode(QStringLiteral("fi"));
        MainWindowHost host(fx.services);
        DefaultShellEngine engine;
        fx.alerts.hold = true;
        SplashVC splash(engine, fx.alerts, host);
        host.createMainWindow(splash);
        auto *splashView = host.mainWindow()->findChild<SplashWidget *>();
        QVERIFY(splashView && splashView->isBusy());
        splash.showErrorMessage(QStringLiteral("m"), QStringLiteral("t"), [] {});
        clock.advance(0);
        QVERIFY(!splashView->isBusy());

        NQApplication app({QStringLiteral("pelorin-vpn")}, [] {});
        AppDelegate delegate(app, engine, host, fx.alerts, fx.urls);
        delegate.setupMenuBar();
        delegate.listenNotifications();
        QPointer<QMenu> before(host.statusMenu());
        EventBus::defaultCenter().post(Events::APP_RESTART);
        clock.advance(0);
        QVERIFY(!before);
        QVERIFY(!host.statusItem()->icon().isNull());
        QStringList titles;
        for (const QAction *action : host.statusMenu()->actions())
            titles << (action->isSeparator() ? QStringLiteral("-") : action->text());
        QCOMPARE(titles, (QStringList{QStringLiteral("-"), QStringLiteral("Avaa"), QStringLiteral("Asetukset"),
                                      QStringLiteral("-"),
                                      LocalString::forKeyInLanguage(QStringLiteral("Quit_software_name"), "fi")}));
        QVERIFY(host.mainWindow()->windowFlags().testFlag(Qt::FramelessWindowHint));

        LocalString::setOverridesForTesting({});
    }

    void tunnelStatesArriveOnMainThreadInOrder()
    {
        ClockGuard clock;
        NQVPNManager manager;
        QList<int> states;
        bool offMain = false;
        {
            ManagerVpnEngine vpn(manager);
            vpn.setOnConnectionStateChange([&](int state) {
                offMain |= QThread::currentThread() != qApp->thread();
                states << state;
            });
            std::thread tunnel([report = manager.onConnectionStateChange()] {
                report(3);
                report(0);
            });
            tunnel.join();
            manager.onConnectionStateChange()(5);
            QVERIFY(states.isEmpty());
            clock.advance(0);
            QCOMPARE(states, (QList<int>{3, 0, 5}));
            QVERIFY(!offMain);

            // A state still queued for a cleared callback is dropped.
            const auto report = manager.onConnectionStateChange();
            report(1);
            vpn.setOnConnectionStateChange({});
            clock.advance(0);
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
};

QTEST_MAIN(TestWindowHost)
#include "tst_window_host.moc"
