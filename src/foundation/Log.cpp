#include "foundation/Log.h"

#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace {
std::mutex g_lineMutex;
NQLog::Sink g_lineSink;
std::mutex g_osMutex;
OsLog::Sink g_osSink;
} // namespace

namespace NQLog {

void line(const QString &text)
{
    std::lock_guard lock(g_lineMutex);
    if (g_lineSink) {
        g_lineSink(text);
        return;
    }
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void setSink(Sink sink)
{
    std::lock_guard lock(g_lineMutex);
    g_lineSink = std::move(sink);
}

} // namespace NQLog

OsLog::OsLog(const char *category, const char *subsystem) : m_category(category), m_subsystem(subsystem) {}

void OsLog::write(Level level, const QString &text) const
{
    std::lock_guard lock(g_osMutex);
    if (g_osSink) {
        g_osSink({QString::fromUtf8(m_subsystem), QString::fromUtf8(m_category), level, text});
        return;
    }
    int priority = LOG_DEBUG;
    switch (level) {
    case Level::Debug:
        priority = LOG_DEBUG;
        break;
    case Level::Info:
        priority = LOG_INFO;
        break;
    case Level::Error:
        priority = LOG_ERR;
        break;
    case Level::Fault:
        priority = LOG_CRIT;
        break;
    }
    static std::once_flag opened;
    // One identifier for the whole program so `journalctl -t com.pelorin.vpn.mac` finds it all.
    std::call_once(opened, [] { openlog("com.pelorin.vpn.mac", LOG_PID, LOG_USER); });
    syslog(priority, "%s [%s] %s", m_subsystem, m_category, text.toUtf8().constData());
}

void OsLog::setSink(Sink sink)
{
    std::lock_guard lock(g_osMutex);
    g_osSink = std::move(sink);
}
