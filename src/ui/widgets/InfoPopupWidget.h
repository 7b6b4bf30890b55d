#pragma once

#include "ui/InfoPopupVC.h"

#include <QFrame>

class QLabel;

// The small information pop-up: a title, a message and a close button. It hides itself on
// "NT_HIDE_INFO_POPUP", whoever posts it.
class InfoPopupWidget : public QFrame {
public:
    explicit InfoPopupWidget(InfoPopupVC &popup, QWidget *parent = nullptr);
    ~InfoPopupWidget() override;

    // Takes the texts from the pop-up's state.
    void render();

private:
    InfoPopupVC &m_popup;
    QLabel *m_title;
    QLabel *m_message;
};
