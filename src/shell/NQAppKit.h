#pragma once

#include <QString>
#include <QStringList>

// Application-level queries used at launch: first runs and the login item.
namespace NQAppKit {

// True when `arguments` hold "NQ_FIRST_RUN", "FIRST_RUN" or "CLEAR_USERDEFAULTS".
bool appFirstSession(const QStringList &arguments);
// The negation of the stored "NotFirstRun".
bool appFirstRun();
// The application's name ("PelorinVPN"); null when the bundle gives none.
QString appName();
// True when the login-item list text contains appName().
bool appIsInLoginItems();
// Adds this program as a login item (under appName()) or removes it.
void setLaunchAtLogin(bool enabled);
void removeAppFromLoginItems();

} // namespace NQAppKit
