#include "ui/AboutView.h"

#include "foundation/AppConfig.h"
#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "shell/UrlOpener.h"

QString AboutView::computerIdText() const
{
    return m_storage.deviceUUID();
}

void AboutView::clickAgreement()
{
    NQLog::line(QStringLiteral("|AboutView| clickAgreement"));
    m_urls.openUrl(AppConfig::eulaUrl());
}

void AboutView::clickPrivacy()
{
    NQLog::line(QStringLiteral("|AboutView| clickPrivacy"));
    m_urls.openUrl(AppConfig::privacyPolicyUrl());
}

void AboutView::clickClose()
{
    EventBus::defaultCenter().post(Events::NT_HIDE_ABOUT);
}

bool AboutView::mouseDown()
{
    NQLog::line(QStringLiteral("|AboutView| mouseDown"));
    return true;
}
