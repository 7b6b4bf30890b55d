#pragma once

#include <QAbstractButton>

// An on/off switch.
class ToggleSwitch : public QAbstractButton {
public:
    explicit ToggleSwitch(QWidget *parent = nullptr);
    QSize sizeHint() const override { return {40, 22}; }

protected:
    void paintEvent(QPaintEvent *event) override;
};
