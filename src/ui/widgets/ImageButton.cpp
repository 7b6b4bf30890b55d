#include "ui/widgets/ImageButton.h"

#include "ui/widgets/UiStyle.h"

#include <QPainter>

ImageButton::ImageButton(QWidget *parent) : QAbstractButton(parent)
{
    setCursor(Qt::PointingHandCursor);
    setAttribute(Qt::WA_Hover);
}

void ImageButton::setImage(const QString &name)
{
    m_image = name;
    update();
}

void ImageButton::setHoverImage(const QString &name)
{
    m_hoverImage = name;
    update();
}

void ImageButton::enterEvent(QEnterEvent *event)
{
    m_hovered = true;
    update();
    QAbstractButton::enterEvent(event);
}

void ImageButton::leaveEvent(QEvent *event)
{
    m_hovered = false;
    update();
    QAbstractButton::leaveEvent(event);
}

void ImageButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (!isEnabled())
        painter.setOpacity(0.45);
    const QString name = m_hovered && !m_hoverImage.isEmpty() && isEnabled() ? m_hoverImage : m_image;
    painter.drawPixmap(rect(), UiStyle::pixmap(name, size(), devicePixelRatioF()));
    QFont f = font();
    f.setBold(true);
    f.setPointSizeF(11);
    painter.setFont(UiStyle::fittedFont(f, text(), width() - 28));
    painter.setPen(QColor(0x0f, 0x1b, 0x2d));
    painter.drawText(rect(), Qt::AlignCenter, text());
}
