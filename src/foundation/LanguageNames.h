#pragma once

#include <QLocale>
#include <QString>

// Naming of interface languages for the language button and list.
//
// A code is first named by the user's locale, then that name is looked up in a table of
// native names keyed by the English name ("German" -> "Deutsch"). Under an English locale every
// language is thus offered in its own words; any other locale names the languages in its own
// language, which the table does not hold, so those names are shown as the locale gives them.
namespace LanguageNames {

// The name `locale` gives for `code`, in the locale's own language ("de" is "German" to an
// English locale, "tyska" to a Swedish one), or an empty text when the locale knows no such
// language. The locale's own language is named with a capital first letter, as a list entry
// reads: many locales spell language names in lower case ("svenska", "português").
QString localeNameForCode(const QString &code, const QLocale &locale);

// The native name for an English language name, or an empty text when the table has none.
// "Norwegian" and both spellings of "Norwegian Bokmål" (the name of "nb") map to "Norsk".
QString nativeNameForEnglishName(const QString &englishName);

// Natural order: runs of digits compare by value, everything else as plain text.
int numericCompare(const QString &a, const QString &b);

} // namespace LanguageNames
