#pragma once

#include <QString>

#include <functional>

// What the machine does under a running program that a tunnel must follow: going to sleep,
// waking up, a change of the default route. Events arrive on the main thread, from start()
// until the object is destroyed; a source the system lacks is skipped (logged), never fatal.
class SystemEvents {
public:
    enum class Kind { Sleeping, Resumed, NetworkChanged };
    using Callback = std::function<void(Kind kind)>;
    // One line for the program's log (what is watched, what is missing, what happened).
    using LogLine = std::function<void(const QString &text)>;

    virtual ~SystemEvents() = default;
    // Starts watching; a second call does nothing.
    virtual void start(Callback callback, LogLine log) = 0;
};
