// pelorin_ui_gallery --out DIR [--lang CODE]: draws the splash, the home screen in its
// states, the server list tabs and its latency order, the settings with the language list
// open, the About view, the update panel and an alert into DIR/<lang>-<name>.png. Every
// shown one-line text is checked against the width of its control; a clipped one is
// reported and the exit status is 1.
#include "GalleryServices.h"

#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/LocalString.h"
#include "ui/ClustersVC.h"
#include "ui/HomeMainPanelVC.h"
#include "ui/SettingsVC.h"
#include "ui/UiText.h"
#include "ui/UpdateVC.h"
#include "ui/widgets/HomeWidget.h"
#include "ui/widgets/MessageBoxAlertPresenter.h"
#include "ui/widgets/SplashWidget.h"
#include "ui/widgets/UiStyle.h"
#include "vpn/VpnState.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QLabel>
#include <QMessageBox>
#include <QTemporaryDir>

#include <cstdio>

namespace {

QString g_out;
QString g_lang;
int g_clipped = 0;
// Room a text may lack before it counts as clipped (anti-aliasing, rounding).
constexpr int kFitTolerancePx = 1;

// Reports every visible one-line label or button text wider than the room its control has.
void checkFit(const QWidget &root, const QString &screen)
{
    const auto report = [&](const QWidget &w, const QString &text, int room) {
        const QString line = text.section(QLatin1Char('\n'), 0, 0);
        const int needed = w.fontMetrics().horizontalAdvance(line);
        if (line.isEmpty() || needed <= room + kFitTolerancePx)
            return;
        ++g_clipped;
        std::fprintf(stderr, "clipped: %s %s %s '%s' needs %d px, has %d px\n", qPrintable(g_lang), qPrintable(screen),
                     w.metaObject()->className(), qPrintable(line), needed, room);
    };
    for (const QLabel *label : root.findChildren<QLabel *>()) {
        if (label->isVisibleTo(&root) && !label->wordWrap() && label->pixmap().isNull() && !label->text().contains('<'))
            report(*label, label->text(), label->contentsRect().width() - 2 * label->margin() - label->indent());
    }
    for (const QAbstractButton *button : root.findChildren<QAbstractButton *>()) {
        if (button->isVisibleTo(&root) && !button->text().isEmpty())
            report(*button, button->text(), button->contentsRect().width());
    }
}

void settle()
{
    for (int i = 0; i < 6; ++i)
        QApplication::processEvents();
}

void shoot(QWidget &widget, const QString &name)
{
    settle();
    checkFit(widget, name);
    const QString path = QStringLiteral("%1/%2-%3.png").arg(g_out, g_lang, name);
    if (!widget.grab().save(path))
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
    else
        std::printf("%s\n", qPrintable(path));
}

NQVPNCountry cluster(const char *name, const char *iso, const char *continent, int id, bool isDefault = false)
{
    NQVPNCountry c;
    c.countryName = QString::fromUtf8(name);
    c.countryIso = QString::fromLatin1(iso);
    c.continent = QString::fromLatin1(continent);
    c.countryId = id;
    c.isDefault = isDefault;
    c.enabled = true;
    c.serverAddress = QStringLiteral("185.220.%1.17").arg(id);
    return c;
}

} // namespace

