#pragma once

#include <QString>

// Running shell commands and the session's login items.
//
// Login items go through the platform's own mechanism (XDG autostart entries on Linux);
// the list is answered as one text of names separated by ", ", and membership is a plain
// substring test, so an item whose name contains the application's name also counts.
namespace NQTask {

// Runs `command` with "/bin/sh -c" and returns what it wrote on standard output (UTF-8,
// trailing line feed kept) until it closed that output. Every failure, including no output
// at all, is logged and returns the empty text; the exit status is not looked at.
QString run(const QString &command);

QString getLoginItems();
bool appIsInLoginItems();
// Both answer a short report of what was done (the platform always reports success in the
// original commands; here a failure is reported in the text and logged).
QString addLoginItemAtPath(const QString &path);
QString deleteLoginItemWithName(const QString &name);
QString addAppToLoginItems();
QString removeAppFromLoginItems();

} // namespace NQTask
