#pragma once

#include <QLocale>
#include <QString>
#include <QStringList>

#include <optional>

// Every user-visible text of the application, in the chosen interface language.
//
// Texts live in one table per language code (resources/translations/pelorin_<code>.ts, built
// into the library as :/translations/pelorin_<code>.qm). A text may hold "<app_name>", which
// comes out as "PelorinVPN". The chosen code is a setting of AppStorageManager; until the user
// picks one it is taken from the device when the application ships that language, else "en".
// All operations are safe from any thread.
class LocalString {
public:
    static constexpr auto kAppNamePlaceholder = "<app_name>";
    static constexpr auto kAppName = "PelorinVPN";
    static constexpr auto kFallbackLanguageCode = "en";

    // The text for `key` in the current language's table; a key the table lacks comes back
    // as it is. Either way every "<app_name>" is then replaced by the application's name.
    static QString forKey(const QString &key);
    // The same lookup in the table of `code` (does not touch the chosen language).
    static QString forKeyInLanguage(const QString &key, const QString &code);

    // The code in use: the stored one, else the device's when supported (stored then), else
    // "en" (stored too).
    static QString appLanguageCode();
    static void setAppLanguageCode(const QString &code);

    // The device's first preferred language without its region ("pt-BR" and the Linux form
    // "pt_BR" both give "pt"); "en" when there is none or the locale is C/POSIX. Computed once
    // per run.
    static QString deviceLanguageCode();

    // The shown name of the current code; "English" when no name can be had.
    static QString appLanguageName();
    // The shown name of `code` (native name where the table has one, else what the user's
    // locale gives, with a logged warning); empty when the locale knows no such language.
    static QString languageNameForCode(const QString &code);

    // The codes the application configuration lists as localisations.
    static QStringList supportedLanguageCodes();

    // Stand-ins for what the machine would tell (tests). Setting them also forgets the
    // device code computed so far and the loaded table.
    struct Overrides {
        std::optional<QStringList> preferredLanguages;
        std::optional<QStringList> supportedCodes;
        std::optional<QLocale> userLocale;
    };
    static void setOverridesForTesting(const Overrides &overrides);
};
