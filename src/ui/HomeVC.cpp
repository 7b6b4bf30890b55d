#include "ui/HomeVC.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "ui/VpnEngine.h"

HomeVC::HomeVC(const UiServices &services, QObject *parent) : QObject(parent), m_services(services) {}

HomeVC::~HomeVC()
{
    notificationsUnsubscribe();
}

void HomeVC::viewDidLoad()
{
    showMainPanel();
    notificationSubscribe();
}

void HomeVC::notificationSubscribe()
{
    if (m_notificationsSubscribed) {
        NQLog::line(QStringLiteral("|HomeVC| notificationSubscribe Failed with error: 'Already subscribed'"));
        return;
    }
    m_notificationsSubscribed = true;
    NQLog::line(QStringLiteral("|HomeVC| notificationSubscribe Success"));
    EventBus &bus = EventBus::defaultCenter();
    bus.addObserver(this, Events::NT_CLUSTERS_SELECT, [this](const Event &event) {
        const QVariant value = event.userInfo.value(Events::kCurrentCountry);
        if (value.canConvert<NQVPNCountry>())
            m_services.vpn.setCurrentCountry(value.value<NQVPNCountry>());
        else
            m_services.vpn.setCurrentCountry(std::nullopt);
    });
    bus.addObserver(this, Events::SHOW_SETTINGS, [this](const Event &) { showSettings(); });
    bus.addObserver(this, Events::NT_TOGGLE_ABOUT, [this](const Event &) {
        NQLog::line(QStringLiteral("|HomeVC| NT_TOGGLE_ABOUT"));
        notificationHideContext();
        setAbout(!m_aboutVisible);
    });
    bus.addObserver(this, Events::NT_HIDE_ABOUT, [this](const Event &) { setAbout(false); });
    bus.addObserver(this, Events::NT_TOGGLE_UPDATE, [this](const Event &) {
        NQLog::line(QStringLiteral("|HomeVC| NT_TOGGLE_UPDATE"));
        notificationHideContext();
        setUpdate(!m_updateVisible);
    });
    bus.addObserver(this, Events::NT_HIDE_UPDATE, [this](const Event &) { setUpdate(false); });
    bus.addObserver(this, Events::NOTIFICATION_LOADING_START, [this](const Event &) {
        m_loadingActive = true;
        emit changed();
    });
    bus.addObserver(this, Events::NOTIFICATION_LOADING_END, [this](const Event &) {
        m_loadingActive = false;
        emit changed();
    });
    // The context menu itself belongs to the connection panel, which hides it on this event.
    bus.addObserver(this, Events::NT_HIDE_CONTEXT, [](const Event &) {});
}

void HomeVC::notificationsUnsubscribe()
{
    // The flag stays set: a screen subscribes once in its life.
    EventBus::defaultCenter().removeObserver(this);
}

void HomeVC::notificationHideContext()
{
    NQLog::line(QStringLiteral("|HomeVC| notification hide context"));
    EventBus::defaultCenter().post(Events::NT_HIDE_CONTEXT);
}

void HomeVC::closePopups()
{
    EventBus &bus = EventBus::defaultCenter();
    bus.post(Events::NT_HIDE_ABOUT);
    bus.post(Events::NT_HIDE_CONTEXT);
    bus.post(Events::NT_HIDE_UPDATE);
}

void HomeVC::setAbout(bool visible)
{
    m_aboutVisible = visible;
    emit changed();
}

void HomeVC::setUpdate(bool visible)
{
    m_updateVisible = visible;
    emit changed();
}

void HomeVC::showSettings()
{
    m_panel = Panel::Settings;
    emit changed();
}

void HomeVC::showMainPanel()
{
    m_panel = Panel::Main;
    emit changed();
}

void HomeVC::clickMainPanelMinimize()
{
    emit minimizeRequested();
}

void HomeVC::clickMainPanelClose()
{
    emit closeRequested();
}

void HomeVC::clickMainPanelInfo() {}

void HomeVC::clickMainPanelSettings()
{
    showSettings();
}

void HomeVC::clickSettingsPanelClose()
{
    showMainPanel();
}
