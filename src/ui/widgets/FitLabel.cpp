#include "ui/widgets/FitLabel.h"

#include "ui/widgets/UiStyle.h"

FitLabel::FitLabel(QWidget *parent, qreal pointSize) : QLabel(parent), m_pointSize(pointSize)
{
    setMinimumWidth(10);
}

void FitLabel::setText(const QString &text)
{
    QLabel::setText(text);
    fit();
}

void FitLabel::resizeEvent(QResizeEvent *event)
{
    QLabel::resizeEvent(event);
    fit();
}

void FitLabel::fit()
{
    QFont base = font();
    base.setPointSizeF(m_pointSize);
    setFont(UiStyle::fittedFont(base, text(), contentsRect().width() - 2));
}
