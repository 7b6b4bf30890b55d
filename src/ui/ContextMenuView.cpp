#include "ui/ContextMenuView.h"

#include "foundation/AppConfig.h"
#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "shell/UrlOpener.h"

void ContextMenuView::clickSupport()
{
    NQLog::line(QStringLiteral("|ContextMenuView| clickSupport"));
    hide();
    m_urls.openUrl(AppConfig::supportUrl());
}

void ContextMenuView::clickUpdate()
{
    NQLog::line(QStringLiteral("|ContextMenuView| clickUpdate"));
    hide();
    EventBus::defaultCenter().post(Events::NT_TOGGLE_UPDATE);
}

void ContextMenuView::clickAbout()
{
    NQLog::line(QStringLiteral("|ContextMenuView| clickAbout"));
    hide();
    EventBus::defaultCenter().post(Events::NT_TOGGLE_ABOUT);
}

void ContextMenuView::clickUninstall()
{
    NQLog::line(QStringLiteral("|ContextMenuView| clickUninstall"));
    hide();
    m_urls.openUrl(AppConfig::uninstallUrl());
}

void ContextMenuView::clickQuit()
{
    NQLog::line(QStringLiteral("|ContextMenuView| clickQuit"));
    hide();
    if (m_quit)
        m_quit();
}

void ContextMenuView::hide()
{
    closePopups();
    EventBus::defaultCenter().post(Events::NT_HIDE_CONTEXT);
}

void ContextMenuView::closePopups()
{
    EventBus &bus = EventBus::defaultCenter();
    bus.post(Events::NT_HIDE_ABOUT);
    bus.post(Events::NT_HIDE_CONTEXT);
    bus.post(Events::NT_HIDE_UPDATE);
}
