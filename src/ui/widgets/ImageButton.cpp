#include "ui/widgets/ImageButton.h"

#include "ui/widgets/UiStyle.h"

#include <QKeyEvent>
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

void ImageButton::keyPressEvent(QKeyEvent *event)
{
    if ((event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) && isEnabled()) {
        animateClick();
        return;
    }
    QAbstractButton::keyPressEvent(event);
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
    if (hasFocus()) {
        painter.setOpacity(1);
        painter.setPen(QPen(UiStyle::kFocus, UiStyle::kFocusWidth));
        painter.setBrush(Qt::NoBrush);
        const QRectF ring = QRectF(rect()).adjusted(1, 1, -1, -1);
        painter.drawRoundedRect(ring, ring.height() / 2, ring.height() / 2);
    }
}
