#include "UiFakes.h"
#include "support/ClockGuard.h"
#include "support/LogCapture.h"

#include "foundation/AppConfig.h"
#include "foundation/BundleExtended.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "ui/AboutView.h"
#include "ui/ContextMenuView.h"
#include "ui/HomeMainPanelVC.h"
#include "ui/HomeVC.h"
#include "ui/NameAndVersionLabel.h"
#include "ui/UpdateVC.h"
#include "vpn/VpnState.h"

#include <QtTest>

// Records every event and URL in one timeline, so a test can tell what came first.
struct Timeline : UrlOpener {
    QStringList steps;
    bool openUrl(const QString &url) override
    {
        steps << QStringLiteral("open ") + url;
        return true;
    }
};

class TstMenus : public QObject {
    Q_OBJECT

    std::unique_ptr<ClockGuard> m_clock;
    std::unique_ptr<UiFixture> m_fx;

    void flush()
    {
        for (int i = 0; i < 3; ++i)
            m_clock->advance(0);
    }

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

    void everyEntryClosesTheOverlaysAndTheMenuFirst_data()
    {
        QTest::addColumn<int>("entry");
        QTest::addColumn<QString>("action");
        QTest::newRow("Support") << 0 << "open support";
        QTest::newRow("Update") << 1 << "NT_TOGGLE_UPDATE";
        QTest::newRow("About") << 2 << "NT_TOGGLE_ABOUT";
        QTest::newRow("Uninstall") << 3 << "open uninstall";
    }
    void everyEntryClosesTheOverlaysAndTheMenuFirst()
    {
        QFETCH(int, entry);
        QFETCH(QString, action);
        HomeVC home(m_fx->services);
        HomeMainPanelVC panel(m_fx->services);
        home.viewDidLoad();
        panel.viewDidLoad();
        flush();
        // About and update shown, menu open.
        EventBus &bus = EventBus::defaultCenter();
        bus.post(Events::NT_TOGGLE_ABOUT);
        bus.post(Events::NT_TOGGLE_UPDATE);
        panel.clickInfo();
        QVERIFY(home.aboutVisible() && home.updateVisible() && panel.display().contextMenuVisible);

        Timeline timeline;
        for (auto name : {Events::NT_HIDE_ABOUT, Events::NT_HIDE_CONTEXT, Events::NT_HIDE_UPDATE,
                          Events::NT_TOGGLE_ABOUT, Events::NT_TOGGLE_UPDATE})
            bus.addObserver(&timeline, name, [&timeline](const Event &e) { timeline.steps << e.name; });
        ContextMenuView menu(timeline);
        switch (entry) {
        case 0:
            menu.clickSupport();
            break;
        case 1:
            menu.clickUpdate();
            break;
        case 2:
            menu.clickAbout();
            break;
        default:
            menu.clickUninstall();
            break;
        }
        flush();
        const QStringList closing{"NT_HIDE_ABOUT", "NT_HIDE_CONTEXT", "NT_HIDE_UPDATE", "NT_HIDE_CONTEXT"};
        QCOMPARE(timeline.steps.mid(0, 4), closing);
        // The home screen answers a toggle by hiding the menu again, inside the toggle's delivery.
        qsizetype at = -1;
        for (qsizetype i = 0; i < timeline.steps.size(); ++i)
            if (timeline.steps[i].startsWith(action.startsWith(QLatin1String("open")) ? QStringLiteral("open ")
                                                                                      : action))
                at = i;
        QVERIFY2(at >= 4, qPrintable(timeline.steps.join(QLatin1Char(','))));
        QVERIFY(!panel.display().contextMenuVisible);
        // Closed first, so the toggle opens its own overlay and nothing else stays open.
        QCOMPARE(home.aboutVisible(), action == QLatin1String("NT_TOGGLE_ABOUT"));
        QCOMPARE(home.updateVisible(), action == QLatin1String("NT_TOGGLE_UPDATE"));
        bus.removeObserver(&timeline);
    }

