#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

// Rows of the language list on the settings screen: one per supported code, showing the
// language's name. Built once at creation from LocalString.
//
// The data is a map from code to name; rows follow the map's own enumeration order (by code,
// not by the names' sort), and the code of a row is the map key at the same position. The map
// is an ordered one so that the list reads the same at every launch.
class LanguagesTableSource {
public:
    LanguagesTableSource();

    const QMap<QString, QString> &tableData() const { return m_tableData; }

    int numberOfRows() const { return static_cast<int>(m_names.size()); }
    // Name and code shown in `row`; empty outside the rows.
    QString valueForRow(int row) const;
    QString codeForRow(int row) const;

    // The user chose `row`: announces its language (nothing for a row outside the list).
    void selectRow(int row) const;

    // Posts LANGUAGE_SELECTED with the one-entry userInfo { code: name }.
    static void postLanguageSelectedNotificationWithLanguageName(const QString &languageName,
                                                                 const QString &languageCode);

private:
    QMap<QString, QString> m_tableData;
    QStringList m_codes;
    QStringList m_names;
};
