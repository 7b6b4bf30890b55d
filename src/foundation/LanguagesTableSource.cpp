#include "foundation/LanguagesTableSource.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/LanguageNames.h"
#include "foundation/LocalString.h"
#include "foundation/Log.h"

#include <algorithm>
#include <utility>

namespace {

const OsLog &tableLog()
{
    static const OsLog log("Table", "com.pelorin.vpn.mac.settings.localization");
    return log;
}

} // namespace

LanguagesTableSource::LanguagesTableSource()
{
    const QStringList supported = LocalString::supportedLanguageCodes();
    tableLog().info(QStringLiteral("App support %1 languages. Current App language: '%2' - '%3'.")
                        .arg(supported.size())
                        .arg(LocalString::appLanguageCode(), LocalString::appLanguageName()));

    QList<std::pair<QString, QString>> entries; // code, name
    for (const QString &code : supported) {
        const QString name = LocalString::languageNameForCode(code);
        entries.append({code, name.isEmpty() ? code : name});
    }
    std::stable_sort(entries.begin(), entries.end(), [](const auto &a, const auto &b) {
        return LanguageNames::numericCompare(a.second, b.second) < 0;
    });
    for (const auto &[code, name] : std::as_const(entries))
        m_tableData.insert(code, name);

    // Taken once, so rows and codes stay paired for the lifetime of the list.
    for (auto it = m_tableData.cbegin(); it != m_tableData.cend(); ++it) {
        m_codes.append(it.key());
        m_names.append(it.value());
    }
}

QString LanguagesTableSource::valueForRow(int row) const
{
    return row >= 0 && row < m_names.size() ? m_names.at(row) : QString();
}

QString LanguagesTableSource::codeForRow(int row) const
{
    return row >= 0 && row < m_codes.size() ? m_codes.at(row) : QString();
}

void LanguagesTableSource::selectRow(int row) const
{
    if (row < 0 || row >= m_codes.size())
        return;
    postLanguageSelectedNotificationWithLanguageName(m_names.at(row), m_codes.at(row));
}

void LanguagesTableSource::postLanguageSelectedNotificationWithLanguageName(const QString &languageName,
                                                                            const QString &languageCode)
{
    tableLog().info(QStringLiteral("Post NT_LANGUAGE_SELECTED with info: { languageName='%1', languageCode='%2' }")
                        .arg(languageName, languageCode));
    EventBus::defaultCenter().post(QLatin1String(Events::LANGUAGE_SELECTED), {{languageCode, languageName}});
}
