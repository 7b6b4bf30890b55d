#pragma once

#include <QString>

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>

// What the engine knows about the tunnel client's firewall table (traffic outside the tunnel
// blocked): set from the client's own lines on the tunnel I/O thread, read anywhere.
class TrafficBlock {
public:
    using Callback = std::function<void(bool blocked)>;

    // The client's lines, the same words it prints.
    static constexpr auto kOnLine = "ovpncli: kill switch on";
    static constexpr auto kOffLine = "ovpncli: kill switch off";
    static constexpr auto kKeptLine = "ovpncli: kill switch kept";

    bool blocked() const { return m_blocked; }
    // Reports a change to the callback (on the calling thread).
    void setBlocked(bool blocked)
    {
        if (m_blocked.exchange(blocked) == blocked)
            return;
        std::lock_guard lock(m_mutex);
        if (m_callback)
            m_callback(blocked);
    }
    void setCallback(Callback callback)
    {
        std::lock_guard lock(m_mutex);
        m_callback = std::move(callback);
    }

    // The change a chunk of the client's output announces, if any (the last one wins).
    static std::optional<bool> announced(const QString &text)
    {
        std::optional<bool> blocked;
        for (const QStringView line : QStringView(text).split(QLatin1Char('\n'))) {
            if (line.startsWith(QLatin1String(kOnLine)) || line.startsWith(QLatin1String(kKeptLine)))
                blocked = true;
            else if (line.startsWith(QLatin1String(kOffLine)))
                blocked = false;
        }
        return blocked;
    }

    // A reconnecting owner keeps the block between two runs of the client.
    std::atomic<bool> holdBetweenRuns{false};

private:
    std::atomic<bool> m_blocked{false};
    std::mutex m_mutex;
    Callback m_callback;
};
