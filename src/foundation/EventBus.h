#pragma once

#include <QString>
#include <QVariantMap>

#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

struct Event {
    QString name;
    const void *sender = nullptr;
    QVariantMap userInfo;
};

// Process-wide, name-keyed events.
//
// Target-action observers (addObserver) run synchronously on the posting thread before post()
// returns. Block observers (addObserverForName) run on the main queue: at once when the post
// happens on the main thread, otherwise queued to it. Observers may add or remove
// registrations (their own included) while an event is being delivered.
class EventBus {
public:
    using Action = std::function<void(const Event &)>;
    using Token = std::uint64_t;

    static EventBus &defaultCenter();

    void post(const QString &name, const QVariantMap &userInfo = {}, const void *sender = nullptr);

    // Registers `action` for `name` under `observer`'s identity; removeObserver(observer)
    // removes every such registration at once.
    void addObserver(const void *observer, const QString &name, Action action);
    void removeObserver(const void *observer);

    // Block observer bound to the main queue; lives until removeToken() (or reset()).
    Token addObserverForName(const QString &name, Action block);
    void removeToken(Token token);

    // Number of registrations for `name` (both kinds).
    int observerCount(const QString &name) const;

    // Drops every registration (tests start from an empty bus).
    void reset();

private:
    struct Registration {
        QString name;
        const void *observer = nullptr; // target-action registrations
        Token token = 0;                // block registrations
        Action action;
    };
    mutable std::mutex m_mutex;
    std::vector<Registration> m_registrations;
    Token m_nextToken = 1;
};
