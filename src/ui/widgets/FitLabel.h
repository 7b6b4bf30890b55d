#pragma once

#include <QLabel>

// A one-line label that shrinks its font until its text fits its width, so every language
// fits the same control.
class FitLabel : public QLabel {
public:
    explicit FitLabel(QWidget *parent = nullptr, qreal pointSize = 9.0);
    void setText(const QString &text);

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    void fit();
    qreal m_pointSize;
};
