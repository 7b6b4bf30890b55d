#pragma once

#include <QString>

// A small pop-up with a title and a message set by whoever shows it.
class InfoPopupVC {
public:
    QString titleLabel;
    QString messageLabel;

    // Posts "NT_HIDE_INFO_POPUP".
    void clickClose();
};
