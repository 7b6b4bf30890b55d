#include "shell/NQApplication.h"

#include <QCoreApplication>

namespace {
NQApplication *g_current = nullptr;
}

NQApplication::NQApplication(QStringList arguments, std::function<void()> exitLoop)
    : m_arguments(std::move(arguments)), m_exitLoop(std::move(exitLoop))
{
    if (!m_exitLoop)
        m_exitLoop = [] { QCoreApplication::quit(); };
    g_current = this;
}

NQApplication::~NQApplication()
{
    if (g_current == this)
        g_current = nullptr;
}

NQApplication *NQApplication::current()
{
    return g_current;
}

void NQApplication::terminate()
{
    if (m_terminated)
        return;
    if (m_delegate && m_delegate->applicationShouldTerminate() != ApplicationDelegate::TerminateNow)
        return;
    m_terminated = true;
    if (m_delegate)
        m_delegate->applicationWillTerminate();
    m_exitLoop();
}

void NQApplication::activate()
{
    if (m_delegate && !m_terminated)
        m_delegate->applicationDidBecomeActive();
}
