#pragma once

#include <QString>
#include <QStringList>

// A short command the tunnel engine waits for (sudo pkill, the helper's clear): no terminal,
// so sudo refuses at once instead of asking for a password, standard input closed, output and
// errors merged, and a bounded wait after which it is killed.
struct BoundedCommand {
    enum class Outcome { NotStarted, TimedOut, Failed, Succeeded };

    Outcome outcome = Outcome::NotStarted;
    QString detail; // why it did not start, or what it printed

    static BoundedCommand run(const QString &program, const QStringList &arguments, int timeoutMs);
};
