#pragma once

#include <QString>

#include <functional>

// The two log channels of the application.
//
// 1. The "|Class| ..." channel: one line of text per call to standard error, which the
//    application controller redirects into its log file. `NQLog::line` writes it.
// 2. The system log: structured messages with the subsystem "com.pelorin.vpn.mac" and a
//    category per class, errors at fault level. `OsLog` writes it (syslog/journald on Linux).
//
// Tests capture either channel with a sink; with a sink installed nothing is written out.
namespace NQLog {

// Writes `text` and a line feed to standard error and flushes. Safe from any thread.
void line(const QString &text);

using Sink = std::function<void(const QString &)>;
// Replaces the output of line() (tests). An empty sink restores standard error.
void setSink(Sink sink);

} // namespace NQLog

class OsLog {
public:
    enum class Level { Debug, Info, Error, Fault };

    // `subsystem` defaults to the bundle identifier; `category` names the class.
    explicit OsLog(const char *category, const char *subsystem = "com.pelorin.vpn.mac");

    void debug(const QString &text) const { write(Level::Debug, text); }
    void info(const QString &text) const { write(Level::Info, text); }
    void error(const QString &text) const { write(Level::Error, text); }
    void fault(const QString &text) const { write(Level::Fault, text); }

    void write(Level level, const QString &text) const;

    const char *category() const { return m_category; }
    const char *subsystem() const { return m_subsystem; }

    struct Record {
        QString subsystem;
        QString category;
        Level level;
        QString text;
    };
    using Sink = std::function<void(const Record &)>;
    // Replaces the system-log output for every OsLog (tests). An empty sink restores syslog.
    static void setSink(Sink sink);

private:
    const char *m_category;
    const char *m_subsystem;
};
