#pragma once

#include "foundation/LanguagesTableSource.h"

#include <QWidget>

class FitLabel;
class ImageButton;
class QLabel;
class QListWidget;
class QPushButton;
class SettingsVC;
class ToggleSwitch;

// Draws the settings screen from its state and forwards clicks to it.
class SettingsWidget : public QWidget {
public:
    SettingsWidget(SettingsVC &settings, QWidget *parent = nullptr);
    void render();

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    struct Row {
        FitLabel *caption;
        ToggleSwitch *toggle;
        QString key;
    };
    Row addRow(class QGridLayout *grid, const QString &key);
    void placeLanguageList();

    SettingsVC &m_vc;
    LanguagesTableSource m_languages;
    QLabel *m_title;
    QList<Row> m_rows;
    FitLabel *m_languageCaption;
    QPushButton *m_language;
    QListWidget *m_languageList;
    ImageButton *m_apply;
    QLabel *m_overlay;
    QPushButton *m_close = nullptr;
};