    void aboutViewShowsTheDeviceAndOpensItsLinks()
    {
        m_fx->storage.storeDeviceUUID(QStringLiteral("DEVICE-1234"));
        AboutView about(m_fx->storage, m_fx->urls);
        QCOMPARE(about.computerIdText(), QStringLiteral("DEVICE-1234"));
        about.clickAgreement();
        about.clickPrivacy();
        QCOMPARE(m_fx->urls.opened, (QStringList{AppConfig::eulaUrl(), AppConfig::privacyPolicyUrl()}));

        HomeVC home(m_fx->services);
        home.viewDidLoad();
        EventBus::defaultCenter().post(Events::NT_TOGGLE_ABOUT);
        QVERIFY(home.aboutVisible());
        about.clickClose();
        QVERIFY(!home.aboutVisible());
    }

    void homeSubscribesOnceAndSwitchesPanels()
    {
        LogCapture log;
        HomeVC home(m_fx->services);
        home.viewDidLoad();
        home.notificationSubscribe(); // already subscribed: refused
        QCOMPARE(log.count(QStringLiteral("|HomeVC| notificationSubscribe Success")), 1);
        home.notificationsUnsubscribe();

        HomeVC second(m_fx->services);
        second.viewDidLoad();
        EventBus::defaultCenter().post(Events::SHOW_SETTINGS);
        QCOMPARE(second.panel(), HomeVC::Panel::Settings);
        QCOMPARE(home.panel(), HomeVC::Panel::Main); // unsubscribed
        second.clickSettingsPanelClose();
        QCOMPARE(second.panel(), HomeVC::Panel::Main);
        const NQVPNCountry fi = country(QStringLiteral("Finland"), QStringLiteral("FI"), QStringLiteral("Europe"));
        EventBus::defaultCenter().post(Events::NT_CLUSTERS_SELECT,
                                       {{Events::kCurrentCountry, QVariant::fromValue(fi)}});
        QCOMPARE(m_fx->vpn.current->countryName, QStringLiteral("Finland"));
    }

    void updatePanelViewsAndUpdateWhileConnected()
    {
        UpdateVC update(m_fx->services);
        update.viewDidLoad();
        QCOMPARE(update.view(), UpdateVC::View::Checking);
        m_fx->updates.checks.takeFirst()(false);
        QCOMPARE(update.view(), UpdateVC::View::NoUpdate);
        QVERIFY(update.buttonOkVisible() && update.buttonOkEnabled() && !update.yesNoVisible());
        update.mouseEnteredOk();
        QCOMPARE(update.buttonOkImage(), QStringLiteral("button_hover"));
        update.mouseExitedOk();
        QCOMPARE(update.buttonOkImage(), QStringLiteral("button_normal"));

        // A failed installation offers the update again two seconds later.
        EventBus::defaultCenter().post(Events::NOTIFICATION_APP_READY);
        m_clock->advance(UpdateVC::kAppReadyDelayMs - 1);
        QCOMPARE(update.view(), UpdateVC::View::NoUpdate);
        m_clock->advance(1);
        QCOMPARE(update.view(), UpdateVC::View::UpdateFound);
        QVERIFY(update.yesNoVisible() && update.yesNoEnabled() && !update.buttonOkVisible());

        m_fx->storage.storeVPNStatus(VpnStateConnected);
        update.clickYes();
        QVERIFY(!update.yesNoEnabled());
        QCOMPARE(m_fx->vpn.stops, 1);
        QCOMPARE(m_fx->updates.downloads, 0); // on the main queue, after the stop
        flush();
        QCOMPARE(m_fx->updates.downloads, 1);

        HomeVC home(m_fx->services);
        home.viewDidLoad();
        EventBus::defaultCenter().post(Events::NT_TOGGLE_UPDATE);
        QVERIFY(home.updateVisible());
        update.clickNo();
        QVERIFY(!home.updateVisible());
    }

    void nameAndVersionLabelJoinsNameAndBothVersions()
    {
        BundleExtended::setInfoDictionaryForTesting(QVariantMap{
            {"CFBundleName", "PelorinVPN"}, {"CFBundleShortVersionString", "2.1.0"}, {"CFBundleVersion", "45"}});
        QCOMPARE(NameAndVersionLabel::text(), QStringLiteral("PelorinVPN 2.1.0.45"));
        BundleExtended::setInfoDictionaryForTesting(std::nullopt);
    }
};

QTEST_GUILESS_MAIN(TstMenus)
#include "tst_menus.moc"
