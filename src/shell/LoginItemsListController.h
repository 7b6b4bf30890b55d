#pragma once

#include <QObject>
#include <QString>

// Login items by program path rather than by name: whether a program starts at login, and
// adding or removing it. Nothing in the application calls it today; the launch sequence uses
// the name-based operations of NQAppKit.
class LoginItemsListController : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool launchAtLogin READ launchAtLogin WRITE setLaunchAtLogin NOTIFY launchAtLoginChanged)

public:
    using QObject::QObject;

    // True when a login item starts the program at `path` (links resolved on both sides).
    bool willLaunchAtLogin(const QString &path) const;
    void setLaunchAtLogin(bool enabled, const QString &path);

    // The same for this program.
    bool launchAtLogin() const;
    void setLaunchAtLogin(bool enabled);

signals:
    void launchAtLoginChanged(bool enabled);
};
