#include "foundation/LanguageNames.h"

#include <QHash>

#include <unicode/locid.h>
#include <unicode/unistr.h>

namespace LanguageNames {

namespace {

bool namesInEnglish(const QLocale &locale)
{
    return locale.language() == QLocale::English || locale.language() == QLocale::C ||
           locale.language() == QLocale::AnyLanguage;
}

// Qt names a language only in English or in itself; ICU's data names it in any locale.
QString displayName(const QString &code, const QLocale &locale)
{
    const icu::Locale display =
        namesInEnglish(locale) ? icu::Locale::getEnglish() : icu::Locale(locale.name().toLatin1().constData());
    icu::UnicodeString name;
    icu::Locale(code.toLatin1().constData()).getDisplayLanguage(display, name);
    return QString(reinterpret_cast<const QChar *>(name.getBuffer()), name.length());
}

} // namespace

QString localeNameForCode(const QString &code, const QLocale &locale)
{
    if (code.trimmed().isEmpty())
        return {};
    const QLocale named(code);
    const QLocale::Language language = named.language();
    if (language == QLocale::C || language == QLocale::AnyLanguage)
        return {};
    QString name = displayName(code, locale);
    // A code without data comes back unchanged.
    if (name.isEmpty() || name.compare(code, Qt::CaseInsensitive) == 0)
        return {};
    if (!namesInEnglish(locale) && language == locale.language())
        name[0] = name.at(0).toUpper();
    return name;
}

QString nativeNameForEnglishName(const QString &englishName)
{
    static const QHash<QString, QString> table{
        {QStringLiteral("German"), QStringLiteral("Deutsch")},
        {QStringLiteral("French"), QStringLiteral("Français")},
        {QStringLiteral("Swedish"), QStringLiteral("Svenska")},
        {QStringLiteral("Finnish"), QStringLiteral("Suomi")},
        {QStringLiteral("Spanish"), QStringLiteral("Español")},
        {QStringLiteral("Norwegian"), QStringLiteral("Norsk")},
        {QStringLiteral("Norwegian Bokmal"), QStringLiteral("Norsk")},
        {QStringLiteral("Norwegian Bokmål"), QStringLiteral("Norsk")},
        {QStringLiteral("Danish"), QStringLiteral("Dansk")},
        {QStringLiteral("Italian"), QStringLiteral("Italiano")},
        {QStringLiteral("Portuguese"), QStringLiteral("Português")},
    };
    return table.value(englishName);
}

int numericCompare(const QString &a, const QString &b)
{
    qsizetype i = 0;
    qsizetype j = 0;
    while (i < a.size() && j < b.size()) {
        if (a.at(i).isDigit() && b.at(j).isDigit()) {
            qsizetype endA = i;
            qsizetype endB = j;
            while (endA < a.size() && a.at(endA).isDigit())
                ++endA;
            while (endB < b.size() && b.at(endB).isDigit())
                ++endB;
            // Compare by value without overflow: strip leading zeros, then length, then digits.
            QStringView runA = QStringView(a).mid(i, endA - i);
            QStringView runB = QStringView(b).mid(j, endB - j);
            while (runA.size() > 1 && runA.front() == u'0')
                runA = runA.mid(1);
            while (runB.size() > 1 && runB.front() == u'0')
                runB = runB.mid(1);
            if (runA.size() != runB.size())
                return runA.size() < runB.size() ? -1 : 1;
            if (const int c = runA.compare(runB); c != 0)
                return c < 0 ? -1 : 1;
            i = endA;
            j = endB;
            continue;
        }
        if (a.at(i) != b.at(j))
            return a.at(i) < b.at(j) ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < a.size())
        return 1;
    return j < b.size() ? -1 : 0;
}

} // namespace LanguageNames