// Gives the keyboard focus to the control a screen reader knows by `name`.
void focusNamed(QWidget &top, const QString &name)
{
    for (QWidget *widget : top.findChildren<QWidget *>())
        if (widget->accessibleName() == name && widget->isVisible()) {
            widget->setFocus(Qt::TabFocusReason);
            break;
        }
    settle();
}

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addOption({QStringLiteral("out"), QStringLiteral("Folder for the PNG files."), QStringLiteral("dir")});
    parser.addOption(
        {QStringLiteral("lang"), QStringLiteral("Interface language."), QStringLiteral("code"), QStringLiteral("en")});
    parser.process(app);
    g_out = parser.value(QStringLiteral("out"));
    g_lang = parser.value(QStringLiteral("lang"));
    if (g_out.isEmpty() || !QDir().mkpath(g_out)) {
        std::fprintf(stderr, "usage: pelorin_ui_gallery --out DIR [--lang CODE]\n");
        return 2;
    }

    QTemporaryDir dir;
    auto store = std::make_unique<AppStorageManager>(
        dir.filePath(QStringLiteral("settings.conf")),
        KeychainStore(QStringLiteral("com.pelorin.vpn.mac"),
                      std::make_shared<FileSecretBackend>(dir.filePath(QStringLiteral("s.json")))));
    AppStorageManager &storage = *store;
    AppStorageManager::setSharedManagerForTesting(std::move(store));
    LocalString::setAppLanguageCode(g_lang);
    storage.storeDeviceUUID(QStringLiteral("6F1C2A9E-4B7D-4E21-9C3A-1D2E5F60A7B8"));
    storage.storeAppAutorunEnabled(true);
    storage.storeAutoupdate(true);

    GalleryVpn vpn;
    vpn.countries = {cluster("Germany", "DE", "Europe", 1, true), cluster("Finland", "FI", "Europe", 2),
                     cluster("Ukraine", "UA", "Europe", 3),       cluster("United States", "US", "North America", 4),
                     cluster("Brazil", "BR", "South America", 5), cluster("Japan", "JP", "Asia", 6),
                     cluster("India", "IN", "Asia", 7),           cluster("Australia", "AU", "Australia", 8),
                     cluster("South Africa", "ZA", "Africa", 9),  cluster("Mexico", "MX", "South America", 10)};
    GalleryLocation location;
    MessageBoxAlertPresenter alerts;
    GalleryUrls urls;
    GalleryChrome chrome;
    GalleryExtension extension;
    GalleryLoginItems loginItems;
    GalleryUpdates updates;
    UiServices services{vpn, location, alerts, urls, chrome, extension, loginItems, updates, storage};

    SplashWidget splash;
    splash.show();
    shoot(splash, QStringLiteral("splash"));
    splash.hide();

    // Clusters 7 and 9 do not answer.
    auto latency = std::make_shared<GalleryLatency>();
    const int milliseconds[] = {24, 38, 52, 118, 196, 243, 0, 287, 0, 154};
    for (const NQVPNCountry &c : std::as_const(vpn.countries))
        if (const int ms = milliseconds[c.countryId - 1])
            latency->milliseconds.insert(c.serverAddress, ms);

    HomeWidget home(services, nullptr, latency);
    home.setWindowTitle(UiText::forKey(QStringLiteral("<app_name>")));
    home.show();
    EventBus::defaultCenter().post(Events::NOTIFICATION_CLUSTERS_LOADED,
                                   {{Events::NQVpnKeyClustersArray, QVariant::fromValue(vpn.countries)}});
    shoot(home, QStringLiteral("disconnected"));
    home.clusters().clickSortByLatency(true);
    shoot(home, QStringLiteral("sorted-by-latency"));
    home.clusters().clickSortByLatency(false);

    home.clusters().clickRow(2); // Ukraine
    home.panel().clickConnect();
    shoot(home, QStringLiteral("connecting"));

    vpn.configs.takeFirst()(QStringLiteral("client\n"), std::nullopt);
    storage.storeVPNStatus(VpnStateConnected);
    vpn.callback(VpnStateConnected);
    settle();
    for (int i = 0; i < 3725; ++i)
        home.panel().timerUpdateSessionDuration();
    shoot(home, QStringLiteral("connected"));
    if (vpn.blockedCallback) {
        vpn.blockedCallback(true);
        settle();
        shoot(home, QStringLiteral("connected-blocked"));
        vpn.blockedCallback(false);
        settle();
    }

    // The keyboard focus ring on each kind of control.
    home.activateWindow();
    focusNamed(home, UiText::forKey(QStringLiteral("Disconnect")));
    shoot(home, QStringLiteral("focus-connect-button"));
    focusNamed(home, QStringLiteral("Servers"));
    shoot(home, QStringLiteral("focus-server-list"));
    focusNamed(home, UiText::forKey(QStringLiteral("Sort by latency")));
    shoot(home, QStringLiteral("focus-sort-checkbox"));
    focusNamed(home, UiText::forKey(QStringLiteral("Settings")));
    shoot(home, QStringLiteral("focus-icon-button"));

    home.panel().clickInfo();
    shoot(home, QStringLiteral("context-menu"));
    home.panel().hideContextMenu();

    home.clusters().clickFavourite(0, true);
    home.clusters().clickFavourite(2, true);
    home.clusters().clickTabFavourites();
    shoot(home, QStringLiteral("favourites"));
    home.clusters().clickTabAllLocations();

    EventBus::defaultCenter().post(Events::NT_TOGGLE_ABOUT);
    shoot(home, QStringLiteral("about"));
    EventBus::defaultCenter().post(Events::NT_HIDE_ABOUT);

    EventBus::defaultCenter().post(Events::NT_TOGGLE_UPDATE);
    shoot(home, QStringLiteral("update-none"));
    home.update().setUpdateView();
    shoot(home, QStringLiteral("update-found"));
    EventBus::defaultCenter().post(Events::NT_HIDE_UPDATE);

    // The tunnel went away by itself: the panel connects it again, counting the attempts.
    storage.storeVPNStatus(VpnStateDisconnected);
    vpn.callback(VpnStateDisconnected);
    settle();
    shoot(home, QStringLiteral("reconnecting"));

    EventBus::defaultCenter().post(Events::SHOW_SETTINGS);
    settle();
    home.settings().clickCompression(true);
    focusNamed(home, UiText::forKey(QStringLiteral("Data compression")));
    shoot(home, QStringLiteral("focus-settings-switch"));
    home.settings().clickLangauge();
    shoot(home, QStringLiteral("settings-languages"));

    AlertRequest alert;
    alert.title = QStringLiteral("Error");
    alert.message = UiText::forKey(QStringLiteral("installing_vpn_configuration_failed"));
    alert.buttons = {{UiText::forKey(QStringLiteral("Retry")), 1000}, {UiText::forKey(QStringLiteral("Cancel")), 1001}};
    QMessageBox *box = MessageBoxAlertPresenter::build(alert, nullptr);
    box->show();
    shoot(*box, QStringLiteral("alert"));
    delete box;
    return g_clipped == 0 ? 0 : 1;
}
