#pragma once

#include "foundation/Log.h"

#include <QStringList>

#include <mutex>

// Captures both log channels while alive. Lines are kept in arrival order.
class LogCapture {
public:
    LogCapture()
    {
        NQLog::setSink([this](const QString &text) {
            std::lock_guard lock(m_mutex);
            m_lines << text;
        });
        OsLog::setSink([this](const OsLog::Record &record) {
            std::lock_guard lock(m_mutex);
            m_records << record;
        });
    }
    ~LogCapture()
    {
        NQLog::setSink({});
        OsLog::setSink({});
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    // "|Class| ..." lines.
    QStringList lines() const
    {
        std::lock_guard lock(m_mutex);
        return m_lines;
    }
    // System-log texts, optionally only those of one category.
    QStringList osTexts(const QString &category = {}) const
    {
        std::lock_guard lock(m_mutex);
        QStringList texts;
        for (const auto &r : m_records)
            if (category.isEmpty() || r.category == category)
                texts << r.text;
        return texts;
    }
    QList<OsLog::Record> osRecords() const
    {
        std::lock_guard lock(m_mutex);
        return m_records;
    }
    int count(const QString &line) const { return lines().count(line); }
    void clear()
    {
        std::lock_guard lock(m_mutex);
        m_lines.clear();
        m_records.clear();
    }

private:
    mutable std::mutex m_mutex;
    QStringList m_lines;
    QList<OsLog::Record> m_records;
};
