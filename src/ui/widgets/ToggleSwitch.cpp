#include "ui/widgets/ToggleSwitch.h"

#include "ui/widgets/UiStyle.h"

#include <QPainter>

ToggleSwitch::ToggleSwitch(QWidget *parent) : QAbstractButton(parent)
{
    setCheckable(true);
    setCursor(Qt::PointingHandCursor);
    setFixedSize(sizeHint());
}

void ToggleSwitch::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF track = QRectF(rect()).adjusted(1, 2, -1, -2);
    painter.setPen(Qt::NoPen);
    painter.setBrush(isChecked() ? UiStyle::kAccent : UiStyle::kBorder);
    painter.drawRoundedRect(track, track.height() / 2, track.height() / 2);
    const qreal d = track.height() - 4;
    const qreal x = isChecked() ? track.right() - d - 2 : track.left() + 2;
    painter.setBrush(isChecked() ? UiStyle::kBackground : UiStyle::kMuted);
    painter.drawEllipse(QRectF(x, track.top() + 2, d, d));
    if (hasFocus()) {
        painter.setPen(QPen(UiStyle::kFocus, UiStyle::kFocusWidth));
        painter.setBrush(Qt::NoBrush);
        const QRectF ring = QRectF(rect()).adjusted(1, 1, -1, -1);
        painter.drawRoundedRect(ring, ring.height() / 2, ring.height() / 2);
    }
}
