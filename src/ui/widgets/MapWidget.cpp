#include "ui/widgets/MapWidget.h"

#include "ui/widgets/UiStyle.h"

#include <QLinearGradient>
#include <QPainter>

namespace {
constexpr qreal kCanvasWidth = 1010;
constexpr qreal kCanvasHeight = 666;
// Cosmetic only: the pace of the pulse and the sweep.
constexpr int kFrameMs = 40;
constexpr int kFrames = 75;
} // namespace

MapWidget::MapWidget(QWidget *parent) : QWidget(parent)
{
    m_timer.setInterval(kFrameMs);
    QObject::connect(&m_timer, &QTimer::timeout, this, [this] {
        m_phase = (m_phase + 1) % kFrames;
        update();
    });
}

QPointF MapWidget::anchor(MapMarker marker)
{
    switch (marker) {
    case MapMarker::US:
        return {206, 347};
    case MapMarker::Mexico:
        return {189, 394};
    case MapMarker::Brasile:
        return {322, 506};
    case MapMarker::Eu:
        return {504, 296};
    case MapMarker::Ukraine:
        return {562, 308};
    case MapMarker::Africa:
        return {534, 444};
    case MapMarker::Australia:
        return {849, 537};
    case MapMarker::India:
        return {707, 399};
    case MapMarker::EastAsia:
        return {767, 345};
    case MapMarker::Korea:
        return {834, 353};
    }
    return {};
}

void MapWidget::setMarker(std::optional<MapMarker> marker)
{
    m_marker = marker;
    syncTimer();
    update();
}

void MapWidget::setAnimating(bool animating)
{
    m_animating = animating;
    syncTimer();
    update();
}

void MapWidget::syncTimer()
{
    if (m_marker || m_animating)
        m_timer.start();
    else
        m_timer.stop();
}

QRectF MapWidget::mapRect() const
{
    const qreal scale = std::min(width() / kCanvasWidth, height() / kCanvasHeight);
    const QSizeF size(kCanvasWidth * scale, kCanvasHeight * scale);
    return {QPointF((width() - size.width()) / 2, (height() - size.height()) / 2), size};
}

void MapWidget::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF area = mapRect();
    const qreal dpr = devicePixelRatioF();
    if (m_cache.size() != (area.size() * dpr).toSize())
        m_cache = UiStyle::pixmap(QStringLiteral("connecting"), area.size().toSize(), dpr);
    painter.drawPixmap(area.topLeft(), m_cache);

    const qreal t = qreal(m_phase) / kFrames;
    if (m_animating) {
        painter.save();
        painter.setClipRect(area);
        const qreal x = area.left() + (area.width() + 80) * t;
        QLinearGradient sweep(x - 80, 0, x, 0);
        sweep.setColorAt(0, QColor(45, 212, 191, 0));
        sweep.setColorAt(1, QColor(45, 212, 191, 40));
        painter.fillRect(QRectF(x - 80, area.top(), 80, area.height()), sweep);
        painter.restore();
    }
    if (m_marker) {
        const qreal scale = area.width() / kCanvasWidth;
        const QPointF c = area.topLeft() + anchor(*m_marker) * scale;
        const qreal pulse = 10 + 14 * t;
        painter.setPen(QPen(QColor(45, 212, 191, int(200 * (1 - t))), 2));
        painter.setBrush(Qt::NoBrush);
        painter.drawEllipse(c, pulse, pulse);
        painter.drawPixmap(QRectF(c.x() - 14, c.y() - 14, 28, 28).toRect(),
                           UiStyle::pixmap(QStringLiteral("map_marker"), QSize(28, 28), dpr));
    }
}
