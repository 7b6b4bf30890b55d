#pragma once

#include <QList>
#include <QString>

#include <functional>

// One alert as the shell wants it shown. Null texts are left out; buttons are in order and
// the first one is the default.
struct AlertRequest {
    struct Button {
        QString title;
        long tag = 0;
    };
    QString message; // informative (smaller) text
    QString title;   // message (bold) text
    QList<Button> buttons;
};

// Shows alerts modally. The GUI implements it with a message box; tests answer by hand.
class AlertPresenter {
public:
    virtual ~AlertPresenter() = default;
    // Shows `alert` and calls `done` once with the tag of the pressed button. With no
    // buttons the presenter shows its own single default button and reports its tag
    // (kDefaultButtonTag), which matches no option of the shell.
    virtual void runModal(const AlertRequest &alert, std::function<void(long tag)> done) = 0;

    static constexpr long kDefaultButtonTag = 1000;
};
