#pragma once

#include "ui/ContextMenuView.h"

#include <QFrame>

class QPushButton;

// The context menu's entries (Quit only where there is no tray menu).
class ContextMenuWidget : public QFrame {
public:
    ContextMenuWidget(ContextMenuView &menu, QWidget *parent = nullptr);
    void retranslate();

private:
    ContextMenuView &m_menu;
    QList<QPushButton *> m_entries;
};
