#include "ui/UpdateVC.h"

#include "foundation/AppStorageManager.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"
#include "ui/UiText.h"
#include "ui/UpdateService.h"
#include "ui/VpnEngine.h"
#include "vpn/VpnState.h"

#include <QPointer>

UpdateVC::UpdateVC(const UiServices &services, QObject *parent) : QObject(parent), m_services(services) {}

UpdateVC::~UpdateVC()
{
    EventBus::defaultCenter().removeObserver(this);
    if (m_appReadyToken)
        EventBus::defaultCenter().removeToken(m_appReadyToken);
}

void UpdateVC::viewDidLoad()
{
    NQLog::line(QStringLiteral("|UpdateVC| viewDidLoad"));
    updateCheck();
    QPointer<UpdateVC> self(this);
    m_appReadyToken =
        EventBus::defaultCenter().addObserverForName(Events::NOTIFICATION_APP_READY, [self](const Event &) {
            NQLog::line(QStringLiteral("|UpdateVC| NT_APP_READY -> update failed"));
            MainQueue::after(kAppReadyDelayMs, [self] {
                if (self)
                    self->setUpdateView();
            });
        });
}

void UpdateVC::updateCheck()
{
    QPointer<UpdateVC> self(this);
    m_services.updates.checkForUpdateWithCompletion([self](bool available) {
        if (!self)
            return;
        if (available)
            self->setUpdateView();
        else
            self->setNoUpdateView();
    });
}

void UpdateVC::setNoUpdateView()
{
    NQLog::line(QStringLiteral("|UpdateVC| No update found"));
    m_noUpdateText = UiText::forKey(QStringLiteral("latest_version_already_installed"));
    m_view = View::NoUpdate;
    m_okEnabled = true;
    emit changed();
}

void UpdateVC::setUpdateView()
{
    NQLog::line(QStringLiteral("|UpdateVC| Update found"));
    m_noUpdateText = UiText::forKey(QStringLiteral("update_found"));
    m_view = View::UpdateFound;
    m_yesNoEnabled = true;
    emit changed();
}

void UpdateVC::clickYes()
{
    NQLog::line(QStringLiteral("|UpdateVC| clickYes"));
    m_yesNoEnabled = false;
    emit changed();
    doUpdate();
}

void UpdateVC::doUpdate()
{
    NQLog::line(QStringLiteral("|UpdateVC| doUpdate"));
    if (m_services.storage.getVPNStatus() == VpnStateConnected) {
        NQLog::line(QStringLiteral("|UpdateVC| doUpdate. vpnStatus == Connected"));
        m_services.vpn.stopVPNConnection();
    }
    UpdateService *updates = &m_services.updates;
    MainQueue::async([updates] { updates->downloadAndInstallPKG(); });
}

void UpdateVC::clickNo()
{
    NQLog::line(QStringLiteral("|UpdateVC| clickNo"));
    close();
}

void UpdateVC::clickClose()
{
    NQLog::line(QStringLiteral("|UpdateVC| clickClose"));
    close();
}

void UpdateVC::close()
{
    NQLog::line(QStringLiteral("|UpdateVC| close"));
    EventBus::defaultCenter().post(Events::NT_HIDE_UPDATE);
}

void UpdateVC::mouseEnteredOk()
{
    m_okImage = QStringLiteral("button_hover");
    emit changed();
}

void UpdateVC::mouseExitedOk()
{
    m_okImage = QStringLiteral("button_normal");
    emit changed();
}

bool UpdateVC::mouseDown()
{
    NQLog::line(QStringLiteral("|UpdateVC| mouseDown"));
    return true;
}
