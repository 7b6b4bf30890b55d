#pragma once

#include <QLocale>
#include <QString>

// Naming of interface languages for the language button and list.
//
// A code is first named by the user's locale, then that name is looked up in a table of
// native names keyed by the English name ("German" -> "Deutsch"), so that every language is
// offered in its own words. Names outside the table are shown as the locale gives them.
namespace LanguageNames {

// The name `locale` gives for `code`, or an empty text when the locale knows no such language.
// Qt only names a language in English or in that language itself: an English (or C) locale
// gets English names; any other locale gets the native name for its own language and the
// English name for the rest, which the native-name table then turns into native names too.
QString localeNameForCode(const QString &code, const QLocale &locale);

// The native name for an English language name, or an empty text when the table has none.
// Qt 6.4 names "no" (and "nb") "Norwegian Bokmal"; both spellings of that name and plain
// "Norwegian" map to "Norsk".
QString nativeNameForEnglishName(const QString &englishName);

// Natural order: runs of digits compare by value, everything else as plain text.
int numericCompare(const QString &a, const QString &b);

} // namespace LanguageNames
