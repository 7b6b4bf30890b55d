#include "foundation/EventBus.h"

#include "foundation/MainQueue.h"

#include <algorithm>

EventBus &EventBus::defaultCenter()
{
    static EventBus bus;
    return bus;
}

void EventBus::post(const QString &name, const QVariantMap &userInfo, const void *sender)
{
    struct Pending {
        const void *observer;
        Token token;
        Action action;
    };
    std::vector<Pending> pending;
    {
        std::lock_guard lock(m_mutex);
        for (const Registration &r : m_registrations) {
            if (r.name == name)
                pending.push_back({r.observer, r.token, r.action});
        }
    }
    const Event event{name, sender, userInfo};
    for (const Pending &p : pending) {
        // An observer removed by an earlier one in this same delivery must not be called.
        bool stillRegistered;
        {
            std::lock_guard lock(m_mutex);
            stillRegistered = std::any_of(m_registrations.begin(), m_registrations.end(), [&](const Registration &r) {
                return r.name == name && r.observer == p.observer && r.token == p.token;
            });
        }
        if (!stillRegistered)
            continue;
        if (p.token == 0 || MainQueue::isMainThread())
            p.action(event);
        else
            MainQueue::async([action = p.action, event] { action(event); });
    }
}

void EventBus::addObserver(const void *observer, const QString &name, Action action)
{
    std::lock_guard lock(m_mutex);
    m_registrations.push_back({name, observer, 0, std::move(action)});
}

void EventBus::removeObserver(const void *observer)
{
    std::lock_guard lock(m_mutex);
    std::erase_if(m_registrations, [&](const Registration &r) { return r.token == 0 && r.observer == observer; });
}

EventBus::Token EventBus::addObserverForName(const QString &name, Action block)
{
    std::lock_guard lock(m_mutex);
    const Token token = m_nextToken++;
    m_registrations.push_back({name, nullptr, token, std::move(block)});
    return token;
}

void EventBus::removeToken(Token token)
{
    std::lock_guard lock(m_mutex);
    std::erase_if(m_registrations, [&](const Registration &r) { return r.token == token; });
}

int EventBus::observerCount(const QString &name) const
{
    std::lock_guard lock(m_mutex);
    return static_cast<int>(std::count_if(m_registrations.begin(), m_registrations.end(),
                                          [&](const Registration &r) { return r.name == name; }));
}

void EventBus::reset()
{
    std::lock_guard lock(m_mutex);
    m_registrations.clear();
}
