#pragma once

#include <QString>

// Every text the screens show, looked up by key in the interface language.
namespace UiText {

QString forKey(const QString &key);
// Shown name of the interface language ("English", "Deutsch", ...).
QString appLanguageName();
// Stores the interface language used from the next window on.
void setAppLanguageCode(const QString &code);

} // namespace UiText
